#include "common/utils/VUtil.h"

#include "tests/common/utils/ThrownText.h"

#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>

using zel::dax::OwnedVariant;
using zel::test::thrownText;

namespace {

struct Array : OwnedVariant
{
    Array(unsigned short type, unsigned long count) { VUtil::CreateArray(*this, type, count); }
};

tagVARIANT number(std::int32_t value)
{
    tagVARIANT v{};
    v.vt = VT_I4;
    v.lVal = value;
    return v;
}

/// Name, NAME, a number, a list and two texts in an array of strings.
struct Map : Array
{
    Map() : Array(VT_VARIANT, 5)
    {
        VUtil::PutPair(*this, 0, "Name", "first");
        VUtil::PutPair(*this, 1, "NAME", "second");
        VUtil::PutPair(*this, 2, "Number", -7L);
        Array list(VT_BSTR, 2);
        VUtil::PutElement(list, 0, "a");
        VUtil::PutElement(list, 1, "b");
        VUtil::PutPair(*this, 3, "List", list);
        Array texts(VT_BSTR, 2);
        VUtil::PutElement(texts, 0, "Plain");
        VUtil::PutElement(texts, 1, "pair");
        VUtil::PutElement(*this, 4, texts);
    }
};

} // namespace

TEST(VUtilAnswers, PairsNeedAnArrayOfVariants)
{
    Array texts(VT_BSTR, 1);
    tagVARIANT empty{};
    CStdStr<char> key;
    CStdStr<char> value;
    const std::string putText = "PutPair: the given variant is not an array of variants";
    EXPECT_EQ(thrownText([&] { VUtil::PutPair(texts, 0, "k", "v"); }), putText);
    EXPECT_EQ(thrownText([&] { VUtil::PutPair(texts, 0, "k", 5L); }), putText);
    EXPECT_EQ(thrownText([&] { VUtil::PutPair(empty, 0, "k", empty); }), putText);
    const std::string getText = "Variant passed to VUtil::GetPair is not an array";
    EXPECT_EQ(thrownText([&] { VUtil::GetPair(texts, 0, key, value); }), getText);
    EXPECT_EQ(thrownText([&] { VUtil::GetPair(empty, 0, key, value); }), getText);
}

TEST(VUtilAnswers, PairOutsideTheArrayThrows)
{
    Array map(VT_VARIANT, 1);
    CStdStr<char> key;
    CStdStr<char> value;
    EXPECT_EQ(thrownText([&] { VUtil::PutPair(map, 1, "k", "v"); }), "PutPair failed");
    EXPECT_EQ(thrownText([&] { VUtil::GetPair(map, 1, key, value); }),
              "SafeArrayGetElement failed in VUtil::GetPair");
}

TEST(VUtilAnswers, PairThatWasLeftOutIsEmptyAndOneOfNumbersThrows)
{
    Array map(VT_VARIANT, 2);
    CStdStr<char> key = "before";
    CStdStr<char> value = "before";
    VUtil::GetPair(map, 0, key, value);
    EXPECT_EQ(key, "");
    EXPECT_EQ(value, "");
    VUtil::PutElement(map, 1, number(5));
    EXPECT_EQ(thrownText([&] { VUtil::GetPair(map, 1, key, value); }),
              "Variant passed to VUtil::GetElement is not a string array");
}

TEST(VUtilAnswers, KeyIsFoundExactlyOrInAnyCase)
{
    const Map map;
    CStdStr<char> text;
    EXPECT_TRUE(VUtil::FindPair(map, "NAME", text));
    EXPECT_EQ(text, "second");
    EXPECT_TRUE(VUtil::FindPairNoCase(map, "NAME", text));
    EXPECT_EQ(text, "first");
    EXPECT_FALSE(VUtil::FindPair(map, "name", text));
    EXPECT_TRUE(VUtil::FindPair(map, "Plain", text));
    EXPECT_EQ(text, "pair");
}

