#include "Values.h"

#include "JSON.h"

namespace PlistTool {

std::string TypeName (PLTypeRef value)
{
    PLTypeID type = PLGetTypeID (value);
    if (type == PLNumberGetTypeID ())
        return PLNumberIsFloatType (static_cast<PLNumberRef> (value)) ? "float" : "integer";
    struct Kind {
        PLTypeID fType;
        char const * fName;
    };
    Kind const kinds [] = { { PLBooleanGetTypeID (), "bool" }, { PLStringGetTypeID (), "string" },
        { PLDateGetTypeID (), "date" }, { PLDataGetTypeID (), "data" }, { PLArrayGetTypeID (), "array" },
        { PLDictionaryGetTypeID (), "dictionary" } };
    for (Kind const & kind : kinds)
        if (kind.fType == type)
            return kind.fName;
    return "unknown";
}

std::string ScalarText (PLTypeRef value)
{
    PLTypeID type = PLGetTypeID (value);
    if (type == PLStringGetTypeID ())
        return UTF8 (static_cast<PLStringRef> (value));
    if (type == PLBooleanGetTypeID ())
        return PLBooleanGetValue (static_cast<PLBooleanRef> (value)) ? "true" : "false";
    // The text of the value's element, on the line after <plist version="1.0">; Base64 may run
    // over several lines, and no scalar's text holds white space of its own.
    Owned<PLDataRef> xml (PLPropertyListCreateData (kPLAllocatorDefault, value, kPLPropertyListXMLFormat, 0, nullptr));
    if (xml.Get () == nullptr)
        return "";
    std::string document (reinterpret_cast<char const *> (PLDataGetBytePtr (xml)), std::size_t (PLDataGetLength (xml)));
    std::size_t start = document.find ('>', document.find ('>', document.find ("<plist")) + 1) + 1;
    std::size_t end = document.rfind ("</", document.rfind ("</plist>") - 1);
    std::string text;
    for (std::size_t i = start; i < end; ++i)
        if (document [i] != '\n' && document [i] != '\t')
            text += document [i];
    return text;
}

PLTypeRef CreateScalar (char const * element, std::string const & text)
{
    std::string xml = std::string ("<") + element + ">";
    for (char c : text)
        xml += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string (1, c);
    xml += std::string ("</") + element + ">";
    Owned<PLDataRef> data (PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (xml.data ()),
        PLIndex (xml.size ())));
    return PLPropertyListCreateWithData (kPLAllocatorDefault, data, kPLPropertyListImmutable, nullptr, nullptr);
}

PLTypeRef CreateValue (std::string const & type, std::string const & text, PLStringRef string)
{
    if (type == "string")
        return PLRetain (string);
    if (type == "bool") {
        if (text != "true" && text != "false")
            throw Failure { "\"" + text + "\" is not true or false", "-bool" };
        return text == "true" ? kPLBooleanTrue : kPLBooleanFalse;
    }
    if (type == "json") {
        try {
            return CreateFromJSON (text);
        }
        catch (Failure & failure) {
            throw Failure { failure.fText, "-json" };
        }
    }
    if (type == "xml") {
        Owned<PLDataRef> data (PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (text.data ()),
            PLIndex (text.size ())));
        Owned<PLStringRef> error;
        PLTypeRef value = PLPropertyListCreateWithData (kPLAllocatorDefault, data, kPLPropertyListMutableContainers,
            nullptr, error.Out ());
        if (value == nullptr)
            throw Failure { UTF8 (error), "-xml" };
        return value;
    }
    struct Scalar {
        char const * fType;
        char const * fElement;
        char const * fExpected;
    };
    static Scalar const kScalars [] = {
        { "integer", "integer", "an integer of -2^63 to 2^64-1 (decimal, or hexadecimal after 0x)" },
        { "float", "real", "a number" },
        { "date", "date", "a date such as 2024-01-31T12:00:00Z" },
        { "data", "data", "Base64" } };
    for (Scalar const & scalar : kScalars)
        if (type == scalar.fType) {
            PLTypeRef value = CreateScalar (scalar.fElement, text);
            if (value == nullptr)
                throw Failure { "\"" + text + "\" is not " + scalar.fExpected, "-" + type };
            return value;
        }
    return nullptr;
}

}
