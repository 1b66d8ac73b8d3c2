#include "common/utils/VUtil.h"

#include "common/utils/CBBLog.h"
#include "common/utils/VariantElements.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

using zel::throwInvalid;
using zel::VariantElements;

namespace {

/// @return such as "VT_I4"; null for a tag that is not known
const char* typeName(int type)
{
    switch (type) {
    case VT_EMPTY:
        return "VT_EMPTY";
    case VT_NULL:
        return "VT_NULL";
    case VT_I1:
        return "VT_I1";
    case VT_I2:
        return "VT_I2";
    case VT_I4:
        return "VT_I4";
    case VT_I8:
        return "VT_I8";
    case VT_UI1:
        return "VT_UI1";
    case VT_UI2:
        return "VT_UI2";
    case VT_UI4:
        return "VT_UI4";
    case VT_UI8:
        return "VT_UI8";
    case VT_R4:
        return "VT_R4";
    case VT_R8:
        return "VT_R8";
    case VT_BSTR:
        return "VT_BSTR";
    case VT_DATE:
        return "VT_DATE";
    case VT_BOOL:
        return "VT_BOOL";
    case VT_VARIANT:
        return "VT_VARIANT";
    default:
        return nullptr;
    }
}

std::string_view textOf(const tagVARIANT& v)
{
    return v.bstrVal != nullptr ? std::string_view(v.bstrVal, SysStringLen(v.bstrVal)) : "";
}

/// The day and time that the number holds; no time zone is taken in.
CStdStr<char> dateText(DATE date)
{
    const std::time_t time = VUtil::DateToTime(date);
    std::tm fields{};
    std::array<char, 64> text{};
    if (gmtime_r(&time, &fields) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &fields) == 0) {
        throwInvalid("Date is out of range");
    }
    return text.data();
}

/// @return false when the value is no integer
bool appendInteger(CStdStr<char>& out, const tagVARIANT& v)
{
    switch (v.vt) {
    case VT_I1:
        out.AppendFormat("%d", int{v.cVal});
        return true;
    case VT_UI1:
        out.AppendFormat("%d", int{v.bVal});
        return true;
    case VT_I2:
        out.AppendFormat("%hd", v.iVal);
        return true;
    case VT_UI2:
        out.AppendFormat("%hu", v.uiVal);
        return true;
    case VT_I4:
        out.AppendFormat("%d", int{v.lVal});
        return true;
    case VT_UI4:
        out.AppendFormat("%lu", static_cast<unsigned long>(v.ulVal));
        return true;
    case VT_I8:
        out.AppendFormat("%lld", static_cast<long long>(v.llVal));
        return true;
    case VT_UI8:
        out.AppendFormat("%llu", static_cast<unsigned long long>(v.ullVal));
        return true;
    case VT_BOOL:
        out.AppendFormat("%d", v.boolVal != VARIANT_FALSE ? 1 : 0);
        return true;
    default:
        return false;
    }
}

/// The shortest text that reads back as the same number, in any locale.
template <class Real>
void appendExact(CStdStr<char>& out, Real value)
{
    std::array<char, 32> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
    out.append(text.data(), end);
}

/// @return bytes of the character that `text` begins with; 0 when XML or UTF-8 knows no such
std::size_t characterSize(std::string_view text)
{
    const auto byteAt = [text](std::size_t index) -> std::uint32_t {
        return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
    };
    const std::uint32_t lead = byteAt(0);
    if (lead < 0x80) {
        return lead >= ' ' || lead == '\t' || lead == '\n' || lead == '\r' ? 1 : 0;
    }
    const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    std::uint32_t code = lead & (0x7FU >> size);
    for (std::size_t index = 1; index < size; ++index) {
        if ((byteAt(index) & 0xC0U) != 0x80) {
            return 0;
        }
        code = code << 6U | (byteAt(index) & 0x3FU);
    }
    // The first code that needs so many bytes.
    constexpr std::array<std::uint32_t, 5> first = {0, 0, 0x80, 0x800, 0x10000};
    const bool valid = lead >= 0xC0 && lead < 0xF8 && code >= first[size] && code <= 0x10FFFF &&
                       (code < 0xD800 || code > 0xDFFF) && code != 0xFFFE && code != 0xFFFF;
    return valid ? size : 0;
}

