#pragma once

#include "common/utils/Clock.h"
#include "common/utils/Locks.h"
#include "network/cURLRequest.h"
#include "tests/support/ScriptedServer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <exception>
#include <string>
#include <typeinfo>

namespace zel::test {

/// A request, or one of its kin, that no proxy of the machine's environment gets between.
template <class Base>
class Local : public Base
{
public:
    template <class... Arguments>
    explicit Local(const CStdStr<char>& url, Arguments... arguments) : Base(arguments...)
    {
        this->setOption(CURLOPT_NOPROXY, "*");
        this->setURL(url);
    }
};

using LocalRequest = Local<cURL::Request>;
using LocalAsyncRequest = Local<cURL::AsyncRequest>;

/// @return libcurl's code for the way the transfer ended. CURLE_WRITE_ERROR is the plain exception
///         of a refused byte.
inline CURLcode performed(cURL::Request& request)
{
    try {
        request.perform();
        return CURLE_OK;
    } catch (const cURL::CUrlEasyException& failure) {
        EXPECT_NE(failure.getCode(), CURLE_WRITE_ERROR);
        return failure.getCode();
    } catch (const std::exception& failure) {
        EXPECT_TRUE(typeid(failure) == typeid(std::exception)) << failure.what();
        return CURLE_WRITE_ERROR;
    }
}

inline unsigned long takeAll(void*, unsigned long size, unsigned long count)
{
    return size * count;
}

/// Lets so much time pass, as something slow does.
inline void letTimePass(int ms)
{
    PCondMutex event;
    const bool never = false;
    event.timedWait(never, zel::absoluteTimeAfter(ms));
}

/// Performs the request, which must succeed.
/// @return its body
inline std::string bodyOf(cURL::Request& request)
{
    CStdStr<char> text;
    request.setWriteCallback(request.getStringWriter(text));
    EXPECT_EQ(performed(request), CURLE_OK);
    request.setEmptyWriteCallback(); // `text` ends here
    return text;
}

inline ServerScript answering(const std::string& body, const ServerHeaders& headers = {})
{
    return [body, headers](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200, headers, body);
    };
}

/// Announces a body, and sends only its first byte.
inline ServerScript announcing(std::uint64_t length)
{
    return [length](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, length);
        connection.send("x");
        connection.waitUntilPeerCloses();
    };
}

} // namespace zel::test
