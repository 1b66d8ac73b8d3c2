#include "common/utils/VUtil.h"

#include "common/utils/VariantElements.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

using zel::isArrayOf;
using zel::throwInvalid;
using zel::dax::OwnedString;
using zel::dax::OwnedVariant;

namespace {

constexpr long secondsPerDay = 86400;
constexpr long firstDay = 25569; ///< the number of 1 January 1970

/// @param count  whatever does not fit becomes more than any array holds
SAFEARRAYBOUND boundOf(unsigned long count)
{
    constexpr unsigned long most = std::numeric_limits<std::uint32_t>::max();
    return {static_cast<std::uint32_t>(std::min(count, most)), 0};
}

void putRaw(const tagVARIANT& v, int index, const void* value, const char* failure)
{
    const std::int32_t position = index;
    if (SafeArrayPutElement(v.parray, &position, value) != S_OK) {
        throwInvalid(failure);
    }
}

void putRaw(const tagVARIANT& v, int index, const void* value)
{
    putRaw(v, index, value, "SafeArrayPutElement failed");
}

[[noreturn]] void throwWrongArray(const char* typeName)
{
    CStdStr<char> message;
    message.Format("PutElement failed: not an array of %s nor VARIANT", typeName);
    throwInvalid(message.c_str());
}

/// @param type, field  of T in a variant
/// @param typeName  for the exception
template <class T>
void putValue(tagVARIANT& v, int index, T value, VARTYPE type, T tagVARIANT::*field,
              const char* typeName)
{
    if (isArrayOf(v, type)) {
        putRaw(v, index, &value);
    } else if (isArrayOf(v, VT_VARIANT)) {
        tagVARIANT element{};
        element.vt = type;
        element.*field = value;
        putRaw(v, index, &element);
    } else {
        throwWrongArray(typeName);
    }
}

OwnedString allocateText(const std::string& text, const char* failure)
{
    constexpr std::size_t most = std::numeric_limits<std::int32_t>::max();
    OwnedString copy(text.size() <= most
                         ? SysAllocStringLen(text.data(), static_cast<std::uint32_t>(text.size()))
                         : nullptr);
    if (copy == nullptr) {
        throwInvalid(failure);
    }
    return copy;
}

void makeText(OwnedVariant& v, const std::string& text, const char* failure)
{
    v.bstrVal = allocateText(text, failure).release();
    v.vt = VT_BSTR;
}

/// @return value as the wire has it
std::int32_t narrow(long value, const char* failure)
{
    if (value != static_cast<std::int32_t>(value)) {
        throwInvalid(failure);
    }
    return static_cast<std::int32_t>(value);
}

constexpr const char* pairFailure = "PutPair failed";

void checkPairs(const tagVARIANT& v)
{
    if (!isArrayOf(v, VT_VARIANT)) {
        throwInvalid("PutPair: the given variant is not an array of variants");
    }
}

void putPair(const tagVARIANT& v, int index, const CStdStr<char>& key, const tagVARIANT& value)
{
    OwnedVariant keyVariant;
    makeText(keyVariant, key, pairFailure);
    const SAFEARRAYBOUND bound = {2, 0};
    OwnedVariant pair;
    pair.parray = SafeArrayCreate(VT_VARIANT, 1, &bound);
    if (pair.parray == nullptr) {
        throwInvalid("Could not create safe array in PutPair");
    }
    pair.vt = VT_ARRAY | VT_VARIANT;
    putRaw(pair, 0, static_cast<tagVARIANT*>(&keyVariant), pairFailure);
    putRaw(pair, 1, &value, pairFailure);
    putRaw(v, index, static_cast<tagVARIANT*>(&pair), pairFailure);
}

} // namespace

void VUtil::CreateArray(tagVARIANT& v, unsigned short elementType, unsigned long count)
{
    const SAFEARRAYBOUND bound = boundOf(count);
    SAFEARRAY* array = SafeArrayCreate(elementType, 1, &bound);
    if (array == nullptr) {
        throwInvalid("Could not create safe array");
    }
    v = tagVARIANT{};
    v.vt = static_cast<VARTYPE>(elementType | VT_ARRAY);
    v.parray = array;
}

void VUtil::RedimArray(tagVARIANT& v, unsigned long count)
{
    const SAFEARRAYBOUND bound = boundOf(count);
    if (!zel::dax::isArrayType(v.vt) || SafeArrayRedim(v.parray, &bound) != S_OK) {
        throwInvalid("Could not redimension safe array");
    }
}

void VUtil::PutElement(tagVARIANT& v, int index, const CStdStr<char>& value)
{
    constexpr const char* failure = "SafeArrayPutElement failed";
    if (isArrayOf(v, VT_BSTR)) {
        putRaw(v, index, allocateText(value, failure).get());
    } else if (isArrayOf(v, VT_VARIANT)) {
        OwnedVariant element;
        makeText(element, value, failure);
        putRaw(v, index, static_cast<tagVARIANT*>(&element));
    } else {
        throwWrongArray("BSTR");
    }
}

