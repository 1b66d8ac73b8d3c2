#include "common/utils/VUtil.h"

#include "tests/common/utils/ThrownText.h"

#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

using zel::dax::OwnedString;
using zel::dax::OwnedVariant;
using zel::test::thrownText;

namespace {

constexpr const char* putFailure = "SafeArrayPutElement failed";

/// An array that clears itself.
struct Array : OwnedVariant
{
    Array(unsigned short type, unsigned long count) { VUtil::CreateArray(*this, type, count); }
};

/// Puts into an array of the type and into one of variants, reads back from both, and expects
/// the variant's tag and the texts of the exceptions for an array of another type.
template <class T>
void expectRoundTrip(const std::vector<T>& values, VARTYPE type, const std::string& putName,
                     const std::string& getName)
{
    const int count = static_cast<int>(values.size());
    for (const VARTYPE arrayType : {type, static_cast<VARTYPE>(VT_VARIANT)}) {
        Array array(arrayType, values.size());
        for (int index = 0; index < count; ++index) {
            VUtil::PutElement(array, index, values[static_cast<std::size_t>(index)]);
        }
        for (int index = 0; index < count; ++index) {
            T value{};
            VUtil::GetElement(array, index, value);
            EXPECT_EQ(value, values[static_cast<std::size_t>(index)]) << type << " at " << index;
        }
        T value = values.back();
        EXPECT_EQ(thrownText([&] { VUtil::PutElement(array, count, value); }), putFailure);
        EXPECT_EQ(thrownText([&] { VUtil::PutElement(array, -1, value); }), putFailure);
        EXPECT_EQ(thrownText([&] { VUtil::GetElement(array, count, value); }),
                  "SafeArrayGetElement failed in VUtil::GetElement");
        EXPECT_EQ(value, values.back());
    }
    Array variants(VT_VARIANT, 1);
    VUtil::PutElement(variants, 0, values[0]);
    OwnedVariant element;
    VUtil::GetElement(variants, 0, element);
    EXPECT_EQ(element.vt, type);

    Array other(type == VT_I1 ? VT_I2 : VT_I1, 1);
    T value{};
    EXPECT_EQ(thrownText([&] { VUtil::PutElement(other, 0, value); }),
              "PutElement failed: not an array of " + putName + " nor VARIANT");
    EXPECT_EQ(thrownText([&] { VUtil::GetElement(other, 0, value); }),
              "Variant passed to VUtil::GetElement is not a " + getName + " array");
    tagVARIANT empty{};
    EXPECT_EQ(thrownText([&] { VUtil::GetElement(empty, 0, value); }),
              "Variant passed to VUtil::GetElement is not a " + getName + " array");
    Array untyped(VT_VARIANT, 1);
    EXPECT_EQ(thrownText([&] { VUtil::GetElement(untyped, 0, value); }),
              "Element 0 passed to VUtil::GetElement is not a " + getName);
}

template <class T>
std::vector<T> corners()
{
    return {T{}, T{1}, std::numeric_limits<T>::lowest(), std::numeric_limits<T>::max()};
}

std::string pairText(const tagVARIANT& v, int index)
{
    CStdStr<char> key;
    CStdStr<char> value;
    VUtil::GetPair(v, index, key, value);
    return key + "=" + value;
}

} // namespace

TEST(VUtil, FirstDayOf1970IsDay25569)
{
    EXPECT_EQ(VUtil::TimeToDate(0), 25569.0);
    EXPECT_EQ(VUtil::DateToTime(25569.0), 0);
    EXPECT_EQ(VUtil::DateToTime(25569.5), 43200);
}

TEST(VUtil, EverySecondOfADaySurvivesTheWayThroughADate)
{
    for (const long day : {0L, 1L, 10957L, 24855L, 2932896L}) {
        for (long second = 0; second < 86400; second += 7) {
            const long time = day * 86400 + second;
            ASSERT_EQ(VUtil::DateToTime(VUtil::TimeToDate(time)), time);
        }
    }
    for (const long time : {-1L, -43200L, -86400L, -86401L}) {
        EXPECT_EQ(VUtil::DateToTime(VUtil::TimeToDate(time)), time);
    }
}

