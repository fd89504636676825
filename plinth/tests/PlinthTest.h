// What Plinth's tests share: owning a reference for a test's scope, strings from literals, the
// live-object check, and a scratch directory with the preferences redirected into it. The same
// tests run natively and, against Plinth.dll, under Wine.
#ifndef PLINTH_TEST_H
#define PLINTH_TEST_H

#include <Plinth/Plinth.h>
#include <Plinth/PlinthCXX.h>

#include <gtest/gtest.h>

#include <string>

namespace PlinthTest {

using PlinthCXX::Owned;
using PlinthCXX::UTF8;

// An owned string of UTF-8 text (u8"..." literals) or of UTF-16 units.
PLStringRef CreateString (char const * utf8);
PLStringRef CreateString (std::u16string const & units);
std::u16string Units (PLStringRef string);
// An owned number of a 64-bit integer, or of a real.
PLNumberRef Integer (int64_t value);
PLNumberRef Real (double value);
// The text of an error that the caller owns, released here; empty for none.
std::string Reason (PLStringRef error);
// The property list in `bytes`, owned, or null with the reason in `reason`.
PLTypeRef Parse (std::string const & bytes, PLOptionFlags options = 0, std::string * reason = nullptr,
    PLPropertyListFormat * format = nullptr);
// The URL of a file or directory named by a path in this platform's form.
PLURLRef FileURL (std::string const & path, bool directory = false);

// Fails the test when the live-object count differs from that at construction.
class NoLeaks {
public:
    NoLeaks () : fBefore (PLDebugGetLiveObjectCount ()) {}
    ~NoLeaks () { EXPECT_EQ (PLDebugGetLiveObjectCount (), fBefore) << "objects left alive"; }
private:
    PLIndex fBefore;
};

// Sets an environment variable of this process, or removes it when `value` is null.
void SetVariable (char const * name, char const * value);

// A fresh directory, with PLINTH_PREFERENCES_DIRECTORY naming it for the scope; removed with all
// it holds afterwards.
class ScratchPreferences {
public:
    ScratchPreferences ();
    ~ScratchPreferences ();
    // The path of a file in the directory, in the platform's form.
    std::string File (char const * name) const;
    std::string const & Directory () const { return fDirectory; }
    static void WriteFile (std::string const & path, std::string const & contents);
    static std::string ReadFile (std::string const & path);
private:
    std::string fDirectory;
};

}

#endif
