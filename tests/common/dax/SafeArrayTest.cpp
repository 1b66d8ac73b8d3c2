#include "common/dax/Variant.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>
#include <utility>

using zel::dax::maxNesting;
using zel::dax::OwnedString;
using zel::dax::OwnedVariant;

namespace {

constexpr VARTYPE elementTypes[] = {VT_I1,  VT_I2, VT_I4, VT_I8,   VT_UI1,  VT_UI2,  VT_UI4,
                                    VT_UI8, VT_R4, VT_R8, VT_BSTR, VT_DATE, VT_BOOL, VT_VARIANT};

struct ArrayDeleter
{
    void operator()(SAFEARRAY* array) const { SafeArrayDestroy(array); }
};
using Array = std::unique_ptr<SAFEARRAY, ArrayDeleter>;

Array makeArray(VARTYPE type, std::uint32_t count, std::int32_t first = 0)
{
    const SAFEARRAYBOUND bound = {count, first};
    return Array(SafeArrayCreate(type, 1, &bound));
}

HRESULT putText(const Array& array, std::int32_t index, const char* text)
{
    return SafeArrayPutElement(array.get(), &index, OwnedString(SysAllocString(text)).get());
}

std::string textAt(const Array& array, std::int32_t index)
{
    BSTR text = nullptr;
    EXPECT_EQ(SafeArrayGetElement(array.get(), &index, &text), S_OK);
    const OwnedString owner(text);
    return text != nullptr ? text : "(null)";
}

} // namespace

TEST(SafeArray, NewElementsOfEveryTypeAreZeros)
{
    for (const VARTYPE type : elementTypes) {
        const Array array = makeArray(type, 3);
        ASSERT_NE(array, nullptr) << type;
        EXPECT_EQ(array->vt, type);
        EXPECT_EQ(array->cbElements, zel::dax::elementSize(type));
        EXPECT_EQ(std::string(static_cast<char*>(array->pvData), 3 * array->cbElements),
                  std::string(3 * array->cbElements, '\0'));
    }
}

TEST(SafeArray, TypeThatArraysDoNotHoldGivesNone)
{
    for (const int type : {0, 1, 6, 9, 10, 13, 14, 15, 22, 0x2000, 8200, 8204, 0x4003, 0xffff}) {
        EXPECT_EQ(makeArray(static_cast<VARTYPE>(type), 1), nullptr) << type;
    }
}

TEST(SafeArray, HasOneDimension)
{
    const SAFEARRAYBOUND bounds[] = {{2, 0}, {2, 0}};
    EXPECT_EQ(SafeArrayCreate(VT_I4, 0, bounds), nullptr);
    EXPECT_EQ(SafeArrayCreate(VT_I4, 2, bounds), nullptr);
    EXPECT_EQ(SafeArrayCreate(VT_I4, 1, nullptr), nullptr);
    const Array array = makeArray(VT_I4, 2);
    std::int32_t bound = 0;
    EXPECT_EQ(SafeArrayGetLBound(array.get(), 2, &bound), DISP_E_BADINDEX);
    EXPECT_EQ(SafeArrayGetUBound(array.get(), 0, &bound), DISP_E_BADINDEX);
    EXPECT_EQ(SafeArrayGetUBound(nullptr, 1, &bound), E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetLBound(array.get(), 1, nullptr), E_INVALIDARG);
}

TEST(SafeArray, SizeOfMoreThan2GigabytesIsRefusedForEveryType)
{
    for (const VARTYPE type : elementTypes) {
        const std::uint32_t tooMany = 0x80000000U / zel::dax::elementSize(type);
        EXPECT_EQ(makeArray(type, tooMany), nullptr) << type;
        EXPECT_EQ(makeArray(type, std::numeric_limits<std::uint32_t>::max()), nullptr) << type;
        const Array array = makeArray(type, 1);
        const SAFEARRAYBOUND bound = {tooMany, 0};
        EXPECT_EQ(SafeArrayRedim(array.get(), &bound), E_INVALIDARG);
        EXPECT_EQ(array->rgsabound[0].cElements, 1U);
    }
}

TEST(SafeArray, IndicesThatNeedMoreThan32BitsAreRefused)
{
    constexpr std::int32_t most = std::numeric_limits<std::int32_t>::max();
    EXPECT_NE(makeArray(VT_I4, 1, most), nullptr);
    EXPECT_EQ(makeArray(VT_I4, 2, most), nullptr);
    EXPECT_EQ(makeArray(VT_I4, 0, std::numeric_limits<std::int32_t>::min()), nullptr);
}

