// What a request sends, answers and hands on.

#include "network/cURLRequest.h"

#include "tests/network/LocalRequest.h"
#include "tests/support/LogCapture.h"
#include "tests/support/LoopbackListener.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TempFolder.h"

#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace zel::test;
using zel::cURL::Cookie;
using zel::cURL::CUrlEasyException;
using zel::cURL::Request;

namespace {

using Cookies = std::map<CStdStr<char>, Cookie>;

/// Sends every request but one to "/end" on, and answers that.
ServerScript redirectingTo(const std::string& location)
{
    return [location](const ServerRequest& request, ServerConnection& connection) {
        if (request.target == "/end") {
            connection.respond(200, {}, "reached");
        } else {
            connection.respond(302, {{"Location", location}}, "not here");
        }
    };
}

/// Makes a folder the working one for a scope.
class WorkingFolder
{
public:
    explicit WorkingFolder(const std::string& path) : m_former(std::filesystem::current_path())
    {
        std::filesystem::current_path(path);
    }
    ~WorkingFolder() { std::filesystem::current_path(m_former); }
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;

private:
    std::filesystem::path m_former;
};

/// How a request over TLS ends at a server that does not speak it.
CURLcode endOfHandshake()
{
    LoopbackListener server("what did you say?\r\n");
    LocalRequest request("https://127.0.0.1:" + server.port() + "/");
    return performed(request);
}

} // namespace

TEST(cURLRequest, CertificateFileOfTheWorkingFolderIsReadWhenThereIsOne)
{
    const TempFolder folder;
    const WorkingFolder working(folder.path());
    EXPECT_NE(endOfHandshake(), CURLE_SSL_CACERT_BADFILE);
    std::filesystem::create_directory("cacert.pem");
    EXPECT_NE(endOfHandshake(), CURLE_SSL_CACERT_BADFILE);
    std::filesystem::remove("cacert.pem");
    writeFile("cacert.pem", "no certificate");
    EXPECT_EQ(endOfHandshake(), CURLE_SSL_CACERT_BADFILE);
}

TEST(cURLRequest, AnswersStatusLengthTypeAndUrl)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.respond(404, {{"Content-Type", "text/plain"}}, "nothing");
    });
    LocalRequest request(server.url("/x?y=1"));
    EXPECT_EQ(bodyOf(request), "nothing");
    EXPECT_EQ(request.getStatusCode(), 404);
    EXPECT_EQ(request.getContentLength(), 7U);
    EXPECT_EQ(request.getContentType(), "text/plain");
    EXPECT_EQ(request.getUrl(), server.url("/x?y=1"));
}

TEST(cURLRequest, LengthAndTypeThatTheServerKeepsToItselfAreZeroAndEmpty)
{
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.beginChunks(200, {});
        connection.chunk("ab");
        connection.chunk("cd");
        connection.endChunks();
    });
    LocalRequest request(server.url());
    EXPECT_EQ(bodyOf(request), "abcd");
    EXPECT_EQ(request.getContentLength(), 0U);
    EXPECT_EQ(request.getContentType(), "");
}

TEST(cURLRequest, TellsALengthBeyond32Bits)
{
    ScriptedServer server(announcing(0x123456789ULL));
    LocalRequest request(server.url());
    unsigned long long length = 0;
    request.setWriteCallback([&](void*, unsigned long, unsigned long) {
        length = request.getContentLength();
        return 0UL;
    });
    EXPECT_EQ(performed(request), CURLE_WRITE_ERROR);
    EXPECT_EQ(length, 0x123456789ULL);
}

TEST(cURLRequest, SendsUserAgentAndReferer)
{
    ScriptedServer server(answering(""));
    LocalRequest request(server.url());
    request.setUserAgent("Zel/1.0 (test)");
    request.setReferer("http://127.0.0.1/before");
    EXPECT_EQ(bodyOf(request), "");
    EXPECT_EQ(server.requests().at(0).header("User-Agent"), "Zel/1.0 (test)");
    EXPECT_EQ(server.requests().at(0).header("Referer"), "http://127.0.0.1/before");
    EXPECT_EQ(server.requests().at(0).method, "GET");
}

