#pragma once

#include "common/dax/VariantTypes.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>

/// The calls for strings, and how variants and arrays hold memory; callers include Variant.h.

/// @param text  length bytes; null gives zeros
/// @return the caller frees it with SysFreeString; null when there is no memory for it
inline BSTR SysAllocStringLen(const char* text, std::uint32_t length)
{
    if (length > static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max())) {
        return nullptr;
    }
    auto* block = static_cast<char*>(std::calloc(sizeof(length) + length + 1, 1));
    if (block == nullptr) {
        return nullptr;
    }
    std::memcpy(block, &length, sizeof(length));
    if (text != nullptr && length > 0) {
        std::memcpy(block + sizeof(length), text, length);
    }
    return block + sizeof(length);
}

/// @return as SysAllocStringLen; null also for null
inline BSTR SysAllocString(const char* text)
{
    const std::size_t length = text != nullptr ? std::strlen(text) : 0;
    const bool fits = length <= std::numeric_limits<std::uint32_t>::max();
    return text != nullptr && fits ? SysAllocStringLen(text, static_cast<std::uint32_t>(length))
                                   : nullptr;
}

/// @return bytes in front of the NUL at the end; 0 for null
inline std::uint32_t SysStringLen(const char* text)
{
    std::uint32_t length = 0;
    if (text != nullptr) {
        std::memcpy(&length, text - sizeof(length), sizeof(length));
    }
    return length;
}

inline void SysFreeString(BSTR text)
{
    if (text != nullptr) {
        std::free(text - sizeof(std::uint32_t));
    }
}