TEST(VUtil, DateThatIsNoNumberOrFarFromAllCalendarsThrows)
{
    for (const double date : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e300, -1e12}) {
        EXPECT_EQ(thrownText([=] { VUtil::DateToTime(date); }), "DateToTime failed: not a date");
    }
}

TEST(VUtil, TextOnAnArrayOfNumbersThrows)
{
    Array array(VT_I4, 1);
    const std::string text = "PutElement failed: not an array of BSTR nor VARIANT";
    EXPECT_EQ(thrownText([&] { VUtil::PutElement(array, 0, CStdStr<char>("text")); }), text);
    EXPECT_EQ(thrownText([&] { VUtil::PutElement(array, 0, "text"); }), text);
}

TEST(VUtil, PairWrittenWithPutPairReadsBackWithGetPair)
{
    Array map(VT_VARIANT, 2);
    VUtil::PutPair(map, 0, "key", "value");
    VUtil::PutPair(map, 1, "", std::string("a\0b", 3));
    EXPECT_EQ(pairText(map, 0), "key=value");
    EXPECT_EQ(pairText(map, 1), std::string("=a\0b", 4));
    OwnedVariant pair;
    VUtil::GetElement(map, 0, pair);
    EXPECT_EQ(pair.vt, 8204);
    EXPECT_EQ(VUtil::GetArrayLength(pair), 2);
}

TEST(VUtil, LengthOfAnEmptyVariantIsZeroOrThrows)
{
    const tagVARIANT empty{};
    EXPECT_EQ(VUtil::GetArrayLengthEmpty(empty), 0);
    const std::string text = "Variant passed to VUtil::GetArrayLength is not an array";
    EXPECT_EQ(thrownText([&] { VUtil::GetArrayLength(empty); }), text);
    tagVARIANT number{};
    number.vt = VT_I4;
    EXPECT_EQ(thrownText([&] { VUtil::GetArrayLengthEmpty(number); }), text);
    const Array array(VT_BSTR, 7);
    EXPECT_EQ(VUtil::GetArrayLength(array), 7);
    EXPECT_EQ(VUtil::GetArrayLengthEmpty(array), 7);
}

TEST(VUtil, NewArrayHasTheTypeOfItsElementsOredWithTheArrayBit)
{
    const Array texts(VT_BSTR, 3);
    EXPECT_EQ(texts.vt, 8200);
    const Array variants(VT_VARIANT, 0);
    EXPECT_EQ(variants.vt, 8204);
    EXPECT_EQ(VUtil::GetArrayLength(variants), 0);
}

TEST(VUtil, ArrayThatCannotBeMadeThrowsAndLeavesTheVariant)
{
    tagVARIANT v{};
    v.vt = VT_I4;
    v.lVal = 5;
    const std::string text = "Could not create safe array";
    const unsigned long most = std::numeric_limits<unsigned long>::max();
    EXPECT_EQ(thrownText([&] { VUtil::CreateArray(v, VT_VARIANT, most); }), text);
    EXPECT_EQ(thrownText([&] { VUtil::CreateArray(v, VT_UI1, 0x80000000UL); }), text);
    EXPECT_EQ(thrownText([&] { VUtil::CreateArray(v, VT_UI1, 0x100000001UL); }), text);
    EXPECT_EQ(thrownText([&] { VUtil::CreateArray(v, VT_EMPTY, 1); }), text);
    EXPECT_EQ(thrownText([&] { VUtil::CreateArray(v, 8200, 1); }), text);
    EXPECT_EQ(v.vt, VT_I4);
    EXPECT_EQ(v.lVal, 5);
}

TEST(VUtil, RedimensionedArrayKeepsItsFirstElements)
{
    Array array(VT_BSTR, 2);
    VUtil::PutElement(array, 0, "kept");
    VUtil::PutElement(array, 1, "dropped");
    VUtil::RedimArray(array, 1);
    VUtil::RedimArray(array, 3);
    EXPECT_EQ(VUtil::GetArrayLength(array), 3);
    EXPECT_EQ(VUtil::GetStringElement(array, 0), "kept");
    EXPECT_EQ(VUtil::GetStringElement(array, 1), "");
    const std::string text = "Could not redimension safe array";
    EXPECT_EQ(thrownText([&] { VUtil::RedimArray(array, 0x100000001UL); }), text);
    tagVARIANT number{};
    number.vt = VT_I4;
    EXPECT_EQ(thrownText([&] { VUtil::RedimArray(number, 1); }), text);
    number.vt = VT_ARRAY | VT_I4;
    EXPECT_EQ(thrownText([&] { VUtil::RedimArray(number, 1); }), text);
    EXPECT_EQ(VUtil::GetArrayLength(array), 3);
}