TEST(VUtilAnswers, ValueOfAKeyIsReadAsNumberOrVariant)
{
    const Map map;
    int value = 0;
    EXPECT_TRUE(VUtil::FindPairNoCase(map, "nUMBER", value));
    EXPECT_EQ(value, -7);
    OwnedVariant list;
    EXPECT_TRUE(VUtil::FindPairNoCase(map, "list", list));
    EXPECT_EQ(VUtil::GetStringElement(list, 1), "b");
    EXPECT_EQ(thrownText([&] { VUtil::FindPairNoCase(map, "name", value); }),
              "Element 1 passed to VUtil::GetElement is not a int");
}

TEST(VUtilAnswers, KeyThatIsMissingLeavesTheValue)
{
    const Map map;
    CStdStr<char> text = "kept";
    int value = 5;
    OwnedVariant variant;
    EXPECT_FALSE(VUtil::FindPair(map, "missing", text));
    EXPECT_FALSE(VUtil::FindPairNoCase(map, "missing", text));
    EXPECT_FALSE(VUtil::FindPairNoCase(map, "missing", value));
    EXPECT_FALSE(VUtil::FindPairNoCase(map, "missing", variant));
    EXPECT_FALSE(VUtil::FindPairNoCase(map, std::string("name\0x", 6), text));
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(value, 5);
    EXPECT_EQ(variant.vt, VT_EMPTY);
    EXPECT_THROW(VUtil::FindPair(number(1), "key", text), DaxInvalidParameterException);
}

TEST(VUtilAnswers, PairsBecomeAMapInWhichTheFirstOfTwoCounts)
{
    Array pairs(VT_VARIANT, 3);
    VUtil::PutPair(pairs, 0, "b", "1");
    VUtil::PutPair(pairs, 1, "a", "2");
    VUtil::PutPair(pairs, 2, "b", "3");
    const VUtil::StringMap expected = {{"a", "2"}, {"b", "1"}};
    EXPECT_EQ(VUtil::toStringMap(pairs, false), expected);
    EXPECT_EQ(VUtil::toStringAMap(pairs, true), expected);
    const Map mixed;
    EXPECT_EQ(thrownText([&] { VUtil::toStringMap(mixed, false); }),
              "Element 1 passed to VUtil::GetElement is not a string");
}

TEST(VUtilAnswers, EmptyVariantIsAMapOnlyWhereThatIsAllowed)
{
    const tagVARIANT empty{};
    EXPECT_TRUE(VUtil::toStringMap(empty, true).empty());
    EXPECT_TRUE(VUtil::toStringAMap(empty, true).empty());
    EXPECT_THROW(VUtil::toStringMap(empty, false), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::toStringAMap(empty, false), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::toStringMap(number(1), true), DaxInvalidParameterException);
}

TEST(VUtilAnswers, StringsOfAnArrayAreJoinedWithCommas)
{
    Array outer(VT_VARIANT, 4);
    Array list(VT_BSTR, 3);
    VUtil::PutElement(list, 0, "a");
    VUtil::PutElement(list, 2, "c, d");
    VUtil::PutElement(outer, 0, list);
    Array variants(VT_VARIANT, 2);
    VUtil::PutElement(variants, 0, "x");
    VUtil::PutElement(variants, 1, "y");
    VUtil::PutElement(outer, 1, variants);
    VUtil::PutElement(outer, 2, number(1));
    EXPECT_EQ(VUtil::GetCSVElement(outer, 0), "a, , c, d");
    EXPECT_EQ(VUtil::GetCSVElement(outer, 1), "x, y");
    EXPECT_EQ(VUtil::GetCSVElement(outer, 3), "");
    EXPECT_THROW(VUtil::GetCSVElement(outer, 2), DaxInvalidParameterException);
    EXPECT_THROW(VUtil::GetCSVElement(list, 0), DaxInvalidParameterException);
}

TEST(VUtilAnswers, CheckTypeNamesWhatIsWrong)
{
    const tagVARIANT v = number(5);
    VUtil::CheckType(v, VT_I4, "argument");
    EXPECT_EQ(thrownText([&] { VUtil::CheckType(v, VT_BSTR, "argument"); }),
              "argument: Variant is of type 3, not 8");
    EXPECT_EQ(thrownText([&] { VUtil::CheckType(v, VT_BSTR, nullptr); }),
              "Variant is of type 3, not 8");
}