/// Bytes that no XML document may hold, not even escaped, become U+FFFD: a text of any origin must
/// not make the whole document unreadable.
void appendEscaped(CStdStr<char>& out, std::string_view text)
{
    while (!text.empty()) {
        const std::size_t size = characterSize(text);
        if (size == 0) {
            out += "\xEF\xBF\xBD";
        } else if (text[0] == '&') {
            out += "&amp;";
        } else if (text[0] == '<') {
            out += "&lt;";
        } else if (text[0] == '>') {
            out += "&gt;";
        } else {
            out.append(text.substr(0, size));
        }
        text.remove_prefix(std::max(size, std::size_t{1}));
    }
}

/// The walk that both text forms share: the value at one level, errors caught where they stand.
class TextWriter
{
public:
    TextWriter(CStdStr<char>& out, int blanksPerLevel, int firstLevel)
        : m_out(out), m_blanksPerLevel(blanksPerLevel),
          m_firstLevel(std::clamp(firstLevel, 0, zel::dax::maxNesting))
    {
    }
    virtual ~TextWriter() = default;
    TextWriter(const TextWriter&) = delete;
    TextWriter& operator=(const TextWriter&) = delete;

    void write(const tagVARIANT* v, int depth)
    {
        const std::size_t length = m_out.size();
        try {
            if (v == nullptr) {
                throwInvalid("No variant");
            }
            if (depth > zel::dax::maxNesting) {
                throwInvalid("Nested too deep");
            }
            writeValue(*v, depth);
        } catch (const DaxException& error) {
            m_out.resize(length);
            writeError(error.getMessage(), depth);
        }
    }

protected:
    virtual void writeValue(const tagVARIANT& v, int depth) = 0;
    virtual void writeError(const char* message, int depth) = 0;

    std::string padding(int depth) const
    {
        return std::string(static_cast<std::size_t>((m_firstLevel + depth) * m_blanksPerLevel),
                           ' ');
    }

    CStdStr<char>& m_out; ///< appended to

private:
    const int m_blanksPerLevel;
    const int m_firstLevel;
};

class XmlWriter : public TextWriter
{
public:
    XmlWriter(CStdStr<char>& out, int indent) : TextWriter(out, 3, indent) {}

protected:
    void writeValue(const tagVARIANT& v, int depth) override
    {
        const char* name = typeName(v.vt & ~VT_ARRAY);
        const bool known = zel::dax::isVariantType(v.vt);
        if (!known || name == nullptr) {
            m_out.AppendFormat("%s<var vt=\"%d (unknown)\" />\n", padding(depth).c_str(),
                               int{v.vt});
        } else if ((v.vt & VT_ARRAY) != 0) {
            writeArray(v, name, depth);
        } else if (v.vt == VT_EMPTY || v.vt == VT_NULL) {
            m_out.AppendFormat("%s<var vt=\"%s\" />\n", padding(depth).c_str(), name);
        } else {
            m_out.AppendFormat("%s<var vt=\"%s\">", padding(depth).c_str(), name);
            writeScalar(v);
            m_out += "</var>\n";
        }
    }

    void writeError(const char* message, int depth) override
    {
        CStdStr<char> escaped;
        appendEscaped(escaped, message);
        m_out.AppendFormat("%s<Error>%s</Error>\n", padding(depth).c_str(), escaped.c_str());
    }

private:
    void writeArray(const tagVARIANT& v, const char* name, int depth)
    {
        const VariantElements elements(v);
        const int count = static_cast<int>(elements.count());
        const std::string blanks = padding(depth);
        if (count == 0 && (v.vt == (VT_ARRAY | VT_I1) || v.vt == (VT_ARRAY | VT_UI1))) {
            // Kept: one form for no bytes at all, with sign or without; readers know this one.
            m_out.AppendFormat("%s<var vt=\"VT_ARRAY|VT_I1\" count=\"%d\" />\n", blanks.c_str(),
                               count);
            return;
        }
        m_out.AppendFormat("%s<var vt=\"VT_ARRAY|%s\" count=\"%d\">\n", blanks.c_str(), name,
                           count);
        for (std::uint32_t index = 0; index < elements.count(); ++index) {
            const tagVARIANT element = elements.at(index);
            write(&element, depth + 1);
        }
        m_out.AppendFormat("%s</var>\n", blanks.c_str());
    }

