#pragma once

#include "common/dax/Variant.h"
#include "common/utils/StdString.h"

#include <map>
#include <vector>

/// Builds and reads the variants of remote calls.
///
/// Arrays have one dimension and begin at 0. A map travels as pairs:
///
///     array of variants { array of variants { key, value }, array of variants { key, value } ... }
///
/// Every failure throws DaxInvalidParameterException, by value; what was written before stays, and
/// nothing leaks. A variant that is filled is overwritten, never cleared first; the caller clears
/// it. No state: any thread, one at a time for each variant.
class VUtil
{
public:
    using StringMap = std::map<CStdStr<char>, CStdStr<char>>;

    VUtil() = delete;

    /// @param elementType  such as VT_BSTR
    static void CreateArray(tagVARIANT& v, unsigned short elementType, unsigned long count);
    /// New elements are zeros, empty texts, variants of type empty.
    static void RedimArray(tagVARIANT& v, unsigned long count);

    // Each puts into an array of its own type, or a variant of its type into an array of variants.
    static void PutElement(tagVARIANT& v, int index, const CStdStr<char>& value);
    static void PutElement(tagVARIANT& v, int index, const char* value);
    static void PutBoolElement(tagVARIANT& v, int index, bool value);
    static void PutElement(tagVARIANT& v, int index, unsigned char value);
    static void PutElement(tagVARIANT& v, int index, short value);
    static void PutElement(tagVARIANT& v, int index, unsigned short value);
    static void PutElement(tagVARIANT& v, int index, int value);
    /// Travels in 32 bits; a value that needs more throws.
    static void PutElement(tagVARIANT& v, int index, long value);
    static void PutElement(tagVARIANT& v, int index, long long value);
    static void PutElement(tagVARIANT& v, int index, unsigned long long value);
    static void PutElement(tagVARIANT& v, int index, float value);
    static void PutElement(tagVARIANT& v, int index, double value);
    /// @param time  seconds since 1970
    static void PutDateElement(tagVARIANT& v, int index, long time);
    /// The address, as VT_UI8.
    static void PutElement(tagVARIANT& v, int index, void* value);
    /// A copy, into an array of variants.
    static void PutElement(tagVARIANT& v, int index, const tagVARIANT& value);

    static void PutPair(tagVARIANT& v, int index, const CStdStr<char>& key,
                        const CStdStr<char>& value);
    static void PutPair(tagVARIANT& v, int index, const CStdStr<char>& key, long value);
    static void PutPair(tagVARIANT& v, int index, const CStdStr<char>& key,
                        const tagVARIANT& value);
    /// A part that is missing or of type empty is an empty text.
    static void GetPair(const tagVARIANT& v, int index, CStdStr<char>& key, CStdStr<char>& value);

    // The counterparts of PutElement. Nothing is converted between types.
    static void GetElement(const tagVARIANT& v, int index, CStdStr<char>& value);
    static void GetElement(const tagVARIANT& v, int index, bool& value);
    static void GetElement(const tagVARIANT& v, int index, unsigned char& value);
    static void GetElement(const tagVARIANT& v, int index, short& value);
    static void GetElement(const tagVARIANT& v, int index, unsigned short& value);
    static void GetElement(const tagVARIANT& v, int index, int& value);
    static void GetElement(const tagVARIANT& v, int index, long& value);
    /// Of 32 bits, VT_UI4.
    static void GetElement(const tagVARIANT& v, int index, unsigned long& value);
    static void GetElement(const tagVARIANT& v, int index, long long& value);
    static void GetElement(const tagVARIANT& v, int index, unsigned long long& value);
    static void GetElement(const tagVARIANT& v, int index, float& value);
    static void GetElement(const tagVARIANT& v, int index, double& value);
    static void GetElement(const tagVARIANT& v, int index, void*& value);
    /// @param value  a copy that the caller clears
    static void GetElement(const tagVARIANT& v, int index, tagVARIANT& value);

