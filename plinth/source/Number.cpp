// Numbers (a 64-bit integer or a double, equal across the two by value) and dates (seconds from
// 2001-01-01 UTC).
#include "Internal.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>

using namespace Plinth;

struct __PLNumber : Object {
    bool fIsReal;
    // fInteger's bits are an unsigned value of 2^63 or more (kPLNumberUInt64Type).
    bool fIsUnsigned;
    // One or the other, as fIsReal says: a number is as small as a date.
    union {
        int64_t fInteger;
        double fReal;
    };
};

struct __PLDate : Object {
    PLAbsoluteTime fTime;
};

namespace {

// The integer a real stands for exactly, if any.
bool ExactInteger (double real, int64_t & integer)
{
    if (! (real >= -9223372036854775808.0 && real < 9223372036854775808.0) || std::floor (real) != real)
        return false;
    integer = int64_t (real);
    return true;
}

// An integer as a long double, which holds every 64-bit value exactly.
long double Extended (__PLNumber const * n)
{
    return n->fIsReal ? (long double) n->fReal : n->fIsUnsigned ? (long double) uint64_t (n->fInteger)
        : (long double) n->fInteger;
}

int CompareValues (__PLNumber const * a, __PLNumber const * b)
{
    if (! a->fIsReal && ! b->fIsReal) {
        if (a->fIsUnsigned != b->fIsUnsigned)
            return a->fIsUnsigned ? 1 : -1;
        if (a->fIsUnsigned)
            return uint64_t (a->fInteger) < uint64_t (b->fInteger) ? -1 : uint64_t (a->fInteger) > uint64_t (b->fInteger);
        return a->fInteger < b->fInteger ? -1 : a->fInteger > b->fInteger ? 1 : 0;
    }
    // NaN sorts before every other number and equals itself, so that the order is total.
    long double x = Extended (a);
    long double y = Extended (b);
    if (std::isnan (x) || std::isnan (y))
        return std::isnan (x) == std::isnan (y) ? 0 : std::isnan (x) ? -1 : 1;
    return x < y ? -1 : x > y ? 1 : 0;
}

bool EqualNumbers (Object const * x, Object const * y)
{
    return CompareValues (static_cast<__PLNumber const *> (x), static_cast<__PLNumber const *> (y)) == 0;
}


PLHashCode HashNumber (Object const * object)
{
    __PLNumber const * n = static_cast<__PLNumber const *> (object);
    int64_t integer = n->fInteger;
    if (n->fIsUnsigned) {
        // As the real of the same value, when there is one.
        double real = double (uint64_t (n->fInteger));
        uint64_t bits;
        std::memcpy (&bits, &real, sizeof bits);
        return real < 18446744073709551616.0 && uint64_t (real) == uint64_t (n->fInteger)
            ? HashInteger (int64_t (bits)) : HashInteger (integer);
    }
    if (n->fIsReal && ! ExactInteger (n->fReal, integer)) {
        if (std::isnan (n->fReal))
            return 0x7FF8;
        uint64_t bits;
        std::memcpy (&bits, &n->fReal, sizeof bits);
        return HashInteger (int64_t (bits));
    }
    return HashInteger (integer);
}

PLStringRef DescribeNumber (Object const * object)
{
    __PLNumber const * n = static_cast<__PLNumber const *> (object);
    char text [40];
    if (n->fIsUnsigned)
        std::snprintf (text, sizeof text, "%llu", (unsigned long long) n->fInteger);
    else if (! n->fIsReal)
        std::snprintf (text, sizeof text, "%lld", (long long) n->fInteger);
    else {
        // The shortest form that reads back as the same double.
        for (int digits = 15; digits <= 17; ++digits) {
            std::snprintf (text, sizeof text, "%.*g", digits, n->fReal);
            if (std::strtod (text, nullptr) == n->fReal || std::isnan (n->fReal))
                break;
        }
    }
    return MakeStringFromASCII (text);
}

Class const kNumberClass = { kNumberType, "PLNumber", nullptr, EqualNumbers, HashNumber, DescribeNumber };

bool EqualDates (Object const * x, Object const * y)
{
    return static_cast<__PLDate const *> (x)->fTime == static_cast<__PLDate const *> (y)->fTime;
}

PLHashCode HashDate (Object const * object)
{
    // -0.0 and 0.0 are one time, and hash alike.
    double time = static_cast<__PLDate const *> (object)->fTime + 0.0;
    uint64_t bits;
    std::memcpy (&bits, &time, sizeof bits);
    return HashInteger (int64_t (bits));
}

// "2001-01-01 00:00:00 +0000": the civil date of a day count, by the proleptic Gregorian rules.
PLStringRef DescribeDate (Object const * object)
{
    double time = static_cast<__PLDate const *> (object)->fTime;
    char text [96];
    if (! std::isfinite (time) || std::fabs (time) > 1e14) {
        std::snprintf (text, sizeof text, "%g", time);
        return MakeStringFromASCII (text);
    }
    CivilTime civil = CivilFromSeconds (int64_t (std::floor (time)) + 978307200);   // from 1970
    std::snprintf (text, sizeof text, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld +0000", (long long) civil.fYear,
        (long long) civil.fMonth, (long long) civil.fDay, (long long) civil.fHour, (long long) civil.fMinute,
        (long long) civil.fSecond);
    return MakeStringFromASCII (text);
}

Class const kDateClass = { kDateType, "PLDate", nullptr, EqualDates, HashDate, DescribeDate };

__PLNumber const * AsNumber (void const * object) { return As<__PLNumber const> (object, kNumberType); }

PLBoolean GetUnsignedValue (__PLNumber const * n, PLNumberType type, void * value);

}

