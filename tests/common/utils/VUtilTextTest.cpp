#include "common/utils/VUtil.h"

#include "tests/support/LogCapture.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>

using zel::dax::OwnedVariant;

namespace {

struct Array : OwnedVariant
{
    Array(unsigned short type, unsigned long count) { VUtil::CreateArray(*this, type, count); }
};

std::string xmlOf(const tagVARIANT& v)
{
    CStdStr<char> out;
    VUtil::VariantToXML(&v, out);
    return out;
}

std::string friendlyOf(const tagVARIANT& v)
{
    CStdStr<char> out;
    VUtil::VariantToFriendlyString(&v, out, 0);
    return out;
}

template <class T>
tagVARIANT valueOf(VARTYPE type, T tagVARIANT::*field, T value)
{
    tagVARIANT v{};
    v.vt = type;
    v.*field = value;
    return v;
}

struct Text : OwnedVariant
{
    explicit Text(const std::string& text)
    {
        bstrVal = SysAllocStringLen(text.data(), static_cast<std::uint32_t>(text.size()));
        vt = VT_BSTR;
    }
};

} // namespace

TEST(VUtilText, ScalarsAreXmlElementsWithTheirType)
{
    EXPECT_EQ(xmlOf(valueOf(VT_I1, &tagVARIANT::cVal, std::int8_t{-5})),
              "<var vt=\"VT_I1\">-5</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_UI1, &tagVARIANT::bVal, std::uint8_t{200})),
              "<var vt=\"VT_UI1\">200</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_I2, &tagVARIANT::iVal, std::int16_t{-300})),
              "<var vt=\"VT_I2\">-300</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_UI2, &tagVARIANT::uiVal, std::uint16_t{65535})),
              "<var vt=\"VT_UI2\">65535</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_I4, &tagVARIANT::lVal, std::int32_t{-70000})),
              "<var vt=\"VT_I4\">-70000</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_UI4, &tagVARIANT::ulVal, std::uint32_t{4294967295U})),
              "<var vt=\"VT_UI4\">4294967295</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_I8, &tagVARIANT::llVal, std::int64_t{-5000000000})),
              "<var vt=\"VT_I8\">-5000000000</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_UI8, &tagVARIANT::ullVal, std::uint64_t{18446744073709551615U})),
              "<var vt=\"VT_UI8\">18446744073709551615</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_R4, &tagVARIANT::fltVal, 0.1F)), "<var vt=\"VT_R4\">0.1</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_R8, &tagVARIANT::dblVal, 0.1)), "<var vt=\"VT_R8\">0.1</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_BOOL, &tagVARIANT::boolVal, VARIANT_TRUE)),
              "<var vt=\"VT_BOOL\">1</var>\n");
    EXPECT_EQ(xmlOf(valueOf(VT_DATE, &tagVARIANT::date, 25569.5)),
              "<var vt=\"VT_DATE\">1970-01-01 12:00:00</var>\n");
    EXPECT_EQ(xmlOf(tagVARIANT{}), "<var vt=\"VT_EMPTY\" />\n");
    EXPECT_EQ(xmlOf(valueOf(VT_NULL, &tagVARIANT::llVal, std::int64_t{0})),
              "<var vt=\"VT_NULL\" />\n");
}

TEST(VUtilText, XmlTextIsEscaped)
{
    EXPECT_EQ(xmlOf(Text("a<b> & \"c\" 'd'")),
              "<var vt=\"VT_BSTR\">a&lt;b&gt; &amp; \"c\" 'd'</var>\n");
    EXPECT_EQ(xmlOf(Text("&amp;")), "<var vt=\"VT_BSTR\">&amp;amp;</var>\n");
    tagVARIANT none{};
    none.vt = VT_BSTR;
    EXPECT_EQ(xmlOf(none), "<var vt=\"VT_BSTR\"></var>\n");
}

TEST(VUtilText, BytesThatNoXmlMayHoldAreReplaced)
{
    const std::string mark = "\xEF\xBF\xBD";
    const auto body = [](const std::string& text) {
        const std::string xml = xmlOf(Text(text));
        const std::size_t begin = xml.find('>') + 1;
        return xml.substr(begin, xml.rfind("</var>") - begin);
    };
    EXPECT_EQ(body(std::string("a\0b", 3)), "a" + mark + "b");
    EXPECT_EQ(body("\x01\x1f\x7f\t\n\r"), mark + mark + "\x7f\t\n\r");
    EXPECT_EQ(body("\xc3\xa4 \xe2\x82\xac \xf0\x9f\x8e\xb5"),
              "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x8e\xb5");
    EXPECT_EQ(body("\xc3"), mark);
    EXPECT_EQ(body("\xc3<"), mark + "&lt;");
    EXPECT_EQ(body("\xc0\xaf"), mark + mark);
    EXPECT_EQ(body("\xed\xa0\x80"), mark + mark + mark);
    EXPECT_EQ(body("\xef\xbf\xbf"), mark + mark + mark);
    EXPECT_EQ(body("\xf4\x90\x80\x80"), mark + mark + mark + mark);
    EXPECT_EQ(body("\xff\xfe\x80"), mark + mark + mark);
}