TEST(cURLRequest, OneHeaderTextWithALineBreakGoesOutAsTwoHeaders)
{
    LogCapture log;
    ScriptedServer server(answering(""));
    LocalRequest request(server.url());
    request.setAdditionalHeader("X-First: 1\r\nX-Second: 2");
    request.setAdditionalHeader("X-Third: 3");
    EXPECT_EQ(bodyOf(request), "");
    const ServerRequest heard = server.requests().at(0);
    EXPECT_NE(heard.head.find("\r\nX-First: 1\r\nX-Second: 2\r\nX-Third: 3\r\n"), std::string::npos)
        << heard.head;
    EXPECT_TRUE(log.contains("cURL::Request::setAdditionalHeader X-Third: 3"));
}

TEST(cURLRequest, EmptyAdditionalHeaderLeavesTheHeaderListAsItWas)
{
    ScriptedServer server(answering(""));
    LocalRequest plain(server.url());
    LocalRequest request(server.url());
    request.setAdditionalHeader("");
    request.setAdditionalHeader("X-First: 1");
    request.setAdditionalHeader("");
    EXPECT_EQ(bodyOf(plain), "");
    EXPECT_EQ(bodyOf(request), "");
    std::string head = server.requests().at(1).head;
    const std::string line = "X-First: 1\r\n";
    ASSERT_NE(head.find(line), std::string::npos);
    head.erase(head.find(line), line.size());
    EXPECT_EQ(head, server.requests().at(0).head);
}

TEST(cURLRequest, HeaderListsEndWithTheTransfer)
{
    ScriptedServer server(answering(""));
    LocalRequest request(server.url());
    request.setAdditionalHeader("X-First: 1");
    EXPECT_EQ(bodyOf(request), "");
    EXPECT_EQ(bodyOf(request), "");
    request.setAdditionalHeader("X-Second: 2");
    request.freeSlists();
    EXPECT_EQ(bodyOf(request), "");
    EXPECT_TRUE(server.requests().at(0).hasHeader("X-First"));
    EXPECT_FALSE(server.requests().at(1).hasHeader("X-First"));
    EXPECT_FALSE(server.requests().at(2).hasHeader("X-Second"));
}

TEST(cURLRequest, AnswerOfAnotherProtocolNameCountsWhenItIsAnAlias)
{
    LogCapture log;
    ScriptedServer server([](const ServerRequest&, ServerConnection& connection) {
        connection.send("RADIO 200 OK\r\nicy-name: x\r\n\r\nmusic");
        connection.close();
    });
    LocalRequest stranger(server.url());
    stranger.setEmptyWriteCallback();
    stranger.setAdditionalHTTPOKAliases(""); // would fit every answer
    EXPECT_NE(performed(stranger), CURLE_OK);
    LocalRequest request(server.url());
    request.setAdditionalHTTPOKAliases("RADIO 200 OK");
    EXPECT_EQ(bodyOf(request), "music");
    EXPECT_EQ(request.getStatusCode(), 200);
    EXPECT_TRUE(log.contains("cURL::Request::setAdditionalHTTPOKAliases RADIO 200 OK"));
}

TEST(cURLRequest, PostHasAnEmptyBodyOfLengthZeroAndExpectsNothing)
{
    ScriptedServer server(answering("thanks"));
    LocalRequest request(server.url());
    request.setPostRequest(true);
    EXPECT_EQ(bodyOf(request), "thanks");
    request.setPostRequest(false);
    EXPECT_EQ(bodyOf(request), "thanks");
    const ServerRequest posted = server.requests().at(0);
    EXPECT_EQ(posted.method, "POST");
    EXPECT_EQ(posted.header("Content-Length"), "0");
    EXPECT_FALSE(posted.hasHeader("Expect"));
    EXPECT_FALSE(posted.hasHeader("Transfer-Encoding"));
    EXPECT_EQ(posted.body, "");
    EXPECT_EQ(server.requests().at(1).method, "GET");
}

