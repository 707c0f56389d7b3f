# 32-bit x86, the real target, built on an x86-64 host with the multilib compilers.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# pkg-config looks at the target's .pc files only, so a library installed for
# the host alone (glib, say) is reported missing rather than linked wrongly.
# Set on every configure, re-runs included.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")

# Some x86-64 kernels are built without 32-bit program support. There the
# tests run under user-mode emulation (qemu-i386, Debian package qemu-user).
if(NOT DEFINED VOBREL_I386_RUNS_NATIVELY)
  set(_probe "${CMAKE_BINARY_DIR}/vobrel-i386-probe")
  execute_process(
    COMMAND sh -c "printf 'int main(void){return 0;}' | gcc -m32 -x c - -o '${_probe}' && '${_probe}'"
    RESULT_VARIABLE _probe_rc OUTPUT_QUIET ERROR_QUIET)
  if(_probe_rc EQUAL 0)
    set(VOBREL_I386_RUNS_NATIVELY ON CACHE BOOL "32-bit programs run on this host")
  else()
    set(VOBREL_I386_RUNS_NATIVELY OFF CACHE BOOL "32-bit programs run on this host")
  endif()
endif()
if(NOT VOBREL_I386_RUNS_NATIVELY)
  find_program(VOBREL_QEMU_I386 qemu-i386 REQUIRED)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${VOBREL_QEMU_I386}")
endif()
