// The platform-call interposer: diverts one imported function of one system DLL, as called from
// one module (LibSkerry.dll unless said otherwise), by patching that module's import address
// table. While the interposer lives, a test can count the calls, see their arguments, make calls
// fail with a chosen result and last error, or replace the function; the destructor puts the
// original entry back. Only calls through the patched module's imports are seen: the library's
// own calls, not the test's. Each interposed function has one interposer at a time.
//
//     SKERRY_INTERPOSE (tlsSet, "KERNEL32.dll", TlsSetValue);
//     tlsSet.Fail (FALSE, ERROR_ACCESS_DENIED, 1, 1);    // the second call from now fails
//     EXPECT_EQ (std::get<0> (tlsSet.CallArguments () [0]), index);
//
// A module may also call through a data pointer of its own, as it does for the C runtime
// functions that mingw resolves at run time (__imp__vscprintf): the constructor that takes a slot
// diverts such a pointer.
#ifndef SKERRY_TEST_INTERPOSER
#define SKERRY_TEST_INTERPOSER

#include <windows.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <vector>

namespace SkerryTest {

// The import address table entry of `function` from `dll` in `module`; raises std::runtime_error
// when the module doesn't import it.
void ** FindImportSlot (const wchar_t * module, const char * dll, const char * function);
// Writes an import address table entry, and gives the one it replaced.
void * ExchangeImportSlot (void ** slot, void * value);

template <typename Tag, typename R, typename... A>
class InterposerState {
public:
    using Arguments = std::tuple<typename std::decay<A>::type...>;
    using Replacement = std::function<R (A...)>;
    // What a failed call returns; a function without a result gets a placeholder.
    using Result = typename std::conditional<std::is_void<R>::value, int, R>::type;

    // The next `count` calls after `skip` passing ones return `result` with `error` as last error,
    // without reaching the original.
    void Fail (Result result, DWORD error, unsigned count = 1, unsigned skip = 0)
    {
        std::lock_guard<std::mutex> lock (fLock);
        std::tie (fFailResult, fFailError, fFailCount, fPassCount) = std::make_tuple (result, error, count, skip);
    }

    // Every call that isn't failed goes to `replacement` instead of the original.
    void Replace (Replacement replacement)
    {
        std::lock_guard<std::mutex> lock (fLock);
        fReplacement = std::move (replacement);
    }

    unsigned Calls () const { return unsigned (CallArguments ().size ()); }

    std::vector<Arguments> CallArguments () const
    {
        std::lock_guard<std::mutex> lock (fLock);
        return fCalls;
    }

    // The original function, for replacements that pass calls on.
    R Original (A... arguments) const { return fOriginal (arguments...); }

protected:
    R Call (A... arguments)
    {
        Replacement replacement;
        {
            std::lock_guard<std::mutex> lock (fLock);
            fCalls.emplace_back (arguments...);
            if (fPassCount > 0)
                --fPassCount;
            else if (fFailCount > 0) {
                --fFailCount;
                ::SetLastError (fFailError);
                if constexpr (std::is_void<R>::value)
                    return;
                else
                    return fFailResult;
            }
            replacement = fReplacement;
        }
        if (replacement)
            return replacement (arguments...);
        return fOriginal (arguments...);
    }

    std::function<R (A...)> fOriginal;
    mutable std::mutex fLock;
    std::vector<Arguments> fCalls;
    Replacement fReplacement;
    Result fFailResult {};
    DWORD fFailError = 0;
    unsigned fFailCount = 0;
    unsigned fPassCount = 0;
};

template <typename Tag, typename Signature>
class Interposer;

// One specialisation per calling convention: the hook must clean the stack the way the original
// does (the callee for stdcall, the caller for cdecl).
#define SKERRY_INTERPOSER_FOR(convention) \
template <typename Tag, typename R, typename... A> \
class Interposer<Tag, R convention (A...)> : public InterposerState<Tag, R, A...> { \
public: \
    using Function = R (convention *) (A...); \
    Interposer (const char * dll, const char * function, const wchar_t * module = L"LibSkerry.dll") \
        : Interposer (FindImportSlot (module, dll, function)) {} \
    /* Any other slot through which a module calls the function. */ \
    explicit Interposer (void ** slot) \
    { \
        if (sInstance != nullptr) \
            throw std::logic_error ("one interposer at a time per function"); \
        fSlot = slot; \
        Function original = fOriginalPointer = reinterpret_cast<Function> (*fSlot); \
        this->fOriginal = [original] (A... arguments) { return original (arguments...); }; \
        sInstance = this; \
        ExchangeImportSlot (fSlot, reinterpret_cast<void *> (&Hook)); \
    } \
    ~Interposer () \
    { \
        ExchangeImportSlot (fSlot, reinterpret_cast<void *> (fOriginalPointer)); \
        sInstance = nullptr; \
    } \
private: \
    static R convention Hook (A... arguments) { return sInstance->Call (arguments...); } \
    void ** fSlot; \
    Function fOriginalPointer; \
    static inline Interposer * sInstance = nullptr; \
};

SKERRY_INTERPOSER_FOR (__stdcall)
SKERRY_INTERPOSER_FOR (__cdecl)
#undef SKERRY_INTERPOSER_FOR

}

// Declares `variable`, interposing `function` of `dll` as LibSkerry.dll imports it.
#define SKERRY_INTERPOSE(variable, dll, function) \
    SKERRY_INTERPOSE_IN (variable, L"LibSkerry.dll", dll, function)

// The same for the imports of another module of the process (L"JOT.dll", L"Plinth.dll").
#define SKERRY_INTERPOSE_IN(variable, module, dll, function) \
    struct variable##Tag {}; \
    ::SkerryTest::Interposer<variable##Tag, decltype (::function)> variable (dll, #function, module)

// A case for a table of failures: runs the statement while `function` fails as the arguments of
// Fail, in parentheses, say.
#define SKERRY_FAILING(dll, function, fail, ...) \
    [&] { SKERRY_INTERPOSE (failing, dll, function); failing.Fail fail; __VA_ARGS__; }

#endif