TEST(cURLRequest, CompressedBodyIsAskedForAndDecoded)
{
    const unsigned char packed[] = {0x1f, 0x8b, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00,
                                    0x02, 0x03, 0xcb, 0x48, 0xcd, 0xc9, 0xc9, 0x57,
                                    0x28, 0xcf, 0x2f, 0xca, 0x49, 0x01, 0x00, 0x85,
                                    0x11, 0x4a, 0x0d, 0x0b, 0x00, 0x00, 0x00};
    const std::string bytes(reinterpret_cast<const char*>(packed), sizeof packed);
    ScriptedServer server(answering(bytes, {{"Content-Encoding", "gzip"}}));
    LocalRequest request(server.url());
    EXPECT_EQ(bodyOf(request), "hello world");
    EXPECT_EQ(request.getContentLength(), sizeof packed);
    EXPECT_NE(server.requests().at(0).header("Accept-Encoding").find("gzip"), std::string::npos);
}

TEST(cURLRequest, CookiesTravelOverARedirectAndCanBeAskedFor)
{
    const std::time_t tomorrow = std::time(nullptr) + 86400;
    char date[64] = {};
    std::tm parts = {};
    std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", gmtime_r(&tomorrow, &parts));
    const std::string dated = std::string("when=later; Path=/; Expires=") + date;
    ScriptedServer server([&](const ServerRequest& request, ServerConnection& connection) {
        if (request.target == "/") {
            connection.respond(
                302, {{"Set-Cookie", "id=42; Path=/"}, {"Set-Cookie", dated}, {"Location", "/end"}},
                "");
        } else {
            connection.respond(200, {}, request.header("Cookie"));
        }
    });
    LocalRequest request(server.url());
    const std::string sent = bodyOf(request);
    EXPECT_NE(sent.find("id=42"), std::string::npos) << sent;
    EXPECT_NE(sent.find("when=later"), std::string::npos) << sent;
    Cookies cookies = request.getCookies();
    ASSERT_EQ(cookies.size(), 2U);
    EXPECT_EQ(cookies["id"].name, "id");
    EXPECT_EQ(cookies["id"].value, "42");
    EXPECT_EQ(cookies["id"].domain, "127.0.0.1");
    EXPECT_EQ(cookies["id"].path, "/");
    EXPECT_EQ(cookies["id"].expires, 0);
    EXPECT_EQ(cookies["when"].expires, tomorrow);
    // They stay for the next transfer of the same object, and of no other.
    EXPECT_EQ(bodyOf(request), sent);
    LocalRequest stranger(server.url("/end"));
    EXPECT_EQ(bodyOf(stranger), "");
    EXPECT_TRUE(stranger.getCookies().empty());
}

TEST(cURLRequest, CookieLinesAreTakenApartFieldByField)
{
    Request request;
    request.setOption(CURLOPT_COOKIELIST, ".example.com\tTRUE\t/a/b\tTRUE\t4102444800\tn1\tv1");
    request.setOption(CURLOPT_COOKIELIST, "example.org\tFALSE\t/\tFALSE\t0\tn2\tv2");
    const Cookies cookies = request.getCookies();
    ASSERT_EQ(cookies.size(), 2U);
    const Cookie& first = cookies.at("n1");
    EXPECT_NE(first.domain.find("example.com"), std::string::npos);
    EXPECT_TRUE(first.tailMatch);
    EXPECT_EQ(first.path, "/a/b");
    EXPECT_TRUE(first.secure);
    EXPECT_GT(first.expires, 0);
    EXPECT_EQ(first.value, "v1");
    const Cookie& second = cookies.at("n2");
    EXPECT_EQ(second.domain, "example.org");
    EXPECT_FALSE(second.tailMatch);
    EXPECT_FALSE(second.secure);
    EXPECT_EQ(second.expires, 0);
}

