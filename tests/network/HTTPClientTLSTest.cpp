// Who the client trusts, and where it lets itself be sent.

#include "network/CURLHTTPRequestHandler.h"
#include "network/HTTPClient.h"

#include "tests/network/PatientClient.h"
#include "tests/support/LoopbackListener.h"
#include "tests/support/NginxServer.h"
#include "tests/support/PositionBytes.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/ServedContent.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestCertificates.h"

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>

#include <gtest/gtest.h>

using namespace zel::test;

namespace {

constexpr char Secret[] = "what stands in a local file";

/// The process's working directory for a scope. To be used while no other thread reads it.
class WorkingDirectory
{
public:
    explicit WorkingDirectory(const std::string& path) : m_former(std::filesystem::current_path())
    {
        std::filesystem::current_path(path);
    }
    ~WorkingDirectory() { std::filesystem::current_path(m_former); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    std::filesystem::path m_former;
};

ServerOptions with(const TestCertificates::Pair& pair)
{
    return {.certificate = pair.certificate, .key = pair.key};
}

/// What a handler makes of a URL.
class Handler
{
public:
    explicit Handler(bool verifyPeer) : m_handler("Mozilla/4.0")
    {
        m_handler.setVerifyPeer(verifyPeer);
        m_handler.setWriteCallback([this](const unsigned char* bytes, unsigned long long size) {
            const std::lock_guard guard(m_mutex);
            m_body.append(reinterpret_cast<const char*>(bytes), size);
            return static_cast<long long>(size);
        });
    }

    bool open(const std::string& url) { return m_handler.open(url); }
    int status() { return m_handler.getStatusCode(); }
    std::string url() { return m_handler.getUrl(); }
    /// All that it has delivered; ends the transfer.
    std::string body()
    {
        m_handler.close();
        const std::lock_guard guard(m_mutex);
        return m_body;
    }

private:
    std::mutex m_mutex;
    std::string m_body;
    zel::CURLHTTPRequestHandler m_handler; ///< its thread uses the others
};

class HTTPClientTLS : public testing::Test
{
protected:
    static const TestCertificates& certificates()
    {
        static const TestCertificates made;
        return made;
    }

