#include "host/Console.h"

#include "host/HostError.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace zel::host {

namespace {

constexpr int DefaultColumns = 80;
constexpr int FirstFreeDescriptor = 3;

int openLogTarget(const std::string& target)
{
    if (target == "-") {
        return fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, FirstFreeDescriptor);
    }
    const char* path = target.empty() ? "/dev/null" : target.c_str();
    return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
}

bool understandsControlSequences()
{
    const char* terminal = std::getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && terminal != nullptr &&
           std::string_view(terminal) != "dumb";
}

} // namespace

Console::Console(const std::string& logTarget)
    : m_out(nullptr), m_hasTerminal(understandsControlSequences()),
      m_logsToTerminal(logTarget == "-")
{
    const int aside = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, FirstFreeDescriptor);
    if (aside < 0) {
        throw systemError("standard output", errno);
    }
    m_out = fdopen(aside, "w");
    if (m_out == nullptr) {
        const int reason = errno;
        ::close(aside);
        throw systemError("standard output", reason);
    }
    const int log = openLogTarget(logTarget);
    if (log < 0) {
        const int reason = errno;
        std::fclose(m_out);
        throw systemError(logTarget, reason);
    }
    dup2(log, STDOUT_FILENO);
    ::close(log);
}

Console::~Console()
{
    std::fclose(m_out);
}

bool Console::canDraw(bool printsFrames) const
{
    return m_hasTerminal && !m_logsToTerminal && !(printsFrames && isatty(fileno(m_out)) == 1);
}

int Console::columns() const
{
    winsize size = {};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : DefaultColumns;
}

void Console::flush()
{
    errno = 0;
    if (std::fflush(m_out) != 0 || std::ferror(m_out) != 0) {
        throw systemError("standard output", errno != 0 ? errno : EIO);
    }
}

} // namespace zel::host
