// What a test expects of a failure: its kind, and the function and source name it reports.
#ifndef SKERRY_TEST_EXPECT
#define SKERRY_TEST_EXPECT

#include <LibSkerry/Exceptions>

#include <gtest/gtest.h>

#include <stdexcept>

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

}

#endif
