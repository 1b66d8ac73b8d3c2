// Whether what arrives is what was sent, over longer stretches and through the client's own seeks.

#include "network/HTTPClient.h"

#include "tests/network/PatientClient.h"
#include "tests/support/NginxServer.h"
#include "tests/support/PositionBytes.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"
#include "tests/support/Tasks.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestCertificates.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace zel::test;

namespace {

constexpr std::uint64_t KiB = 1024;
constexpr std::uint64_t MiB = 1024 * KiB;
constexpr std::uint64_t GiB = 1024 * MiB;

struct Ring
{
    unsigned size;
    unsigned history;
};

/// That of the product's input.
constexpr Ring InputRing = {10 * MiB, 2 * MiB};

using Random = std::mt19937_64;

std::uint64_t below(Random& random, std::uint64_t limit)
{
    return std::uniform_int_distribution<std::uint64_t>(0, limit - 1)(random);
}

void writePositionFile(const std::string& path, std::uint64_t size)
{
    std::ofstream file(path, std::ios::binary);
    std::string piece(MiB, '\0');
    for (std::uint64_t offset = 0; offset < size; offset += piece.size()) {
        const std::size_t count = std::min<std::uint64_t>(piece.size(), size - offset);
        positionBytes::fill(offset, piece.data(), count);
        file.write(piece.data(), static_cast<std::streamsize>(count));
    }
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

/// The demuxer's side of a stream whose bytes tell their place: reads and seeks, and says when
/// something else arrives.
class Reader
{
public:
    Reader(zel::HTTPClient& client, std::uint64_t size) : m_client(client), m_size(size) {}

    std::uint64_t position() const { return m_position; }

    /// @return false when the bytes were not those that stand there
    bool read(std::uint64_t count)
    {
        m_bytes.resize(count);
        const std::uint64_t expected = std::min(count, m_size - m_position);
        const int got = m_client.read(m_bytes.data(), count, NoLimit);
        if (got < 0 || static_cast<std::uint64_t>(got) != expected) {
            ADD_FAILURE() << "read of " << count << " at " << m_position << " gave " << got;
            return false;
        }
        if (const auto wrong = positionBytes::firstWrong(m_position, m_bytes.data(), expected)) {
            ADD_FAILURE() << "wrong byte at " << *wrong;
            return false;
        }
        m_position += expected;
        return true;
    }

    /// @param relative  by distance from where the reader is
    bool seek(std::uint64_t target, bool relative)
    {
        const auto offset = static_cast<long long>(relative ? target - m_position : target);
        const long long result = m_client.seek(offset, relative ? SEEK_CUR : SEEK_SET, -1);
        if (result != static_cast<long long>(target)) {
            ADD_FAILURE() << "seek from " << m_position << " to " << target << " gave " << result;
            return false;
        }
        m_position = target;
        return true;
    }

private:
    zel::HTTPClient& m_client;
    const std::uint64_t m_size;
    std::uint64_t m_position = 0;
    std::string m_bytes;
};

/// Far away mostly, but also slightly ahead and back, where no request is needed.
std::uint64_t randomTarget(Random& random, std::uint64_t position, std::uint64_t size)
{
    const std::uint64_t kind = below(random, 10);
    if (kind < 2) {
        return std::min(position + below(random, 256 * KiB), size - 1);
    }
    if (kind < 4) {
        return position - std::min(position, below(random, 3 * MiB));
    }
    return below(random, size);
}

/// Reads `total` bytes, with a seek behind each of `seeks` equal stretches.
void readWithSeeks(zel::HTTPClient& client, std::uint64_t size, std::uint64_t total, int seeks)
{
    Random random(20);
    Reader reader(client, size);
    for (int i = 0; i < seeks; ++i) {
        for (std::uint64_t left = total / seeks; left > 0;) {
            const std::uint64_t piece = std::min(left, 1 + below(random, 128 * KiB));
            ASSERT_TRUE(reader.read(piece)) << "stretch " << i;
            left -= piece;
        }
        ASSERT_TRUE(reader.seek(randomTarget(random, reader.position(), size), i % 2 == 0)) << i;
    }
}

void readFileWithSeeks(std::uint64_t size, int seeks, const std::vector<Ring>& rings)
{
    const TempFolder folder;
    writePositionFile(folder.path("file"), size);
    const NginxServer server({.folder = folder.path()});
    for (const Ring& ring : rings) {
        SCOPED_TRACE("ring of " + std::to_string(ring.size));
        PatientClient client(ring.size, ring.history);
        ASSERT_TRUE(client.open(server.url("/file"), nullptr));
        EXPECT_EQ(client.getContentLength(), size);
        readWithSeeks(client, size, size, seeks);
    }
}

} // namespace

TEST(HTTPClientTransfer, ArrivesByteExactThroughRandomSeeks)
{
    const std::uint64_t size = (Sanitized ? 16 : 128) * MiB;
    readFileWithSeeks(size, Sanitized ? 50 : 200, {InputRing});
}

TEST(HTTPClientTransfer, ArrivesByteExactThroughRandomSeeksInSmallRings)
{
    const std::uint64_t size = (Sanitized ? 8 : 32) * MiB;
    readFileWithSeeks(size, Sanitized ? 20 : 100,
                      {{MiB, 256 * KiB}, {300001, 70001}, {192 * KiB, 64 * KiB}});
}

TEST(HTTPClientTransferLong, ArrivesByteExactThroughAThousandSeeksInAGibibyte)
{
    readFileWithSeeks(GiB, 1000, {InputRing});
}

TEST(HTTPClientTransfer, ArrivesByteExactWithoutSeeks)
{
    const TempFolder folder;
    const TestCertificates certificates;
    const std::uint64_t size = (Sanitized ? 8 : 64) * MiB + 12345;
    writePositionFile(folder.path("file"), size);
    const NginxServer server({.folder = folder.path()});
    for (const Ring& ring : {InputRing, Ring{100003, 50001}, Ring{4097, 0}}) {
        PatientClient client(ring.size, ring.history);
        ASSERT_TRUE(client.open(server.url("/file"), nullptr));
        Reader reader(client, size);
        while (reader.position() < size) {
            ASSERT_TRUE(reader.read(std::min<std::uint64_t>(ring.size / 3, 100000)));
        }
        EXPECT_TRUE(reader.read(100)) << "nothing comes behind the end";
    }
}

TEST(HTTPClientTransfer, PlacesBeyondFourGibibytesAreReached)
{
    const std::uint64_t size = 3ULL << 40;
    ScriptedServer server(serveBytes(positionContent(size)));
    PatientClient client(InputRing.size, InputRing.history);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    Reader reader(client, size);
    for (const std::uint64_t target :
         {4 * GiB - 100, 4 * GiB, 4 * GiB + 100, 1 * GiB, size - 70000, 5 * GiB}) {
        ASSERT_TRUE(reader.seek(target, false));
        ASSERT_TRUE(reader.read(100000));
    }
}

/// A step back from behind 4 GiB, and over that line, is served by the history.
TEST(HTTPClientTransfer, HistoryHoldsAcrossFourGibibytes)
{
    const std::uint64_t size = 8 * GiB;
    ScriptedServer server(serveBytes(positionContent(size)));
    PatientClient client(InputRing.size, InputRing.history);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    Reader reader(client, size);
    ASSERT_TRUE(reader.seek(4 * GiB - 500000, false));
    ASSERT_TRUE(reader.read(1000000));
    ASSERT_EQ(server.requests().size(), 2U);
    ASSERT_TRUE(reader.seek(4 * GiB - 1000, false));
    ASSERT_TRUE(reader.read(2000));
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST(HTTPClientTransfer, AResetInTheBodyNeverGivesAWrongByte)
{
    constexpr std::uint64_t Size = 24 * MiB;
    const std::uint64_t most = Sanitized ? 300 * KiB : 2 * MiB;
    // Every answer breaks off after a while; each time the reader goes on by a seek.
    std::atomic<unsigned> answers{0};
    ScriptedServer server([&](const ServerRequest& request, ServerConnection& connection) {
        Random random(answers++);
        const auto range = parseRange(request.header("Range"), Size);
        const std::uint64_t first = range ? range->first : 0;
        connection.beginBody(range ? 206 : 200, {{"Accept-Ranges", "bytes"}}, Size - first);
        const std::uint64_t end = std::min(Size, first + below(random, most));
        for (std::uint64_t offset = first; offset < end;) {
            const std::size_t count = std::min<std::uint64_t>(end - offset, 30000);
            if (!connection.send(positionBytes::make(offset, count))) {
                return;
            }
            offset += count;
        }
        if (end < Size) {
            connection.reset();
        }
    });
    PatientClient client(MiB, 256 * KiB);
    while (!client.open(server.url(), nullptr)) {
        // The very first answer may break off before its headers have been read.
    }
    ASSERT_EQ(client.getContentLength(), Size);
    const std::uint64_t enough = Sanitized ? 3 * MiB : Size - MiB;
    std::uint64_t position = 0;
    while (position < enough) {
        std::string bytes(50000, '\0');
        const int count = client.read(bytes.data(), bytes.size(), NoLimit);
        ASSERT_GE(count, 0);
        const auto got = static_cast<std::size_t>(count);
        ASSERT_EQ(positionBytes::firstWrong(position, bytes.data(), got), std::nullopt);
        position += got;
        if (got < bytes.size()) {
            // Where the reader stands it need not ask anew; from one byte further on it must. A
            // reset may overtake the headers too, and then the seek fails.
            while (client.seek(static_cast<long long>(position) + 1, SEEK_SET, -1) < 0 ||
                   client.seek(static_cast<long long>(position), SEEK_SET, -1) < 0) {
            }
        }
    }
    EXPECT_GT(answers, 3U);
}

/// A transfer that ends early or late while seeks go on must not leave its bytes to the next one.
TEST(HTTPClientTransfer, NoByteOfAnOldTransferReachesTheNextOne)
{
    const std::uint64_t size = 64 * MiB;
    ScriptedServer server(serveBytes(positionContent(size), {.pieceBytes = 5000}));
    PatientClient client(256 * KiB, 64 * KiB);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    Reader reader(client, size);
    Random random(7);
    const int rounds = Sanitized ? 60 : 400;
    for (int i = 0; i < rounds; ++i) {
        // At once, with no wait for what the one before brings.
        ASSERT_TRUE(reader.seek(below(random, size - 70000), false));
        if (i % 3 == 0) {
            ASSERT_TRUE(reader.read(1 + below(random, 60000)));
        }
    }
}

TEST(HTTPClientTransfer, TheRingsRoomIsTheServersLimit)
{
    constexpr std::uint64_t Size = 512 * MiB;
    ScriptedServer server(serveBytes(positionContent(Size)), {.sendBuffer = 16384});
    PatientClient client(InputRing.size, InputRing.history);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    const std::uint64_t room = InputRing.size - InputRing.history - 1;
    while (client.getByteAvailableToReadInBuffer() < room) {
        std::this_thread::yield();
    }
    unsigned percent = 0;
    EXPECT_TRUE(client.getBufferStatus(percent));
    EXPECT_EQ(percent, 99U);
    EXPECT_LT(server.bytesTaken(), 64 * MiB) << "the rest waits at the server";
    Reader reader(client, Size);
    for (int i = 0; i < 30; ++i) {
        ASSERT_TRUE(reader.read(MiB));
        EXPECT_LE(client.getByteAvailableToReadInBuffer(), room);
    }
    // All of the history is there.
    ASSERT_TRUE(reader.seek(28 * MiB, false));
    ASSERT_TRUE(reader.read(MiB));
    EXPECT_EQ(server.requests().size(), 1U);
}
