// What Plinth writes, plistlib reads into the values it wrote itself: each corpus value in both
// formats and in every binary reference and offset width of 1 to 8 bytes, and large values that need
// widths of 4 (made by the rules tests/data/corpus.py knows); corpus.py checks each file with plistlib,
// and that the default encodings are plistlib's own bytes. Native only: plistlib runs on this side.
#include "PlinthTest.h"
#include "../source/PropertyList.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>

using namespace PlinthTest;

namespace {

std::string (&Contents) (std::string const &) = ScratchPreferences::ReadFile;

void Save (std::string const & path, Plinth::ByteWriter const & bytes)
{
    ScratchPreferences::WriteFile (path, std::string (reinterpret_cast<char const *> (bytes.Bytes ()), bytes.Size ()));
}

// Writes `value` as NAME.binary, NAME.xml (when `xml`) and NAME.wR-O.binary for every width that
// holds it.
void WriteEveryWay (std::string const & directory, std::string const & name, PLTypeRef value, bool xml, bool widths)
{
    Plinth::ParseFailure failure;
    Plinth::ByteWriter binary;
    ASSERT_TRUE (Plinth::WriteBinaryPropertyList (binary, value, Plinth::BinaryWidths (), failure)) << name << failure.fReason;
    Save (directory + "/" + name + ".binary", binary);
    if (xml) {
        Plinth::ByteWriter text;
        ASSERT_TRUE (Plinth::WriteXMLPropertyList (text, value, failure)) << name << failure.fReason;
        Save (directory + "/" + name + ".xml", text);
    }
    for (unsigned width = 1; widths && width <= 8; ++width)
        for (unsigned other : { width, 8u }) {
            Plinth::ByteWriter out;
            Plinth::ParseFailure tooSmall;
            if (Plinth::WriteBinaryPropertyList (out, value, Plinth::BinaryWidths { width, other }, tooSmall))
                Save (directory + "/" + name + ".w" + std::to_string (width) + "-" + std::to_string (other) + ".binary", out);
            else
                EXPECT_NE (std::string (tooSmall.fReason).find ("width too small"), std::string::npos) << name;
        }
}

}

TEST (Interop, PlistlibReadsWhatPlinthWritesAndFindsItsOwnBytes)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    std::string directory = scratch.File ("written"), data = PLINTH_TEST_DATA, files = Contents (data + "/plistlib/index.txt");
    std::filesystem::create_directory (directory);
    std::istringstream index (files);
    int written = 0;
    for (std::string file; std::getline (index, file);) {
        std::string name = file.substr (0, file.find ('.')), bytes = Contents (data + "/plistlib/" + file);
        if (file != name + ".binary")
            continue;
        std::string reason;
        Owned<PLTypeRef> value (Parse (bytes, 0, &reason));
        ASSERT_NE (value.Get (), nullptr) << file << ": " << reason;
        WriteEveryWay (directory, name, value, files.find (name + ".xml\n") != std::string::npos, name.size () < 16);
        ++written;
    }
    EXPECT_GT (written, 60);

    // 70000 integers and 70000 strings: references and offsets of 4 bytes.
    Owned<PLMutableArrayRef> integers (PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks)),
        strings (PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks));
    for (int32_t i = 0; i < 70000; ++i) {
        PLArrayAppendValue (integers, Owned<PLNumberRef> (Integer (i)));
        PLArrayAppendValue (strings, Owned<PLStringRef> (CreateString (("s" + std::to_string (i)).c_str ())));
    }
    WriteEveryWay (directory, "generated_refs_4", integers, true, false);
    WriteEveryWay (directory, "generated_strings_4", strings, true, false);
    std::string strings4 = Contents (directory + "/generated_strings_4.binary");
    EXPECT_EQ (strings4.substr (strings4.size () - 26, 2), std::string ("\x04\x04", 2));

    std::string output = scratch.File ("verify.txt");
    int status = std::system (("python3 " + data + "/corpus.py verify " + directory + " > " + output + " 2>&1").c_str ());
    output = Contents (output);
    EXPECT_EQ (status, 0) << output;
    EXPECT_NE (output.find (", 0 failures"), std::string::npos) << output;
}
