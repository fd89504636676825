// Reading what a test made jot write. ScopedJotLog points JOT_LOG_FILE at a fresh temporary file
// for its lifetime, and reads back the records of the jot clients opened meanwhile (a client reads
// the process-wide variable when it is opened). A line that isn't a well-formed record, with
// exactly the keys and types that jot writes (a last line without its newline included, which is
// what a torn write would leave), raises std::runtime_error naming the file and the line number;
// so does a file that can't be read.
//
// The file stays open for the lifetime, sharing everything, which changes nothing for the writers.
// It keeps the test machine's cache of the host's files from splitting the file: the machine
// forgets cached names whenever another test starts, and a name looked up again while a writer's
// data is still cached under the old one gets a second cached copy that believes the file is
// shorter, so the next writer's record lands over the last ones (measured with a forget every 2 s:
// one record of 2,000 lost in 2 of 10 runs of the two-process test; none in 8 with the file held
// open).
#ifndef SKERRY_TEST_JOT_LOG
#define SKERRY_TEST_JOT_LOG

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace SkerryTest {

// One line of a jot log. Texts are UTF-8, as in the file; fIdent and fFacility are empty for
// JSON null.
struct JotRecord {
    std::string fTime;
    unsigned long fPid = 0;
    unsigned long fTid = 0;
    std::optional<std::string> fIdent;
    std::optional<std::string> fFacility;
    int fLevel = 0;
    std::string fMessage;
    std::vector<std::pair<std::string, std::string>> fFields;
};

// The messages of the records whose facility is `facility` (NULL: records without one).
std::vector<std::string> Messages (const std::vector<JotRecord> & records, const char * facility = "Exceptions");

class ScopedJotLog {
public:
    ScopedJotLog ();
    ~ScopedJotLog ();

    const std::wstring & Path () const { return fPath; }
    std::vector<JotRecord> Records () const;
    std::vector<std::string> Messages (const char * facility = "Exceptions") const { return SkerryTest::Messages (Records (), facility); }

private:
    ScopedJotLog (const ScopedJotLog &) = delete;
    ScopedJotLog & operator = (const ScopedJotLog &) = delete;

    std::wstring fPath;
    void * fHeldOpen;   // HANDLE
    std::optional<std::wstring> fPreviousValue;
};

}

#endif