TEST(SafeArray, ElementsCountFromTheLowerBound)
{
    const Array array = makeArray(VT_I2, 3, -1);
    std::int32_t first = 5;
    std::int32_t last = 5;
    EXPECT_EQ(SafeArrayGetLBound(array.get(), 1, &first), S_OK);
    EXPECT_EQ(SafeArrayGetUBound(array.get(), 1, &last), S_OK);
    EXPECT_EQ(first, -1);
    EXPECT_EQ(last, 1);
    for (std::int32_t index = first; index <= last; ++index) {
        const auto value = static_cast<std::int16_t>(index * 100);
        EXPECT_EQ(SafeArrayPutElement(array.get(), &index, &value), S_OK);
    }
    EXPECT_EQ(static_cast<std::int16_t*>(array->pvData)[0], -100);
    std::int16_t value = 0;
    EXPECT_EQ(SafeArrayGetElement(array.get(), &last, &value), S_OK);
    EXPECT_EQ(value, 100);
}

TEST(SafeArray, IndexOutsideIsRefused)
{
    const Array array = makeArray(VT_I4, 3);
    const Array none = makeArray(VT_I4, 0);
    std::int32_t value = 77;
    for (const std::int32_t index : {-1, 3, std::numeric_limits<std::int32_t>::max(),
                                     std::numeric_limits<std::int32_t>::min()}) {
        EXPECT_EQ(SafeArrayPutElement(array.get(), &index, &value), DISP_E_BADINDEX) << index;
        EXPECT_EQ(SafeArrayGetElement(array.get(), &index, &value), DISP_E_BADINDEX) << index;
    }
    const std::int32_t index = 0;
    EXPECT_EQ(SafeArrayGetElement(none.get(), &index, &value), DISP_E_BADINDEX);
    EXPECT_EQ(SafeArrayPutElement(nullptr, &index, &value), E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetElement(nullptr, &index, &value), E_INVALIDARG);
    EXPECT_EQ(SafeArrayPutElement(array.get(), nullptr, &value), E_INVALIDARG);
    EXPECT_EQ(SafeArrayPutElement(array.get(), &index, nullptr), E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetElement(array.get(), &index, nullptr), E_INVALIDARG);
    EXPECT_EQ(value, 77);
}

TEST(SafeArray, TextsArePutAndReadAsCopies)
{
    const Array array = makeArray(VT_BSTR, 2);
    EXPECT_EQ(putText(array, 0, "first"), S_OK);
    EXPECT_EQ(putText(array, 0, "second"), S_OK);
    EXPECT_EQ(textAt(array, 0), "second");
    EXPECT_EQ(textAt(array, 1), "(null)");
    EXPECT_EQ(putText(array, 0, nullptr), S_OK);
    EXPECT_EQ(textAt(array, 0), "(null)");
}

TEST(SafeArray, VariantsArePutAndReadWithAllThatTheyHold)
{
    OwnedVariant inner;
    inner.parray = makeArray(VT_BSTR, 1).release();
    inner.vt = VT_ARRAY | VT_BSTR;
    const std::int32_t index = 0;
    const OwnedString text(SysAllocString("deep"));
    ASSERT_EQ(SafeArrayPutElement(inner.parray, &index, text.get()), S_OK);
    const Array outer = makeArray(VT_VARIANT, 1);
    EXPECT_EQ(SafeArrayPutElement(outer.get(), &index, static_cast<tagVARIANT*>(&inner)), S_OK);
    VariantClear(&inner);

    OwnedVariant read;
    ASSERT_EQ(SafeArrayGetElement(outer.get(), &index, static_cast<tagVARIANT*>(&read)), S_OK);
    ASSERT_EQ(read.vt, VT_ARRAY | VT_BSTR);
    EXPECT_STREQ(*static_cast<BSTR*>(read.parray->pvData), "deep");
}

TEST(SafeArray, UnknownVariantIsRefusedAndTheOldElementStays)
{
    const Array array = makeArray(VT_VARIANT, 1);
    const std::int32_t index = 0;
    tagVARIANT value{};
    value.vt = VT_I4;
    value.lVal = 5;
    ASSERT_EQ(SafeArrayPutElement(array.get(), &index, &value), S_OK);
    value.vt = 9;
    EXPECT_EQ(SafeArrayPutElement(array.get(), &index, &value), DISP_E_BADVARTYPE);
    ASSERT_EQ(SafeArrayGetElement(array.get(), &index, &value), S_OK);
    EXPECT_EQ(value.vt, VT_I4);
    EXPECT_EQ(value.lVal, 5);
}

