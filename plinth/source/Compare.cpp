// Comparison and search of strings, by UTF-16 unit, with the flags of the README: ignoring case by
// a simple case folding of the alphabetic scripts, from the end, digits by value, and a forced
// order among strings that are equal under the other flags but not identical.
#include "String.h"

using namespace Plinth;

namespace {

bool Between (PLUniChar c, PLUniChar low, PLUniChar high) { return c >= low && c <= high; }

// Runs of alternating capital and small letters: the capital at even (or odd) positions.
bool PairedCapital (PLUniChar c, PLUniChar low, PLUniChar high, bool capitalEven)
{
    return Between (c, low, high) && ((c % 2 == 0) == capitalEven);
}

// The simple case folding of Latin, Greek, Cyrillic, Armenian, Georgian, Glagolitic, Roman numerals,
// circled and fullwidth letters. Other units fold to themselves.
PLUniChar Fold (PLUniChar c)
{
    if (c < 0x80)
        return Between (c, 'A', 'Z') ? PLUniChar (c + 32) : c;
    if (c < 0x100) {
        if (c == 0xB5) return 0x3BC;
        return Between (c, 0xC0, 0xDE) && c != 0xD7 ? PLUniChar (c + 32) : c;
    }
    if (c < 0x250) {
        if (c == 0x178) return 0xFF;
        if (c == 0x17F) return 's';
        if (PairedCapital (c, 0x100, 0x12F, true) || PairedCapital (c, 0x132, 0x137, true)
            || PairedCapital (c, 0x139, 0x148, false) || PairedCapital (c, 0x14A, 0x177, true)
            || PairedCapital (c, 0x179, 0x17E, false) || PairedCapital (c, 0x1CD, 0x1DC, false)
            || PairedCapital (c, 0x1DE, 0x1EF, true) || PairedCapital (c, 0x1F8, 0x21F, true)
            || PairedCapital (c, 0x222, 0x233, true) || PairedCapital (c, 0x246, 0x24F, true))
            return PLUniChar (c + 1);
        return c;
    }
    if (c < 0x400) {
        if (c == 0x386) return 0x3AC;
        if (Between (c, 0x388, 0x38A)) return PLUniChar (c + 37);
        if (c == 0x38C) return 0x3CC;
        if (Between (c, 0x38E, 0x38F)) return PLUniChar (c + 63);
        if (Between (c, 0x391, 0x3AB) && c != 0x3A2) return PLUniChar (c + 32);
        if (c == 0x3C2) return 0x3C3;
        return c;
    }
    if (c < 0x530) {
        if (Between (c, 0x400, 0x40F)) return PLUniChar (c + 80);
        if (Between (c, 0x410, 0x42F)) return PLUniChar (c + 32);
        if (c == 0x4C0) return 0x4CF;
        if (PairedCapital (c, 0x460, 0x481, true) || PairedCapital (c, 0x48A, 0x4BF, true)
            || PairedCapital (c, 0x4C1, 0x4CE, false) || PairedCapital (c, 0x4D0, 0x52F, true))
            return PLUniChar (c + 1);
        return c;
    }
    if (Between (c, 0x531, 0x556)) return PLUniChar (c + 48);
    if (Between (c, 0x10A0, 0x10C5)) return PLUniChar (c + 7264);
    if (PairedCapital (c, 0x1E00, 0x1E95, true) || PairedCapital (c, 0x1EA0, 0x1EFF, true))
        return PLUniChar (c + 1);
    if (c == 0x1E9E) return 0xDF;
    if (Between (c, 0x2160, 0x216F)) return PLUniChar (c + 16);
    if (Between (c, 0x24B6, 0x24CF)) return PLUniChar (c + 26);
    if (Between (c, 0x2C00, 0x2C2E)) return PLUniChar (c + 48);
    if (Between (c, 0xFF21, 0xFF3A)) return PLUniChar (c + 32);
    return c;
}

bool IsDigit (PLUniChar c) { return Between (c, '0', '9'); }

// A run of units read in one direction.
class Cursor {
public:
    Cursor (PLUniChar const * units, std::size_t count, bool backwards)
        : fUnits (units), fCount (count), fBackwards (backwards) {}
    bool AtEnd () const { return fNext == fCount; }
    PLUniChar Peek () const { return fUnits [fBackwards ? fCount - 1 - fNext : fNext]; }
    void Skip () { ++fNext; }

