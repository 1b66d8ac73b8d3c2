#pragma once

#include "common/dax/Variant.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zel {

/// @throws DaxInvalidParameterException
[[noreturn]] inline void throwInvalid(const char* message)
{
    throw DaxInvalidParameterException(message);
}

/// Whether the tag says so and the array agrees; one that does not was put together by a host.
inline bool isArrayOf(const tagVARIANT& v, VARTYPE elementType)
{
    return v.vt == (VT_ARRAY | elementType) && v.parray != nullptr && v.parray->vt == elementType;
}

/// The elements of an array without copies. Holds the array locked, never longer than its variant.
class VariantElements
{
public:
    /// @throws DaxInvalidParameterException when v is no array
    explicit VariantElements(const tagVARIANT& v) : m_array(v.parray)
    {
        const auto type = static_cast<VARTYPE>(v.vt & ~VT_ARRAY);
        if (!dax::isArrayType(v.vt) || !isArrayOf(v, type)) {
            throwInvalid("Variant is not an array");
        }
        if (SafeArrayAccessData(m_array, &m_data) != S_OK) {
            throwInvalid("SafeArrayAccessData failed");
        }
    }
    ~VariantElements() { SafeArrayUnaccessData(m_array); }
    VariantElements(const VariantElements&) = delete;
    VariantElements& operator=(const VariantElements&) = delete;

    std::uint32_t count() const { return m_array->rgsabound[0].cElements; }

    /// @param index  below count()
    /// @return what the array goes on owning
    tagVARIANT at(std::uint32_t index) const
    {
        const char* element =
            static_cast<const char*>(m_data) + std::size_t{index} * m_array->cbElements;
        tagVARIANT value{};
        if (m_array->vt == VT_VARIANT) {
            std::memcpy(&value, element, sizeof(value));
        } else {
            value.vt = m_array->vt;
            std::memcpy(&value.ullVal, element, m_array->cbElements);
        }
        return value;
    }

private:
    SAFEARRAY* m_array; ///< not owned
    void* m_data = nullptr;
};

} // namespace zel