TEST(VUtilAnswers, CheckArrayTypeLooksAtTypeAndSize)
{
    const Array array(VT_BSTR, 3);
    VUtil::CheckArrayType(array, VT_BSTR, 3, "a");
    VUtil::CheckArrayType(array, VT_ARRAY | VT_BSTR, 3, "a");
    VUtil::CheckArrayType(array, VT_BSTR, 2, true, "a");
    EXPECT_EQ(thrownText([&] { VUtil::CheckArrayType(array, VT_BSTR, 2, "a"); }),
              "a: Array has 3 elements, not 2");
    EXPECT_EQ(thrownText([&] { VUtil::CheckArrayType(array, VT_BSTR, 2, false, "a"); }),
              "a: Array has 3 elements, not 2");
    EXPECT_EQ(thrownText([&] { VUtil::CheckArrayType(array, VT_BSTR, 4, true, "a"); }),
              "a: Array has 3 elements, not 4");
    EXPECT_EQ(thrownText([&] { VUtil::CheckArrayType(array, VT_VARIANT, 3, "a"); }),
              "a: Variant is of type 8200, not 8204");
    EXPECT_EQ(thrownText([&] { VUtil::CheckArrayType(number(1), VT_I4, 1, nullptr); }),
              "Variant is of type 3, not 8195");
}

TEST(VUtilAnswers, ReturnCodeZeroPasses)
{
    tagVARIANT code = number(0);
    VUtil::CheckSingleRetcode(code, "method");
    for (const VARTYPE type : {VT_I4, VT_VARIANT}) {
        Array array(type, 1);
        VUtil::PutElement(array, 0, 0);
        VUtil::CheckSingleRetcode(array, nullptr);
        EXPECT_EQ(VUtil::GetSingleRetcode(array), 0);
    }
}

TEST(VUtilAnswers, OtherReturnCodeThrowsWithTheCodeTwice)
{
    tagVARIANT code = number(17);
    EXPECT_EQ(thrownText([&] { VUtil::CheckSingleRetcode(code, "method"); }),
              "method: Dax error detected in VUtil::CheckSingleRetcode : hr = 17 - 0x11");
    EXPECT_EQ(thrownText([&] { VUtil::CheckSingleRetcode(code, nullptr); }),
              "Dax error detected in VUtil::CheckSingleRetcode : hr = 17 - 0x11");
    Array array(VT_VARIANT, 1);
    VUtil::PutElement(array, 0, static_cast<int>(0x80004005U));
    EXPECT_EQ(thrownText([&] { VUtil::CheckSingleRetcode(array, "m"); }),
              "m: Dax error detected in VUtil::CheckSingleRetcode : hr = -2147467259 - 0x80004005");
    EXPECT_EQ(VUtil::GetSingleRetcode(array), -2147467259);
}

TEST(VUtilAnswers, AnswerOfAnotherTypeCountsAsCodeMinusOne)
{
    OwnedVariant answer;
    const std::string text =
        "Dax error detected in VUtil::CheckSingleRetcode : hr = -1 - 0xffffffff";
    EXPECT_EQ(thrownText([&] { VUtil::CheckSingleRetcode(answer, nullptr); }), text);
    answer.vt = VT_I8;
    EXPECT_EQ(thrownText([&] { VUtil::CheckSingleRetcode(answer, nullptr); }), text);
    EXPECT_EQ(thrownText([&] { VUtil::GetSingleRetcode(answer); }),
              "VUtil::GetSingleRetcode wrong type");
    tagVARIANT code = number(-3);
    EXPECT_EQ(VUtil::GetSingleRetcode(code), -3);
}

TEST(VUtilAnswers, ReturnCodeThatCannotBeReadThrows)
{
    Array texts(VT_BSTR, 1);
    EXPECT_EQ(thrownText([&] { VUtil::CheckSingleRetcode(texts, "method"); }),
              "safeArrayGetElement failed in VUtil::CheckSingleRetcode : "
              "'Variant passed to VUtil::GetElement is not a long array'");
    Array none(VT_I4, 0);
    EXPECT_EQ(thrownText([&] { VUtil::GetSingleRetcode(none); }),
              "safeArrayGetElement failed in VUtil::GetSingleRetcode : "
              "'SafeArrayGetElement failed in VUtil::GetElement'");
    tagVARIANT broken{};
    broken.vt = VT_ARRAY;
    EXPECT_THROW(VUtil::CheckSingleRetcode(broken, "m"), DaxInvalidParameterException);
}

