# Warnings are errors on the project's own code.
function(zev_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
