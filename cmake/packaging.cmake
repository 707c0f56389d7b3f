# Debian packages (cpack -G DEB), one per install component:
#   libvobrel1     runtime: libvobrel.so.1 and the default platform library
#   libvobrel-dev  headers, static libraries, .so links, pkg-config, CMake files
#   vobrel-tools   vobrel-log and its manual page
# scripts/check-packages builds them from a build configured with
# CMAKE_INSTALL_PREFIX=/usr (so that the library directory is multiarch).
set(VOBREL_DEB_MAINTAINER "vobrel maintainers <maintainers@vobrel.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(deb_arch i386)
else()
  set(deb_arch amd64)
endif()

# Every package carries its copyright file and a changelog, as Debian wants.
set(deb_docs ${CMAKE_BINARY_DIR}/deb-doc)
string(TIMESTAMP deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(comp_pkg runtime:libvobrel1 dev:libvobrel-dev tools:vobrel-tools)
  string(REPLACE ":" ";" comp_pkg ${comp_pkg})
  list(GET comp_pkg 0 comp)
  list(GET comp_pkg 1 pkg)
  set(PKG ${pkg})
  set(DATE ${deb_date})
  set(MAINTAINER ${VOBREL_DEB_MAINTAINER})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${deb_docs}/${pkg}/changelog @ONLY)
  execute_process(COMMAND gzip -n -9 -f ${deb_docs}/${pkg}/changelog)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${deb_docs}/${pkg}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${pkg} COMPONENT ${comp})
  if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/${pkg}.lintian-overrides)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/${pkg}.lintian-overrides
            DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${pkg} COMPONENT ${comp})
  endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vobrel)
set(CPACK_PACKAGE_VENDOR vobrel)
set(CPACK_PACKAGE_CONTACT ${VOBREL_DEB_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${deb_arch})
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://vobrel.invalid/")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvobrel1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# shlibs for both libraries, so that programs built against them depend on this
# version or later. The ldconfig trigger replaces the maintainer scripts that
# CPack would otherwise write to run ldconfig.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/libvobrel1/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "common runtime services for embedded Linux processes
vobrel gives the processes of an embedded Linux system checked intrusive
queues, data queues, named lists, an ID manager, a string database, watched
booleans, queues and read-write locks, a thin OS layer, diagnostics with a
size-limited wrapping log file, and text and file helpers, behind a plain C
interface.

This package holds the shared library and its default platform layer.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvobrel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libvobrel1 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "common runtime services for embedded Linux processes - development files
vobrel gives the processes of an embedded Linux system queues, lists, an ID
manager, a string database, watched primitives, diagnostics and a wrapping log
file behind a plain C interface.

This package holds the C headers, the static libraries, the pkg-config files,
the CMake package and the vobrel(7) manual page.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vobrel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "command-line tools for vobrel log files
vobrel-log prints the wrapping log file of a process that uses the vobrel
library in order, follows it while the process writes it, filters it, prints
it as JSON and checks its header.")

# Run-time dependencies come from dpkg-shlibdeps. It looks libraries up in the
# host's package database, which knows only the host architecture's libraries:
# a 32-bit build on a 64-bit host names its (glibc, libstdc++) dependencies
# itself, at the versions Debian 12 ships.
if(deb_arch STREQUAL "amd64" OR NOT CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34)")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")
endif()

include(CPack)
