# skerry-glob.exe under Wine, in a scratch directory of its own: the names of patterns, dot names
# and directories included; the lines of standard input split by the platform's rules; one line
# for each failure, and the exit status.
file(REMOVE_RECURSE ${SCRATCH})
file(WRITE ${SCRATCH}/.b.txt "")
file(WRITE ${SCRATCH}/Sub.txt/c.txt "")
file(WRITE ${SCRATCH}/lines.txt "p \"a b\" c\\\"d \"e\\\\\" \"\" a\\\\\\\\\"b c\" \"open\n\"C:\\Program Files\\x\\\" -v\n")

# glob(status stderr-regex stdout args...): runs it in SCRATCH with lines.txt as standard input.
function(glob status error expected)
  execute_process(COMMAND wine ${TOOL} ${ARGN} WORKING_DIRECTORY ${SCRATCH} INPUT_FILE ${SCRATCH}/lines.txt
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE stderr)
  string(REPLACE "\r" "" stderr "${stderr}")
  string(REPLACE "\r" "" output "${output}")
  if(NOT result EQUAL status OR NOT stderr MATCHES "^${error}$" OR NOT output STREQUAL expected)
    message(FATAL_ERROR "skerry-glob ${ARGN}: status ${result}, standard output:\n${output}standard error:\n${stderr}")
  endif()
endfunction()

# One name to a pattern, since the platform's order is no order; a failing one stops no other.
glob(1 "skerry-glob: \\*\\.none: Skerry::WildCardExpander::Construct: Win32 error 2 \\([^\n]*\\)\n"
  ".b.txt\nSub.txt\\c.txt\nSub.txt\\\n" ".*" "Sub.txt\\*" "*.none" "Sub*")
glob(0 "" "0 [p]\n1 [a b]\n2 [c\"d]\n3 [e\\]\n4 []\n5 [a\\\\b c]\n6 [open]\n\n0 [C:\\Program Files\\x\\]\n1 [-v]\n\n" --split)
glob(2 "skerry-glob: no pattern\nusage: .*" "")
glob(0 "" "skerry-glob ${VERSION}\n" --version)
file(REMOVE_RECURSE ${SCRATCH})
