#pragma once

#include "network/cURLRequest.h"

#include <gtest/gtest.h>

#include <exception>
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

} // namespace zel::test
