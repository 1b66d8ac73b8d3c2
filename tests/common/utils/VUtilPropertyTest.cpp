#include "common/utils/VUtil.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <expat.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using zel::dax::OwnedVariant;

namespace {

const std::vector<std::pair<std::string, VARTYPE>> scalarTypes = {
    {"VT_I1", VT_I1},    {"VT_I2", VT_I2},   {"VT_I4", VT_I4},     {"VT_I8", VT_I8},
    {"VT_UI1", VT_UI1},  {"VT_UI2", VT_UI2}, {"VT_UI4", VT_UI4},   {"VT_UI8", VT_UI8},
    {"VT_R4", VT_R4},    {"VT_R8", VT_R8},   {"VT_BOOL", VT_BOOL}, {"VT_DATE", VT_DATE},
    {"VT_BSTR", VT_BSTR}};

VARTYPE typeNamed(const std::string& name)
{
    for (const auto& [known, type] : scalarTypes) {
        if (known == name) {
            return type;
        }
    }
    if (name == "VT_VARIANT") {
        return VT_VARIANT;
    }
    return name == "VT_NULL" ? VT_NULL : VT_EMPTY;
}

/// Random values of every type that the XML form gives back unchanged: dates are whole seconds,
/// texts have no carriage return, which XML does not keep, and there is no array of no bytes.
class ValueMaker
{
public:
    explicit ValueMaker(unsigned seed) : m_random(seed) {}

    void fill(tagVARIANT& v, int depth)
    {
        const unsigned kind = below(10);
        if (depth > 0 && kind < 4) {
            fillVariants(v, depth);
        } else if (kind < 6) {
            fillTyped(v);
        } else if (kind == 6) {
            v.vt = below(2) == 0 ? VT_EMPTY : VT_NULL;
        } else {
            fillScalar(v, scalarTypes[below(scalarTypes.size())].second);
        }
    }

private:
    std::size_t below(std::size_t bound) { return m_random() % bound; }

    void fillVariants(tagVARIANT& v, int depth)
    {
        const std::size_t count = below(5);
        VUtil::CreateArray(v, VT_VARIANT, count);
        for (std::size_t index = 0; index < count; ++index) {
            OwnedVariant element;
            fill(element, depth - 1);
            VUtil::PutElement(v, static_cast<int>(index), element);
        }
    }

    void fillTyped(tagVARIANT& v)
    {
        const VARTYPE type = scalarTypes[below(scalarTypes.size())].second;
        const bool bytes = type == VT_I1 || type == VT_UI1;
        const std::size_t count = below(6) + (bytes ? 1 : 0);
        VUtil::CreateArray(v, type, count);
        for (std::size_t index = 0; index < count; ++index) {
            OwnedVariant element;
            fillScalar(element, type);
            const auto position = static_cast<std::int32_t>(index);
            const void* value =
                type == VT_BSTR ? element.bstrVal : static_cast<void*>(&element.llVal);
            ASSERT_EQ(SafeArrayPutElement(v.parray, &position, value), S_OK);
        }
    }

    void fillScalar(tagVARIANT& v, VARTYPE type)
    {
        v.vt = type;
        if (type == VT_BSTR) {
            const std::string text = makeText();
            v.bstrVal = SysAllocStringLen(text.data(), static_cast<std::uint32_t>(text.size()));
        } else if (type == VT_DATE) {
            v.date = VUtil::TimeToDate(static_cast<long>(below(4000000000U)));
        } else if (type == VT_BOOL) {
            v.boolVal = below(2) == 0 ? VARIANT_FALSE : VARIANT_TRUE;
        } else if (type == VT_R4) {
            v.fltVal = static_cast<float>(static_cast<std::int64_t>(m_random())) * 1e-12F;
        } else if (type == VT_R8) {
            v.dblVal = static_cast<double>(static_cast<std::int64_t>(m_random())) * 1e-12;
        } else {
            const std::uint64_t bits = m_random();
            std::memcpy(&v.ullVal, &bits, zel::dax::elementSize(type));
        }
    }