TEST(VUtil, EveryTypeComesBackAsItWasPut)
{
    expectRoundTrip<unsigned char>(corners<unsigned char>(), VT_UI1, "UI1", "unsigned char");
    expectRoundTrip<short>(corners<short>(), VT_I2, "I2", "short");
    expectRoundTrip<unsigned short>(corners<unsigned short>(), VT_UI2, "UI2", "unsigned short");
    expectRoundTrip<int>(corners<int>(), VT_I4, "I4", "int");
    expectRoundTrip<long>({0, 1, -2147483648L, 2147483647L}, VT_I4, "I4", "long");
    expectRoundTrip<long long>(corners<long long>(), VT_I8, "I8", "int64");
    expectRoundTrip<unsigned long long>(corners<unsigned long long>(), VT_UI8, "UI8",
                                        "unsigned int64");
    expectRoundTrip<float>(corners<float>(), VT_R4, "R4", "float");
    expectRoundTrip<double>(corners<double>(), VT_R8, "R8", "double");
    expectRoundTrip<CStdStr<char>>({"", "text", std::string("a\0b", 3), "\xc3\xa4"}, VT_BSTR,
                                   "BSTR", "string");
    int pointed = 0;
    expectRoundTrip<void*>({&pointed, nullptr, reinterpret_cast<void*>(UINTPTR_MAX)}, VT_UI8, "UI8",
                           "pointer");
}

TEST(VUtil, BoolIsPutAndReadUnderItsOwnName)
{
    for (const VARTYPE type : {VT_BOOL, VT_VARIANT}) {
        Array array(type, 2);
        VUtil::PutBoolElement(array, 0, true);
        VUtil::PutBoolElement(array, 1, false);
        EXPECT_TRUE(VUtil::GetBoolElement(array, 0));
        EXPECT_FALSE(VUtil::GetBoolElement(array, 1));
        EXPECT_TRUE(VUtil::GetBoolElementEmpty(array, 0));
        bool value = false;
        VUtil::GetElement(array, 0, value);
        EXPECT_TRUE(value);
    }
    Array typed(VT_BOOL, 1);
    VUtil::PutBoolElement(typed, 0, true);
    EXPECT_EQ(*static_cast<VARIANT_BOOL*>(typed.parray->pvData), VARIANT_TRUE);
    Array wrong(VT_I2, 1);
    EXPECT_EQ(thrownText([&] { VUtil::PutBoolElement(wrong, 0, true); }),
              "PutElement failed: not an array of BOOL nor VARIANT");
    EXPECT_EQ(thrownText([&] { VUtil::GetBoolElement(wrong, 0); }),
              "Variant passed to VUtil::GetElement is not a bool array");
}

TEST(VUtil, DateIsPutAsDaysAndReadAsSeconds)
{
    for (const VARTYPE type : {VT_DATE, VT_VARIANT}) {
        Array array(type, 1);
        VUtil::PutDateElement(array, 0, 1300000000);
        EXPECT_EQ(VUtil::GetDateElement(array, 0), 1300000000);
    }
    Array typed(VT_DATE, 1);
    VUtil::PutDateElement(typed, 0, 43200);
    EXPECT_EQ(*static_cast<double*>(typed.parray->pvData), 25569.5);
    *static_cast<double*>(typed.parray->pvData) = std::nan("");
    EXPECT_EQ(thrownText([&] { VUtil::GetDateElement(typed, 0); }),
              "DateToTime failed: not a date");
    Array wrong(VT_R8, 1);
    EXPECT_EQ(thrownText([&] { VUtil::PutDateElement(wrong, 0, 0); }),
              "PutElement failed: not an array of DATE nor VARIANT");
    EXPECT_EQ(thrownText([&] { VUtil::GetDateElement(wrong, 0); }),
              "Variant passed to VUtil::GetElement is not a date array");
}

