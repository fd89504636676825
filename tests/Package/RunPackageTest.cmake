# Makes the release archive, unpacks it into an empty directory and builds against what it holds:
# the examples with CMake, given only CMAKE_PREFIX_PATH and the archive's toolchain file, and one
# example through pkg-config, linked with -static-libstdc++ and run, to show that the package
# keeps a program on the shared C++ runtime all the same.
include(${CMAKE_CURRENT_LIST_DIR}/../support/Run.cmake)

set(name LibSkerry-${VERSION}-i686-w64-mingw32)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/unpacked)
run(${CMAKE_COMMAND} --build ${BUILD_DIR} --target ReleaseArchive)
set(archive ${BUILD_DIR}/release/${name}.zip)
run(${CMAKE_COMMAND} -E chdir ${WORK}/unpacked ${CMAKE_COMMAND} -E tar xf ${archive})
file(GLOB unpacked RELATIVE ${WORK}/unpacked ${WORK}/unpacked/*)
if(NOT unpacked STREQUAL name)
  message(FATAL_ERROR "the archive holds ${unpacked}, not one directory ${name}")
endif()
set(prefix ${WORK}/unpacked/${name})

# What the archive holds: the whole of bin, and the rest by samples.
file(GLOB bin RELATIVE ${prefix}/bin ${prefix}/bin/*)
set(expected_bin JOT.dll LibSkerry.dll Plinth.dll libgcc_s_dw2-1.dll libstdc++-6.dll libwinpthread-1.dll plist-tool.exe regplist.exe
  skerry-deps.exe skerry-glob.exe)
if(NOT bin STREQUAL expected_bin)
  message(FATAL_ERROR "the archive's bin holds ${bin}")
endif()
foreach(file include/LibSkerry/LibSkerry include/jot.h include/Plinth/Plinth.h lib/LibSkerry.dll.a lib/JOT.dll.a
        lib/Plinth.dll.a lib/cmake/LibSkerry/LibSkerryConfig.cmake lib/cmake/LibSkerry/LibSkerryConfigVersion.cmake
        lib/pkgconfig/LibSkerry.pc share/LibSkerry/toolchain-i686-mingw.cmake share/doc/LibSkerry/LICENSE
        share/doc/LibSkerry/CHANGELOG.md share/doc/LibSkerry/runtime/libstdc++-and-libgcc.copyright)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "the archive lacks ${file}")
  endif()
endforeach()

# The examples, as an outside project: no variable of this build and none of the environment's
# CMAKE_PREFIX_PATH reach it.
unset(ENV{CMAKE_PREFIX_PATH})
run(${CMAKE_COMMAND} -S ${EXAMPLES} -B ${WORK}/examples -DCMAKE_TOOLCHAIN_FILE=${prefix}/share/LibSkerry/toolchain-i686-mingw.cmake
  -DCMAKE_PREFIX_PATH=${prefix})
file(STRINGS ${WORK}/examples/CMakeCache.txt found REGEX "^LibSkerry_DIR:")
if(NOT found STREQUAL "LibSkerry_DIR:PATH=${prefix}/lib/cmake/LibSkerry")
  message(FATAL_ERROR "the examples found ${found}")
endif()
run(${CMAKE_COMMAND} --build ${WORK}/examples)
# Beside the programs: the DLLs they need, and nothing else of the package's bin.
file(GLOB beside RELATIVE ${WORK}/examples ${WORK}/examples/*.dll ${WORK}/examples/plist-tool.exe
  ${WORK}/examples/regplist.exe)
list(REMOVE_ITEM expected_bin plist-tool.exe regplist.exe skerry-deps.exe skerry-glob.exe)
if(NOT beside STREQUAL expected_bin)
  message(FATAL_ERROR "copied beside the examples: ${beside}")
endif()

# Without CMake: the flags of the pkg-config file, the runtime DLLs from its bindir.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run(pkg-config --cflags --libs LibSkerry)
separate_arguments(flags UNIX_COMMAND "${output}")
run(pkg-config --variable=traceable_cflags LibSkerry)
separate_arguments(traceable UNIX_COMMAND "${output}")
run(pkg-config --variable=bindir LibSkerry)
string(STRIP "${output}" bindir)
file(MAKE_DIRECTORY ${WORK}/pkg-config)
run(i686-w64-mingw32-g++-posix -O2 ${traceable} ${EXAMPLES}/Failures.cpp -o ${WORK}/pkg-config/Failures.exe
  -fmacro-prefix-map=${EXAMPLES}/= ${flags} -static-libstdc++)
file(GLOB dlls ${bindir}/*.dll)
file(COPY ${dlls} DESTINATION ${WORK}/pkg-config)
run(i686-w64-mingw32-objdump -p ${WORK}/pkg-config/Failures.exe)
if(NOT output MATCHES "DLL Name: libstdc\\+\\+-6\\.dll")
  message(FATAL_ERROR "linked with -static-libstdc++, the program does not share the runtime DLL")
endif()
run(python3 ${CMAKE_CURRENT_LIST_DIR}/run-example ${WORK}/pkg-config/Failures.exe ${EXPECTED}/Failures.txt)
