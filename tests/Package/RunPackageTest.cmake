# Installs, builds the consumer against the installed package, runs it.
include(${CMAKE_CURRENT_LIST_DIR}/../support/Run.cmake)

file(REMOVE_RECURSE ${PREFIX} ${CONSUMER_BUILD})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
foreach(file include/LibSkerry/LibSkerry include/jot.h bin/LibSkerry.dll bin/JOT.dll bin/libstdc++-6.dll
        bin/libgcc_s_dw2-1.dll bin/libwinpthread-1.dll lib/LibSkerry.dll.a lib/JOT.dll.a
        include/Plinth/Plinth.h bin/Plinth.dll lib/Plinth.dll.a
        lib/cmake/LibSkerry/LibSkerryConfig.cmake)
  if(NOT EXISTS ${PREFIX}/${file})
    message(FATAL_ERROR "the installed package lacks ${file}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE} -B ${CONSUMER_BUILD} -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN}
  -DCMAKE_PREFIX_PATH=${PREFIX})
run(${CMAKE_COMMAND} --build ${CONSUMER_BUILD})
run(wine ${CONSUMER_BUILD}/Consumer.exe)
if(NOT output MATCHES "caught Win32 2 from Consumer::Open")
  message(FATAL_ERROR "the consumer printed: ${output}")
endif()
message(STATUS "${output}")
