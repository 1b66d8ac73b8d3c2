#pragma once

#include "common/dax/DaxException.h"
#include "common/dax/VariantMemory.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

/// The automation calls. Header-only, for a host makes and clears variants, too: what one side
/// allocates the other frees, so everything comes from malloc. No call throws. Values have no lock:
/// one thread at a time works on a variant and all that it holds.

// ---- Arrays

/// @param dimensions  1
/// @return elements of zeros, which are empty texts and variants; SafeArrayDestroy frees it. Null
///         for a type that arrays do not hold, and when the data would exceed 2 GiB
inline SAFEARRAY* SafeArrayCreate(VARTYPE type, std::uint32_t dimensions,
                                  const SAFEARRAYBOUND* bounds)
{
    return dimensions == 1 && bounds != nullptr ? zel::dax::createArray(type, *bounds) : nullptr;
}

/// Frees the array and what it holds.
inline HRESULT SafeArrayDestroy(SAFEARRAY* array)
{
    if (array != nullptr && array->cLocks > 0) {
        return DISP_E_ARRAYISLOCKED;
    }
    zel::dax::destroyArrays(array);
    return S_OK;
}

/// Frees the elements that are too many, or adds zeros. A failure changes nothing.
inline HRESULT SafeArrayRedim(SAFEARRAY* array, const SAFEARRAYBOUND* bound)
{
    if (array == nullptr || bound == nullptr || !zel::dax::isPossible(*bound, array->cbElements)) {
        return E_INVALIDARG;
    }
    if (array->cLocks > 0) {
        return DISP_E_ARRAYISLOCKED;
    }
    void* data = zel::dax::allocateElements(bound->cElements, array->cbElements);
    if (data == nullptr && bound->cElements > 0) {
        return E_OUTOFMEMORY;
    }
    const std::uint32_t count = array->rgsabound[0].cElements;
    const std::uint32_t kept = std::min(count, bound->cElements);
    if (kept > 0) {
        std::memcpy(data, array->pvData, std::size_t{kept} * array->cbElements);
    }
    SAFEARRAY* pending = nullptr;
    zel::dax::releaseElements(*array, kept, count, pending);
    std::free(array->pvData);
    array->pvData = data;
    array->rgsabound[0] = *bound;
    zel::dax::destroyArrays(pending);
    return S_OK;
}

/// Puts a copy at an index and frees what stood there. A failure changes nothing.
/// @param value  the BSTR itself for an array of strings, otherwise where the value stands
inline HRESULT SafeArrayPutElement(SAFEARRAY* array, const std::int32_t* index, const void* value)
{
    void* const element = zel::dax::elementAt(array, index);
    if (element == nullptr) {
        return array != nullptr && index != nullptr ? DISP_E_BADINDEX : E_INVALIDARG;
    }
    if (value == nullptr && array->vt != VT_BSTR) {
        return E_INVALIDARG;
    }
    tagVARIANT copy{};
    const void* source = value;
    HRESULT result = S_OK;
    if (array->vt == VT_BSTR) {
        result = zel::dax::copyText(copy.bstrVal, static_cast<const char*>(value));
        source = &copy.bstrVal;
    } else if (array->vt == VT_VARIANT) {
        result = zel::dax::copyValue(copy, *static_cast<const tagVARIANT*>(value),
                                     zel::dax::maxNesting - 1);
        source = &copy;
    }
    if (result != S_OK) {
        return result;
    }
    const auto position =
        static_cast<std::uint32_t>(std::int64_t{*index} - array->rgsabound[0].lLbound);
    SAFEARRAY* pending = nullptr;
    zel::dax::releaseElements(*array, position, position + 1, pending);
    std::memmove(element, source, array->cbElements);
    zel::dax::destroyArrays(pending);
    return S_OK;
}

