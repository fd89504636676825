// Plinth's counted objects in LibSkerry's owners: a dictionary written as an XML property list,
// the document held as a PlinthData, read back and compared, and a set asked what it holds. Each
// owner holds one count and gives it back in its destructor, so that nothing is left at the end.
#include <LibSkerry/LibSkerry>

#include <Plinth/PlinthCXX.h>

#include <cstdio>

namespace {

// A dictionary of a name, a count and a flag, as a program keeps its settings.
Skerry::PlinthType<PLDictionaryRef> MakeSettings ()
{
    int count = 3;
    PlinthCXX::Owned<PLNumberRef> number (PLNumberCreate (kPLAllocatorDefault, kPLNumberIntType, &count));
    void const * keys [] = { PLSTR ("name"), PLSTR ("count"), PLSTR ("enabled") };
    void const * values [] = { PLSTR ("LibSkerry"), number.Get (), kPLBooleanTrue };
    return Skerry::PlinthType<PLDictionaryRef> (PLDictionaryCreate (kPLAllocatorDefault, keys, values, 3,
        &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks), false);   // adopts the new object
}

void Show ()
{
    Skerry::PlinthType<PLDictionaryRef> settings = MakeSettings ();
    Skerry::PlinthData document (PLPropertyListCreateData (kPLAllocatorDefault, settings.Raw (), kPLPropertyListXMLFormat,
        0, nullptr), false);
    std::printf ("%ld bytes of XML:\n%.*s", document.GetLength (), int (document.GetLength ()),
        static_cast<char const *> (document.GetBytes ()));

    PLPropertyListFormat format;
    Skerry::PlinthType<PLDictionaryRef> again (static_cast<PLDictionaryRef> (PLPropertyListCreateWithData (
        kPLAllocatorDefault, document.Raw (), kPLPropertyListImmutable, &format, nullptr)), false);
    Skerry::PlinthObject any = again;                  // shares it: two counts
    std::printf ("read back as %s: %s, %s\n", format == kPLPropertyListXMLFormat ? "XML" : "binary",
        PlinthCXX::UTF8 (PlinthCXX::Owned<PLStringRef> (PLCopyDescription (again.Raw ()))).c_str (),
        any == settings ? "equal to what was written" : "DIFFERENT");

    void const * names [] = { PLSTR ("name"), PLSTR ("count") };
    Skerry::PlinthSet known (PLSetCreate (kPLAllocatorDefault, names, 2, &kPLTypeSetCallBacks), false);
    std::printf ("the set holds \"count\": %s, \"size\": %s\n", known.Contains (PLSTR ("count")) ? "yes" : "no",
        known.Contains (PLSTR ("size")) ? "yes" : "no");
}

}

int main ()
{
    Show ();
    std::printf ("objects left: %ld\n", long (PLDebugGetLiveObjectCount ()));
    return 0;
}
