#include "common/utils/VUtil.h"

#include "common/utils/VariantElements.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

using zel::isArrayOf;
using zel::throwInvalid;
using zel::VariantElements;
using zel::dax::isArrayType;
using zel::dax::OwnedString;
using zel::dax::OwnedVariant;

namespace {

constexpr const char* getFailure = "SafeArrayGetElement failed in VUtil::GetElement";

void getRaw(const tagVARIANT& v, int index, void* value, const char* failure = getFailure)
{
    const std::int32_t position = index;
    if (SafeArrayGetElement(v.parray, &position, value) != S_OK) {
        throwInvalid(failure);
    }
}

[[noreturn]] void throwWrongArray(const char* typeName)
{
    CStdStr<char> message;
    message.Format("Variant passed to VUtil::GetElement is not a %s array", typeName);
    throwInvalid(message.c_str());
}

/// Reads an element of an array of variants.
/// @return false when it is of type empty and may be
bool getVariantOf(const tagVARIANT& v, int index, VARTYPE type, const char* typeName,
                  bool allowEmpty, OwnedVariant& element)
{
    if (!isArrayOf(v, VT_VARIANT)) {
        throwWrongArray(typeName);
    }
    getRaw(v, index, static_cast<tagVARIANT*>(&element));
    if (allowEmpty && element.vt == VT_EMPTY) {
        return false;
    }
    if (element.vt != type) {
        CStdStr<char> message;
        message.Format("Element %d passed to VUtil::GetElement is not a %s", index, typeName);
        throwInvalid(message.c_str());
    }
    return true;
}

/// @param type, field  of T in a variant
/// @param allowEmpty  an array or element of type empty is T()
template <class T>
T getValue(const tagVARIANT& v, int index, VARTYPE type, T tagVARIANT::*field, const char* typeName,
           bool allowEmpty = false)
{
    T value{};
    if (allowEmpty && v.vt == VT_EMPTY) {
        return value;
    }
    if (isArrayOf(v, type)) {
        getRaw(v, index, &value);
        return value;
    }
    OwnedVariant element;
    return getVariantOf(v, index, type, typeName, allowEmpty, element) ? element.*field : value;
}

long getLong(const tagVARIANT& v, int index, bool allowEmpty)
{
    return getValue(v, index, VT_I4, &tagVARIANT::lVal, "long", allowEmpty);
}

bool getBool(const tagVARIANT& v, int index, bool allowEmpty)
{
    return getValue(v, index, VT_BOOL, &tagVARIANT::boolVal, "bool", allowEmpty) != VARIANT_FALSE;
}

CStdStr<char> textOf(const char* text)
{
    return text != nullptr ? CStdStr<char>(std::string(text, SysStringLen(text))) : "";
}

CStdStr<char> getText(const tagVARIANT& v, int index, bool allowEmpty)
{
    if (allowEmpty && v.vt == VT_EMPTY) {
        return "";
    }
    if (isArrayOf(v, VT_BSTR)) {
        BSTR text = nullptr;
        getRaw(v, index, &text);
        const OwnedString owner(text);
        return textOf(text);
    }
    OwnedVariant element;
    const bool present = getVariantOf(v, index, VT_BSTR, "string", allowEmpty, element);
    return present ? textOf(element.bstrVal) : "";
}

/// Throws an error of `what` and the text.
[[noreturn]] void throwCheck(const char* what, const CStdStr<char>& text)
{
    CStdStr<char> message;
    if (what != nullptr) {
        message.Format("%s: ", what);
    }
    message += text;
    throwInvalid(message.c_str());
}

/// @param found  gets a copy of the first pair with the key
bool findPair(const tagVARIANT& v, CStdStr<char> key, bool anyCase, OwnedVariant& found)
{
    if (anyCase) {
        key.ToLower();
    }
    const int count = VUtil::GetArrayLength(v);
    for (int index = 0; index < count; ++index) {
        OwnedVariant pair;
        VUtil::GetElement(v, index, pair);
        CStdStr<char> present = getText(pair, 0, true);
        if (anyCase) {
            present.ToLower();
        }
        if (present == key) {
            std::swap(static_cast<tagVARIANT&>(found), static_cast<tagVARIANT&>(pair));
            return true;
        }
    }
    return false;
}

/// @param function  names the caller in the text of a failed read
/// @return element 0
long getRetcode(const tagVARIANT& v, const char* function)
{
    try {
        return getLong(v, 0, false);
    } catch (const DaxException& failure) {
        CStdStr<char> message;
        message.Format("safeArrayGetElement failed in VUtil::%s : '%s'", function,
                       failure.getMessage());
        throwInvalid(message.c_str());
    }
}

bool equalElements(const tagVARIANT& left, const tagVARIANT& right, int depth);

bool equalValues(const tagVARIANT& left, const tagVARIANT& right, int depth)
{
    if (left.vt != right.vt) {
        return false;
    }
    if ((left.vt & VT_ARRAY) != 0) {
        return equalElements(left, right, depth);
    }
    switch (left.vt) {
    case VT_EMPTY:
    case VT_NULL:
        return true;
    case VT_BSTR:
        return textOf(left.bstrVal) == textOf(right.bstrVal);
    case VT_R4:
        return left.fltVal == right.fltVal;
    case VT_R8:
    case VT_DATE:
        return left.dblVal == right.dblVal;
    case VT_BOOL:
        return (left.boolVal != VARIANT_FALSE) == (right.boolVal != VARIANT_FALSE);
    default:
        // Bytes, since nothing is said of those behind a value that is shorter than the union.
        const std::uint32_t size = zel::dax::elementSize(left.vt);
        return std::memcmp(&left.ullVal, &right.ullVal, size > 0 ? size : sizeof(left.ullVal)) == 0;
    }
}

bool equalElements(const tagVARIANT& left, const tagVARIANT& right, int depth)
{
    if (left.parray == nullptr || right.parray == nullptr) {
        return left.parray == right.parray;
    }
    if (depth == 0) {
        throwInvalid("Equals failed: nested too deep");
    }
    const VariantElements these(left);
    const VariantElements those(right);
    bool equal = these.count() == those.count();
    for (std::uint32_t index = 0; equal && index < these.count(); ++index) {
        equal = equalValues(these.at(index), those.at(index), depth - 1);
    }
    return equal;
}

} // namespace

