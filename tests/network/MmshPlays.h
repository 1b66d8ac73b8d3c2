#pragma once

#include "tests/network/MadeUpAsf.h"
#include "tests/support/ScriptedServer.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What a server of MMS over HTTP answers, put together by hand.
namespace zel::test::plays {

constexpr unsigned packetLength = 1500;
inline const std::string header = madeup::asfHeader(madeup::fileProperties(packetLength));

/// Chunks of the packets with these numbers, each of 1000 bytes that count.
inline std::string packets(unsigned first, unsigned count)
{
    std::string bytes;
    for (unsigned i = first; i < first + count; ++i) {
        bytes += madeup::dataChunk(madeup::packet(i, 1000), i);
    }
    return bytes;
}

/// What a reader gets of them.
inline std::string paddedPackets(unsigned first, unsigned count)
{
    std::string bytes;
    for (unsigned i = first; i < first + count; ++i) {
        bytes += madeup::padded(madeup::packet(i, 1000), packetLength);
    }
    return bytes;
}

inline std::string begin()
{
    return madeup::headerChunk(header);
}

/// @param features  of the server's list
inline ServerHeaders headers(const std::string& features = "\"seekable,stridable\"")
{
    return {{"Content-Type", "application/x-mms-framed"},
            {"Pragma", "no-cache,client-id=7,features=" + features},
            {"Supported", "com.microsoft.wm.srvppair, com.microsoft.wm.sswitch"}};
}

using Play = std::function<void(const ServerRequest&, ServerConnection&)>;

/// A whole answer.
inline Play whole(std::string body, ServerHeaders with = headers())
{
    return [=](const ServerRequest&, ServerConnection& connection) {
        connection.respond(200, with, body);
    };
}

/// Begins an answer and leaves it unfinished until the client goes away.
/// @param length  that it promises
inline Play holding(std::string body, std::uint64_t length = 100000000,
                    ServerHeaders with = headers())
{
    return [=](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, with, length);
        connection.send(body);
        connection.waitUntilPeerCloses();
    };
}

/// Breaks off in the middle of what it promises.
inline Play breaking(std::string body, std::uint64_t length = 100000000,
                     ServerHeaders with = headers())
{
    return [=](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, with, length);
        connection.send(body);
        connection.close();
    };
}

/// Without a length: the end of the connection is the end of the body.
inline Play unmeasured(std::string body, bool hold, ServerHeaders with = headers())
{
    return [=](const ServerRequest&, ServerConnection& connection) {
        std::string answer = "HTTP/1.1 200 OK\r\nConnection: close\r\n";
        for (const auto& [name, value] : with) {
            answer.append(name).append(": ").append(value).append("\r\n");
        }
        connection.send(answer + "\r\n" + body);
        if (hold) {
            connection.waitUntilPeerCloses();
        }
        connection.close();
    };
}

inline Play refused(int status)
{
    return [=](const ServerRequest&, ServerConnection& connection) {
        connection.respond(status, {}, "no");
    };
}

/// Says nothing at all, and sets a mark.
inline Play silent(std::string mark)
{
    return [=](const ServerRequest&, ServerConnection& connection) {
        connection.mark(mark);
        connection.waitUntilPeerCloses();
    };
}

/// Goes away without a word.
inline Play gone()
{
    return [](const ServerRequest&, ServerConnection& connection) { connection.close(); };
}

/// The answers to requests in their order; the last one is for all that follow.
inline ServerScript inTurn(std::vector<Play> answers)
{
    const auto next = std::make_shared<std::atomic<std::size_t>>(0);
    return [=](const ServerRequest& request, ServerConnection& connection) {
        const std::size_t number = std::min(next->fetch_add(1), answers.size() - 1);
        answers[number](request, connection);
    };
}

/// All "Pragma" values of a request, in their order.
inline std::vector<std::string> pragmas(const ServerRequest& request)
{
    std::vector<std::string> values;
    for (const auto& [name, value] : request.headers) {
        if (name == "Pragma") {
            values.push_back(value);
        }
    }
    return values;
}

} // namespace zel::test::plays
