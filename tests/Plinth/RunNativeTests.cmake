# Configures Plinth alone with the host compiler, builds it and runs its tests.
include(${CMAKE_CURRENT_LIST_DIR}/../support/Run.cmake)

# The cross build's environment must not choose the compilers of the native one.
unset(ENV{CC})
unset(ENV{CXX})
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${BINARY})
run(${CMAKE_COMMAND} --build ${BINARY} --target PlinthTests PlinthAllocationTests)
run(${CMAKE_CTEST_COMMAND} --test-dir ${BINARY} --output-on-failure)
message(STATUS "${output}")
