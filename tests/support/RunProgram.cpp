#include "tests/support/RunProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

extern char** environ;

namespace zel::test {

namespace {

using Clock = std::chrono::steady_clock;

/// A pipe that children inherit only where it is handed over on purpose.
class Pipe
{
public:
    Pipe()
    {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) == 0) {
            m_read = ends[0];
            m_write = ends[1];
        }
    }
    ~Pipe()
    {
        closeEnd(m_read);
        closeEnd(m_write);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int reader() const { return m_read; }
    int writer() const { return m_write; }
    void closeReader() { closeEnd(m_read); }
    void closeWriter() { closeEnd(m_write); }

private:
    static void closeEnd(int& end)
    {
        if (end >= 0) {
            close(end);
        }
        end = -1;
    }

    int m_read = -1;
    int m_write = -1;
};

pid_t start(const std::vector<std::string>& words, int out, int err)
{
    std::vector<char*> arguments;
    std::vector<std::string> copies = words;
    std::transform(copies.begin(), copies.end(), std::back_inserter(arguments),
                   [](std::string& word) { return word.data(); });
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    pid_t child = -1;
    if (posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) {
        child = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

/// Milliseconds for poll(): what is left of the limit, or for ever.
int remaining(Clock::time_point end, std::chrono::seconds limit)
{
    if (limit == NoTimeLimit) {
        return -1;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, 1000LL * 3600 * 24));
}

/// Moves what is there to the text. Closes the reader at the end of the output.
void drain(Pipe& pipe, std::string& text)
{
    std::array<char, 65536> bytes;
    const ssize_t count = read(pipe.reader(), bytes.data(), bytes.size());
    if (count > 0) {
        text.append(bytes.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
        pipe.closeReader();
    }
}

} // namespace

std::string ProgramResult::describe() const
{
    std::string text = "exit code " + std::to_string(exitCode);
    if (signal != 0) {
        text += std::string(", signal ") + strsignal(signal);
    }
    if (overTime) {
        text += ", over the time limit";
    }
    return err.empty() ? text : text + ": " + err;
}

ProgramResult runProgram(const std::vector<std::string>& words, std::chrono::seconds limit)
{
    ProgramResult result;
    Pipe out;
    Pipe err;
    const pid_t child = start(words, out.writer(), err.writer());
    if (child < 0) {
        result.err = words[0] + " cannot be started";
        return result;
    }
    out.closeWriter();
    err.closeWriter();
    const auto end = Clock::now() + limit;
    while (out.reader() >= 0 || err.reader() >= 0) {
        // A closed reader is -1 here, which poll() passes over.
        std::array<pollfd, 2> ends = {{{out.reader(), POLLIN, 0}, {err.reader(), POLLIN, 0}}};
        const int ready = poll(ends.data(), ends.size(), remaining(end, limit));
        if (ready == 0) {
            result.overTime = true;
            kill(child, SIGKILL);
            break;
        }
        if (ends[0].revents != 0) {
            drain(out, result.out);
        }
        if (ends[1].revents != 0) {
            drain(err, result.err);
        }
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

} // namespace zel::test
