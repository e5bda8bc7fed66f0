# orvane_soname(VAR PACKAGE LIBRARIES): the soname of PACKAGE's shared library
# (the first of LIBRARIES, as pkg-config found it), for a library the program
# opens at run time rather than links.
function(orvane_soname var package libraries)
  list(GET libraries 0 library)
  execute_process(COMMAND ${CMAKE_OBJDUMP} -p ${library}
                  OUTPUT_VARIABLE dynamic_section RESULT_VARIABLE status ERROR_QUIET)
  if(NOT status EQUAL 0 OR NOT dynamic_section MATCHES "SONAME +([^\n ]+)")
    message(FATAL_ERROR "cannot read the soname of ${package} from ${library}")
  endif()
  set(${var} ${CMAKE_MATCH_1} PARENT_SCOPE)
endfunction()