TEST(VUtil, UnsignedLongIsReadFrom32Bits)
{
    Array array(VT_UI4, 1);
    *static_cast<std::uint32_t*>(array.parray->pvData) = 0xfffffffeU;
    unsigned long value = 0;
    VUtil::GetElement(array, 0, value);
    EXPECT_EQ(value, 0xfffffffeUL);
    Array wrong(VT_I4, 1);
    EXPECT_EQ(thrownText([&] { VUtil::GetElement(wrong, 0, value); }),
              "Variant passed to VUtil::GetElement is not a unsigned long array");
}

TEST(VUtil, LongThatNeedsMoreThan32BitsIsNeverCut)
{
    Array array(VT_I4, 1);
    Array map(VT_VARIANT, 1);
    for (const long value : {2147483648L, -2147483649L, 1L << 32}) {
        EXPECT_EQ(thrownText([&] { VUtil::PutElement(array, 0, value); }),
                  "PutElement failed: the value is too large for I4");
        EXPECT_EQ(thrownText([&] { VUtil::PutPair(map, 0, "key", value); }), "PutPair failed");
    }
    EXPECT_EQ(VUtil::GetLongElement(array, 0), 0);
}

TEST(VUtil, ReturningGettersReadTheirType)
{
    Array array(VT_VARIANT, 6);
    VUtil::PutElement(array, 0, -5);
    VUtil::PutElement(array, 1, short{-6});
    VUtil::PutElement(array, 2, static_cast<unsigned short>(65535));
    VUtil::PutElement(array, 3, 1.5F);
    VUtil::PutElement(array, 4, 2.25);
    VUtil::PutElement(array, 5, "text");
    EXPECT_EQ(VUtil::GetLongElement(array, 0), -5);
    EXPECT_EQ(VUtil::GetIntElement(array, 0), -5);
    EXPECT_EQ(VUtil::GetShortElement(array, 1), -6);
    EXPECT_EQ(VUtil::GetUnsignedShortElement(array, 2), 65535);
    EXPECT_EQ(VUtil::GetFloatElement(array, 3), 1.5F);
    EXPECT_EQ(VUtil::GetDoubleElement(array, 4), 2.25);
    EXPECT_EQ(VUtil::GetStringElement(array, 5), "text");
    EXPECT_EQ(thrownText([&] { VUtil::GetLongElement(array, 1); }),
              "Element 1 passed to VUtil::GetElement is not a long");
}

TEST(VUtil, EmptyFormsAnswerForEmptyVariantsAndThrowForWrongOnes)
{
    const tagVARIANT empty{};
    const Array leftOut(VT_VARIANT, 1);
    for (const tagVARIANT* v : {&empty, static_cast<const tagVARIANT*>(&leftOut)}) {
        EXPECT_EQ(VUtil::GetLongElementEmpty(*v, 0), 0);
        EXPECT_FALSE(VUtil::GetBoolElementEmpty(*v, 0));
        EXPECT_EQ(VUtil::GetStringElementEmpty(*v, 0), "");
        EXPECT_THROW(VUtil::GetLongElement(*v, 0), DaxInvalidParameterException);
        EXPECT_THROW(VUtil::GetBoolElement(*v, 0), DaxInvalidParameterException);
        EXPECT_THROW(VUtil::GetStringElement(*v, 0), DaxInvalidParameterException);
    }
    Array reals(VT_R8, 1);
    EXPECT_THROW(VUtil::GetLongElementEmpty(reals, 0), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::GetBoolElementEmpty(reals, 0), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::GetStringElementEmpty(reals, 0), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::GetLongElementEmpty(leftOut, 1), DaxInvalidParameterException);
}

