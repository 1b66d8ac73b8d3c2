#pragma once

#include "network/HTTPClient.h"

#include <string>

namespace zel::test {

/// No limit, for HTTPClient::read.
constexpr int NoLimit = 0;

/// A client that never gives up by itself, so that what ends it is what the test did.
class PatientClient : public HTTPClient
{
public:
    using HTTPClient::HTTPClient;
    ~PatientClient() override { close(); } // before this part of the object is gone

protected:
    HTTPRequestHandler* getRequestHandler() override
    {
        constexpr unsigned int ManyDaysMs = 0x7fffffff;
        HTTPRequestHandler* handler = HTTPClient::getRequestHandler();
        handler->setTimeout(ManyDaysMs);
        return handler;
    }
};

/// What comes in this many bytes; less only at the stream's end.
inline std::string readSome(HTTPClient& client, std::size_t size)
{
    std::string bytes(size, '\x5a');
    const int count = client.read(bytes.data(), size, NoLimit);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

/// All that comes until the stream's end.
inline std::string readUntilEnd(HTTPClient& client)
{
    std::string all;
    std::string piece;
    do {
        piece = readSome(client, 10000);
        all += piece;
    } while (!piece.empty());
    return all;
}

} // namespace zel::test
