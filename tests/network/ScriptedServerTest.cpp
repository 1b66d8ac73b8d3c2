// The test servers against a client that knows nothing of them.

#include "tests/support/ScriptedServer.h"
#include "tests/support/NginxServer.h"
#include "tests/support/PositionBytes.h"
#include "tests/support/RunProgram.h"
#include "tests/support/ServedContent.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestCertificates.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

using namespace zel::test;

namespace {

// Exit codes of the program.
constexpr int PartialBody = 18;
constexpr int ReceiveError = 56;
constexpr int BadCertificate = 60;
constexpr int WriteError = 23;

ProgramResult curl(const std::vector<std::string>& words)
{
    std::vector<std::string> all = {"curl", "--silent", "--show-error", "--noproxy", "*"};
    all.insert(all.end(), words.begin(), words.end());
    return runProgram(all);
}

/// The test's own bytes through the server, or the program's words.
std::string fetched(const std::vector<std::string>& words)
{
    const ProgramResult result = curl(words);
    return result.succeeded() ? result.out : result.describe();
}

/// Answers every request the same way and then waits for nothing.
ServerScript saying(const std::string& bytes)
{
    return [bytes](const ServerRequest&, ServerConnection& connection) { connection.send(bytes); };
}

} // namespace

TEST(PositionBytes, FillMakesTheSameBytesFromAnyOffset)
{
    constexpr std::uint64_t Begin = 0xfffffff0;
    const std::string whole = positionBytes::make(Begin, 100);
    for (std::size_t first = 0; first < 20; ++first) {
        EXPECT_EQ(positionBytes::make(Begin + first, 60), whole.substr(first, 60));
    }
    EXPECT_EQ(static_cast<unsigned char>(whole[17]), positionBytes::at(Begin + 17));
}

TEST(PositionBytes, FirstWrongTellsThePlace)
{
    std::string bytes = positionBytes::make(1000, 10000);
    EXPECT_EQ(positionBytes::firstWrong(1000, bytes.data(), bytes.size()), std::nullopt);
    bytes[5000] ^= 1;
    bytes[6000] ^= 1;
    EXPECT_EQ(positionBytes::firstWrong(1000, bytes.data(), bytes.size()), 6000U);
    EXPECT_TRUE(positionBytes::firstWrong(1001, bytes.data(), bytes.size()).has_value());
}

TEST(ScriptedServer, TellsTheScriptWhatWasAsked)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(201, {{"X-One", "1"}}, "made");
    });
    EXPECT_EQ(fetched({"--include", "-H", "X-Mixed: Case", "--data-binary", "a=b",
                       server.url("/path?q=1")}),
              "HTTP/1.1 201 Created\r\nX-One: 1\r\nContent-Length: 4\r\n\r\nmade");
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, "/path?q=1");
    EXPECT_EQ(requests[0].version, 11U);
    EXPECT_EQ(requests[0].header("x-mixed"), "Case");
    EXPECT_TRUE(requests[0].hasHeader("HOST"));
    EXPECT_FALSE(requests[0].hasHeader("Range"));
    EXPECT_EQ(requests[0].body, "a=b");
    EXPECT_TRUE(requests[0].head.starts_with("POST /path?q=1 HTTP/1.1\r\n"));
    EXPECT_TRUE(requests[0].head.ends_with("\r\n\r\n"));
}

TEST(ScriptedServer, TakesABodyThatComesInManyPieces)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        connection.respond(200, {}, std::to_string(request.body.size()));
    });
    const std::string body(120000, 'x');
    EXPECT_EQ(fetched({"-H", "Expect:", "--data-binary", body, server.url()}), "120000");
    EXPECT_TRUE(server.requests().at(0).body == body);
}

TEST(ScriptedServer, KeepsTheConnectionBehindAWholeAnswer)
{
    ScriptedServer server(serveBytes(textContent("0123456789")));
    const std::string url = server.url();
    EXPECT_EQ(fetched({url, url, url}), "012345678901234567890123456789");
    EXPECT_EQ(server.requests().size(), 3U);
    EXPECT_EQ(server.requests().back().connection, 0U);
    server.waitUntilIdle();
    EXPECT_EQ(server.connectionsAccepted(), 1U);
    EXPECT_EQ(server.connectionsOpen(), 0U);
}

TEST(ScriptedServer, ClosesBehindARawAnswer)
{
    ScriptedServer server(saying("HTTP/1.0 200 OK\r\n\r\nuntil the end"));
    const std::string url = server.url();
    EXPECT_EQ(fetched({url, url}), "until the enduntil the end");
    EXPECT_EQ(server.connectionsAccepted(), 2U);
}

