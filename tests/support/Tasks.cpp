#include "tests/support/Tasks.h"

#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

namespace zel::test {

std::size_t taskCount()
{
    // The thread sanitizer makes a thread of its own beside the first one of the program.
    static const bool s_settled = [] {
        pid_t task = 0;
        std::thread([&task] { task = gettid(); }).join();
        while (std::filesystem::exists("/proc/self/task/" + std::to_string(task))) {
            std::this_thread::yield();
        }
        return true;
    }();
    (void)s_settled;
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

void awaitTaskCount(std::size_t count)
{
    while (taskCount() > count) {
        std::this_thread::yield();
    }
}

} // namespace zel::test