void VUtil::GetPair(const tagVARIANT& v, int index, CStdStr<char>& key, CStdStr<char>& value)
{
    if (!isArrayOf(v, VT_VARIANT)) {
        throwInvalid("Variant passed to VUtil::GetPair is not an array");
    }
    OwnedVariant pair;
    getRaw(v, index, static_cast<tagVARIANT*>(&pair),
           "SafeArrayGetElement failed in VUtil::GetPair");
    key = GetStringElementEmpty(pair, 0);
    value = GetStringElementEmpty(pair, 1);
}

void VUtil::GetElement(const tagVARIANT& v, int index, CStdStr<char>& value)
{
    value = getText(v, index, false);
}

void VUtil::GetElement(const tagVARIANT& v, int index, bool& value)
{
    value = getBool(v, index, false);
}

void VUtil::GetElement(const tagVARIANT& v, int index, unsigned char& value)
{
    value = getValue(v, index, VT_UI1, &tagVARIANT::bVal, "unsigned char");
}

void VUtil::GetElement(const tagVARIANT& v, int index, short& value)
{
    value = getValue(v, index, VT_I2, &tagVARIANT::iVal, "short");
}

void VUtil::GetElement(const tagVARIANT& v, int index, unsigned short& value)
{
    value = getValue(v, index, VT_UI2, &tagVARIANT::uiVal, "unsigned short");
}

void VUtil::GetElement(const tagVARIANT& v, int index, int& value)
{
    value = getValue(v, index, VT_I4, &tagVARIANT::lVal, "int");
}

void VUtil::GetElement(const tagVARIANT& v, int index, long& value)
{
    value = getLong(v, index, false);
}

void VUtil::GetElement(const tagVARIANT& v, int index, unsigned long& value)
{
    value = getValue(v, index, VT_UI4, &tagVARIANT::ulVal, "unsigned long");
}

void VUtil::GetElement(const tagVARIANT& v, int index, long long& value)
{
    value = getValue(v, index, VT_I8, &tagVARIANT::llVal, "int64");
}

void VUtil::GetElement(const tagVARIANT& v, int index, unsigned long long& value)
{
    value = getValue(v, index, VT_UI8, &tagVARIANT::ullVal, "unsigned int64");
}