    std::string makeText()
    {
        static const std::array<const char*, 12> pieces = {
            "a", "<",  ">",   "&",     "\"",       "'",
            " ", "\n", "]]>", "&amp;", "\xc3\xa4", "\xf0\x9f\x8e\xb5"};
        std::string text;
        for (std::size_t count = below(8); count > 0; --count) {
            text += pieces[below(pieces.size())];
        }
        return text;
    }

    std::mt19937_64 m_random;
};

/// An element of the XML form as expat reports it.
struct Node
{
    std::string name;
    std::map<std::string, std::string> attributes;
    std::string text;
    std::vector<Node> children;
};

struct Reader
{
    Node root;
    std::vector<Node*> open;
};

void XMLCALL _startElement(void* context, const XML_Char* name, const XML_Char** attributes)
{
    auto* reader = static_cast<Reader*>(context);
    reader->open.back()->children.push_back({name, {}, {}, {}});
    Node* node = &reader->open.back()->children.back();
    for (; *attributes != nullptr; attributes += 2) {
        node->attributes[attributes[0]] = attributes[1];
    }
    reader->open.push_back(node);
}

void XMLCALL _endElement(void* context, const XML_Char*)
{
    static_cast<Reader*>(context)->open.pop_back();
}

void XMLCALL _text(void* context, const XML_Char* text, int size)
{
    static_cast<Reader*>(context)->open.back()->text.append(text, static_cast<std::size_t>(size));
}

/// @throws std::runtime_error when the document is not well-formed
Node parseXml(const std::string& xml)
{
    const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(
        XML_ParserCreate("UTF-8"), XML_ParserFree);
    Reader reader;
    reader.open.push_back(&reader.root);
    XML_SetUserData(parser.get(), &reader);
    XML_SetElementHandler(parser.get(), _startElement, _endElement);
    XML_SetCharacterDataHandler(parser.get(), _text);
    if (XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE) !=
        XML_STATUS_OK) {
        throw std::runtime_error(XML_ErrorString(XML_GetErrorCode(parser.get())));
    }
    return reader.root.children.at(0);
}

template <class T>
void parseNumber(const std::string& text, T& value)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    EXPECT_EQ(result.ptr, text.data() + text.size()) << text;
}

void readScalar(const std::string& text, VARTYPE type, tagVARIANT& v)
{
    v.vt = type;
    if (type == VT_BSTR) {
        v.bstrVal = SysAllocStringLen(text.data(), static_cast<std::uint32_t>(text.size()));
    } else if (type == VT_DATE) {
        std::tm fields{};
        EXPECT_NE(strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &fields), nullptr) << text;
        v.date = VUtil::TimeToDate(timegm(&fields));
    } else if (type == VT_R4) {
        parseNumber(text, v.fltVal);
    } else if (type == VT_R8) {
        parseNumber(text, v.dblVal);
    } else if (type == VT_BOOL) {
        v.boolVal = text == "1" ? VARIANT_TRUE : VARIANT_FALSE;
    } else if (type == VT_UI8) {
        parseNumber(text, v.ullVal);
    } else if (type != VT_EMPTY && type != VT_NULL) {
        std::int64_t number = 0;
        parseNumber(text, number);
        std::memcpy(&v.llVal, &number, zel::dax::elementSize(type));
    }
}

