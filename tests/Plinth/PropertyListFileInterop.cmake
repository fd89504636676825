# The file that PlinthDictionary::Write wrote in PlinthWrapperTests (binary, in DIRECTORY) is read
# by plistlib, and by plist-tool.exe, whose XML of it plistlib reads too: all into the same values.
include(${CMAKE_CURRENT_LIST_DIR}/../support/Run.cmake)

run(wine ${TOOL} -convert xml -o Z:${DIRECTORY}/converted.xml Z:${DIRECTORY}/written.plist)
run(python3 ${CMAKE_CURRENT_LIST_DIR}/PropertyListFileInterop.py ${DIRECTORY}/written.plist ${DIRECTORY}/converted.xml)
