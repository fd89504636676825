# Cross-build for 32-bit Windows with Debian's mingw-w64 posix-thread compilers; programs run
# under Wine, which CTest uses as the emulator for every test executable.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER i686-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/i686-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

find_program(SKERRY_WINE wine REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${SKERRY_WINE})

# Where the shared C++ runtime lives: the library and every program that uses it share one
# libstdc++, so that an exception caught in a program can be re-raised inside the library.
set(SKERRY_RUNTIME_DLLS
  /usr/lib/gcc/i686-w64-mingw32/12-posix/libstdc++-6.dll
  /usr/lib/gcc/i686-w64-mingw32/12-posix/libgcc_s_dw2-1.dll
  /usr/i686-w64-mingw32/lib/libwinpthread-1.dll)
