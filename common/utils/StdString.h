#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
#include <type_traits>
#include <utility>

/// The string type of all interfaces: a `std::basic_string` with formatting in the manner of
/// `printf`, replacement and trimming. It adds no field, so it may be sliced into its base.
/// Header-only, for hosts need it too. Like its base it has no lock: one thread at a time.
template <class CT>
class CStdStr : public std::basic_string<CT>
{
public:
    using Base = std::basic_string<CT>;

    CStdStr() = default;
    /// A null pointer gives the empty string.
    CStdStr(const CT* text) : Base(text != nullptr ? Base(text) : Base()) {}
    CStdStr(const Base& text) : Base(text) {}
    CStdStr(Base&& text) noexcept : Base(std::move(text)) {}

    /// A null pointer gives the empty string.
    CStdStr& operator=(const CT* text)
    {
        if (text == nullptr) {
            this->clear();
        } else {
            Base::operator=(text);
        }
        return *this;
    }
    CStdStr& operator=(const Base& text)
    {
        Base::operator=(text);
        return *this;
    }
    CStdStr& operator=(Base&& text) noexcept
    {
        Base::operator=(std::move(text));
        return *this;
    }

    /// Replaces the content by the formatted text, of any length. Arguments may point into this
    /// string. Takes `char` whatever CT is, so that the compiler can check the arguments.
    void Format(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list arguments;
        va_start(arguments, format);
        Base text = formatted(format, arguments);
        va_end(arguments);
        this->swap(text);
    }

    /// Appends the formatted text, of any length. Arguments may point into this string.
    void AppendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list arguments;
        va_start(arguments, format);
        const Base text = formatted(format, arguments);
        va_end(arguments);
        this->append(text);
    }

    /// Replaces each occurrence of `from`, left to right; what was put in is not searched again.
    /// A null or empty `from` changes nothing, a null `to` removes.
    /// @return the number of replacements
    int Replace(const CT* from, const CT* to)
    {
        if (from == nullptr || *from == CT()) {
            return 0;
        }
        const Base search(from);
        const Base replacement(to != nullptr ? Base(to) : Base());
        Base result;
        int count = 0;
        std::size_t position = 0;
        for (std::size_t hit = this->find(search); hit != Base::npos;
             hit = this->find(search, position)) {
            result.append(*this, position, hit - position);
            result.append(replacement);
            position = hit + search.size();
            ++count;
        }
        if (count > 0) {
            result.append(*this, position, Base::npos);
            this->swap(result);
        }
        return count;
    }

    /// @return the number of replacements
    int Replace(CT from, CT to)
    {
        int count = 0;
        for (CT& letter : *this) {
            if (letter == from) {
                letter = to;
                ++count;
            }
        }
        return count;
    }

    /// Removes blanks, tabulators and line ends on both sides.
    CStdStr& Trim()
    {
        TrimRight();
        return TrimLeft();
    }

    CStdStr& TrimLeft()
    {
        std::size_t count = 0;
        while (count < this->size() && isBlank((*this)[count])) {
            ++count;
        }
        this->erase(0, count);
        return *this;
    }

    CStdStr& TrimRight()
    {
        std::size_t length = this->size();
        while (length > 0 && isBlank((*this)[length - 1])) {
            --length;
        }
        this->resize(length);
        return *this;
    }

    /// Changes A to Z only, whatever the locale says.
    CStdStr& ToLower()
    {
        for (CT& letter : *this) {
            if (letter >= CT('A') && letter <= CT('Z')) {
                letter = static_cast<CT>(letter - CT('A') + CT('a'));
            }
        }
        return *this;
    }

private:
    static bool isBlank(CT letter)
    {
        return letter == CT(' ') || (letter >= CT('\t') && letter <= CT('\r'));
    }

    /// Empty when the C library refuses the format.
    static Base formatted(const char* format, va_list arguments)
    {
        static_assert(std::is_same_v<CT, char>, "only narrow strings are formatted");
        va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(nullptr, 0, format, arguments);
        Base text;
        if (length > 0) {
            text.resize(static_cast<std::size_t>(length));
            std::vsnprintf(text.data(), text.size() + 1, format, again);
        }
        va_end(again);
        return text;
    }
};

/// Compares without regard to the case of A to Z, independent of the locale. Null counts as empty.
/// @return 0 when equal, below 0 when `left` sorts first, above 0 otherwise
inline int ssicmp(const char* left, const char* right)
{
    const auto lower = [](char letter) {
        const auto code = static_cast<unsigned char>(letter);
        return code >= 'A' && code <= 'Z' ? code - 'A' + 'a' : static_cast<int>(code);
    };
    const char* a = left != nullptr ? left : "";
    const char* b = right != nullptr ? right : "";
    while (*a != '\0' && lower(*a) == lower(*b)) {
        ++a;
        ++b;
    }
    return lower(*a) - lower(*b);
}
