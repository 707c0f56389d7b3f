# Compares the ABI of libvobrel.so with the baseline kept in abi/, or, with
# -DUPDATE=ON, writes that baseline. Only the public headers' types count.
#   -DLIB=<libvobrel.so> -DBASELINE=<file.abi> -DHEADERS=<include/vobrel> [-DSUPPR=<file>]
foreach(tool abidw abidiff)
  find_program(${tool}_exe ${tool})
  if(NOT ${tool}_exe)
    message(FATAL_ERROR "${tool} is missing (Debian package abigail-tools)")
  endif()
endforeach()
set(suppr)
if(SUPPR)
  set(suppr --suppressions ${SUPPR})
endif()

if(UPDATE)
  # No paths of this machine in the file: it is compared on others.
  execute_process(COMMAND ${abidw_exe} --headers-dir ${HEADERS} --drop-private-types ${suppr}
                          --no-corpus-path --no-comp-dir-path --short-locs --type-id-style hash
                          --out-file ${BASELINE} ${LIB}
                  RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "abidw failed on ${LIB} (status ${rc})")
  endif()
  message(STATUS "wrote ${BASELINE}")
  return()
endif()

if(NOT EXISTS ${BASELINE})
  message(FATAL_ERROR "no ABI baseline ${BASELINE}: run scripts/update-abi")
endif()
execute_process(COMMAND ${abidiff_exe} --headers-dir2 ${HEADERS} --drop-private-types ${suppr}
                        --fail-no-debug-info --no-show-locs ${BASELINE} ${LIB}
                OUTPUT_VARIABLE out ERROR_VARIABLE out RESULT_VARIABLE rc)
# abidiff's status is a bit set: 1 tool error, 2 usage error, 4 ABI changed,
# 8 incompatible change. Bit 8 is set only for removed interfaces: a changed
# record layout or enumerator value comes as 4, like an addition. So with 4
# the summary decides: anything removed or changed fails, additions pass.
if(NOT rc MATCHES "^[0-9]+$")
  message(FATAL_ERROR "abidiff did not run: ${rc}\n${out}")
endif()
math(EXPR failure "${rc} & 11")
if(NOT failure AND rc EQUAL 4)
  string(REGEX MATCHALL "summary: [^\n]*" summaries "${out}")
  if(summaries MATCHES "[1-9][0-9]* (Removed|Changed)")
    set(failure 1)
  endif()
endif()
if(failure)
  message(FATAL_ERROR "ABI of ${LIB} is incompatible with ${BASELINE} (abidiff status ${rc}):\n${out}\n"
                      "An incompatible change needs a new SONAME; see README, 'The ABI baseline'.")
endif()
if(rc EQUAL 4)
  message(STATUS "compatible ABI addition against ${BASELINE} (record it with scripts/update-abi):\n${out}")
else()
  message(STATUS "ABI of ${LIB} matches ${BASELINE}")
endif()