void VUtil::GetElement(const tagVARIANT& v, int index, float& value)
{
    value = getValue(v, index, VT_R4, &tagVARIANT::fltVal, "float");
}

void VUtil::GetElement(const tagVARIANT& v, int index, double& value)
{
    value = getValue(v, index, VT_R8, &tagVARIANT::dblVal, "double");
}

void VUtil::GetElement(const tagVARIANT& v, int index, void*& value)
{
    const std::uint64_t address = getValue(v, index, VT_UI8, &tagVARIANT::ullVal, "pointer");
    value = std::bit_cast<void*>(static_cast<std::uintptr_t>(address));
}

void VUtil::GetElement(const tagVARIANT& v, int index, tagVARIANT& value)
{
    if (!isArrayOf(v, VT_VARIANT)) {
        throwWrongArray("variant");
    }
    tagVARIANT element{};
    getRaw(v, index, &element);
    value = element;
}

long VUtil::GetLongElement(const tagVARIANT& v, int index)
{
    return getLong(v, index, false);
}

int VUtil::GetIntElement(const tagVARIANT& v, int index)
{
    int value = 0;
    GetElement(v, index, value);
    return value;
}

short VUtil::GetShortElement(const tagVARIANT& v, int index)
{
    short value = 0;
    GetElement(v, index, value);
    return value;
}

unsigned short VUtil::GetUnsignedShortElement(const tagVARIANT& v, int index)
{
    unsigned short value = 0;
    GetElement(v, index, value);
    return value;
}

float VUtil::GetFloatElement(const tagVARIANT& v, int index)
{
    float value = 0;
    GetElement(v, index, value);
    return value;
}

double VUtil::GetDoubleElement(const tagVARIANT& v, int index)
{
    double value = 0;
    GetElement(v, index, value);
    return value;
}

bool VUtil::GetBoolElement(const tagVARIANT& v, int index)
{
    return getBool(v, index, false);
}

long VUtil::GetDateElement(const tagVARIANT& v, int index)
{
    return DateToTime(getValue(v, index, VT_DATE, &tagVARIANT::date, "date"));
}

CStdStr<char> VUtil::GetStringElement(const tagVARIANT& v, int index)
{
    return getText(v, index, false);
}

long VUtil::GetLongElementEmpty(const tagVARIANT& v, int index)
{
    return getLong(v, index, true);
}

bool VUtil::GetBoolElementEmpty(const tagVARIANT& v, int index)
{
    return getBool(v, index, true);
}

CStdStr<char> VUtil::GetStringElementEmpty(const tagVARIANT& v, int index)
{
    return getText(v, index, true);
}

int VUtil::GetArrayLength(const tagVARIANT& v)
{
    if (!isArrayType(v.vt)) {
        throwInvalid("Variant passed to VUtil::GetArrayLength is not an array");
    }
    std::int32_t first = 0;
    std::int32_t last = 0;
    if (SafeArrayGetLBound(v.parray, 1, &first) != S_OK ||
        SafeArrayGetUBound(v.parray, 1, &last) != S_OK) {
        throwInvalid("SafeArrayGetUBound failed in VUtil::GetArrayLength");
    }
    const std::int64_t length = std::int64_t{last} - first + 1;
    return static_cast<int>(length);
}

int VUtil::GetArrayLengthEmpty(const tagVARIANT& v)
{
    return v.vt == VT_EMPTY ? 0 : GetArrayLength(v);
}

void VUtil::CheckType(const tagVARIANT& v, unsigned short type, const char* what)
{
    if (v.vt != type) {
        CStdStr<char> text;
        text.Format("Variant is of type %d, not %d", int{v.vt}, int{type});
        throwCheck(what, text);
    }
}

void VUtil::CheckArrayType(const tagVARIANT& v, unsigned short type, unsigned long count,
                           const char* what)
{
    CheckArrayType(v, type, count, false, what);
}

void VUtil::CheckArrayType(const tagVARIANT& v, unsigned short type, unsigned long count,
                           bool orMore, const char* what)
{
    CheckType(v, static_cast<unsigned short>(type | VT_ARRAY), what);
    if (!isArrayOf(v, static_cast<VARTYPE>(type & ~VT_ARRAY))) {
        throwCheck(what, "Variant holds no array of its type");
    }
    const auto length = static_cast<unsigned long>(GetArrayLength(v));
    if (length < count || (length > count && !orMore)) {
        CStdStr<char> text;
        text.Format("Array has %lu elements, not %lu", length, count);
        throwCheck(what, text);
    }
}

