#pragma once

#include "tests/support/TempFolder.h"

#include <string>
#include <sys/types.h>

namespace zel::test {

struct NginxOptions
{
    /// What it serves.
    std::string folder = {};
    /// PEM files of its TLS port; it has none without them.
    std::string certificate = {};
    std::string key = {};
    /// Directives for the server block, such as "limit_rate 1m;".
    std::string directives = {};
};

/// nginx as a child process, serving a folder with ranges on free ports of 127.0.0.1. It ends with
/// the object, and with the thread that made it, so that no crashed test leaves it behind: make it
/// on a thread that outlives it.
class NginxServer
{
public:
    /// Returns when connections are taken. Throws std::runtime_error with nginx's log when it
    /// does not start.
    explicit NginxServer(const NginxOptions& options);
    ~NginxServer();
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    /// @param path  begins with a slash
    std::string url(const std::string& path) const;
    std::string tlsUrl(const std::string& path) const;
    /// One line a request that has ended: method, target, status, bytes of the body that were
    /// sent, range asked for.
    std::string accessLog() const;
    std::string errorLog() const;

private:
    void writeConfiguration(const NginxOptions& options) const;
    void start();
    /// @return false when it has ended instead
    bool waitUntilReady();
    void end();

    TempFolder m_folder;
    std::string m_port;
    std::string m_tlsPort; ///< empty without TLS
    pid_t m_child = -1;
};

} // namespace zel::test