TEST(ScriptedServer, ServesRanges)
{
    ScriptedServer server(serveBytes(textContent("0123456789")));
    const std::string url = server.url();
    EXPECT_EQ(fetched({"--range", "2-4", url}), "234");
    EXPECT_EQ(fetched({"--range", "7-", url}), "789");
    EXPECT_EQ(fetched({"--range", "8-100", "--include", url}),
              "HTTP/1.1 206 Partial Content\r\nAccept-Ranges: bytes\r\n"
              "Content-Range: bytes 8-9/10\r\nContent-Length: 2\r\n\r\n89");
    EXPECT_EQ(fetched({"--range", "10-", "--include", url}),
              "HTTP/1.1 416 Range Not Satisfiable\r\nAccept-Ranges: bytes\r\n"
              "Content-Range: bytes */10\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(fetched({"--head", url}),
              "HTTP/1.1 200 OK\r\nAccept-Ranges: bytes\r\nContent-Length: 10\r\n\r\n");
}

TEST(ScriptedServer, PassesOverRangesWhenTold)
{
    ScriptedServer server(serveBytes(textContent("0123456789"), {.ranges = false}));
    EXPECT_EQ(fetched({"--range", "2-4", "--include", server.url()}),
              "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789");
}

TEST(ScriptedServer, SeeksByTime)
{
    ServeOptions options;
    options.timeToOffset = [](long long seconds) { return static_cast<std::uint64_t>(seconds); };
    ScriptedServer server(serveBytes(textContent("0123456789"), options));
    EXPECT_EQ(fetched({"-H", "Zel-Seek: seconds=7", server.url()}), "789");
    EXPECT_EQ(fetched({"-H", "Zel-Seek: seconds=7", "--range", "1-2", server.url()}), "12");
}

TEST(ScriptedServer, ServesMoreThanMemoryHolds)
{
    constexpr std::uint64_t Size = 1ULL << 50;
    ScriptedServer server(serveBytes(positionContent(Size)));
    const std::string last =
        fetched({"--range", std::to_string(Size - 100000) + "-", server.url()});
    EXPECT_EQ(last, positionBytes::make(Size - 100000, 100000));
}

TEST(ScriptedServer, SendsChunks)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginChunks(200, {});
        connection.chunk("one, ");
        connection.chunk(std::string(3000, 'x'));
        connection.endChunks();
    });
    const std::string url = server.url();
    const std::string body = "one, " + std::string(3000, 'x');
    EXPECT_EQ(fetched({url, url}), body + body);
    EXPECT_EQ(server.connectionsAccepted(), 1U);
}

TEST(ScriptedServer, AShortBodyIsSeenAsOne)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 10);
        connection.send("short");
    });
    const ProgramResult result = curl({server.url()});
    EXPECT_EQ(result.exitCode, PartialBody) << result.describe();
    EXPECT_EQ(result.out, "short");
}

TEST(ScriptedServer, ResetIsSeenAsOne)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 10);
        connection.send("half");
        connection.reset();
    });
    const ProgramResult result = curl({server.url()});
    EXPECT_EQ(result.exitCode, ReceiveError) << result.describe();
    EXPECT_NE(result.err.find("reset"), std::string::npos) << result.describe();
}

TEST(ScriptedServer, FeelsTheClientGoAwayWhileItWaits)
{
    ScriptedServer server([](const ServerRequest& request, ServerConnection& connection) {
        connection.beginBody(200, {}, 100);
        connection.send(request.target);
        connection.waitUntilPeerCloses();
        connection.mark("gone");
    });
    // Ends as soon as it cannot write the first byte.
    EXPECT_EQ(curl({"--no-buffer", "--output", "/dev/full", server.url()}).exitCode, WriteError);
    server.waitForMark("gone");
    server.waitUntilIdle();
}

TEST(ScriptedServer, FeelsTheClientGoAwayWhileItSends)
{
    std::uint64_t sent = 0;
    ScriptedServer server([&sent](const ServerRequest&, ServerConnection& connection) {
        connection.beginBody(200, {}, 1ULL << 60);
        const std::string piece(65536, 'x');
        while (connection.send(piece)) {
            sent += piece.size();
        }
    });
    EXPECT_EQ(curl({"--output", "/dev/full", server.url()}).exitCode, WriteError);
    server.waitUntilIdle();
    EXPECT_GE(server.bytesTaken(), sent);
}

TEST(ScriptedServer, EndsWhileScriptsBlock)
{
    // The program stalls when nobody reads what it writes.
    const TempFolder folder;
    const std::string pipe = folder.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    std::vector<std::thread> clients;
    std::atomic<int> left{0};
    {
        ScriptedServer server(
            [&left](const ServerRequest& request, ServerConnection& connection) {
                if (request.target == "/mark") {
                    EXPECT_FALSE(connection.waitForMark("never"));
                } else if (request.target == "/send") {
                    while (connection.send(std::string(65536, 'x'))) {
                    }
                } else {
                    connection.waitUntilPeerCloses();
                }
                ++left;
            },
            {.sendBuffer = 8192});
        for (const char* path : {"/mark", "/send", "/silent"}) {
            clients.emplace_back([&pipe, url = server.url(path)] {
                curl({"--output", pipe, url});
            });
        }
        server.waitForRequests(3);
    }
    EXPECT_EQ(left, 3);
    close(reader);
    for (std::thread& client : clients) {
        client.join();
    }
}

