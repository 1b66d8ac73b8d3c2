#pragma once

#include <cstddef>

namespace zel::test {

/// Threads of this process.
std::size_t taskCount();
/// Blocks until there are no more than this many: a thread that has been joined is on the kernel's
/// list for a moment longer.
void awaitTaskCount(std::size_t count);

/// Whether a sanitizer slows this build down many times.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool Sanitized = true;
#else
constexpr bool Sanitized = false;
#endif

} // namespace zel::test