    // The digit run at the cursor, in reading order of the text (whatever the direction).
    void TakeDigits (PLUniChar const * & start, std::size_t & length)
    {
        std::size_t begin = fNext;
        while (! AtEnd () && IsDigit (Peek ()))
            Skip ();
        length = fNext - begin;
        start = fBackwards ? fUnits + (fCount - fNext) : fUnits + begin;
    }

private:
    PLUniChar const * fUnits;
    std::size_t fCount;
    bool fBackwards;
    std::size_t fNext = 0;
};

int Sign (int value) { return value < 0 ? -1 : value > 0 ? 1 : 0; }

// Digit runs by value: leading zeros don't count.
int CompareDigitRuns (PLUniChar const * x, std::size_t xLength, PLUniChar const * y, std::size_t yLength)
{
    while (xLength > 0 && *x == '0') { ++x; --xLength; }
    while (yLength > 0 && *y == '0') { ++y; --yLength; }
    if (xLength != yLength)
        return xLength < yLength ? -1 : 1;
    for (std::size_t i = 0; i < xLength; ++i)
        if (x [i] != y [i])
            return x [i] < y [i] ? -1 : 1;
    return 0;
}

int CompareUnits (PLUniChar const * x, std::size_t xCount, PLUniChar const * y, std::size_t yCount,
    PLOptionFlags flags)
{
    bool fold = (flags & kPLCompareCaseInsensitive) != 0;
    bool numeric = (flags & kPLCompareNumerically) != 0;
    bool backwards = (flags & kPLCompareBackwards) != 0;
    if (! fold && ! numeric && ! backwards) {   // the common case, unit by unit
        std::size_t common = xCount < yCount ? xCount : yCount;
        for (std::size_t i = 0; i < common; ++i)
            if (x [i] != y [i])
                return x [i] < y [i] ? -1 : 1;
        return xCount == yCount ? 0 : xCount < yCount ? -1 : 1;
    }
    if (fold && ! numeric && ! backwards) {   // ignoring case: equal units need no folding
        std::size_t common = xCount < yCount ? xCount : yCount;
        for (std::size_t i = 0; i < common; ++i) {
            PLUniChar p = x [i], q = y [i];
            if (p == q)
                continue;
            p = p < 0x80 ? PLUniChar (p >= 'A' && p <= 'Z' ? p + 32 : p) : Fold (p);
            q = q < 0x80 ? PLUniChar (q >= 'A' && q <= 'Z' ? q + 32 : q) : Fold (q);
            if (p != q)
                return p < q ? -1 : 1;
        }
        return xCount == yCount ? 0 : xCount < yCount ? -1 : 1;
    }
    Cursor a (x, xCount, backwards);
    Cursor b (y, yCount, backwards);
    while (! a.AtEnd () && ! b.AtEnd ()) {
        if (numeric && IsDigit (a.Peek ()) && IsDigit (b.Peek ())) {
            PLUniChar const * aDigits;
            PLUniChar const * bDigits;
            std::size_t aLength, bLength;
            a.TakeDigits (aDigits, aLength);
            b.TakeDigits (bDigits, bLength);
            int order = CompareDigitRuns (aDigits, aLength, bDigits, bLength);
            if (order != 0)
                return order;
            continue;
        }
        PLUniChar p = fold ? Fold (a.Peek ()) : a.Peek ();
        PLUniChar q = fold ? Fold (b.Peek ()) : b.Peek ();
        if (p != q)
            return p < q ? -1 : 1;
        a.Skip ();
        b.Skip ();
    }
    return a.AtEnd () == b.AtEnd () ? 0 : a.AtEnd () ? -1 : 1;
}

bool MatchesAt (PLUniChar const * text, PLUniChar const * what, std::size_t count, bool fold)
{
    for (std::size_t i = 0; i < count; ++i)
        if (fold ? Fold (text [i]) != Fold (what [i]) : text [i] != what [i])
            return false;
    return true;
}

bool InRange (__PLString const * s, PLRange range)
{
    return range.location >= 0 && range.length >= 0 && range.location <= s->fLength
        && range.length <= s->fLength - range.location;
}

}

extern "C" {

PLComparisonResult PLStringCompareWithOptions (PLStringRef x, PLStringRef y, PLRange range, PLOptionFlags flags)
{
    __PLString const * a = AsString (x);
    __PLString const * b = AsString (y);
    // A null (or something that isn't a string) sorts before every string.
    if (a == nullptr || b == nullptr)
        return PLComparisonResult (a == b ? 0 : a == nullptr ? -1 : 1);
    if (! InRange (a, range))
        range = PLRangeMake (0, a->fLength);
    PLUniChar const * units = a->fUnits + range.location;
    std::size_t count = std::size_t (range.length);
    int order = CompareUnits (units, count, b->fUnits, std::size_t (b->fLength), flags);
    if (order == 0 && (flags & kPLCompareForcedOrdering) != 0
        && (flags & (kPLCompareCaseInsensitive | kPLCompareNumerically)) != 0)
        order = CompareUnits (units, count, b->fUnits, std::size_t (b->fLength), flags & kPLCompareBackwards);
    return PLComparisonResult (Sign (order));
}

PLComparisonResult PLStringCompare (PLStringRef x, PLStringRef y, PLOptionFlags flags)
{
    return PLStringCompareWithOptions (x, y, PLRangeMake (0, PLStringGetLength (x)), flags);
}

PLBoolean PLStringFindWithOptions (PLStringRef string, PLStringRef what, PLRange range, PLOptionFlags flags,
    PLRange * result)
{
    __PLString const * s = AsString (string);
    __PLString const * w = AsString (what);
    if (s == nullptr || w == nullptr || ! InRange (s, range) || w->fLength == 0 || w->fLength > range.length)
        return false;
    bool fold = (flags & kPLCompareCaseInsensitive) != 0;
    bool backwards = (flags & kPLCompareBackwards) != 0;
    bool anchored = (flags & kPLCompareAnchored) != 0;
    PLIndex first = range.location;
    PLIndex last = range.location + range.length - w->fLength;
    for (PLIndex step = 0; step <= last - first; ++step) {
        PLIndex at = backwards ? last - step : first + step;
        if (MatchesAt (s->fUnits + at, w->fUnits, std::size_t (w->fLength), fold)) {
            if (result != nullptr)
                *result = PLRangeMake (at, w->fLength);
            return true;
        }
        if (anchored)
            break;
    }
    return false;
}

}
