#pragma once

#include <cstring>

/// A failure of the remoting border or of reading its values. Thrown and caught by value.
class DaxException
{
public:
    /// @param message  its first 255 bytes are kept; null counts as empty
    DaxException(const char* message, long code) : m_code(code)
    {
        if (message != nullptr) {
            std::strncpy(m_message, message, sizeof(m_message) - 1);
        }
    }
    virtual ~DaxException() = default;
    DaxException(const DaxException&) = default;
    DaxException& operator=(const DaxException&) = default;

    const char* getMessage() const { return m_message; }
    long getCode() const { return m_code; }

private:
    char m_message[256] = {}; ///< always ends in a NUL
    long m_code;
};

/// A value that is not what the callee asks for, or cannot be made.
class DaxInvalidParameterException : public DaxException
{
public:
    static constexpr long code = 1;

    explicit DaxInvalidParameterException(const char* message) : DaxException(message, code) {}
};
