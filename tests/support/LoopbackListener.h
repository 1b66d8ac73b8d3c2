#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zel::test {

/// Listens on a loopback port and takes each connection's first bytes; never a whole server.
///
///     LoopbackListener listener("HTTP/1.0 404 Not Found\r\n\r\n");
///     core.initWithUrl("http://127.0.0.1:" + listener.port() + "/x", "");
///     listener.heard();   // the first bytes of each connection so far
class LoopbackListener
{
public:
    /// @param answer  sent to each connection before it is closed; an empty one closes at once
    explicit LoopbackListener(std::string answer);
    /// Keeps connections open and silent until the end.
    LoopbackListener();
    ~LoopbackListener();
    LoopbackListener(const LoopbackListener&) = delete;
    LoopbackListener& operator=(const LoopbackListener&) = delete;

    std::string port() const { return m_port; }
    std::vector<std::string> heard() const;
    /// Blocks until a connection has sent its first bytes.
    void waitForConnection();

private:
    void listen();
    void run();

    std::string m_answer;
    bool m_silent = false;
    int m_socket = -1;
    std::string m_port;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_heard; ///< under m_mutex
    std::vector<int> m_open;          ///< of the thread
    std::thread m_thread;
};

/// A loopback port that nobody listens on.
std::string unusedPort();

} // namespace zel::test
