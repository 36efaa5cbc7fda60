# ZEV_SANITIZE=address  : AddressSanitizer + UndefinedBehaviorSanitizer
# ZEV_SANITIZE=thread   : ThreadSanitizer
set(ZEV_SANITIZE "" CACHE STRING "Sanitizer build: address or thread")

if(ZEV_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(ZEV_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT ZEV_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZEV_SANITIZE must be address, thread or empty")
endif()