TEST(ScriptedServer, MarksWakeBothSides)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.mark("asked");
        EXPECT_TRUE(connection.waitForMark("go"));
        connection.respond(200, {}, "went");
    });
    std::string body;
    std::thread client([&] { body = fetched({server.url()}); });
    server.waitForMark("asked");
    server.mark("go");
    client.join();
    EXPECT_EQ(body, "went");
}

TEST(ScriptedServer, TlsIsTakenWithItsAuthorityOnly)
{
    const TestCertificates certificates;
    const auto options = [](const TestCertificates::Pair& pair) {
        return ServerOptions{.certificate = pair.certificate, .key = pair.key};
    };
    const std::string body(300000, 'x');
    ScriptedServer good(serveBytes(textContent(body)), options(certificates.server()));
    ScriptedServer wrongHost(serveBytes(textContent(body)), options(certificates.wrongHost()));
    ScriptedServer unknown(serveBytes(textContent(body)), options(certificates.unknownAuthority()));
    const std::string authority = certificates.authority();
    EXPECT_EQ(fetched({"--cacert", authority, good.url()}), body);
    EXPECT_EQ(fetched({"--cacert", authority, "--range", "5-7", good.url(), good.url()}), "xxxxxx");
    EXPECT_EQ(curl({good.url()}).exitCode, BadCertificate);
    EXPECT_EQ(curl({"--cacert", authority, unknown.url()}).exitCode, BadCertificate);
    EXPECT_EQ(fetched({"--insecure", unknown.url()}), body);
    EXPECT_EQ(curl({"--cacert", authority, wrongHost.url()}).exitCode, BadCertificate);
    EXPECT_EQ(
        fetched({"--cacert", authority, "--connect-to",
                 "::127.0.0.1:" + std::to_string(wrongHost.port()), "https://elsewhere.invalid/"}),
        body);
    EXPECT_TRUE(unknown.requests().size() == 1 && wrongHost.requests().size() == 1);
}

TEST(ScriptedServer, ResetEndsTlsToo)
{
    const TestCertificates certificates;
    ScriptedServer server(
        [](const ServerRequest&, ServerConnection& connection) {
            connection.beginBody(200, {}, 10);
            connection.send("half");
            connection.reset();
        },
        {.certificate = certificates.server().certificate, .key = certificates.server().key});
    const ProgramResult result = curl({"--cacert", certificates.authority(), server.url()});
    EXPECT_EQ(result.exitCode, ReceiveError) << result.describe();
}

TEST(NginxServer, ServesAFolderPlainAndOverTls)
{
    const TestCertificates certificates;
    const TempFolder folder;
    std::filesystem::create_directory(folder.path("below"));
    writeFile(folder.path("below/file"), positionBytes::make(0, 300000));
    std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
    const NginxServer server({.folder = folder.path(),
                              .certificate = certificates.server().certificate,
                              .key = certificates.server().key,
                              .directives = "add_header X-Extra yes;"});
    EXPECT_EQ(fetched({server.url("/below/file")}), positionBytes::make(0, 300000));
    EXPECT_EQ(fetched({"--range", "1000-1999", server.url("/below/file")}),
              positionBytes::make(1000, 1000));
    EXPECT_EQ(fetched({"--cacert", certificates.authority(), "--range", "299990-",
                       server.tlsUrl("/below/file")}),
              positionBytes::make(299990, 10));
    EXPECT_EQ(curl({server.tlsUrl("/below/file")}).exitCode, BadCertificate);
    EXPECT_NE(fetched({"--head", server.url("/below/file")}).find("X-Extra: yes"),
              std::string::npos);
    EXPECT_NE(server.accessLog().find("GET /below/file 206 1000 bytes=1000-1999"),
              std::string::npos);
}

TEST(NginxServer, TellsWhyItDoesNotStart)
{
    const TempFolder folder;
    try {
        const NginxServer server({.folder = folder.path(), .directives = "no_such_thing on;"});
        FAIL() << "started";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("no_such_thing"), std::string::npos)
            << error.what();
    }
}

TEST(NginxServer, EndsWithItsObject)
{
    const TempFolder folder;
    std::string url;
    {
        const NginxServer server({.folder = folder.path()});
        url = server.url("/");
        EXPECT_TRUE(curl({url}).succeeded());
    }
    EXPECT_FALSE(curl({url}).succeeded());
}