namespace Plinth {

CivilTime CivilFromSeconds (int64_t seconds)
{
    int64_t days = seconds >= 0 ? seconds / 86400 : -((-seconds + 86399) / 86400);
    int64_t ofDay = seconds - days * 86400;
    int64_t z = days + 719468;
    int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    int64_t dayOfEra = z - era * 146097;
    int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    int64_t mp = (5 * dayOfYear + 2) / 153;
    CivilTime civil;
    civil.fDay = dayOfYear - (153 * mp + 2) / 5 + 1;
    civil.fMonth = mp < 10 ? mp + 3 : mp - 9;
    civil.fYear = yearOfEra + era * 400 + (civil.fMonth <= 2 ? 1 : 0);
    civil.fHour = ofDay / 3600;
    civil.fMinute = ofDay / 60 % 60;
    civil.fSecond = ofDay % 60;
    return civil;
}

}

extern "C" {

PLTypeID PLNumberGetTypeID (void) { return kNumberType; }

PLNumberRef PLNumberCreate (PLAllocatorRef allocator, PLNumberType type, void const * value)
{
    if (value == nullptr)
        return nullptr;
    bool isReal = false;
    bool isUnsigned = false;
    int64_t integer = 0;
    double real = 0;
    switch (type) {
    case kPLNumberSInt32Type: case kPLNumberIntType: integer = *static_cast<int32_t const *> (value); break;
    case kPLNumberSInt64Type: case kPLNumberLongLongType: integer = *static_cast<int64_t const *> (value); break;
    case kPLNumberFloat64Type: case kPLNumberDoubleType: real = *static_cast<double const *> (value); isReal = true; break;
    case kPLNumberUInt64Type:
        integer = int64_t (*static_cast<uint64_t const *> (value));
        isUnsigned = integer < 0;
        break;
    default: return nullptr;
    }
    __PLNumber * number = NewObject<__PLNumber> (allocator, kNumberClass);
    if (number == nullptr)
        return nullptr;
    number->fIsReal = isReal;
    number->fIsUnsigned = isUnsigned;
    if (isReal)
        number->fReal = real;
    else
        number->fInteger = integer;
    return number;
}

PLNumberType PLNumberGetType (PLNumberRef number)
{
    __PLNumber const * n = AsNumber (number);
    if (n != nullptr && n->fIsUnsigned)
        return kPLNumberUInt64Type;
    return n != nullptr && n->fIsReal ? kPLNumberFloat64Type : kPLNumberSInt64Type;
}

PLBoolean PLNumberIsFloatType (PLNumberRef number)
{
    __PLNumber const * n = AsNumber (number);
    return n != nullptr && n->fIsReal;
}

PLBoolean PLNumberGetValue (PLNumberRef number, PLNumberType type, void * value)
{
    __PLNumber const * n = AsNumber (number);
    if (n == nullptr || value == nullptr)
        return false;
    if (n->fIsUnsigned || type == kPLNumberUInt64Type)
        return GetUnsignedValue (n, type, value);
    switch (type) {
    case kPLNumberSInt32Type: case kPLNumberIntType: {
        int64_t wide = n->fInteger;
        bool exact = ! n->fIsReal || ExactInteger (n->fReal, wide);
        if (n->fIsReal && ! exact)
            wide = std::isnan (n->fReal) ? 0 : n->fReal < -2147483648.0 ? INT32_MIN
                : n->fReal > 2147483647.0 ? INT32_MAX : int64_t (n->fReal);
        int32_t narrow = wide < INT32_MIN ? INT32_MIN : wide > INT32_MAX ? INT32_MAX : int32_t (wide);
        *static_cast<int32_t *> (value) = narrow;
        return exact && narrow == wide;
    }
    case kPLNumberSInt64Type: case kPLNumberLongLongType: {
        int64_t wide = n->fInteger;
        if (! n->fIsReal) {
            *static_cast<int64_t *> (value) = wide;
            return true;
        }
        bool exact = ExactInteger (n->fReal, wide);
        if (! exact)
            wide = std::isnan (n->fReal) ? 0 : n->fReal <= -9223372036854775808.0 ? INT64_MIN
                : n->fReal >= 9223372036854775807.0 ? INT64_MAX : int64_t (n->fReal);
        *static_cast<int64_t *> (value) = wide;
        return exact;
    }
    case kPLNumberFloat64Type: case kPLNumberDoubleType: {
        double real = n->fIsReal ? n->fReal : double (n->fInteger);
        *static_cast<double *> (value) = real;
        return n->fIsReal || (real < 9223372036854775808.0 && int64_t (real) == n->fInteger);
    }
    default:
        return false;
    }
}

}

