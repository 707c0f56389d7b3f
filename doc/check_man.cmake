# Renders each page with man(1) at a fixed width; any warning fails. A page
# with a table must ask for tbl in its first line, or the table comes out as
# raw requests without a warning.
find_program(MAN man)
if(NOT MAN)
  message(FATAL_ERROR "man is missing (Debian packages man-db, groff-base)")
endif()
set(ENV{MANWIDTH} 80)
foreach(page ${PAGES})
  file(READ ${page} text)
  if(text MATCHES "\n\\.TS\n" AND NOT text MATCHES "^'\\\\\" t\n")
    message(FATAL_ERROR "${page} has a table but its first line is not '\\\" t")
  endif()
  execute_process(COMMAND ${MAN} --warnings -l ${page}
                  OUTPUT_QUIET ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0 OR NOT err STREQUAL "")
    message(FATAL_ERROR "${page} does not render cleanly (status ${rc}):\n${err}")
  endif()
endforeach()