namespace zel::dax {

/// Arrays in arrays, counted from the outermost. The calls build nothing deeper, so that whoever
/// walks a value, as copying does, needs a bounded stack.
inline constexpr int maxNesting = 64;

/// Bytes of an array's elements by their tag; 0 for what arrays do not hold.
inline constexpr std::uint32_t elementSizes[] = {
    0, // VT_EMPTY
    0, // VT_NULL
    2, // VT_I2
    4, // VT_I4
    4, // VT_R4
    8, // VT_R8
    0,
    8, // VT_DATE
    sizeof(BSTR),
    0,
    0,
    2, // VT_BOOL
    sizeof(tagVARIANT),
    0,
    0,
    0,
    1, // VT_I1
    1, // VT_UI1
    2, // VT_UI2
    4, // VT_UI4
    8, // VT_I8
    8, // VT_UI8
};
static_assert(std::size(elementSizes) == VT_UI8 + 1);

inline std::uint32_t elementSize(VARTYPE type)
{
    return type < std::size(elementSizes) ? elementSizes[type] : 0;
}

inline bool isArrayType(VARTYPE type)
{
    return (type & VT_ARRAY) != 0 && elementSize(static_cast<VARTYPE>(type ^ VT_ARRAY)) > 0;
}

/// Whether a variant can have this tag.
inline bool isVariantType(VARTYPE type)
{
    return type == VT_EMPTY || type == VT_NULL || isArrayType(type) ||
           (type != VT_VARIANT && elementSize(type) > 0);
}

/// Frees what the elements [first, end) own and leaves them as they are.
/// @param pending  gets the arrays among them
inline void releaseElements(const SAFEARRAY& array, std::uint32_t first, std::uint32_t end,
                            SAFEARRAY*& pending)
{
    if (array.vt == VT_BSTR) {
        const auto* texts = static_cast<const BSTR*>(array.pvData);
        std::for_each(texts + first, texts + end, SysFreeString);
    }
    if (array.vt != VT_VARIANT) {
        return;
    }
    const auto* values = static_cast<const tagVARIANT*>(array.pvData);
    for (std::uint32_t index = first; index < end; ++index) {
        const tagVARIANT& value = values[index];
        if (value.vt == VT_BSTR) {
            SysFreeString(value.bstrVal);
        } else if (isArrayType(value.vt) && value.parray != nullptr) {
            value.parray->next = pending;
            pending = value.parray;
        }
    }
}

/// A row instead of a recursion: values that a host nested by moving pointers have any depth.
inline void destroyArrays(SAFEARRAY* pending)
{
    while (pending != nullptr) {
        SAFEARRAY* const array = pending;
        pending = array->next;
        releaseElements(*array, 0, array->rgsabound[0].cElements, pending);
        std::free(array->pvData);
        std::free(array);
    }
}

/// Whether indices and size of an array's data are numbers of 32 bits.
inline bool isPossible(const SAFEARRAYBOUND& bound, std::uint32_t size)
{
    constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
    return std::int64_t{bound.cElements} * size <= most && bound.lLbound >= -most &&
           std::int64_t{bound.lLbound} + bound.cElements - 1 <= most;
}

/// @return zeros; null without elements and without memory
inline void* allocateElements(std::uint32_t count, std::uint32_t size)
{
    return count > 0 ? std::calloc(count, size) : nullptr;
}

inline SAFEARRAY* createArray(VARTYPE type, const SAFEARRAYBOUND& bound)
{
    const std::uint32_t size = elementSize(type);
    if (size == 0 || !isPossible(bound, size)) {
        return nullptr;
    }
    auto* array = static_cast<SAFEARRAY*>(std::calloc(1, sizeof(SAFEARRAY)));
    void* data = allocateElements(bound.cElements, size);
    if (array == nullptr || (data == nullptr && bound.cElements > 0)) {
        std::free(array);
        std::free(data);
        return nullptr;
    }
    array->cDims = 1;
    array->vt = type;
    array->cbElements = size;
    array->pvData = data;
    array->rgsabound[0] = bound;
    return array;
}

inline HRESULT copyArray(SAFEARRAY*& copy, const SAFEARRAY& source, int depth);

/// @return S_OK with a copy that is its owner's alone; null of no memory
inline HRESULT copyText(BSTR& copy, const char* source)
{
    copy = source != nullptr ? SysAllocStringLen(source, SysStringLen(source)) : nullptr;
    return copy == nullptr && source != nullptr ? E_OUTOFMEMORY : S_OK;
}

/// @param copy  overwritten, not cleared; of type empty after a failure
/// @param depth  how many arrays in arrays may follow
inline HRESULT copyValue(tagVARIANT& copy, const tagVARIANT& source, int depth)
{
    copy = tagVARIANT{};
    if (!isVariantType(source.vt)) {
        return DISP_E_BADVARTYPE;
    }
    tagVARIANT value = source;
    HRESULT result = S_OK;
    if (source.vt == VT_BSTR) {
        result = copyText(value.bstrVal, source.bstrVal);
    } else if (isArrayType(source.vt) && source.parray != nullptr) {
        result = depth > 0 ? copyArray(value.parray, *source.parray, depth - 1) : E_INVALIDARG;
    }
    if (result == S_OK) {
        copy = value;
    }
    return result;
}

inline HRESULT copyArray(SAFEARRAY*& copy, const SAFEARRAY& source, int depth)
{
    copy = nullptr;
    SAFEARRAY* const array = createArray(source.vt, source.rgsabound[0]);
    if (array == nullptr) {
        return E_OUTOFMEMORY;
    }
    const std::uint32_t count = source.rgsabound[0].cElements;
    HRESULT result = S_OK;
    if (source.vt == VT_BSTR) {
        for (std::uint32_t index = 0; index < count && result == S_OK; ++index) {
            result = copyText(static_cast<BSTR*>(array->pvData)[index],
                              static_cast<const BSTR*>(source.pvData)[index]);
        }
    } else if (source.vt == VT_VARIANT) {
        for (std::uint32_t index = 0; index < count && result == S_OK; ++index) {
            result = copyValue(static_cast<tagVARIANT*>(array->pvData)[index],
                               static_cast<const tagVARIANT*>(source.pvData)[index], depth);
        }
    } else if (count > 0) {
        std::memcpy(array->pvData, source.pvData, std::size_t{count} * source.cbElements);
    }
    if (result != S_OK) {
        destroyArrays(array);
        return result;
    }
    copy = array;
    return S_OK;
}

/// @return null when there is no such element
inline void* elementAt(const SAFEARRAY* array, const std::int32_t* index)
{
    if (array == nullptr || index == nullptr) {
        return nullptr;
    }
    const SAFEARRAYBOUND& bound = array->rgsabound[0];
    const std::int64_t position = std::int64_t{*index} - bound.lLbound;
    return position >= 0 && position < bound.cElements
               ? static_cast<char*>(array->pvData) + position * array->cbElements
               : nullptr;
}

} // namespace zel::dax
