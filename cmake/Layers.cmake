# zev_layer(NAME [NO_ALONE] SOURCES... [DEPENDS LAYER...])
#   One layer of the monitor as a static library (position-independent,
#   hidden symbols) that links the layers it depends on, and nothing above.
#   Its objects are NAME_objects. Beside it, NAME_alone: the layer linked by
#   itself into a shared library with -Wl,--no-undefined, with only what it
#   depends on. A call into a layer above (a header included against the
#   direction) leaves a symbol undefined there, and the build fails.
#   NO_ALONE: a layer that cannot be linked alone because the layer above
#   defines members its class declares (the plug-in core: the monitor's
#   vtable names the overlay's drawing slots). The layer above checks it:
#   its own alone link takes this one with it.
function(zev_layer name)
  cmake_parse_arguments(ARG "NO_ALONE" "" "DEPENDS" ${ARGN})
  add_library(${name}_objects OBJECT ${ARG_UNPARSED_ARGUMENTS})
  target_include_directories(${name}_objects PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name}_objects PUBLIC ${ARG_DEPENDS})
  set_target_properties(${name}_objects PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  zev_warnings(${name}_objects)

  add_library(${name} STATIC $<TARGET_OBJECTS:${name}_objects>)
  target_include_directories(${name} PUBLIC
    $<TARGET_PROPERTY:${name}_objects,INTERFACE_INCLUDE_DIRECTORIES>)
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS})

  # The cross build of the plug-in alone links against the board's own
  # framework; the check runs in the full builds.
  if(ARG_NO_ALONE)
    set_property(TARGET ${name} PROPERTY ZEV_NO_ALONE ON)
  elseif(NOT ZEV_PLUGIN_ONLY)
    add_library(${name}_alone SHARED $<TARGET_OBJECTS:${name}_objects>)
    # A layer below that has no check of its own comes whole, not as an
    # archive the linker takes pieces of.
    foreach(dep ${ARG_DEPENDS})
      if(TARGET ${dep})
        get_property(no_alone TARGET ${dep} PROPERTY ZEV_NO_ALONE)
        if(no_alone)
          target_sources(${name}_alone PRIVATE $<TARGET_OBJECTS:${dep}_objects>)
        endif()
      endif()
    endforeach()
    target_link_libraries(${name}_alone PRIVATE ${ARG_DEPENDS})
    target_link_options(${name}_alone PRIVATE -Wl,--no-undefined)
    set_target_properties(${name}_alone PROPERTIES
      LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/layers)
  endif()
endfunction()

# zev_check_layers(): the direction of every #include between the layers
# (tools/check-layers.py), checked whenever a source changes. An include
# against it (a back-end including the core, the core including a back-end's
# internals) fails the build with the file and line; the plug-in and gpumon
# are not built before the check passes.
function(zev_check_layers)
  if(NOT Python3_Interpreter_FOUND)
    if(ZEV_PLUGIN_ONLY)
      return()
    endif()
    message(FATAL_ERROR "python3 is needed to check the layers (tools/install-deps.sh)")
  endif()
  set(folders io record gpudb sysinfo backends plugin overlay apps bench)
  set(patterns "")
  foreach(folder ${folders})
    list(APPEND patterns ${PROJECT_SOURCE_DIR}/${folder}/*.h ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  endforeach()
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${patterns})
  set(stamp ${CMAKE_BINARY_DIR}/layers/includes.checked)
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/layers
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tools/check-layers.py
            ${PROJECT_SOURCE_DIR} ${stamp}
    DEPENDS ${PROJECT_SOURCE_DIR}/tools/check-layers.py ${sources}
    COMMENT "Checking the direction of includes between the layers"
    VERBATIM)
  add_custom_target(check_layers ALL DEPENDS ${stamp})
endfunction()
