# Configures Plinth alone with the host compiler, builds it and runs its tests.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

# The cross build's environment must not choose the compilers of the native one.
unset(ENV{CC})
unset(ENV{CXX})
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${BINARY})
run(${CMAKE_COMMAND} --build ${BINARY} --target PlinthTests)
run(${CMAKE_CTEST_COMMAND} --test-dir ${BINARY} --output-on-failure)
message(STATUS "${output}")