TEST(VUtilText, ArraysAreXmlAroundTheirElementsIndentedByThreeBlanks)
{
    Array texts(VT_BSTR, 2);
    VUtil::PutElement(texts, 0, "a");
    VUtil::PutElement(texts, 1, "<");
    Array outer(VT_VARIANT, 2);
    VUtil::PutElement(outer, 0, texts);
    VUtil::PutElement(outer, 1, 5);
    EXPECT_EQ(xmlOf(outer), "<var vt=\"VT_ARRAY|VT_VARIANT\" count=\"2\">\n"
                            "   <var vt=\"VT_ARRAY|VT_BSTR\" count=\"2\">\n"
                            "      <var vt=\"VT_BSTR\">a</var>\n"
                            "      <var vt=\"VT_BSTR\">&lt;</var>\n"
                            "   </var>\n"
                            "   <var vt=\"VT_I4\">5</var>\n"
                            "</var>\n");
    CStdStr<char> indented = "before ";
    VUtil::VariantToXML(&texts, 2, indented);
    EXPECT_EQ(indented, "before       <var vt=\"VT_ARRAY|VT_BSTR\" count=\"2\">\n"
                        "         <var vt=\"VT_BSTR\">a</var>\n"
                        "         <var vt=\"VT_BSTR\">&lt;</var>\n"
                        "      </var>\n");
}

TEST(VUtilText, EmptyByteArrayIsOneXmlElement)
{
    EXPECT_EQ(xmlOf(Array(VT_UI1, 0)), "<var vt=\"VT_ARRAY|VT_I1\" count=\"0\" />\n");
    EXPECT_EQ(xmlOf(Array(VT_I1, 0)), "<var vt=\"VT_ARRAY|VT_I1\" count=\"0\" />\n");
    EXPECT_EQ(xmlOf(Array(VT_UI1, 1)), "<var vt=\"VT_ARRAY|VT_UI1\" count=\"1\">\n"
                                       "   <var vt=\"VT_UI1\">0</var>\n"
                                       "</var>\n");
    EXPECT_EQ(xmlOf(Array(VT_BSTR, 0)), "<var vt=\"VT_ARRAY|VT_BSTR\" count=\"0\">\n</var>\n");
}

TEST(VUtilText, UnknownTagsAreNamedByTheirNumber)
{
    tagVARIANT v{};
    for (const int type : {9, 12, 99, 0x2000, 0x2000 | 9, 0x4003, 65535}) {
        v.vt = static_cast<VARTYPE>(type);
        EXPECT_EQ(xmlOf(v), "<var vt=\"" + std::to_string(type) + " (unknown)\" />\n");
        EXPECT_EQ(friendlyOf(v), "(unknown vt " + std::to_string(type) + ")");
    }
}

TEST(VUtilText, WhatCannotBeReadStandsAsAnError)
{
    tagVARIANT none{};
    none.vt = VT_ARRAY | VT_I4;
    EXPECT_EQ(xmlOf(none), "<Error>Variant is not an array</Error>\n");
    EXPECT_EQ(friendlyOf(none), "<Error>Variant is not an array</Error>");
    CStdStr<char> out;
    VUtil::VariantToXML(nullptr, 1, out);
    EXPECT_EQ(out, "   <Error>No variant</Error>\n");
    out.clear();
    VUtil::VariantToFriendlyString(nullptr, out, 1);
    EXPECT_EQ(out, "    <Error>No variant</Error>");

    Array dates(VT_DATE, 2);
    VUtil::PutDateElement(dates, 0, 0);
    static_cast<double*>(dates.parray->pvData)[1] = HUGE_VAL;
    EXPECT_EQ(xmlOf(dates), "<var vt=\"VT_ARRAY|VT_DATE\" count=\"2\">\n"
                            "   <var vt=\"VT_DATE\">1970-01-01 00:00:00</var>\n"
                            "   <Error>DateToTime failed: not a date</Error>\n"
                            "</var>\n");
}

