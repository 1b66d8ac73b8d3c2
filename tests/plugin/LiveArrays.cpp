#include "tests/plugin/LiveArrays.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

#include <cstddef>

// The sanitizers' own operators find mismatched pairs, so they stay in place and are asked. g++ has
// no header for this function of its runtime.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

long long zel::test::liveArrays()
{
    return static_cast<long long>(__sanitizer_get_current_allocated_bytes());
}

#else

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long long> live{0};

} // namespace

long long zel::test::liveArrays()
{
    return live;
}

void* operator new[](std::size_t size)
{
    void* memory = std::malloc(size > 0 ? size : 1);
    if (!memory) {
        throw std::bad_alloc();
    }
    ++live;
    return memory;
}

void operator delete[](void* memory) noexcept
{
    if (memory) {
        --live;
    }
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    operator delete[](memory);
}

#endif
