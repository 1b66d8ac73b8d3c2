#include "common/dax/Variant.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <string>

using zel::dax::maxNesting;
using zel::dax::OwnedString;
using zel::dax::OwnedVariant;

namespace {

/// Arrays around arrays, built by moving pointers, which has no bound.
void nest(tagVARIANT& v, int levels)
{
    const SAFEARRAYBOUND one = {1, 0};
    for (int level = 0; level < levels; ++level) {
        SAFEARRAY* array = SafeArrayCreate(VT_VARIANT, 1, &one);
        ASSERT_NE(array, nullptr);
        *static_cast<tagVARIANT*>(array->pvData) = v;
        v.vt = VT_ARRAY | VT_VARIANT;
        v.parray = array;
    }
}

void setText(tagVARIANT& v, const char* text)
{
    v.bstrVal = SysAllocString(text);
    v.vt = VT_BSTR;
}

} // namespace

TEST(Variant, TagsAndWidthsAreThoseOfTheWire)
{
    EXPECT_EQ(sizeof(tagVARIANT), 16U);
    EXPECT_EQ(VT_ARRAY | VT_BSTR, 8200);
    EXPECT_EQ(VT_ARRAY | VT_VARIANT, 8204);
    EXPECT_EQ(zel::dax::elementSize(VT_I4), 4U);
    EXPECT_EQ(zel::dax::elementSize(VT_BOOL), 2U);
}

TEST(Variant, TextKeepsItsNulBytesAndItsLength)
{
    const std::string text("a\0b\xff", 4);
    const OwnedString copy(SysAllocStringLen(text.data(), 4));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(SysStringLen(copy.get()), 4U);
    EXPECT_EQ(std::string(copy.get(), 5), text + '\0');
}

TEST(Variant, NoTextIsNullAndHasNoLength)
{
    EXPECT_EQ(SysAllocString(nullptr), nullptr);
    EXPECT_EQ(SysStringLen(nullptr), 0U);
    SysFreeString(nullptr);
    const OwnedString empty(SysAllocString(""));
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(SysStringLen(empty.get()), 0U);
}

TEST(Variant, TextOfMoreThan2GigabytesIsNotMade)
{
    EXPECT_EQ(SysAllocStringLen(nullptr, 0x80000000U), nullptr);
    EXPECT_EQ(SysAllocStringLen(nullptr, std::numeric_limits<std::uint32_t>::max()), nullptr);
}

TEST(Variant, InitMakesAnyMemoryAnEmptyVariant)
{
    tagVARIANT v;
    v.vt = VT_BSTR;
    v.llVal = -1;
    VariantInit(&v);
    EXPECT_EQ(v.vt, VT_EMPTY);
    EXPECT_EQ(v.llVal, 0);
}

TEST(Variant, ClearLeavesTheTypeEmpty)
{
    tagVARIANT v{};
    setText(v, "text");
    EXPECT_EQ(VariantClear(&v), S_OK);
    EXPECT_EQ(v.vt, VT_EMPTY);
    EXPECT_EQ(v.bstrVal, nullptr);
    EXPECT_EQ(VariantClear(&v), S_OK);
    EXPECT_EQ(VariantClear(nullptr), E_INVALIDARG);
}

TEST(Variant, ClearLeavesAnUnknownTypeAlone)
{
    tagVARIANT v{};
    for (const int type : {6, 9, 12, 24, 0x1000, 0x4003, 0x2000, 0x2000 | 9, 0x6008, 0xffff}) {
        v.vt = static_cast<VARTYPE>(type);
        v.llVal = 5;
        EXPECT_EQ(VariantClear(&v), DISP_E_BADVARTYPE) << type;
        EXPECT_EQ(v.vt, type);
        EXPECT_EQ(v.llVal, 5);
    }
}

TEST(Variant, CopyOfTextIsItsOwn)
{
    OwnedVariant source;
    setText(source, "text");
    OwnedVariant copy;
    setText(copy, "replaced");
    EXPECT_EQ(VariantCopy(&copy, &source), S_OK);
    EXPECT_NE(copy.bstrVal, source.bstrVal);
    VariantClear(&source);
    ASSERT_EQ(copy.vt, VT_BSTR);
    EXPECT_STREQ(copy.bstrVal, "text");
    EXPECT_EQ(VariantCopy(&copy, &copy), S_OK);
    EXPECT_STREQ(copy.bstrVal, "text");
}

TEST(Variant, FailedCopyLeavesTheTarget)
{
    OwnedVariant copy;
    setText(copy, "kept");
    tagVARIANT unknown{};
    unknown.vt = 9;
    EXPECT_EQ(VariantCopy(&copy, &unknown), DISP_E_BADVARTYPE);
    EXPECT_EQ(VariantCopy(&copy, nullptr), E_INVALIDARG);
    EXPECT_EQ(VariantCopy(nullptr, &copy), E_INVALIDARG);
    ASSERT_EQ(copy.vt, VT_BSTR);
    EXPECT_STREQ(copy.bstrVal, "kept");
}

TEST(Variant, CopyGoesAsDeepAsTheBoundAndNoDeeper)
{
    OwnedVariant value;
    setText(value, "innermost");
    nest(value, maxNesting);
    OwnedVariant copy;
    EXPECT_EQ(VariantCopy(&copy, &value), S_OK);
    EXPECT_EQ(copy.vt, VT_ARRAY | VT_VARIANT);
    nest(value, 1);
    OwnedVariant none;
    EXPECT_EQ(VariantCopy(&none, &value), E_INVALIDARG);
    EXPECT_EQ(none.vt, VT_EMPTY);
}

TEST(Variant, ValueOfAnyDepthIsClearedWithoutUsingUpTheStack)
{
    tagVARIANT value{};
    setText(value, "innermost");
    nest(value, 300000);
    EXPECT_EQ(VariantClear(&value), S_OK);
    EXPECT_EQ(value.vt, VT_EMPTY);
}

TEST(Variant, ArrayWithoutDataIsClearedAndCopied)
{
    OwnedVariant value;
    value.vt = VT_ARRAY | VT_I4;
    OwnedVariant copy;
    EXPECT_EQ(VariantCopy(&copy, &value), S_OK);
    EXPECT_EQ(copy.vt, VT_ARRAY | VT_I4);
    EXPECT_EQ(copy.parray, nullptr);
    EXPECT_EQ(VariantClear(&value), S_OK);
}
