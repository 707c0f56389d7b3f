# Renders each page with man(1) at a fixed width; any warning fails.
find_program(MAN man)
if(NOT MAN)
  message(FATAL_ERROR "man is missing (Debian packages man-db, groff-base)")
endif()
set(ENV{MANWIDTH} 80)
foreach(page ${PAGES})
  execute_process(COMMAND ${MAN} --warnings -l ${page}
                  OUTPUT_QUIET ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0 OR NOT err STREQUAL "")
    message(FATAL_ERROR "${page} does not render cleanly (status ${rc}):\n${err}")
  endif()
endforeach()
