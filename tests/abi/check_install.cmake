# Installs the build into a scratch prefix, then builds and runs the C11 client
# against the installed headers and libraries, found through pkg-config.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed")
endif()
file(GLOB_RECURSE pcdir LIST_DIRECTORIES false ${PREFIX}/*/vobrel.pc)
get_filename_component(pcdir "${pcdir}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
execute_process(COMMAND pkg-config --cflags --libs vobrel OUTPUT_VARIABLE flags RESULT_VARIABLE rc
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know vobrel")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(cflags UNIX_COMMAND "${CFLAGS}")
string(REGEX REPLACE "-L([^ ;]+)" "\\1" libdir "${flags}")
list(FILTER libdir INCLUDE REGEX "^/")
execute_process(COMMAND ${CC} ${cflags} -std=c11 -pedantic -Wall -Wextra -Werror -D_POSIX_C_SOURCE=200809L
                        ${SRC} ${flags} -Wl,-rpath,${libdir} -o ${PREFIX}/c_client
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the client does not build against the installed library")
endif()
execute_process(COMMAND ${PREFIX}/c_client RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the installed client failed")
endif()
