// Servers that answer unusually, wrongly, or with more than anybody wants.

#include "network/HTTPClient.h"

#include "tests/network/PatientClient.h"
#include "tests/support/PositionBytes.h"
#include "tests/support/RunProgram.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"
#include "tests/support/TempFolder.h"

#include <cstdint>
#include <string>
#include <thread>

#include <gtest/gtest.h>

using namespace zel::test;

namespace {

constexpr unsigned RingBytes = 1 << 20;
constexpr unsigned HistoryBytes = 1 << 18;
constexpr int SizeQuery = 0x10000;

ServerScript saying(const std::string& bytes)
{
    return [bytes](const ServerRequest&, ServerConnection& connection) { connection.send(bytes); };
}

/// A client's view of a server that always says the same.
class Answer
{
public:
    explicit Answer(ServerScript script)
        : m_server(std::move(script)), m_client(RingBytes, HistoryBytes),
          m_opened(m_client.open(m_server.url(), nullptr))
    {
    }
    explicit Answer(const std::string& bytes) : Answer(saying(bytes)) {}

    bool opened() const { return m_opened; }
    zel::HTTPClient& client() { return m_client; }
    ScriptedServer& server() { return m_server; }
    /// All that comes; what was not opened has nothing.
    std::string body() { return m_opened ? readUntilEnd(m_client) : "not opened"; }

private:
    ScriptedServer m_server;
    PatientClient m_client;
    bool m_opened;
};

/// The bytes of a text, packed.
std::string gzip(const std::string& text)
{
    const TempFolder folder;
    writeFile(folder.path("text"), text);
    return runProgram({"gzip", "--stdout", folder.path("text")}).out;
}

std::string withLength(const std::string& headers, const std::string& body, std::size_t length)
{
    return "HTTP/1.1 200 OK\r\n" + headers + "Content-Length: " + std::to_string(length) +
           "\r\n\r\n" + body;
}

} // namespace

// -------------------------------------------------------------------------------------------------
// Headers.

TEST(HTTPClientAnswers, FloodsOfHeadersEndTheOpen)
{
    for (const std::string& line : {std::string("X-Flood: ") + std::string(80, 'x') + "\r\n",
                                    std::string("X\r\n"), std::string("X-Folded: 1\r\n ")}) {
        Answer answer([&](const ServerRequest&, ServerConnection& connection) {
            connection.send("HTTP/1.1 200 OK\r\n");
            std::string lines;
            for (int i = 0; i < 100; ++i) {
                lines += line;
            }
            while (connection.send(lines)) {
            }
        });
        EXPECT_FALSE(answer.opened()) << line;
        answer.server().waitUntilIdle();
        EXPECT_LT(answer.server().bytesTaken(), 20U << 20) << line;
    }
}

TEST(HTTPClientAnswers, AnEndlessHeaderLineEndsTheOpen)
{
    Answer answer([](const ServerRequest&, ServerConnection& connection) {
        connection.send("HTTP/1.1 200 OK\r\nX-Long: ");
        while (connection.send(std::string(4096, 'x'))) {
        }
    });
    EXPECT_FALSE(answer.opened());
    answer.server().waitUntilIdle();
}

TEST(HTTPClientAnswers, AnEndlessStatusLineEndsTheOpen)
{
    Answer answer([](const ServerRequest&, ServerConnection& connection) {
        while (connection.send(std::string(4096, 'H'))) {
        }
    });
    EXPECT_FALSE(answer.opened());
    answer.server().waitUntilIdle();
}

TEST(HTTPClientAnswers, ManyHeadersAreNoFlood)
{
    std::string headers;
    for (int i = 0; i < 500; ++i) {
        headers += "X-Number-" + std::to_string(i) + ": " + std::string(50, 'x') + "\r\n";
    }
    Answer answer(withLength(headers + "Zel-Stream-Duration: 77\r\n", "body", 4));
    EXPECT_EQ(answer.client().getStreamDuration(), 77);
    EXPECT_EQ(answer.body(), "body");
}

TEST(HTTPClientAnswers, SomethingElseThanHttpEndsTheOpen)
{
    for (const std::string& bytes :
         {std::string(), std::string("\r\n\r\n"), std::string("220 ftp ready\r\n"),
          std::string(1000, '\0'), std::string("HTTP/1.1\r\n\r\n"), std::string("HTTP/1.1 2"),
          std::string("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n")}) {
        Answer answer(bytes);
        EXPECT_FALSE(answer.opened()) << bytes;
    }
}