TEST(SafeArray, PuttingNestsAsDeepAsTheBoundAndNoDeeper)
{
    OwnedVariant value;
    const std::int32_t index = 0;
    for (int level = 0; level < maxNesting; ++level) {
        OwnedVariant outer;
        outer.parray = makeArray(VT_VARIANT, 1).release();
        outer.vt = VT_ARRAY | VT_VARIANT;
        ASSERT_EQ(SafeArrayPutElement(outer.parray, &index, static_cast<tagVARIANT*>(&value)), S_OK)
            << level;
        std::swap(static_cast<tagVARIANT&>(value), static_cast<tagVARIANT&>(outer));
    }
    const Array outer = makeArray(VT_VARIANT, 1);
    EXPECT_EQ(SafeArrayPutElement(outer.get(), &index, static_cast<tagVARIANT*>(&value)),
              E_INVALIDARG);
}

TEST(SafeArray, ArrayMayHoldACopyOfItself)
{
    OwnedVariant value;
    value.parray = makeArray(VT_VARIANT, 2).release();
    value.vt = VT_ARRAY | VT_VARIANT;
    for (const std::int32_t index : {0, 1, 0}) {
        EXPECT_EQ(SafeArrayPutElement(value.parray, &index, static_cast<tagVARIANT*>(&value)),
                  S_OK);
    }
}

TEST(SafeArray, RedimKeepsTheFirstElementsAndAddsZeros)
{
    const Array array = makeArray(VT_BSTR, 3);
    for (std::int32_t index = 0; index < 3; ++index) {
        putText(array, index, std::to_string(index).c_str());
    }
    SAFEARRAYBOUND bound = {2, 0};
    EXPECT_EQ(SafeArrayRedim(array.get(), &bound), S_OK);
    bound.cElements = 4;
    EXPECT_EQ(SafeArrayRedim(array.get(), &bound), S_OK);
    EXPECT_EQ(textAt(array, 0), "0");
    EXPECT_EQ(textAt(array, 1), "1");
    EXPECT_EQ(textAt(array, 2), "(null)");
    EXPECT_EQ(textAt(array, 3), "(null)");
    bound.cElements = 0;
    EXPECT_EQ(SafeArrayRedim(array.get(), &bound), S_OK);
    EXPECT_EQ(array->pvData, nullptr);
    EXPECT_EQ(SafeArrayRedim(nullptr, &bound), E_INVALIDARG);
    EXPECT_EQ(SafeArrayRedim(array.get(), nullptr), E_INVALIDARG);
}

TEST(SafeArray, LockedArrayIsNeitherResizedNorFreed)
{
    OwnedVariant value;
    value.parray = makeArray(VT_I4, 2).release();
    value.vt = VT_ARRAY | VT_I4;
    void* data = nullptr;
    ASSERT_EQ(SafeArrayAccessData(value.parray, &data), S_OK);
    static_cast<std::int32_t*>(data)[1] = 9;
    const SAFEARRAYBOUND bound = {1, 0};
    EXPECT_EQ(SafeArrayRedim(value.parray, &bound), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(SafeArrayDestroy(value.parray), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(VariantClear(&value), DISP_E_ARRAYISLOCKED);
    tagVARIANT number{};
    number.vt = VT_I4;
    EXPECT_EQ(VariantCopy(&value, &number), DISP_E_ARRAYISLOCKED);
    ASSERT_EQ(value.vt, VT_ARRAY | VT_I4);
    EXPECT_EQ(SafeArrayUnaccessData(value.parray), S_OK);
    const std::int32_t index = 1;
    std::int32_t read = 0;
    EXPECT_EQ(SafeArrayGetElement(value.parray, &index, &read), S_OK);
    EXPECT_EQ(read, 9);
}

TEST(SafeArray, LocksArePaired)
{
    const Array array = makeArray(VT_I4, 1);
    void* data = nullptr;
    EXPECT_EQ(SafeArrayUnaccessData(array.get()), E_UNEXPECTED);
    EXPECT_EQ(SafeArrayUnaccessData(nullptr), E_INVALIDARG);
    EXPECT_EQ(SafeArrayAccessData(nullptr, &data), E_INVALIDARG);
    EXPECT_EQ(SafeArrayAccessData(array.get(), nullptr), E_INVALIDARG);
    array->cLocks = std::numeric_limits<std::uint32_t>::max();
    EXPECT_EQ(SafeArrayAccessData(array.get(), &data), E_UNEXPECTED);
    array->cLocks = 0;
}

TEST(SafeArray, FreeingNoneIsWell)
{
    EXPECT_EQ(SafeArrayDestroy(nullptr), S_OK);
}