TEST(VUtilAnswers, OutParameterStandsBehindTheReturnCode)
{
    Array answer(VT_VARIANT, 2);
    VUtil::PutElement(answer, 0, 0);
    VUtil::PutElement(answer, 1, "result");
    CStdStr<char> out = "before";
    VUtil::GetSingleOutParamString(answer, out);
    EXPECT_EQ(out, "result");
    Array codeOnly(VT_VARIANT, 1);
    EXPECT_THROW(VUtil::GetSingleOutParamString(codeOnly, out), DaxInvalidParameterException);
    tagVARIANT code = number(0);
    EXPECT_THROW(VUtil::GetSingleOutParamString(code, out), DaxInvalidParameterException);
    EXPECT_EQ(out, "result");
}

TEST(VUtilAnswers, EqualVariantsAgreeInTypeAndValue)
{
    EXPECT_TRUE(VUtil::Equals(number(5), number(5)));
    EXPECT_FALSE(VUtil::Equals(number(5), number(6)));
    tagVARIANT wide = number(5);
    wide.vt = VT_I8;
    EXPECT_FALSE(VUtil::Equals(number(5), wide));
    tagVARIANT dirty = number(5);
    dirty.llVal = (std::int64_t{1} << 40) + 5;
    EXPECT_TRUE(VUtil::Equals(number(5), dirty));
    EXPECT_TRUE(VUtil::Equals(tagVARIANT{}, tagVARIANT{}));
    tagVARIANT null{};
    null.vt = VT_NULL;
    EXPECT_FALSE(VUtil::Equals(tagVARIANT{}, null));
    tagVARIANT real{};
    real.vt = VT_R8;
    real.dblVal = std::nan("");
    EXPECT_FALSE(VUtil::Equals(real, real));
    tagVARIANT yes{};
    yes.vt = VT_BOOL;
    yes.boolVal = VARIANT_TRUE;
    tagVARIANT one = yes;
    one.boolVal = 1;
    EXPECT_TRUE(VUtil::Equals(yes, one));
}

TEST(VUtilAnswers, EqualArraysAgreeInEveryElement)
{
    const Map left;
    Map right;
    EXPECT_TRUE(VUtil::Equals(left, right));
    VUtil::PutPair(right, 3, "List", "no array");
    EXPECT_FALSE(VUtil::Equals(left, right));
    const Array two(VT_I4, 2);
    const Array three(VT_I4, 3);
    const Array unsignedTwo(VT_UI4, 2);
    EXPECT_FALSE(VUtil::Equals(two, three));
    EXPECT_FALSE(VUtil::Equals(two, unsignedTwo));
    tagVARIANT none{};
    none.vt = VT_ARRAY | VT_I4;
    EXPECT_TRUE(VUtil::Equals(none, none));
    EXPECT_FALSE(VUtil::Equals(two, none));
}

TEST(VUtilAnswers, ComparingStopsAtADepthThatCopiesNeverHave)
{
    OwnedVariant value;
    for (int level = 0; level < 1000; ++level) {
        tagVARIANT outer{};
        VUtil::CreateArray(outer, VT_VARIANT, 1);
        *static_cast<tagVARIANT*>(outer.parray->pvData) = value;
        static_cast<tagVARIANT&>(value) = outer;
    }
    EXPECT_EQ(thrownText([&] { VUtil::Equals(value, value); }), "Equals failed: nested too deep");
    CStdStr<char> xml;
    VUtil::VariantToXML(&value, xml);
    EXPECT_NE(xml.find("<Error>Nested too deep</Error>"), std::string::npos);
    CStdStr<char> friendly;
    VUtil::VariantToFriendlyString(&value, friendly, 0);
    EXPECT_NE(friendly.find("<Error>Nested too deep</Error>"), std::string::npos);
}
