# What PlinthDictionary::Write wrote (written.plist, by PlinthWrapperTests) and plist-tool's XML of
# it are read by plistlib into the values that the test wrote.
import datetime, plistlib, sys

expected = {"array": ["item", True], "data": b"\0\1\2", "date": datetime.datetime(2001, 1, 2),
            "integer": -1234567890123, "real": 2.5, "string": "\U0001F600 \u00fc",
            "nested": {"\u00e9t\u00e9 \u65e5\u672c": False}}
for path, kind in zip(sys.argv[1:], (plistlib.FMT_BINARY, plistlib.FMT_XML)):
    with open(path, "rb") as file:
        value = plistlib.load(file, fmt=kind)
    if value != expected:
        sys.exit(f"{path}: {value!r}")