TEST(VUtil, VariantIsPutAsACopyIntoVariantsOnly)
{
    Array outer(VT_VARIANT, 1);
    {
        Array inner(VT_BSTR, 1);
        VUtil::PutElement(inner, 0, "deep");
        VUtil::PutElement(outer, 0, inner);
    }
    OwnedVariant read;
    VUtil::GetElement(outer, 0, read);
    EXPECT_EQ(VUtil::GetStringElement(read, 0), "deep");
    Array texts(VT_BSTR, 1);
    OwnedVariant value;
    EXPECT_EQ(thrownText([&] { VUtil::PutElement(texts, 0, value); }),
              "PutElement failed: not an array of VARIANT");
    EXPECT_EQ(thrownText([&] { VUtil::GetElement(texts, 0, value); }),
              "Variant passed to VUtil::GetElement is not a variant array");
    EXPECT_EQ(thrownText([&] { VUtil::PutElement(outer, 1, value); }), putFailure);
}

TEST(VUtil, NoTextIsPutAsAnEmptyOne)
{
    Array array(VT_BSTR, 1);
    VUtil::PutElement(array, 0, static_cast<const char*>(nullptr));
    EXPECT_EQ(VUtil::GetStringElement(array, 0), "");
}

TEST(VUtil, FailedPutLeavesWhatWasThere)
{
    Array array(VT_VARIANT, 2);
    VUtil::PutElement(array, 0, "first");
    tagVARIANT unknown{};
    unknown.vt = 9;
    EXPECT_EQ(thrownText([&] { VUtil::PutElement(array, 0, unknown); }), putFailure);
    EXPECT_EQ(thrownText([&] { VUtil::PutPair(array, 0, "key", unknown); }), "PutPair failed");
    EXPECT_EQ(VUtil::GetStringElement(array, 0), "first");
}

TEST(VUtil, ArrayThatBeliesItsTagIsNotTouched)
{
    Array array(VT_VARIANT, 1);
    array.vt = VT_ARRAY | VT_BSTR;
    EXPECT_THROW(VUtil::PutElement(array, 0, "text"), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::GetStringElement(array, 0), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::CheckArrayType(array, VT_BSTR, 1, "what"), DaxInvalidParameterException);
    array.vt = VT_ARRAY | VT_UI1;
    EXPECT_THROW(VUtil::GetByteArray(array), DaxInvalidParameterException);
    tagVARIANT none{};
    none.vt = VT_ARRAY | VT_VARIANT;
    EXPECT_THROW(VUtil::PutElement(none, 0, "text"), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::GetStringElement(none, 0), DaxInvalidParameterException);
    EXPECT_EQ(thrownText([&] { VUtil::GetArrayLength(none); }),
              "SafeArrayGetUBound failed in VUtil::GetArrayLength");
}

TEST(VUtil, BytesSurviveTheWayThroughAVariant)
{
    std::vector<unsigned char> bytes = {0, 255, 0, 7};
    OwnedVariant binary;
    VUtil::PutBinaryIntoVariant(&binary, bytes.data(), bytes.size());
    EXPECT_EQ(binary.vt, VT_ARRAY | VT_UI1);
    EXPECT_EQ(VUtil::GetByteArray(binary), bytes);
    Array outer(VT_VARIANT, 2);
    VUtil::PutElement(outer, 1, binary);
    std::vector<unsigned char> read;
    VUtil::GetBinaryElement(outer, 1, read);
    EXPECT_EQ(read, bytes);
    const std::string text = "Variant passed to VUtil::GetByteArray is not an array of bytes";
    EXPECT_EQ(thrownText([&] { VUtil::GetBinaryElement(outer, 0, read); }), text);
    EXPECT_EQ(thrownText([&] { VUtil::GetByteArray(outer); }), text);
}

TEST(VUtil, NoBytesAreAnEmptyArray)
{
    OwnedVariant binary;
    VUtil::PutBinaryIntoVariant(&binary, nullptr, 0);
    EXPECT_TRUE(VUtil::GetByteArray(binary).empty());
    EXPECT_THROW(VUtil::PutBinaryIntoVariant(&binary, nullptr, 1), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::PutBinaryIntoVariant(nullptr, nullptr, 0), DaxInvalidParameterException);
    unsigned char byte = 0;
    EXPECT_EQ(thrownText([&] { VUtil::PutBinaryIntoVariant(&binary, &byte, 0x80000000UL); }),
              "Could not create safe array");
    EXPECT_EQ(VUtil::GetArrayLength(binary), 0);
    VariantClear(&binary);
}
