// Who takes a request's bytes, and how much of them.

#include "network/cURLRequest.h"

#include "tests/network/LocalRequest.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TempFolder.h"

#include <fstream>
#include <limits>
#include <stdexcept>

#include <gtest/gtest.h>

using namespace zel::test;
using zel::cURL::Request;

namespace {

/// How a transfer of the body "12345" ends when `callback` takes it.
CURLcode endWithWriteCallback(const Request::Callback& callback)
{
    ScriptedServer server(answering("12345"));
    LocalRequest request(server.url());
    request.setWriteCallback(callback);
    return performed(request);
}

CURLcode endWithHeaderCallback(const Request::Callback& callback)
{
    ScriptedServer server(answering("12345"));
    LocalRequest request(server.url());
    request.setEmptyWriteCallback();
    request.setHeaderCallback(callback);
    return performed(request);
}

/// What a sink throws when the server announces a body of so many bytes.
std::string refusalOf(Request& request, const Request::Callback& sink)
{
    std::string text;
    request.setWriteCallback([&](void* data, unsigned long size, unsigned long count) {
        try {
            return sink(data, size, count);
        } catch (const std::invalid_argument& failure) {
            text = failure.what();
            throw;
        }
    });
    EXPECT_EQ(performed(request), CURLE_WRITE_ERROR);
    return text;
}

} // namespace

TEST(cURLRequestBody, RefusedWriteThrowsAPlainException)
{
    const unsigned long refusals[] = {static_cast<unsigned long>(-1), 0, 4, 6,
                                      CURL_WRITEFUNC_PAUSE};
    for (const unsigned long result : refusals) {
        EXPECT_EQ(endWithWriteCallback([&](void*, unsigned long, unsigned long) { return result; }),
                  CURLE_WRITE_ERROR)
            << result;
    }
    EXPECT_EQ(endWithWriteCallback(takeAll), CURLE_OK);
}

TEST(cURLRequestBody, RefusedHeaderThrowsAPlainException)
{
    const unsigned long refusals[] = {static_cast<unsigned long>(-1), 0, 1, CURL_WRITEFUNC_PAUSE};
    for (const unsigned long result : refusals) {
        EXPECT_EQ(
            endWithHeaderCallback([&](void*, unsigned long, unsigned long) { return result; }),
            CURLE_WRITE_ERROR)
            << result;
    }
    EXPECT_EQ(endWithHeaderCallback(takeAll), CURLE_OK);
}

TEST(cURLRequestBody, CallbackThatThrowsRefusesTheBytes)
{
    const Request::Callback wellKnown = [](void*, unsigned long, unsigned long) -> unsigned long {
        throw std::runtime_error("no room");
    };
    const Request::Callback strange = [](void*, unsigned long, unsigned long) -> unsigned long {
        throw 5;
    };
    EXPECT_EQ(endWithWriteCallback(wellKnown), CURLE_WRITE_ERROR);
    EXPECT_EQ(endWithWriteCallback(strange), CURLE_WRITE_ERROR);
    EXPECT_EQ(endWithHeaderCallback(wellKnown), CURLE_WRITE_ERROR);
    EXPECT_EQ(endWithHeaderCallback(strange), CURLE_WRITE_ERROR);
}

TEST(cURLRequestBody, EmptyFunctionRefusesEveryByte)
{
    EXPECT_EQ(endWithWriteCallback({}), CURLE_WRITE_ERROR);
    EXPECT_EQ(endWithHeaderCallback({}), CURLE_WRITE_ERROR);
}

TEST(cURLRequestBody, BodyOfMaxSizeIsTakenAndOneByteMoreRefused)
{
    ScriptedServer server(answering("12345"));
    LocalRequest fitting(server.url());
    fitting.setMaxSize(5);
    EXPECT_EQ(bodyOf(fitting), "12345");
    LocalRequest tooLong(server.url());
    tooLong.setMaxSize(4);
    tooLong.setWriteCallback(takeAll);
    EXPECT_EQ(performed(tooLong), CURLE_WRITE_ERROR);
    LocalRequest largest(server.url());
    largest.setMaxSize(std::numeric_limits<int>::max());
    EXPECT_EQ(bodyOf(largest), "12345");
}

TEST(cURLRequestBody, MaxSizeCountsTheBodiesOfAllTransfers)
{
    ScriptedServer server(answering("12345"));
    LocalRequest request(server.url());
    request.setMaxSize(9);
    EXPECT_EQ(bodyOf(request), "12345");
    request.setWriteCallback(takeAll);
    EXPECT_EQ(performed(request), CURLE_WRITE_ERROR);
}