TEST(HTTPClientAnswers, LengthsThatAreNoneEndTheOpenOrCountAsUnknown)
{
    for (const std::string length : {"-5", "99999999999999999999999", "abc", "0x10", ""}) {
        Answer answer("HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\nbody");
        if (answer.opened()) {
            const std::string body = answer.body();
            EXPECT_EQ(body, std::string("body").substr(0, body.size())) << length;
        }
    }
}

// -------------------------------------------------------------------------------------------------
// Bodies.

TEST(HTTPClientAnswers, ChunkedBodiesHaveNoLength)
{
    const std::string text = positionBytes::make(0, 700000);
    Answer answer([&](const ServerRequest&, ServerConnection& connection) {
        connection.beginChunks(200, {});
        for (std::size_t offset = 0, size = 1; offset < text.size(); offset += size, size *= 2) {
            connection.chunk(std::string_view(text).substr(offset, size));
        }
        connection.endChunks();
    });
    EXPECT_EQ(answer.client().getContentLength(), 0U);
    EXPECT_EQ(answer.client().seek(0, SizeQuery, -1), 0);
    EXPECT_TRUE(answer.body() == text);
    // What has gone by is still served by the history.
    EXPECT_EQ(answer.client().seek(699000, SEEK_SET, -1), 699000);
    EXPECT_TRUE(answer.body() == text.substr(699000));
}

TEST(HTTPClientAnswers, BrokenChunksEndTheStreamBehindTheLastGoodByte)
{
    for (const std::string& rest :
         {std::string("zz\r\nxx\r\n"), std::string("fffffffffffffffff\r\nxx"),
          std::string("5\r\nab"), std::string("-1\r\n"), std::string()}) {
        Answer answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\ngood\r\n" + rest);
        const std::string body = answer.body();
        EXPECT_TRUE(body == "good" || body == "goodab") << rest << ": " << body;
    }
}

TEST(HTTPClientAnswers, PackedBodiesComeUnpacked)
{
    std::string text;
    for (int i = 0; i < 50000; ++i) {
        text += std::to_string(i) + " ";
    }
    const std::string packed = gzip(text);
    ASSERT_LT(packed.size(), text.size());
    Answer answer(withLength("Content-Encoding: gzip\r\n", packed, packed.size()));
    EXPECT_TRUE(answer.body() == text);
    EXPECT_NE(answer.server().requests().at(0).header("Accept-Encoding").find("gzip"),
              std::string::npos);
    // Kept: the length is that of what travels.
    EXPECT_EQ(answer.client().getContentLength(), packed.size());
}

TEST(HTTPClientAnswers, BrokenPackedBodiesEndTheStreamWithoutAWrongByte)
{
    std::string text;
    for (int i = 0; i < 50000; ++i) {
        text += std::to_string(i) + " ";
    }
    const std::string packed = gzip(text);
    const std::string damaged = packed.substr(0, packed.size() / 2) + std::string(1000, '\xff');
    Answer cut(withLength("Content-Encoding: gzip\r\n", packed.substr(0, packed.size() / 2),
                          packed.size()));
    const std::string some = cut.body();
    EXPECT_TRUE(some == text.substr(0, some.size())) << some.size();
    // It is only known to be damaged when it makes no sense any more; but it ends.
    Answer wrong(withLength("Content-Encoding: gzip\r\n", damaged, damaged.size()));
    EXPECT_LT(wrong.body().size(), 2 * text.size());
    Answer notPacked(withLength("Content-Encoding: gzip\r\n", "plain text", 10));
    EXPECT_EQ(notPacked.body(), "");
}

/// A few kilobytes that unpack to a lot are held back by the ring like any other body.
TEST(HTTPClientAnswers, ABodyThatUnpacksToALotWaitsForTheReader)
{
    const std::string packed = gzip(std::string(64 << 20, 'x'));
    ASSERT_LT(packed.size(), 100000U);
    Answer answer(withLength("Content-Encoding: gzip\r\n", packed, packed.size()));
    std::size_t size = 0;
    std::string piece;
    while (!(piece = readSome(answer.client(), 500000)).empty()) {
        ASSERT_LT(answer.client().getByteAvailableToReadInBuffer(), RingBytes);
        size += piece.size();
    }
    EXPECT_EQ(size, 64U << 20);
}

TEST(HTTPClientAnswers, OldServersEndTheBodyWithTheConnection)
{
    const std::string text = positionBytes::make(0, 600000);
    Answer answer("HTTP/1.0 200 OK\r\nContent-Type: audio/mpeg\r\n\r\n" + text);
    EXPECT_EQ(answer.client().getContentLength(), 0U);
    EXPECT_EQ(answer.client().getContentType(), "audio/mpeg");
    EXPECT_FALSE(answer.client().canSeek());
    EXPECT_TRUE(answer.body() == text);
}

