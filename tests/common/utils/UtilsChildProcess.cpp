#include "tests/common/utils/UtilsChildProcess.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace zel::test {

UtilsChildProcess::UtilsChildProcess(const std::vector<std::string>& arguments)
{
    std::vector<std::string> words = {ZEL_UTILS_CHILD};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);

    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    const int error =
        posix_spawn(&m_process, pointers[0], &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    m_output = ends[0];
    if (error != 0) {
        close(m_output);
        throw std::runtime_error("cannot run " + words[0]);
    }
}

UtilsChildProcess::~UtilsChildProcess()
{
    if (m_process > 0) {
        kill();
        wait();
    }
}

bool UtilsChildProcess::readOutput(std::size_t bytes)
{
    std::array<char, 4096> buffer = {};
    while (bytes > 0) {
        const ssize_t count = read(m_output, buffer.data(), std::min(bytes, buffer.size()));
        if (count <= 0) {
            return false;
        }
        bytes -= static_cast<std::size_t>(count);
    }
    return true;
}

void UtilsChildProcess::kill()
{
    ::kill(m_process, SIGKILL);
}

int UtilsChildProcess::wait()
{
    while (readOutput(4096)) {
    }
    int status = 0;
    waitpid(m_process, &status, 0);
    m_process = -1;
    close(m_output);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace zel::test