namespace {

// The conversions that involve kPLNumberUInt64Type: to it, or from a number that is one.
PLBoolean GetUnsignedValue (__PLNumber const * n, PLNumberType type, void * value)
{
    uint64_t u = uint64_t (n->fInteger);
    if (type == kPLNumberUInt64Type) {
        bool exact = n->fIsUnsigned || (! n->fIsReal && n->fInteger >= 0);
        if (n->fIsReal) {
            double r = n->fReal;
            exact = r >= 0 && r < 18446744073709551616.0 && std::floor (r) == r;
            u = exact ? uint64_t (r) : ! (r > 0) ? 0 : r >= 18446744073709551616.0 ? UINT64_MAX : uint64_t (r);
        }
        else if (! exact)
            u = 0;
        *static_cast<uint64_t *> (value) = u;
        return exact;
    }
    switch (type) {
    case kPLNumberSInt32Type: case kPLNumberIntType: *static_cast<int32_t *> (value) = INT32_MAX; return false;
    case kPLNumberSInt64Type: case kPLNumberLongLongType: *static_cast<int64_t *> (value) = INT64_MAX; return false;
    case kPLNumberFloat64Type: case kPLNumberDoubleType: {
        double real = double (u);
        *static_cast<double *> (value) = real;
        return real < 18446744073709551616.0 && uint64_t (real) == u;
    }
    default:
        return false;
    }
}

}

extern "C" {

PLComparisonResult PLNumberCompare (PLNumberRef x, PLNumberRef y, void *)
{
    __PLNumber const * a = AsNumber (x);
    __PLNumber const * b = AsNumber (y);
    if (a == nullptr || b == nullptr)
        return PLComparisonResult (a == b ? 0 : a == nullptr ? -1 : 1);
    return PLComparisonResult (CompareValues (a, b));
}

PLTypeID PLDateGetTypeID (void) { return kDateType; }

PLDateRef PLDateCreate (PLAllocatorRef allocator, PLAbsoluteTime time)
{
    __PLDate * date = NewObject<__PLDate> (allocator, kDateClass);
    if (date != nullptr)
        date->fTime = time;
    return date;
}

PLAbsoluteTime PLDateGetAbsoluteTime (PLDateRef date)
{
    __PLDate const * d = As<__PLDate const> (date, kDateType);
    return d == nullptr ? 0 : d->fTime;
}

PLAbsoluteTime PLAbsoluteTimeGetCurrent (void)
{
    using namespace std::chrono;
    double since1970 = duration<double> (system_clock::now ().time_since_epoch ()).count ();
    return since1970 - kPLAbsoluteTimeIntervalSince1970;
}

}
