#include "tests/support/NginxServer.h"

#include "tests/support/LoopbackListener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>

namespace zel::test {

namespace {

constexpr char Program[] = "/usr/sbin/nginx";

bool canConnect(const std::string& port)
{
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
    const bool connected =
        connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(connection);
    return connected;
}

} // namespace

NginxServer::NginxServer(const NginxOptions& options)
{
    // Between the choice of a port and nginx's own bind another program may take it.
    constexpr int Attempts = 5;
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        m_port = unusedPort();
        m_tlsPort = options.certificate.empty() ? std::string() : unusedPort();
        writeConfiguration(options);
        start();
        if (waitUntilReady()) {
            return;
        }
    }
    throw std::runtime_error("nginx does not start: " + errorLog());
}

NginxServer::~NginxServer()
{
    end();
}

std::string NginxServer::url(const std::string& path) const
{
    return "http://127.0.0.1:" + m_port + path;
}

std::string NginxServer::tlsUrl(const std::string& path) const
{
    return "https://127.0.0.1:" + m_tlsPort + path;
}

std::string NginxServer::accessLog() const
{
    return readFile(m_folder.path("access.log"));
}

std::string NginxServer::errorLog() const
{
    return readFile(m_folder.path("error.log"));
}

/// One process does it all: a master would leave its workers behind when the test is killed.
void NginxServer::writeConfiguration(const NginxOptions& options) const
{
    const std::string here = m_folder.path();
    std::string text = "daemon off;\n"
                       "master_process off;\n"
                       "pid " +
                       here +
                       "/nginx.pid;\n"
                       "events { worker_connections 512; }\n"
                       "http {\n"
                       "    log_format short '$request_method $uri $status $body_bytes_sent "
                       "$http_range';\n"
                       "    access_log " +
                       here +
                       "/access.log short;\n"
                       "    default_type application/octet-stream;\n"
                       "    sendfile on;\n";
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        text += std::string("    ") + kind + "_temp_path " + here + "/" + kind + ";\n";
    }
    text += "    server {\n"
            "        listen 127.0.0.1:" +
            m_port + ";\n";
    if (!m_tlsPort.empty()) {
        text += "        listen 127.0.0.1:" + m_tlsPort +
                " ssl;\n"
                "        ssl_certificate " +
                options.certificate +
                ";\n"
                "        ssl_certificate_key " +
                options.key + ";\n";
    }
    text += "        root " + std::filesystem::absolute(options.folder).string() + ";\n" +
            options.directives +
            "\n    }\n"
            "}\n";
    writeFile(m_folder.path("nginx.conf"), text);
}

void NginxServer::start()
{
    const std::string configuration = m_folder.path("nginx.conf");
    const std::string errors = m_folder.path("error.log");
    const pid_t parent = getpid();
    m_child = fork();
    if (m_child < 0) {
        throw std::runtime_error("no process for nginx");
    }
    if (m_child > 0) {
        return;
    }
    // Nothing but bare system calls: other threads of the test may hold any lock.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(1);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int log = open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    execl(Program, Program, "-p", m_folder.path().c_str(), "-e", errors.c_str(), "-c",
          configuration.c_str(), static_cast<char*>(nullptr));
    _exit(127);
}

bool NginxServer::waitUntilReady()
{
    while (!canConnect(m_port) || (!m_tlsPort.empty() && !canConnect(m_tlsPort))) {
        if (waitpid(m_child, nullptr, WNOHANG) == m_child) {
            m_child = -1;
            return false;
        }
        poll(nullptr, 0, 5);
    }
    return true;
}

void NginxServer::end()
{
    if (m_child <= 0) {
        return;
    }
    kill(m_child, SIGTERM);
    while (waitpid(m_child, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_child = -1;
}

} // namespace zel::test