/// @param value  overwritten, not cleared, by a copy that the caller frees; kept on failure but
///        for a variant, which is of type empty then
inline HRESULT SafeArrayGetElement(const SAFEARRAY* array, const std::int32_t* index, void* value)
{
    const void* const element = zel::dax::elementAt(array, index);
    if (array == nullptr || index == nullptr || value == nullptr) {
        return E_INVALIDARG;
    }
    if (element == nullptr) {
        return DISP_E_BADINDEX;
    }
    if (array->vt == VT_VARIANT) {
        return zel::dax::copyValue(*static_cast<tagVARIANT*>(value),
                                   *static_cast<const tagVARIANT*>(element), zel::dax::maxNesting);
    }
    if (array->vt == VT_BSTR) {
        BSTR copy = nullptr;
        const HRESULT result = zel::dax::copyText(copy, *static_cast<const BSTR*>(element));
        if (result == S_OK) {
            *static_cast<BSTR*>(value) = copy;
        }
        return result;
    }
    std::memcpy(value, element, array->cbElements);
    return S_OK;
}

/// @param dimension  1
inline HRESULT SafeArrayGetLBound(const SAFEARRAY* array, std::uint32_t dimension,
                                  std::int32_t* bound)
{
    if (array == nullptr || bound == nullptr) {
        return E_INVALIDARG;
    }
    if (dimension != 1) {
        return DISP_E_BADINDEX;
    }
    *bound = array->rgsabound[0].lLbound;
    return S_OK;
}

/// @param dimension  1
/// @param bound  the last index; one below the lower bound without elements
inline HRESULT SafeArrayGetUBound(const SAFEARRAY* array, std::uint32_t dimension,
                                  std::int32_t* bound)
{
    const HRESULT result = SafeArrayGetLBound(array, dimension, bound);
    if (result == S_OK) {
        *bound =
            static_cast<std::int32_t>(std::int64_t{*bound} + array->rgsabound[0].cElements - 1);
    }
    return result;
}

/// Locks the array and hands out its elements, until SafeArrayUnaccessData.
/// @param data  not owned by the caller; null without elements
inline HRESULT SafeArrayAccessData(SAFEARRAY* array, void** data)
{
    if (array == nullptr || data == nullptr) {
        return E_INVALIDARG;
    }
    if (array->cLocks == std::numeric_limits<std::uint32_t>::max()) {
        return E_UNEXPECTED;
    }
    ++array->cLocks;
    *data = array->pvData;
    return S_OK;
}

inline HRESULT SafeArrayUnaccessData(SAFEARRAY* array)
{
    if (array == nullptr) {
        return E_INVALIDARG;
    }
    if (array->cLocks == 0) {
        return E_UNEXPECTED;
    }
    --array->cLocks;
    return S_OK;
}

// ---- Variants

/// Makes new memory a variant of type empty.
inline void VariantInit(tagVARIANT* value)
{
    *value = tagVARIANT{};
}

/// Frees what the value owns; it is of type empty then. An unknown tag and a locked array stay.
inline HRESULT VariantClear(tagVARIANT* value)
{
    if (value == nullptr) {
        return E_INVALIDARG;
    }
    if (!zel::dax::isVariantType(value->vt)) {
        return DISP_E_BADVARTYPE;
    }
    if (value->vt == VT_BSTR) {
        SysFreeString(value->bstrVal);
    } else if (zel::dax::isArrayType(value->vt)) {
        const HRESULT result = SafeArrayDestroy(value->parray);
        if (result != S_OK) {
            return result;
        }
    }
    VariantInit(value);
    return S_OK;
}

/// Clears the target and makes it a copy of the source. A failure changes nothing.
inline HRESULT VariantCopy(tagVARIANT* target, const tagVARIANT* source)
{
    if (target == nullptr || source == nullptr) {
        return E_INVALIDARG;
    }
    tagVARIANT copy{};
    HRESULT result = zel::dax::copyValue(copy, *source, zel::dax::maxNesting);
    if (result != S_OK) {
        return result;
    }
    result = VariantClear(target);
    if (result != S_OK) {
        VariantClear(&copy);
        return result;
    }
    *target = copy;
    return S_OK;
}

namespace zel::dax {

/// A variant that starts empty and clears itself. Who moves its value out sets the type to empty.
struct OwnedVariant : tagVARIANT
{
    OwnedVariant() { VariantInit(this); }
    ~OwnedVariant() { VariantClear(this); }
    OwnedVariant(const OwnedVariant&) = delete;
    OwnedVariant& operator=(const OwnedVariant&) = delete;
};

struct StringDeleter
{
    void operator()(char* text) const { SysFreeString(text); }
};
using OwnedString = std::unique_ptr<char, StringDeleter>;

} // namespace zel::dax