TEST(cURLRequestBody, EmptyWriteCallbackDropsTheBody)
{
    ScriptedServer server(answering("12345"));
    LocalRequest request(server.url());
    bool called = false;
    request.setWriteCallback([&](void*, unsigned long size, unsigned long count) {
        called = true;
        return size * count;
    });
    request.setEmptyWriteCallback();
    EXPECT_EQ(performed(request), CURLE_OK);
    EXPECT_FALSE(called);
}

TEST(cURLRequestBody, FileWriterWritesTheBody)
{
    const std::string body("a\0b\r\nc", 6);
    ScriptedServer server(answering(body));
    const TempFolder folder;
    LocalRequest request(server.url());
    std::ofstream stream(folder.path("body"), std::ios::binary);
    request.setWriteCallback(request.getFileWriter(stream));
    EXPECT_EQ(performed(request), CURLE_OK);
    stream.close();
    EXPECT_EQ(readFile(folder.path("body")), body);
}

TEST(cURLRequestBody, FileWriterAnswersForAllBytesWhateverTheStreamDoes)
{
    Request request;
    std::ofstream closed;
    char bytes[] = "1234";
    EXPECT_EQ(request.getFileWriter(closed)(bytes, 2, 2), 4U);
    EXPECT_FALSE(closed.good());
}

TEST(cURLRequestBody, BinaryWriterMakesRoomOnceAndAppends)
{
    const std::string body(100000, 'x');
    ScriptedServer server(answering(body));
    LocalRequest request(server.url());
    std::vector<char> bytes;
    std::size_t room = 0;
    const Request::Callback sink = request.getBinaryWriter(bytes);
    request.setWriteCallback([&](void* data, unsigned long size, unsigned long count) {
        const unsigned long taken = sink(data, size, count);
        room = room == 0 ? bytes.capacity() : room;
        return taken;
    });
    EXPECT_EQ(performed(request), CURLE_OK);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), body);
    EXPECT_EQ(room, body.size());
    EXPECT_EQ(bytes.capacity(), room);
}

TEST(cURLRequestBody, StringWriterMakesRoomOnceAndAppends)
{
    const std::string body(100000, 'x');
    ScriptedServer server(answering(body));
    LocalRequest request(server.url());
    CStdStr<char> text;
    std::size_t room = 0;
    const Request::Callback sink = request.getStringWriter(text);
    request.setWriteCallback([&](void* data, unsigned long size, unsigned long count) {
        const unsigned long taken = sink(data, size, count);
        room = room == 0 ? text.capacity() : room;
        return taken;
    });
    EXPECT_EQ(performed(request), CURLE_OK);
    EXPECT_EQ(text, body);
    EXPECT_GE(room, body.size());
    EXPECT_EQ(text.capacity(), room);
}

TEST(cURLRequestBody, BinaryWriterRefusesFourGibibytes)
{
    ScriptedServer server(announcing(0x100000000ULL));
    LocalRequest request(server.url());
    std::vector<char> bytes;
    EXPECT_EQ(refusalOf(request, request.getBinaryWriter(bytes)), "Content too big");
    EXPECT_TRUE(bytes.empty());
}

TEST(cURLRequestBody, StringWriterRefusesWhatIsLongerThanItsLimit)
{
    ScriptedServer server(announcing(0x3ffffffdULL));
    LocalRequest request(server.url());
    CStdStr<char> text;
    EXPECT_EQ(refusalOf(request, request.getStringWriter(text)), "Content too big");
    EXPECT_TRUE(text.empty());
}

TEST(cURLRequestBody, WritersAskForTheLengthOnlyWhileTheTargetIsEmpty)
{
    ScriptedServer server(announcing(0x100000000ULL));
    LocalRequest request(server.url());
    std::vector<char> bytes = {'a'};
    CStdStr<char> text = "a";
    request.setWriteCallback([&](void* data, unsigned long size, unsigned long count) {
        EXPECT_EQ(request.getBinaryWriter(bytes)(data, size, count), 1U);
        EXPECT_EQ(request.getStringWriter(text)(data, size, count), 1U);
        return 0UL;
    });
    EXPECT_EQ(performed(request), CURLE_WRITE_ERROR);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "ax");
    EXPECT_EQ(text, "ax");
}