    void writeScalar(const tagVARIANT& v)
    {
        if (appendInteger(m_out, v)) {
            return;
        }
        switch (v.vt) {
        case VT_R4:
            appendExact(m_out, v.fltVal);
            break;
        case VT_R8:
            appendExact(m_out, v.dblVal);
            break;
        case VT_DATE:
            m_out += dateText(v.date);
            break;
        default:
            appendEscaped(m_out, textOf(v));
            break;
        }
    }
};

class FriendlyWriter : public TextWriter
{
public:
    FriendlyWriter(CStdStr<char>& out, int indent) : TextWriter(out, 4, indent) {}

protected:
    void writeValue(const tagVARIANT& v, int depth) override
    {
        const std::string blanks = padding(depth);
        if (!zel::dax::isVariantType(v.vt)) {
            m_out.AppendFormat("%s(unknown vt %d)", blanks.c_str(), int{v.vt});
        } else if ((v.vt & VT_ARRAY) != 0) {
            writeArray(v, depth);
        } else {
            m_out += blanks;
            writeScalar(v);
        }
    }

    void writeError(const char* message, int depth) override
    {
        m_out.AppendFormat("%s<Error>%s</Error>", padding(depth).c_str(), message);
    }

private:
    void writeArray(const tagVARIANT& v, int depth)
    {
        const VariantElements elements(v);
        const std::string blanks = padding(depth);
        const int type = v.vt & ~VT_ARRAY;
        if (type != VT_VARIANT && type != VT_BSTR) {
            const std::string_view prefix = "VT_";
            m_out.AppendFormat("%s[%d %s elements]", blanks.c_str(),
                               static_cast<int>(elements.count()), typeName(type) + prefix.size());
            return;
        }
        m_out.AppendFormat("%s[\n", blanks.c_str());
        for (std::uint32_t index = 0; index < elements.count(); ++index) {
            m_out += index > 0 ? ",\n" : "";
            const tagVARIANT element = elements.at(index);
            write(&element, depth + 1);
        }
        m_out += elements.count() > 0 ? "\n" : "";
        m_out.AppendFormat("%s]", blanks.c_str());
    }

    void writeScalar(const tagVARIANT& v)
    {
        if (appendInteger(m_out, v)) {
            return;
        }
        switch (v.vt) {
        case VT_EMPTY:
            m_out += "(empty)";
            break;
        case VT_NULL:
            m_out += "(null)";
            break;
        case VT_R4:
            m_out.AppendFormat("%f", static_cast<double>(v.fltVal));
            break;
        case VT_R8:
            m_out.AppendFormat("%f", v.dblVal);
            break;
        case VT_DATE:
            m_out.AppendFormat("(date)%s", dateText(v.date).c_str());
            break;
        default:
            m_out += '"';
            m_out.append(textOf(v));
            m_out += '"';
            break;
        }
    }
};

} // namespace

void VUtil::VariantToXML(const tagVARIANT* v, int indent, CStdStr<char>& out)
{
    XmlWriter(out, indent).write(v, 0);
}

void VUtil::VariantToXML(const tagVARIANT* v, CStdStr<char>& out)
{
    VariantToXML(v, 0, out);
}

void VUtil::VariantToFriendlyString(const tagVARIANT* v, CStdStr<char>& out, int indent)
{
    FriendlyWriter(out, indent).write(v, 0);
}

void VUtil::Dump(const tagVARIANT* v, const CStdStr<char>& label)
{
    if (!CBBLog::isDebugEnabled()) {
        return;
    }
    CStdStr<char> text;
    VariantToFriendlyString(v, text, 0);
    // The log takes the text up to a NUL, which a string may hold.
    text.Replace('\0', ' ');
    CBBLog::debug("%s: %s", label.c_str(), text.c_str());
}
