// What a test expects of a failure: its kind, and the function and source name it reports.
#ifndef SKERRY_TEST_EXPECT
#define SKERRY_TEST_EXPECT

#include <LibSkerry/Exceptions>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <utility>

namespace SkerryTest {

// The exception of kind E that `raise` throws; a failure of the test if it throws none.
template <typename E, typename Raise>
E Caught (Raise raise)
{
    try {
        raise ();
    }
    catch (const E & e) {
        return e;
    }
    ADD_FAILURE () << "nothing of the expected kind was thrown";
    throw std::logic_error ("not thrown");
}

// The same, after checking the site it names.
template <typename E, typename Raise>
E Expect (Raise raise, const char * function, const char * file)
{
    SCOPED_TRACE (function);
    E e = Caught<E> (raise);
    EXPECT_STREQ (e.fFunction, function);
    EXPECT_STREQ (e.fFile, file);
    return e;
}

template <typename Raise>
void ExpectAssertion (Raise raise, const char * message, const char * function, const char * file)
{
    EXPECT_STREQ (Expect<Skerry::Exceptions::String> (raise, function, file).fMessage, message);
}

// A failure in one line, for tables of cases: the message or the kind and code, the function, the
// source name ("Skerry 3 | Skerry::PlinthObject::PlinthObject | Plinth").
inline std::string Failure (const std::function<void ()> & raise)
{
    try {
        raise ();
    }
    catch (const Skerry::Exceptions::String & e) {
        return std::string (e.fMessage) + " | " + e.fFunction + " | " + e.fFile;
    }
    catch (const Skerry::Exceptions::Skerry & e) {
        return "Skerry " + std::to_string (e.fCode) + " | " + e.fFunction + " | " + e.fFile;
    }
    catch (const Skerry::Exceptions::Win32 & e) {
        return "Win32 " + std::to_string (e.fCode) + " | " + e.fFunction + " | " + e.fFile;
    }
    catch (const Skerry::Exceptions::COM & e) {
        char code [16];
        std::snprintf (code, sizeof code, "0x%08lX", static_cast<unsigned long> (e.fCode));
        return "COM " + std::string (code) + " | " + e.fFunction + " | " + e.fFile;
    }
    return "nothing thrown";
}

// Each statement of a table raises the failure beside it, as Failure gives it.
inline void ExpectFailures (std::initializer_list<std::pair<std::function<void ()>, std::string>> cases)
{
    for (const auto & c : cases)
        EXPECT_EQ (Failure (c.first), c.second);
}

}

#endif
