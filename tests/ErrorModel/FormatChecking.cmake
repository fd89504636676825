# The compiler checks every printf-style entry of the library against its format, with the rules
# of the system C runtime's printf: FormatCalls.cpp compiles without a warning where the formats
# are right (%I64X and %lu among them), and fails under -Werror=format for each wrong call.
include(${CMAKE_CURRENT_LIST_DIR}/../support/Run.cmake)

set(compile ${COMPILER} -std=c++17 -fsyntax-only -Wall -Wextra -Wformat-signedness -Werror=format
  -I${SOURCE_DIR}/include -I${SOURCE_DIR}/jot/include -I${SOURCE_DIR}/plinth/include -I${SOURCE_DIR}/source
  ${CMAKE_CURRENT_LIST_DIR}/FormatCalls.cpp)
run(${compile} -DCALL=0)
if(NOT output STREQUAL "")
  message(FATAL_ERROR "the right formats drew:\n${output}")
endif()
foreach(call 1 2 3)
  execute_process(COMMAND ${compile} -DCALL=${call} RESULT_VARIABLE result ERROR_VARIABLE output)
  if(result EQUAL 0 OR NOT output MATCHES "FormatCalls.cpp:[0-9]+:[0-9]+: error: format")
    message(FATAL_ERROR "wrong call ${call} was not refused (${result}):\n${output}")
  endif()
endforeach()