void VUtil::PutElement(tagVARIANT& v, int index, const char* value)
{
    PutElement(v, index, CStdStr<char>(value));
}

void VUtil::PutBoolElement(tagVARIANT& v, int index, bool value)
{
    putValue(v, index, value ? VARIANT_TRUE : VARIANT_FALSE, VT_BOOL, &tagVARIANT::boolVal, "BOOL");
}

void VUtil::PutElement(tagVARIANT& v, int index, unsigned char value)
{
    putValue(v, index, value, VT_UI1, &tagVARIANT::bVal, "UI1");
}

void VUtil::PutElement(tagVARIANT& v, int index, short value)
{
    putValue(v, index, value, VT_I2, &tagVARIANT::iVal, "I2");
}

void VUtil::PutElement(tagVARIANT& v, int index, unsigned short value)
{
    putValue(v, index, value, VT_UI2, &tagVARIANT::uiVal, "UI2");
}

void VUtil::PutElement(tagVARIANT& v, int index, int value)
{
    putValue(v, index, std::int32_t{value}, VT_I4, &tagVARIANT::lVal, "I4");
}

void VUtil::PutElement(tagVARIANT& v, int index, long value)
{
    PutElement(v, index, int{narrow(value, "PutElement failed: the value is too large for I4")});
}

void VUtil::PutElement(tagVARIANT& v, int index, long long value)
{
    putValue(v, index, std::int64_t{value}, VT_I8, &tagVARIANT::llVal, "I8");
}

void VUtil::PutElement(tagVARIANT& v, int index, unsigned long long value)
{
    putValue(v, index, std::uint64_t{value}, VT_UI8, &tagVARIANT::ullVal, "UI8");
}

void VUtil::PutElement(tagVARIANT& v, int index, float value)
{
    putValue(v, index, value, VT_R4, &tagVARIANT::fltVal, "R4");
}

void VUtil::PutElement(tagVARIANT& v, int index, double value)
{
    putValue(v, index, value, VT_R8, &tagVARIANT::dblVal, "R8");
}

void VUtil::PutDateElement(tagVARIANT& v, int index, long time)
{
    putValue(v, index, TimeToDate(time), VT_DATE, &tagVARIANT::date, "DATE");
}

void VUtil::PutElement(tagVARIANT& v, int index, void* value)
{
    const std::uint64_t address = reinterpret_cast<std::uintptr_t>(value);
    putValue(v, index, address, VT_UI8, &tagVARIANT::ullVal, "UI8");
}

void VUtil::PutElement(tagVARIANT& v, int index, const tagVARIANT& value)
{
    if (!isArrayOf(v, VT_VARIANT)) {
        throwInvalid("PutElement failed: not an array of VARIANT");
    }
    putRaw(v, index, &value);
}

void VUtil::PutPair(tagVARIANT& v, int index, const CStdStr<char>& key, const CStdStr<char>& value)
{
    checkPairs(v);
    OwnedVariant valueVariant;
    makeText(valueVariant, value, pairFailure);
    putPair(v, index, key, valueVariant);
}

void VUtil::PutPair(tagVARIANT& v, int index, const CStdStr<char>& key, long value)
{
    checkPairs(v);
    tagVARIANT valueVariant{};
    valueVariant.vt = VT_I4;
    valueVariant.lVal = narrow(value, pairFailure);
    putPair(v, index, key, valueVariant);
}

void VUtil::PutPair(tagVARIANT& v, int index, const CStdStr<char>& key, const tagVARIANT& value)
{
    checkPairs(v);
    putPair(v, index, key, value);
}

void VUtil::PutBinaryIntoVariant(tagVARIANT* v, unsigned char* data, unsigned long size)
{
    if (v == nullptr || (data == nullptr && size > 0)) {
        throwInvalid("PutBinaryIntoVariant failed: no variant or no data");
    }
    tagVARIANT bytes{};
    CreateArray(bytes, VT_UI1, size);
    std::copy_n(data, size, static_cast<unsigned char*>(bytes.parray->pvData));
    *v = bytes;
}

double VUtil::TimeToDate(long t)
{
    const long day = t / secondsPerDay + firstDay;
    return static_cast<double>(t % secondsPerDay) / 86400.0 + static_cast<double>(day);
}

long VUtil::DateToTime(double d)
{
    // Far beyond every calendar, and its seconds are still a number of 64 bits.
    constexpr double mostDays = 1e11;
    if (!(std::fabs(d) <= mostDays)) {
        throwInvalid("DateToTime failed: not a date");
    }
    const auto whole = static_cast<long>(d);
    const double seconds = (d - static_cast<double>(whole)) * 86400.0 + 0.5;
    return static_cast<long>(seconds) + (whole - firstDay) * secondsPerDay;
}
