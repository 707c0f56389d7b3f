# The library proper. Every module keeps its sources under <area>/src; a new
# source file joins the library by being there.
file(GLOB VOBREL_SOURCES CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/vobrel_xos/src/*.cpp
  ${PROJECT_SOURCE_DIR}/buginf/src/*.cpp
  ${PROJECT_SOURCE_DIR}/errmsg/src/*.cpp
  ${PROJECT_SOURCE_DIR}/common/src/*.cpp
  ${PROJECT_SOURCE_DIR}/util/src/*.cpp
  ${PROJECT_SOURCE_DIR}/runtime/src/*.cpp)

add_library(vobrel_objects OBJECT ${VOBREL_SOURCES})
target_include_directories(vobrel_objects PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  PRIVATE ${PROJECT_SOURCE_DIR})
# A C ABI with no C++ runtime behind it: no exceptions, no RTTI, no guarded
# statics, and only explicitly exported names visible.
target_compile_options(vobrel_objects PRIVATE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
  -fvisibility=hidden -fvisibility-inlines-hidden -fno-semantic-interposition)
# The version text shown in the log file's banners comes from project(VERSION).
target_compile_definitions(vobrel_objects PRIVATE VOBREL_BUILDING _GNU_SOURCE
  VOBREL_VERSION_TEXT="${PROJECT_VERSION} Build 0")
vobrel_strict(vobrel_objects)

find_package(Threads REQUIRED)

add_library(vobrel SHARED $<TARGET_OBJECTS:vobrel_objects>)
add_library(vobrel::vobrel ALIAS vobrel)
# Linked by the C driver: libstdc++ is never pulled in, and anything that
# would need it fails to link here rather than on the target.
set_target_properties(vobrel PROPERTIES
  LINKER_LANGUAGE C
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(vobrel PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(vobrel PRIVATE Threads::Threads)
# The platform functions stay undefined here and resolve at load time. The
# library's calls to its own exported functions (across its source files)
# bind inside it, not through the PLT.
target_link_options(vobrel PRIVATE -Wl,--as-needed -Wl,-Bsymbolic-functions)

add_library(vobrel_static STATIC $<TARGET_OBJECTS:vobrel_objects>)
add_library(vobrel::vobrel_static ALIAS vobrel_static)
set_target_properties(vobrel_static PROPERTIES OUTPUT_NAME vobrel LINKER_LANGUAGE C)
target_include_directories(vobrel_static PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(vobrel_static PUBLIC Threads::Threads)
