// A meeting point for the threads of a race test: each thread that arrives waits until all have
// arrived, so that a test can hold every racer inside the platform call it diverted and make the
// race happen every time rather than by chance. A thread that waits longer than ten seconds goes
// on, so that a broken test fails instead of hanging.
#ifndef SKERRY_TEST_RENDEZVOUS
#define SKERRY_TEST_RENDEZVOUS

#include <windows.h>

namespace SkerryTest {

class Rendezvous {
public:
    explicit Rendezvous (LONG parties)
        : fParties (parties), fArrived (0), fAllThere (::CreateSemaphoreW (nullptr, 0, parties, nullptr))
    {
    }
    ~Rendezvous () { ::CloseHandle (fAllThere); }
    Rendezvous (const Rendezvous &) = delete;
    Rendezvous & operator = (const Rendezvous &) = delete;

    void Arrive ()
    {
        if (::InterlockedIncrement (&fArrived) == fParties)
            ::ReleaseSemaphore (fAllThere, fParties, nullptr);
        ::WaitForSingleObject (fAllThere, 10000);
    }

private:
    LONG fParties;
    LONG volatile fArrived;
    HANDLE fAllThere;
};

}

#endif
