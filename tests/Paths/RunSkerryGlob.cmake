# skerry-glob.exe under Wine, in a scratch directory of its own: the names of a pattern, hidden
# ones and directories included; a command line split by the platform's rules from standard
# input; one line for each failure, and the exit status.
file(REMOVE_RECURSE ${SCRATCH})
file(MAKE_DIRECTORY ${SCRATCH}/Sub.txt)
file(WRITE ${SCRATCH}/a.txt "")
file(WRITE ${SCRATCH}/.b.txt "")
file(WRITE ${SCRATCH}/Sub.txt/c.txt "")
file(WRITE ${SCRATCH}/other "")
# glob(status stderr-regex args...): runs it in SCRATCH, with INPUT as standard input when it is
# set; leaves its standard output, without carriage returns, in `output`.
function(glob status error)
  set(input)
  if(INPUT)
    set(input INPUT_FILE ${INPUT})
  endif()
  execute_process(COMMAND wine ${TOOL} ${ARGN} WORKING_DIRECTORY ${SCRATCH} ${input} RESULT_VARIABLE result
    OUTPUT_VARIABLE output ERROR_VARIABLE stderr)
  string(REPLACE "\r" "" stderr "${stderr}")
  if(NOT result EQUAL status OR NOT stderr MATCHES "^${error}$")
    message(FATAL_ERROR "skerry-glob ${ARGN}: status ${result}, standard error:\n${stderr}")
  endif()
  string(REPLACE "\r" "" output "${output}")
  set(output "${output}" PARENT_SCOPE)
endfunction()
function(expect what expected)
  if(NOT what STREQUAL expected)
    message(FATAL_ERROR "expected:\n${expected}\ngot:\n${what}")
  endif()
endfunction()

glob(0 "" "*.txt" "Sub.txt\\*")
# In the platform's order, which is no order: sorted, with slashes for backslashes (which would
# escape the list's separators).
string(REPLACE "\\" "/" lines "${output}")
string(REGEX REPLACE "\n$" "" lines "${lines}")
string(REPLACE "\n" ";" lines "${lines}")
list(SORT lines)
expect("${lines}" ".b.txt;Sub.txt/;Sub.txt/c.txt;a.txt")

file(WRITE ${SCRATCH}/lines.txt "p \"a b\" c\\\"d \"e\\\\\" \"\"\n\"C:\\Program Files\\x\\\" -v\n")
set(INPUT ${SCRATCH}/lines.txt)
glob(0 "" --split)
expect("${output}" "0 [p]\n1 [a b]\n2 [c\"d]\n3 [e\\]\n4 []\n\n0 [C:\\Program Files\\x\\]\n1 [-v]\n\n")
set(INPUT)

glob(1 "skerry-glob: \\*\\.none: Skerry::WildCardExpander::Construct: Win32 error 2 \\([^\n]*\\)\n" "*.none" "a.txt")
expect("${output}" "a.txt\n")
glob(2 "skerry-glob: no pattern\nusage: .*")
glob(0 "" --version)
if(NOT output MATCHES "^skerry-glob [0-9]+\\.[0-9]+\\.[0-9]+\n$")
  message(FATAL_ERROR "--version printed '${output}'")
endif()
file(REMOVE_RECURSE ${SCRATCH})
