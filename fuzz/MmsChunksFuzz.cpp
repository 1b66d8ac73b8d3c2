#include "network/MMSHClient.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned ringBytes = 64 * 1024;
constexpr unsigned historyBytes = 16 * 1024;
constexpr std::size_t largestChunk = 4 + 65535;

/// Answers every open with a chunk that lets the client's open() succeed, and no seek.
class UnconnectedHandler : public zel::HTTPRequestHandler
{
public:
    explicit UnconnectedHandler(WriteCallback callback) : m_writeCallback(callback) {}

    bool open(CStdStr<char> /*url*/) override
    {
        unsigned char emptyHeader[] = {'$', 'H', 8, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        m_writeCallback(emptyHeader, sizeof emptyHeader);
        return true;
    }
    void close() override {}
    void setTimeout(unsigned int /*ms*/) override {}
    unsigned int getTimeout() override { return 1; }
    void setWriteCallback(WriteCallback callback) override { m_writeCallback = callback; }
    void setEndOfFileCallback(EndOfFileCallback /*callback*/) override {}
    bool canSeek() override { return false; }
    void setTimeSeekable(bool /*seekable*/) override {}
    void setByteSeekable(bool /*seekable*/) override {}
    bool seek(unsigned long long /*offset*/, long long /*timeMs*/) override { return false; }
    int getStatusCode() override { return 200; }
    CStdStr<char> getUrl() override { return {}; }
    unsigned long long getContentLength() override { return 0; }
    CStdStr<char> getContentType() override { return {}; }
    bool hasRawHeader(const CStdStr<char>& name) override { return name == "Supported"; }
    CStdStr<char> getRawHeader(const CStdStr<char>& name) override
    {
        return hasRawHeader(name) ? "com.microsoft.wm" : "";
    }
    void setUserAgent(const CStdStr<char>& /*agent*/) override {}
    CStdStr<char> getUserAgent() override { return {}; }
    void addRawHeader(const CStdStr<char>& /*name*/, const CStdStr<char>& /*value*/) override {}
    void clearRawHeaders() override {}
    void setHTTPVersion(const unsigned int& /*version*/) override {}
    unsigned int getHTTPVersion() override { return 0; }
    void setPostRequest(bool /*post*/) override {}
    bool isPostRequest() override { return false; }

private:
    WriteCallback m_writeCallback;
};

class FuzzedClient : public zel::MMSHClient
{
public:
    FuzzedClient() : MMSHClient(ringBytes, historyBytes) {}
    ~FuzzedClient() override { MMSHClient::close(); }
    FuzzedClient(const FuzzedClient&) = delete;
    FuzzedClient& operator=(const FuzzedClient&) = delete;

    /// What a transfer does after its last byte, and readers get the rest.
    void end()
    {
        endOfFileCallback();
        fireConnectionEvent(zel::ConnectionEvent::END_OF_FILE_RECEIVED);
    }
    std::size_t pending() const { return m_pendingSize; }

protected:
    zel::HTTPRequestHandler* getRequestHandler() override
    {
        return new UnconnectedHandler(
            [this](unsigned char* data, unsigned long long size) { return write(data, size); });
    }
};

struct Content
{
    unsigned long long size = 0;
    std::uint64_t hash = 0xcbf29ce484222325;

    bool operator==(const Content&) const = default;
};

/// All that a reader gets when the bytes come in such pieces.
Content readAll(const std::uint8_t* data, std::size_t size, std::size_t piece)
{
    FuzzedClient client;
    if (!client.open("http://unconnected", nullptr)) {
        std::abort();
    }
    Content content;
    std::thread reader([&] {
        std::vector<char> bytes(8192);
        int count = 0;
        while ((count = client.read(bytes.data(), bytes.size(), 0)) > 0) {
            content.size += static_cast<unsigned long long>(count);
            for (int i = 0; i < count; ++i) {
                content.hash =
                    (content.hash ^ static_cast<unsigned char>(bytes[i])) * 0x100000001b3;
            }
        }
    });
    for (std::size_t at = 0; at < size; at += piece) {
        // A copy of the exact size, so that a read behind it is a read behind an allocation.
        std::vector<unsigned char> bytes(data + at, data + std::min(size, at + piece));
        if (client.write(bytes.data(), bytes.size()) != static_cast<long long>(bytes.size()) ||
            client.pending() >= largestChunk) {
            std::abort();
        }
    }
    client.end();
    reader.join();
    return content;
}

} // namespace

/// Any bytes go through the client without harm, and the sizes in which they come make no
/// difference.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::size_t piece = 1 + data[0];
    if (readAll(data + 1, size - 1, piece) != readAll(data + 1, size - 1, size)) {
        std::abort();
    }
    return 0;
}