TEST(VUtilText, ScalarsAreReadableByPeople)
{
    EXPECT_EQ(friendlyOf(tagVARIANT{}), "(empty)");
    EXPECT_EQ(friendlyOf(valueOf(VT_NULL, &tagVARIANT::llVal, std::int64_t{0})), "(null)");
    EXPECT_EQ(friendlyOf(valueOf(VT_I1, &tagVARIANT::cVal, std::int8_t{-5})), "-5");
    EXPECT_EQ(friendlyOf(valueOf(VT_UI1, &tagVARIANT::bVal, std::uint8_t{200})), "200");
    EXPECT_EQ(friendlyOf(valueOf(VT_I2, &tagVARIANT::iVal, std::int16_t{-300})), "-300");
    EXPECT_EQ(friendlyOf(valueOf(VT_UI2, &tagVARIANT::uiVal, std::uint16_t{65535})), "65535");
    EXPECT_EQ(friendlyOf(valueOf(VT_I4, &tagVARIANT::lVal, std::int32_t{-70000})), "-70000");
    EXPECT_EQ(friendlyOf(valueOf(VT_UI4, &tagVARIANT::ulVal, std::uint32_t{4294967295U})),
              "4294967295");
    EXPECT_EQ(friendlyOf(valueOf(VT_I8, &tagVARIANT::llVal, std::int64_t{-5000000000})),
              "-5000000000");
    EXPECT_EQ(
        friendlyOf(valueOf(VT_UI8, &tagVARIANT::ullVal, std::uint64_t{18446744073709551615U})),
        "18446744073709551615");
    EXPECT_EQ(friendlyOf(valueOf(VT_R4, &tagVARIANT::fltVal, 1.5F)), "1.500000");
    EXPECT_EQ(friendlyOf(valueOf(VT_R8, &tagVARIANT::dblVal, -0.25)), "-0.250000");
    EXPECT_EQ(friendlyOf(valueOf(VT_BOOL, &tagVARIANT::boolVal, VARIANT_TRUE)), "1");
    EXPECT_EQ(friendlyOf(valueOf(VT_DATE, &tagVARIANT::date, VUtil::TimeToDate(1300000000))),
              "(date)2011-03-13 07:06:40");
    EXPECT_EQ(friendlyOf(Text("a \"b\"")), "\"a \"b\"\"");
}

TEST(VUtilText, ArraysForPeopleShowTextsAndVariantsAndCountNumbers)
{
    Array texts(VT_BSTR, 1);
    VUtil::PutElement(texts, 0, "a");
    Array outer(VT_VARIANT, 3);
    VUtil::PutElement(outer, 0, texts);
    VUtil::PutElement(outer, 1, 5);
    VUtil::PutElement(outer, 2, Array(VT_UI1, 3));
    EXPECT_EQ(friendlyOf(outer), "[\n"
                                 "    [\n"
                                 "        \"a\"\n"
                                 "    ],\n"
                                 "    5,\n"
                                 "    [3 UI1 elements]\n"
                                 "]");
    EXPECT_EQ(friendlyOf(Array(VT_VARIANT, 0)), "[\n]");
    CStdStr<char> out = "before ";
    VUtil::VariantToFriendlyString(&texts, out, 1);
    EXPECT_EQ(out, "before     [\n        \"a\"\n    ]");
}

TEST(VUtilText, NumberArraysForPeopleNameTheirType)
{
    EXPECT_EQ(friendlyOf(Array(VT_I1, 1)), "[1 I1 elements]");
    EXPECT_EQ(friendlyOf(Array(VT_I2, 2)), "[2 I2 elements]");
    EXPECT_EQ(friendlyOf(Array(VT_I4, 3)), "[3 I4 elements]");
    EXPECT_EQ(friendlyOf(Array(VT_I8, 4)), "[4 I8 elements]");
    EXPECT_EQ(friendlyOf(Array(VT_UI1, 0)), "[0 UI1 elements]");
    EXPECT_EQ(friendlyOf(Array(VT_UI2, 2)), "[2 UI2 elements]");
    EXPECT_EQ(friendlyOf(Array(VT_UI4, 3)), "[3 UI4 elements]");
    EXPECT_EQ(friendlyOf(Array(VT_UI8, 4)), "[4 UI8 elements]");
    EXPECT_EQ(friendlyOf(Array(VT_R4, 5)), "[5 R4 elements]");
    EXPECT_EQ(friendlyOf(Array(VT_R8, 6)), "[6 R8 elements]");
}

TEST(VUtilText, IndentOfAnySizeIsTaken)
{
    const tagVARIANT empty{};
    CStdStr<char> out;
    VUtil::VariantToXML(&empty, -5, out);
    EXPECT_EQ(out, "<var vt=\"VT_EMPTY\" />\n");
    out.clear();
    VUtil::VariantToFriendlyString(&empty, out, 2147483647);
    EXPECT_LT(out.size(), 1000U);
}

TEST(VUtilText, DumpLogsTheFriendlyTextBehindItsLabel)
{
    zel::test::LogCapture log;
    Array array(VT_VARIANT, 2);
    VUtil::PutElement(array, 0, std::string("a\0b", 3));
    VUtil::PutElement(array, 1, "100%s");
    VUtil::Dump(&array, "results");
    EXPECT_TRUE(log.contains("results: [\n    \"a b\",\n    \"100%s\"\n]"));
}

TEST(VUtilText, DumpWithoutDebugLevelLogsNothing)
{
    zel::test::LogCapture log(LOGLEVEL_INFO);
    const tagVARIANT empty{};
    VUtil::Dump(&empty, "results");
    EXPECT_TRUE(log.lines().empty());
}