TEST(HTTPClientAnswers, BareLineFeedsEndTheHeadersButAreNotUnderstood)
{
    // The end of the headers is never seen, so that the answer counts as none at its end.
    Answer answer("HTTP/1.1 200 OK\nContent-Length: 4\n\nbody");
    EXPECT_FALSE(answer.opened());
}

TEST(HTTPClientAnswers, ATooShortBodyGivesWhatThereIs)
{
    Answer answer(withLength("Accept-Ranges: bytes\r\n", "short", 1000));
    EXPECT_EQ(answer.client().getContentLength(), 1000U);
    EXPECT_EQ(answer.body(), "short");
    EXPECT_EQ(answer.body(), "") << "and then nothing, at once";
}

TEST(HTTPClientAnswers, ATooLongBodyIsCutAtItsLength)
{
    Answer answer(withLength("", "four and more that nobody asked for", 4));
    EXPECT_EQ(answer.body(), "four");
}

TEST(HTTPClientAnswers, AnEmptyBodyIsAnEmptyStream)
{
    Answer answer(withLength("", "", 0));
    EXPECT_TRUE(answer.opened());
    EXPECT_EQ(answer.body(), "");
}

// -------------------------------------------------------------------------------------------------
// Ranges.

TEST(HTTPClientAnswers, WithoutRangesSeeksGoAsFarAsTheStreamComes)
{
    constexpr std::uint64_t Size = 4 << 20;
    Answer answer(serveBytes(positionContent(Size), {.ranges = false}));
    zel::HTTPClient& client = answer.client();
    EXPECT_FALSE(client.canSeek());
    EXPECT_TRUE(readSome(client, 100000) == positionBytes::make(0, 100000));
    EXPECT_EQ(client.seek(300000, SEEK_SET, -1), 300000);
    EXPECT_TRUE(readSome(client, 100000) == positionBytes::make(300000, 100000));
    EXPECT_EQ(client.seek(250000, SEEK_SET, -1), 250000);
    EXPECT_TRUE(readSome(client, 100000) == positionBytes::make(250000, 100000));
    // Further than any wait goes: the reader stays where it is.
    EXPECT_EQ(client.seek(1LL << 31, SEEK_SET, -1), -1);
    EXPECT_TRUE(readSome(client, 100000) == positionBytes::make(350000, 100000));
    EXPECT_EQ(answer.server().requests().size(), 1U);
}

/// The ring is full, and only the reader could make room, who is the one that seeks.
TEST(HTTPClientAnswers, ASeekBeyondAFullRingAsksAnew)
{
    constexpr std::uint64_t Size = 64 << 20;
    Answer answer(serveBytes(positionContent(Size)));
    zel::HTTPClient& client = answer.client();
    while (client.getByteAvailableToReadInBuffer() < RingBytes - HistoryBytes - 1) {
        std::this_thread::yield();
    }
    const long long target = RingBytes + 200000;
    EXPECT_EQ(client.seek(target, SEEK_SET, -1), target);
    EXPECT_TRUE(readSome(client, 100000) ==
                positionBytes::make(static_cast<std::uint64_t>(target), 100000));
}

TEST(HTTPClientAnswers, ASeekBeyondAFullRingPassesOverItWhereNoRequestCanBeSent)
{
    constexpr std::uint64_t Size = 64 << 20;
    Answer answer(serveBytes(positionContent(Size), {.ranges = false}));
    zel::HTTPClient& client = answer.client();
    for (long long target = RingBytes + 200000; target < 20000000; target += 3 * RingBytes) {
        ASSERT_EQ(client.seek(target, SEEK_SET, -1), target);
        ASSERT_TRUE(readSome(client, 100000) ==
                    positionBytes::make(static_cast<std::uint64_t>(target), 100000));
    }
    EXPECT_EQ(answer.server().requests().size(), 1U);
}

TEST(HTTPClientAnswers, ARangeBehindTheEndFailsAndTheStreamCanBeMovedBack)
{
    constexpr std::uint64_t Size = 3000000;
    Answer answer(serveBytes(positionContent(Size)));
    zel::HTTPClient& client = answer.client();
    std::string bytes(10, '\0');
    // 416, or a whole answer where the range makes no sense at all.
    if (client.seek(Size + 5000000, SEEK_SET, -1) < 0) {
        EXPECT_EQ(client.read(bytes.data(), bytes.size(), NoLimit), 0);
    }
    ASSERT_EQ(client.seek(1000, SEEK_SET, -1), 1000);
    EXPECT_TRUE(readSome(client, 100000) == positionBytes::make(1000, 100000));
}
