# Copies a machine folder (SOURCE) to DEST and installs the fakes its "fakes"
# file lists, from FAKES (build/fakes); then touches STAMP.
#
# "fakes", one entry a line ('#' starts a comment line):
#   lib/libnvidia-ml.so.1   lib/libzev-fake-nvml.so     a copy of a fake
#   lib/libnvidia-ml.so  -> libnvidia-ml.so.1           a symbolic link
file(REMOVE_RECURSE ${DEST})
get_filename_component(parent ${DEST} DIRECTORY)
file(MAKE_DIRECTORY ${parent})
# cp -a keeps the symbolic links of the sys/ trees as they are.
execute_process(COMMAND cp -a ${SOURCE} ${DEST} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cannot copy ${SOURCE} to ${DEST}")
endif()

file(STRINGS ${SOURCE}/fakes lines)
foreach(line ${lines})
  string(STRIP "${line}" line)
  if(line STREQUAL "" OR line MATCHES "^#")
    continue()
  endif()
  if(line MATCHES "^([^ \t]+)[ \t]+->[ \t]+([^ \t]+)$")
    set(path ${DEST}/${CMAKE_MATCH_1})
    get_filename_component(dir ${path} DIRECTORY)
    file(MAKE_DIRECTORY ${dir})
    file(CREATE_LINK ${CMAKE_MATCH_2} ${path} SYMBOLIC)
  elseif(line MATCHES "^([^ \t]+)[ \t]+([^ \t]+)$")
    set(path ${DEST}/${CMAKE_MATCH_1})
    set(fake ${FAKES}/${CMAKE_MATCH_2})
    if(NOT EXISTS ${fake})
      message(FATAL_ERROR "${SOURCE}/fakes: no fake ${fake}")
    endif()
    get_filename_component(dir ${path} DIRECTORY)
    file(MAKE_DIRECTORY ${dir})
    execute_process(COMMAND cp ${fake} ${path} RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "cannot install ${fake} as ${path}")
    endif()
  else()
    message(FATAL_ERROR "${SOURCE}/fakes: cannot read \"${line}\"")
  endif()
endforeach()
file(TOUCH ${STAMP})
