#pragma once

#include <string>

namespace zel::test {

/// The far end of a bare connection on the loopback address, one connection at a time. It says
/// what it is told to and nothing else: a server that can keep a client waiting.
class LoopbackPeer
{
public:
    LoopbackPeer();
    ~LoopbackPeer();
    LoopbackPeer(const LoopbackPeer&) = delete;
    LoopbackPeer& operator=(const LoopbackPeer&) = delete;

    /// As FFmpeg opens a bare connection: "tcp://127.0.0.1:PORT".
    std::string url() const;
    /// Blocks until somebody connects. An older connection ends.
    bool accept();
    /// Sends all bytes. Blocks while the client does not read.
    /// @return false when the connection has ended
    bool send(const std::string& bytes);
    /// Ends the connection.
    void hangUp();

private:
    int m_listener = -1;
    int m_connection = -1;
};

} // namespace zel::test