    const TempFolder m_empty;
    const ServerScript m_script = serveBytes(positionContent(300000));
};

} // namespace

TEST_F(HTTPClientTLS, TheFileInTheWorkingDirectoryIsTheAuthority)
{
    const WorkingDirectory directory(certificates().authorityFolder());
    ScriptedServer server(m_script, with(certificates().server()));
    PatientClient client(1 << 20, 1 << 18);
    ASSERT_TRUE(client.open(server.url(), nullptr));
    EXPECT_EQ(client.getContentLength(), 300000U);
    EXPECT_TRUE(readUntilEnd(client) == positionBytes::make(0, 300000));
    // A new request for a seek is checked as well, and let through.
    ASSERT_EQ(client.seek(299000, SEEK_SET, -1), 299000);
    EXPECT_TRUE(readUntilEnd(client) == positionBytes::make(299000, 1000));
}

TEST_F(HTTPClientTLS, WithoutTheFileTheMachinesOwnStoreDecides)
{
    const WorkingDirectory directory(m_empty.path());
    ScriptedServer server(m_script, with(certificates().server()));
    ScriptedServer plain(m_script);
    PatientClient client(1 << 20, 1 << 18);
    EXPECT_FALSE(client.open(server.url(), nullptr));
    EXPECT_EQ(server.requests().size(), 0U);
    ASSERT_TRUE(client.open(plain.url(), nullptr));
    EXPECT_TRUE(readUntilEnd(client) == positionBytes::make(0, 300000));
}

TEST_F(HTTPClientTLS, AnUnreadableFileLeavesPlainHttpAlone)
{
    const TempFolder folder;
    writeFile(folder.path("cacert.pem"), "no certificate\n");
    const WorkingDirectory directory(folder.path());
    ScriptedServer server(m_script, with(certificates().server()));
    ScriptedServer plain(m_script);
    PatientClient client(1 << 20, 1 << 18);
    EXPECT_FALSE(client.open(server.url(), nullptr));
    EXPECT_EQ(server.requests().size(), 0U);
    EXPECT_TRUE(client.open(plain.url(), nullptr));
}

TEST_F(HTTPClientTLS, AnUnknownAuthorityIsRefusedUnlessAllowed)
{
    const WorkingDirectory directory(certificates().authorityFolder());
    ScriptedServer server(m_script, with(certificates().unknownAuthority()));
    Handler strict(true);
    EXPECT_FALSE(strict.open(server.url()));
    EXPECT_EQ(strict.status(), 0);
    EXPECT_EQ(strict.body(), "");
    EXPECT_EQ(server.requests().size(), 0U) << "not even the path may be told";
    PatientClient client(1 << 20, 1 << 18);
    EXPECT_FALSE(client.open(server.url(), nullptr));
    EXPECT_EQ(server.requests().size(), 0U);

    Handler lenient(false);
    EXPECT_TRUE(lenient.open(server.url()));
    EXPECT_EQ(lenient.status(), 200);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(HTTPClientTLS, AWrongHostNameIsAlwaysRefused)
{
    const WorkingDirectory directory(certificates().authorityFolder());
    ScriptedServer server(m_script, with(certificates().wrongHost()));
    for (const bool verifyPeer : {true, false}) {
        Handler handler(verifyPeer);
        EXPECT_FALSE(handler.open(server.url())) << verifyPeer;
        EXPECT_EQ(handler.status(), 0);
        EXPECT_EQ(handler.body(), "");
    }
    EXPECT_EQ(server.requests().size(), 0U);
}

TEST_F(HTTPClientTLS, TheHostNameMayBeAName)
{
    const WorkingDirectory directory(certificates().authorityFolder());
    ScriptedServer server(m_script, with(certificates().server()));
    Handler handler(true);
    EXPECT_TRUE(handler.open("https://localhost:" + std::to_string(server.port()) + "/"));
}

TEST_F(HTTPClientTLS, APlainServerBehindAnHttpsUrlIsRefused)
{
    const WorkingDirectory directory(certificates().authorityFolder());
    LoopbackListener server("HTTP/1.1 400 Bad Request\r\nContent-Length: 4\r\n\r\nbody");
    Handler handler(false);
    EXPECT_FALSE(handler.open("https://127.0.0.1:" + server.port() + "/"));
    EXPECT_EQ(handler.status(), 0);
    EXPECT_EQ(handler.body(), "");
}

TEST_F(HTTPClientTLS, NginxServesItToo)
{
    const WorkingDirectory directory(certificates().authorityFolder());
    const TempFolder folder;
    writeFile(folder.path("file"), positionBytes::make(0, 3000000));
    const auto files = certificates().server();
    const NginxServer server(
        {.folder = folder.path(), .certificate = files.certificate, .key = files.key});
    PatientClient client(1 << 20, 1 << 18);
    ASSERT_TRUE(client.open(server.tlsUrl("/file"), nullptr));
    EXPECT_TRUE(readUntilEnd(client) == positionBytes::make(0, 3000000));
    ASSERT_EQ(client.seek(1234567, SEEK_SET, -1), 1234567);
    EXPECT_TRUE(readSome(client, 500000) == positionBytes::make(1234567, 500000));
}

TEST_F(HTTPClientTLS, AResetInTheBodyNeverGivesAWrongByte)
{
    const WorkingDirectory directory(certificates().authorityFolder());
    ScriptedServer server(
        [](const ServerRequest&, ServerConnection& connection) {
            connection.beginBody(200, {}, 1000000);
            connection.send(positionBytes::make(0, 200000));
            connection.reset();
        },
        with(certificates().server()));
    for (int round = 0; round < 20; ++round) {
        PatientClient client(1 << 20, 1 << 18);
        if (client.open(server.url(), nullptr)) { // the reset may overtake the headers
            const std::string bytes = readUntilEnd(client);
            EXPECT_LE(bytes.size(), 200000U);
            EXPECT_EQ(positionBytes::firstWrong(0, bytes.data(), bytes.size()), std::nullopt);
        }
    }
}

TEST_F(HTTPClientTLS, RedirectsAreCheckedAtEveryHop)
{
    const WorkingDirectory directory(certificates().authorityFolder());
    ScriptedServer good(m_script, with(certificates().server()));
    ScriptedServer unknown(m_script, with(certificates().unknownAuthority()));
    ScriptedServer wrongHost(m_script, with(certificates().wrongHost()));
    ScriptedServer sender([&](const ServerRequest& request, ServerConnection& connection) {
        const ScriptedServer& target = request.target == "/good"      ? good
                                       : request.target == "/unknown" ? unknown
                                                                      : wrongHost;
        connection.respond(302, {{"Location", target.url("/there")}}, "");
    });
    Handler handler(true);
    EXPECT_TRUE(handler.open(sender.url("/good")));
    EXPECT_EQ(handler.url(), good.url("/there"));
    EXPECT_FALSE(handler.open(sender.url("/unknown")));
    EXPECT_FALSE(handler.open(sender.url("/wrong")));
    EXPECT_EQ(unknown.requests().size() + wrongHost.requests().size(), 0U);
}

TEST_F(HTTPClientTLS, OnlyHttpAndHttpsAreOpened)
{
    const TempFolder folder;
    writeFile(folder.path("file"), Secret);
    ScriptedServer silent([](const ServerRequest&, ServerConnection& connection) {
        connection.waitUntilPeerCloses();
    });
    const std::string port = std::to_string(silent.port());
    for (const std::string& url :
         {"file://" + folder.path("file"), "ftp://127.0.0.1:" + port + "/x",
          "gopher://127.0.0.1:" + port + "/x", "dict://127.0.0.1:" + port + "/x",
          "tftp://127.0.0.1:" + port + "/x", "rtsp://127.0.0.1:" + port + "/x"}) {
        ScriptedServer sender([&](const ServerRequest&, ServerConnection& connection) {
            connection.respond(302, {{"Location", url}}, "");
        });
        for (const std::string& first : {url, sender.url()}) {
            Handler handler(true);
            EXPECT_FALSE(handler.open(first)) << first << " " << url;
            EXPECT_EQ(handler.body(), "") << first << " " << url;
            PatientClient client(1 << 20, 1 << 18);
            EXPECT_FALSE(client.open(first, nullptr)) << first << " " << url;
        }
    }
    EXPECT_EQ(silent.connectionsAccepted(), 0U);
}

TEST_F(HTTPClientTLS, ARedirectInCirclesEnds)
{
    std::atomic<int> hops{0};
    ScriptedServer server([&](const ServerRequest&, ServerConnection& connection) {
        connection.respond(302, {{"Location", "/" + std::to_string(++hops)}}, "");
    });
    PatientClient client(1 << 20, 1 << 18);
    EXPECT_FALSE(client.open(server.url(), nullptr));
    EXPECT_GT(hops, 3);
    EXPECT_LT(hops, 100);
}