/// The value that the XML form describes.
void readNode(const Node& node, tagVARIANT& v)
{
    const std::string array = "VT_ARRAY|";
    const std::string& name = node.attributes.at("vt");
    ASSERT_EQ(node.name, "var");
    if (name.compare(0, array.size(), array) != 0) {
        readScalar(node.text, typeNamed(name), v);
        return;
    }
    ASSERT_EQ(node.attributes.at("count"), std::to_string(node.children.size()));
    const VARTYPE type = typeNamed(name.substr(array.size()));
    VUtil::CreateArray(v, type, node.children.size());
    std::int32_t index = 0;
    for (const Node& child : node.children) {
        OwnedVariant element;
        readNode(child, element);
        const void* value = type == VT_BSTR      ? element.bstrVal
                            : type == VT_VARIANT ? static_cast<tagVARIANT*>(&element)
                                                 : static_cast<void*>(&element.llVal);
        ASSERT_EQ(SafeArrayPutElement(v.parray, &index, value), S_OK);
        ++index;
    }
}

std::string xmlOf(const tagVARIANT& v)
{
    CStdStr<char> out;
    VUtil::VariantToXML(&v, out);
    return out;
}

constexpr unsigned rounds = 300;

} // namespace

TEST(VUtilProperties, AnyValueReadsBackFromItsXml)
{
    for (unsigned seed = 0; seed < rounds; ++seed) {
        OwnedVariant value;
        ValueMaker(seed).fill(value, 5);
        const std::string xml = xmlOf(value);
        OwnedVariant read;
        ASSERT_NO_THROW(readNode(parseXml(xml), read)) << xml;
        ASSERT_TRUE(VUtil::Equals(value, read)) << seed << ": " << xml;
        ASSERT_EQ(xmlOf(read), xml);
    }
}

TEST(VUtilProperties, XmlOfAnyBytesIsWellFormed)
{
    std::mt19937_64 random(1);
    for (unsigned round = 0; round < rounds; ++round) {
        std::string bytes(random() % 40, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        OwnedVariant value;
        VUtil::CreateArray(value, VT_BSTR, 1);
        VUtil::PutElement(value, 0, bytes);
        EXPECT_EQ(VUtil::GetStringElement(value, 0), bytes);
        const std::string xml = xmlOf(value);
        ASSERT_NO_THROW(parseXml(xml)) << xml;
    }
}

TEST(VUtilProperties, CopyIsEqualAndItsOwn)
{
    for (unsigned seed = 0; seed < rounds; ++seed) {
        OwnedVariant copy;
        std::string xml;
        {
            OwnedVariant value;
            ValueMaker(seed).fill(value, 5);
            ASSERT_EQ(VariantCopy(&copy, &value), S_OK);
            ASSERT_TRUE(VUtil::Equals(copy, value)) << seed;
            xml = xmlOf(value);
        }
        ASSERT_EQ(xmlOf(copy), xml);
    }
}

TEST(VUtilProperties, DifferentXmlMeansDifferentValues)
{
    int different = 0;
    for (unsigned seed = 0; seed < rounds; ++seed) {
        OwnedVariant left;
        OwnedVariant right;
        ValueMaker(seed).fill(left, 3);
        ValueMaker(seed + 1).fill(right, 3);
        const bool equal = xmlOf(left) == xmlOf(right);
        ASSERT_EQ(VUtil::Equals(left, right), equal) << seed;
        different += equal ? 0 : 1;
    }
    EXPECT_GT(different, 0);
}

TEST(VUtilProperties, AnyMapOfTextsComesBack)
{
    std::mt19937_64 random(2);
    for (unsigned round = 0; round < 50; ++round) {
        VUtil::StringMap map;
        for (std::size_t count = random() % 20; count > 0; --count) {
            map["key" + std::to_string(random() % 1000)] = std::to_string(random());
        }
        OwnedVariant pairs;
        VUtil::CreateArray(pairs, VT_VARIANT, map.size());
        int index = 0;
        for (const auto& [key, value] : map) {
            VUtil::PutPair(pairs, index++, key, value);
        }
        EXPECT_EQ(VUtil::toStringMap(pairs, false), map);
        for (const auto& [key, value] : map) {
            CStdStr<char> found;
            EXPECT_TRUE(VUtil::FindPair(pairs, key, found));
            EXPECT_EQ(found, value);
        }
    }
}