TEST(cURLRequest, CookieWithoutAValueIsPassedOver)
{
    Request request;
    request.setOption(CURLOPT_COOKIELIST, "example.org\tFALSE\t/\tFALSE\t0\tempty\t");
    request.setOption(CURLOPT_COOKIELIST, "example.org\tFALSE\t/\tFALSE\t0\tfull\tv");
    const Cookies cookies = request.getCookies();
    EXPECT_EQ(cookies.size(), 1U);
    EXPECT_EQ(cookies.count("full"), 1U);
}

TEST(cURLRequest, OfTwoCookiesOfOneNameTheLaterOneCounts)
{
    Request request;
    request.setOption(CURLOPT_COOKIELIST, "example.org\tFALSE\t/a\tFALSE\t0\tn\tone");
    request.setOption(CURLOPT_COOKIELIST, "example.org\tFALSE\t/b\tFALSE\t0\tn\ttwo");
    const Cookies cookies = request.getCookies();
    ASSERT_EQ(cookies.size(), 1U);
    EXPECT_EQ(cookies.at("n").value, "two");
    EXPECT_EQ(cookies.at("n").path, "/b");
}

TEST(cURLRequest, RedirectsAreFollowedAndTheLastUrlIsTold)
{
    ScriptedServer server(redirectingTo("/end"));
    LocalRequest request(server.url("/begin"));
    EXPECT_EQ(bodyOf(request), "reached");
    EXPECT_EQ(request.getStatusCode(), 200);
    EXPECT_EQ(request.getUrl(), server.url("/end"));
}

TEST(cURLRequest, RedirectIsTheAnswerWhenRedirectsAreOff)
{
    ScriptedServer server(redirectingTo("/end"));
    LocalRequest request(server.url("/begin"));
    request.setRedirect(false);
    EXPECT_EQ(bodyOf(request), "not here");
    EXPECT_EQ(request.getStatusCode(), 302);
    request.setRedirect(true);
    EXPECT_EQ(bodyOf(request), "reached");
}

TEST(cURLRequest, RedirectOutOfHttpIsRefused)
{
    const TempFolder folder;
    writeFile(folder.path("secret"), "secret");
    for (const std::string& target :
         {"file://" + folder.path("secret"), "ftp://127.0.0.1:" + unusedPort() + "/x"}) {
        ScriptedServer server(redirectingTo(target));
        LocalRequest request(server.url());
        CStdStr<char> text;
        request.setWriteCallback(request.getStringWriter(text));
        EXPECT_EQ(performed(request), CURLE_UNSUPPORTED_PROTOCOL) << target;
        EXPECT_EQ(text, "");
    }
}

TEST(cURLRequest, UrlOfALocalFileIsRefused)
{
    const TempFolder folder;
    writeFile(folder.path("secret"), "secret");
    LocalRequest request("file://" + folder.path("secret"));
    CStdStr<char> text;
    request.setWriteCallback(request.getStringWriter(text));
    EXPECT_EQ(performed(request), CURLE_UNSUPPORTED_PROTOCOL);
    EXPECT_EQ(text, "");
}

TEST(cURLRequest, RedirectLoopEndsAfterThirtyHops)
{
    ScriptedServer server(redirectingTo("/again"));
    LocalRequest request(server.url());
    request.setEmptyWriteCallback();
    EXPECT_EQ(performed(request), CURLE_TOO_MANY_REDIRECTS);
    EXPECT_EQ(server.requests().size(), 31U);
}

TEST(cURLRequest, HeaderCallbackGetsEachLineOfEachHop)
{
    ScriptedServer server(redirectingTo("/end"));
    LocalRequest request(server.url());
    request.setEmptyWriteCallback();
    std::vector<std::string> firstLines;
    bool atStart = true;
    request.setHeaderCallback([&](void* data, unsigned long size, unsigned long count) {
        const std::string line(static_cast<const char*>(data), size * count);
        if (atStart) {
            firstLines.push_back(line + std::to_string(request.getStatusCode()));
        }
        atStart = line == "\r\n";
        return size * count;
    });
    EXPECT_EQ(performed(request), CURLE_OK);
    EXPECT_EQ(firstLines,
              (std::vector<std::string>{"HTTP/1.1 302 Found\r\n302", "HTTP/1.1 200 OK\r\n200"}));
}

