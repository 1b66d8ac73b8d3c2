#pragma once

#include <cstdint>

/// The records of the remoting border, with the names of the automation interfaces. All are plain
/// memory without a lock; who holds one clears it with the calls of Variant.h. Widths stand here
/// in bits, since `long` differs between machines.

using HRESULT = std::int32_t;
using VARTYPE = std::uint16_t;
using VARIANT_BOOL = std::int16_t;
using DATE = double; ///< days since 30 December 1899
/// UTF-8 text behind its length, made by SysAllocString and its like. May hold NUL bytes; one more
/// ends it. Null is an empty text.
///
///     | length, 32 bits | text ... | 0 |
///                       ^ BSTR
using BSTR = char*;

// What the calls answer; failures are below 0.
inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFFU);
inline constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057U);
inline constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000EU);
inline constexpr HRESULT DISP_E_BADVARTYPE = static_cast<HRESULT>(0x80020008U);
inline constexpr HRESULT DISP_E_BADINDEX = static_cast<HRESULT>(0x8002000BU);
inline constexpr HRESULT DISP_E_ARRAYISLOCKED = static_cast<HRESULT>(0x8002000DU);

/// Type tags. An array's tag is VT_ARRAY or-ed with that of its elements.
enum VARENUM : VARTYPE
{
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_BOOL = 11,
    VT_VARIANT = 12, ///< of array elements only
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_ARRAY = 0x2000
};

inline constexpr VARIANT_BOOL VARIANT_TRUE = -1;
inline constexpr VARIANT_BOOL VARIANT_FALSE = 0;

struct SAFEARRAYBOUND
{
    std::uint32_t cElements;
    std::int32_t lLbound; ///< index of the first element
};

/// An array of one dimension that knows the type of its elements and owns them.
struct SAFEARRAY
{
    std::uint16_t cDims; ///< 1
    VARTYPE vt;          ///< of the elements
    std::uint32_t cbElements;
    std::uint32_t cLocks; ///< while above 0 the array is neither resized nor freed
    void* pvData;         ///< owned; null without elements
    SAFEARRAYBOUND rgsabound[1];
    SAFEARRAY* next; ///< links the arrays that wait to be freed; null otherwise
};

/// A value and its type. The value of a string or an array is owned.
struct tagVARIANT
{
    VARTYPE vt;
    std::uint16_t wReserved1;
    std::uint16_t wReserved2;
    std::uint16_t wReserved3;
    union {
        std::int64_t llVal;
        std::int32_t lVal;
        std::int16_t iVal;
        std::int8_t cVal;
        std::uint64_t ullVal;
        std::uint32_t ulVal;
        std::uint16_t uiVal;
        std::uint8_t bVal;
        float fltVal;
        double dblVal;
        VARIANT_BOOL boolVal;
        DATE date;
        BSTR bstrVal;
        SAFEARRAY* parray;
    };
};
using VARIANT = tagVARIANT;