std::vector<unsigned char> VUtil::GetByteArray(const tagVARIANT& v)
{
    if (!isArrayOf(v, VT_UI1)) {
        throwInvalid("Variant passed to VUtil::GetByteArray is not an array of bytes");
    }
    const auto* bytes = static_cast<const unsigned char*>(v.parray->pvData);
    return {bytes, bytes + v.parray->rgsabound[0].cElements};
}

void VUtil::GetBinaryElement(const tagVARIANT& v, int index, std::vector<unsigned char>& data)
{
    OwnedVariant element;
    GetElement(v, index, element);
    data = GetByteArray(element);
}

VUtil::StringMap VUtil::toStringMap(const tagVARIANT& v, bool allowEmpty)
{
    StringMap map;
    const int count = allowEmpty ? GetArrayLengthEmpty(v) : GetArrayLength(v);
    for (int index = 0; index < count; ++index) {
        CStdStr<char> key;
        CStdStr<char> value;
        GetPair(v, index, key, value);
        map.emplace(key, value);
    }
    return map;
}

VUtil::StringMap VUtil::toStringAMap(const tagVARIANT& v, bool allowEmpty)
{
    return toStringMap(v, allowEmpty);
}

bool VUtil::FindPair(const tagVARIANT& v, const CStdStr<char>& key, CStdStr<char>& value)
{
    OwnedVariant pair;
    const bool found = findPair(v, key, false, pair);
    if (found) {
        value = GetStringElementEmpty(pair, 1);
    }
    return found;
}

bool VUtil::FindPairNoCase(const tagVARIANT& v, const CStdStr<char>& key, int& value)
{
    OwnedVariant pair;
    const bool found = findPair(v, key, true, pair);
    if (found) {
        GetElement(pair, 1, value);
    }
    return found;
}

bool VUtil::FindPairNoCase(const tagVARIANT& v, const CStdStr<char>& key, CStdStr<char>& value)
{
    OwnedVariant pair;
    const bool found = findPair(v, key, true, pair);
    if (found) {
        value = GetStringElementEmpty(pair, 1);
    }
    return found;
}

bool VUtil::FindPairNoCase(const tagVARIANT& v, const CStdStr<char>& key, tagVARIANT& value)
{
    OwnedVariant pair;
    const bool found = findPair(v, key, true, pair);
    if (found) {
        GetElement(pair, 1, value);
    }
    return found;
}

CStdStr<char> VUtil::GetCSVElement(const tagVARIANT& v, int index)
{
    OwnedVariant list;
    GetElement(v, index, list);
    CStdStr<char> joined;
    const int count = GetArrayLengthEmpty(list);
    for (int position = 0; position < count; ++position) {
        joined += position > 0 ? ", " : "";
        joined += GetStringElementEmpty(list, position);
    }
    return joined;
}

bool VUtil::Equals(const tagVARIANT& left, const tagVARIANT& right)
{
    return equalValues(left, right, zel::dax::maxNesting);
}

void VUtil::CheckSingleRetcode(tagVARIANT& v, const char* what)
{
    long code = -1;
    if ((v.vt & VT_ARRAY) != 0) {
        code = getRetcode(v, "CheckSingleRetcode");
    } else if (v.vt == VT_I4) {
        code = v.lVal;
    }
    if (code != 0) {
        // As the 32 bits that travelled, without those of the sign in front.
        const unsigned long bits = static_cast<std::uint32_t>(code);
        CStdStr<char> text;
        text.Format("Dax error detected in VUtil::CheckSingleRetcode : hr = %ld - 0x%lx", code,
                    bits);
        throwCheck(what, text);
    }
}

long VUtil::GetSingleRetcode(tagVARIANT& v)
{
    if ((v.vt & VT_ARRAY) != 0) {
        return getRetcode(v, "GetSingleRetcode");
    }
    if (v.vt != VT_I4) {
        throwInvalid("VUtil::GetSingleRetcode wrong type");
    }
    return v.lVal;
}

void VUtil::GetSingleOutParamString(tagVARIANT& v, CStdStr<char>& out)
{
    out = GetStringElement(v, 1);
}