TEST(cURLRequest, RefusedConnectionThrowsWithCodeAndText)
{
    LocalRequest request("http://127.0.0.1:" + unusedPort() + "/");
    try {
        request.perform();
        FAIL() << "nobody listens there";
    } catch (const CUrlEasyException& failure) {
        EXPECT_EQ(failure.getCode(), CURLE_COULDNT_CONNECT);
        EXPECT_STREQ(failure.what(), curl_easy_strerror(CURLE_COULDNT_CONNECT));
    }
    EXPECT_EQ(request.getStatusCode(), 0);
}

TEST(cURLRequest, OptionThatLibcurlRefusesThrows)
{
    Request request;
    const auto unknown = static_cast<CURLoption>(9999);
    EXPECT_THROW(request.setOption(unknown, 1), CUrlEasyException);
    EXPECT_THROW(request.setOption(CURLOPT_HTTP_VERSION, 9999), CUrlEasyException);
    EXPECT_THROW(request.setOption(unknown, "text"), CUrlEasyException);
    EXPECT_THROW(request.setSListOption(unknown, "text"), CUrlEasyException);
}

TEST(cURLRequest, PerformWithinItsOwnCallbackThrows)
{
    ScriptedServer server(answering("12345"));
    LocalRequest request(server.url());
    CURLcode inner = CURLE_OK;
    request.setWriteCallback([&](void*, unsigned long size, unsigned long count) {
        inner = performed(request);
        return size * count;
    });
    EXPECT_EQ(performed(request), CURLE_OK);
    EXPECT_NE(inner, CURLE_OK);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(cURLRequest, EncodedBlankIsAPlusSign)
{
    EXPECT_EQ(Request::encodeURL("a b  c"), "a+b++c");
}

TEST(cURLRequest, PlusSignAndEncodedBlankAreDecodedToBlanks)
{
    EXPECT_EQ(Request::decodeURL("a+b%20c"), "a b c");
}

TEST(cURLRequest, ReservedCharactersAreEncodedAndAllOthersStay)
{
    EXPECT_EQ(Request::encodeURL("\"`#$%&+,/:;<=>?@[\\]^{|}~"),
              "%22%60%23%24%25%26%2B%2C%2F%3A%3B%3C%3D%3E%3F%40%5B%5C%5D%5E%7B%7C%7D%7E");
    const std::string plain = "azAZ09!'()*-._";
    EXPECT_EQ(Request::encodeURL(plain), plain);
}

TEST(cURLRequest, BytesOutsideAsciiAreEncodedWithTwoDigits)
{
    EXPECT_EQ(Request::encodeURL("\xe4\xff\x80\x7f\x1f\x10"), "%E4%FF%80%7F%1F%10");
}

TEST(cURLRequest, ByteBelowSixteenIsEncodedWithABlankBeforeItsDigit)
{
    EXPECT_EQ(Request::encodeURL("\n\x0f"), "% A% F");
    EXPECT_EQ(Request::encodeURL(std::string(1, '\0')), "% 0");
}

TEST(cURLRequest, EveryByteSurvivesEncodingAndDecoding)
{
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    EXPECT_EQ(Request::decodeURL(Request::encodeURL(bytes)), bytes);
}

TEST(cURLRequest, PercentSignTooNearTheEndStays)
{
    EXPECT_EQ(Request::decodeURL("a%4"), "a%4");
    EXPECT_EQ(Request::decodeURL("a%"), "a%");
    EXPECT_EQ(Request::decodeURL("a%41"), "aA");
    EXPECT_EQ(Request::decodeURL(""), "");
}

TEST(cURLRequest, PercentSignWithoutDigitsDecodesAsAZeroByte)
{
    EXPECT_EQ(Request::decodeURL("%zzb"), std::string("\0b", 2));
}
