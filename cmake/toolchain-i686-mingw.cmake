# Cross-build for 32-bit Windows with Debian's mingw-w64 compilers: i686-w64-mingw32, posix
# threads (std::thread and std::mutex need them). LibSkerry is built with it, and a program that
# uses LibSkerry is built with it too: the two share one C++ runtime, the DLLs of this compiler.
# The package installs this file as share/LibSkerry/toolchain-i686-mingw.cmake:
#
#     cmake -S app -B build -DCMAKE_TOOLCHAIN_FILE=<prefix>/share/LibSkerry/toolchain-i686-mingw.cmake \
#           -DCMAKE_PREFIX_PATH=<prefix>
#
# Programs run under Wine, which CTest then uses as the emulator of every test executable.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER i686-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)

# Libraries, headers and packages come from the mingw-w64 sysroot and from the prefixes that the
# project names in CMAKE_PREFIX_PATH, never from the host's own directories, whose libraries and
# packages are Linux ones. A search root is searched as it is; every other search path is taken
# inside each root. An installed copy of this file also makes its own package's prefix a root,
# so that LibSkerry is found with no CMAKE_PREFIX_PATH at all.
set(CMAKE_FIND_ROOT_PATH /usr/i686-w64-mingw32 ${CMAKE_PREFIX_PATH})
if(DEFINED ENV{CMAKE_PREFIX_PATH})
  string(REPLACE ":" ";" skerry_environment_prefixes "$ENV{CMAKE_PREFIX_PATH}")
  list(APPEND CMAKE_FIND_ROOT_PATH ${skerry_environment_prefixes})
endif()
get_filename_component(skerry_package_prefix "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
if(EXISTS "${skerry_package_prefix}/lib/cmake/LibSkerry/LibSkerryConfig.cmake")
  list(APPEND CMAKE_FIND_ROOT_PATH ${skerry_package_prefix})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(SKERRY_WINE wine)
if(SKERRY_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${SKERRY_WINE})
endif()
