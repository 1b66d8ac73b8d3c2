#pragma once

#include "network/MMSHClient.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zel::test {

/// A client whose inside a test can see.
class ChunkClient : public MMSHClient
{
public:
    explicit ChunkClient(unsigned bufferSize = 1024 * 1024, unsigned history = 256 * 1024)
        : MMSHClient(bufferSize, history)
    {
        m_connectionEventData = this;
        m_connectionEventCallback = [](ConnectionEvent::ConnectionEvent event, void* data) {
            auto* client = static_cast<ChunkClient*>(data);
            if (client->onEvent) {
                client->onEvent(event);
            }
            const std::lock_guard guard(client->m_mutex);
            client->m_events.push_back(event);
            client->m_changed.notify_all();
        };
        setMetadataCallback([this](const std::map<CStdStr<char>, CStdStr<char>>& pairs) {
            delivered.emplace_back(pairs.begin(), pairs.end());
        });
    }
    ~ChunkClient() override { MMSHClient::close(); }
    ChunkClient(const ChunkClient&) = delete;
    ChunkClient& operator=(const ChunkClient&) = delete;

    using MMSHClient::getMMSFrame;
    using MMSHClient::m_bytesReceived;
    using MMSHClient::m_hasAudio;
    using MMSHClient::m_hasVideo;
    using MMSHClient::m_keepAliveWaitMs;
    using MMSHClient::m_live;
    using MMSHClient::m_packetLength;
    using MMSHClient::m_pendingSize;
    using MMSHClient::m_preroll;
    using MMSHClient::m_receivedEOF;
    using MMSHClient::m_seekable;
    using MMSHClient::m_streamBitratePositions;
    using MMSHClient::m_streamBitrates;
    using MMSHClient::m_streamCount;
    using MMSHClient::m_streamIds;
    using MMSHClient::m_streamTypes;
    using MMSHClient::m_totalPackets;
    using MMSHClient::performMMSHSeek;
    using MMSHClient::processHeader;
    using MMSHClient::startKeepAlive;

    /// As the transfer thread does.
    long long feed(std::string bytes)
    {
        return write(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size());
    }
    /// Exactly so many bytes; less only at the end of the stream.
    std::string take(std::size_t size)
    {
        std::string bytes(size, '\x5a');
        const int result = read(bytes.data(), size, 0);
        bytes.resize(result > 0 ? static_cast<std::size_t>(result) : 0);
        return bytes;
    }
    /// All that is in the ring.
    std::string takeAll() { return take(getByteAvailableToReadInBuffer()); }
    std::size_t waitingMetadata()
    {
        PMutexGuard guard(m_metadataLock);
        return m_metadata.size();
    }

    std::vector<int> events()
    {
        const std::lock_guard guard(m_mutex);
        return m_events;
    }
    void awaitEvents(std::size_t count)
    {
        std::unique_lock guard(m_mutex);
        m_changed.wait(guard, [&] { return m_events.size() >= count; });
    }

    /// Set before open(); runs on the client's thread, before the event counts as happened.
    std::function<void(ConnectionEvent::ConnectionEvent)> onEvent;
    /// On the reading thread.
    std::vector<std::vector<std::pair<std::string, std::string>>> delivered;
    unsigned handlerTimeoutMs = 30000;

protected:
    HTTPRequestHandler* getRequestHandler() override
    {
        HTTPRequestHandler* handler = MMSHClient::getRequestHandler();
        handler->setTimeout(handlerTimeoutMs);
        return handler;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<int> m_events;
};

} // namespace zel::test