    static long GetLongElement(const tagVARIANT& v, int index);
    static int GetIntElement(const tagVARIANT& v, int index);
    static short GetShortElement(const tagVARIANT& v, int index);
    static unsigned short GetUnsignedShortElement(const tagVARIANT& v, int index);
    static float GetFloatElement(const tagVARIANT& v, int index);
    static double GetDoubleElement(const tagVARIANT& v, int index);
    static bool GetBoolElement(const tagVARIANT& v, int index);
    /// @return seconds since 1970
    static long GetDateElement(const tagVARIANT& v, int index);
    static CStdStr<char> GetStringElement(const tagVARIANT& v, int index);
    // The same for answers that may leave out: 0, false or an empty text when the array or the
    // element is of type empty.
    static long GetLongElementEmpty(const tagVARIANT& v, int index);
    static bool GetBoolElementEmpty(const tagVARIANT& v, int index);
    static CStdStr<char> GetStringElementEmpty(const tagVARIANT& v, int index);

    static int GetArrayLength(const tagVARIANT& v);
    /// 0 for a variant of type empty.
    static int GetArrayLengthEmpty(const tagVARIANT& v);

    /// @param what  begins the text of the exception; may be null, here and below
    static void CheckType(const tagVARIANT& v, unsigned short type, const char* what);
    /// @param type  of the elements; VT_ARRAY may be or-ed to it
    static void CheckArrayType(const tagVARIANT& v, unsigned short type, unsigned long count,
                               const char* what);
    /// @param orMore  a longer array will do as well
    static void CheckArrayType(const tagVARIANT& v, unsigned short type, unsigned long count,
                               bool orMore, const char* what);

    /// Makes *v an array of bytes.
    static void PutBinaryIntoVariant(tagVARIANT* v, unsigned char* data, unsigned long size);
    /// Reads an array of bytes that is an element of an array of variants.
    static void GetBinaryElement(const tagVARIANT& v, int index, std::vector<unsigned char>& data);
    static std::vector<unsigned char> GetByteArray(const tagVARIANT& v);

    /// Of a key that comes twice the first counts, as in a search.
    /// @param allowEmpty  a variant of type empty is a map without entries
    static StringMap toStringMap(const tagVARIANT& v, bool allowEmpty);
    /// Kept: the same under a second name, since remote interfaces know both; there is one width
    /// of text here.
    static StringMap toStringAMap(const tagVARIANT& v, bool allowEmpty);

    /// @return whether there is such a key; if not, value stays
    static bool FindPair(const tagVARIANT& v, const CStdStr<char>& key, CStdStr<char>& value);
    /// Without regard to the case of A to Z.
    static bool FindPairNoCase(const tagVARIANT& v, const CStdStr<char>& key, int& value);
    static bool FindPairNoCase(const tagVARIANT& v, const CStdStr<char>& key, CStdStr<char>& value);
    static bool FindPairNoCase(const tagVARIANT& v, const CStdStr<char>& key, tagVARIANT& value);
    /// The strings of the array at an index, joined with ", ".
    static CStdStr<char> GetCSVElement(const tagVARIANT& v, int index);
    /// By type and value, through all elements.
    static bool Equals(const tagVARIANT& left, const tagVARIANT& right);

    /// From seconds since 1970 to days since 30 December 1899, and back.
    static double TimeToDate(long t);
    static long DateToTime(double d);

    /// A remote call's answer is its return code, or an array that begins with it. Throws unless
    /// the code is 0.
    static void CheckSingleRetcode(tagVARIANT& v, const char* what);
    static long GetSingleRetcode(tagVARIANT& v);
    /// The text behind the return code.
    static void GetSingleOutParamString(tagVARIANT& v, CStdStr<char>& out);

    /// Appends the value as XML, UTF-8: one element for each variant, arrays around their elements.
    /// What cannot be read stands as an element Error; does not throw on any value.
    /// @param indent  levels
    static void VariantToXML(const tagVARIANT* v, int indent, CStdStr<char>& out);
    static void VariantToXML(const tagVARIANT* v, CStdStr<char>& out);
    /// Appends the value as text for people; numbers in arrays are only counted.
    static void VariantToFriendlyString(const tagVARIANT* v, CStdStr<char>& out, int indent);
    /// Logs the friendly text at debug level.
    static void Dump(const tagVARIANT* v, const CStdStr<char>& label);
};
