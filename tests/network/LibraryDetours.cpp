#include "tests/network/LibraryDetours.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <netdb.h>

#include <condition_variable>
#include <limits>
#include <mutex>

namespace zel::test {

namespace {

thread_local bool s_endlessPolls = false;
thread_local std::vector<int>* s_recordedPolls = nullptr;

/// Never destroyed: a look-up that was given up may outlive the test program's statics.
struct LookUps
{
    std::mutex mutex;
    std::condition_variable changed;
    std::string name; ///< empty for none
    int under = 0;
};

LookUps& lookUps()
{
    static LookUps& all = *new LookUps;
    return all;
}

/// @return whether it was the endless name, which has been let go now
bool awaitEndOf(const char* name)
{
    LookUps& all = lookUps();
    std::unique_lock lock(all.mutex);
    if (name == nullptr || all.name.empty() || all.name != name) {
        return false;
    }
    ++all.under;
    all.changed.notify_all();
    all.changed.wait(lock, [&] { return all.name.empty(); });
    --all.under;
    all.changed.notify_all();
    return true;
}

template <class Function>
Function next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

EndlessPolls::EndlessPolls()
{
    s_endlessPolls = true;
}

EndlessPolls::~EndlessPolls()
{
    s_endlessPolls = false;
}

RecordedPolls::RecordedPolls()
{
    s_recordedPolls = &m_timeoutsMs;
}

RecordedPolls::~RecordedPolls()
{
    s_recordedPolls = nullptr;
}

EndlessLookUp::EndlessLookUp(const std::string& name)
{
    const std::lock_guard guard(lookUps().mutex);
    lookUps().name = name;
}

EndlessLookUp::~EndlessLookUp()
{
    LookUps& all = lookUps();
    std::unique_lock lock(all.mutex);
    all.name.clear();
    all.changed.notify_all();
    all.changed.wait(lock, [&] { return all.under == 0; });
}

void EndlessLookUp::awaitBegin() const
{
    LookUps& all = lookUps();
    std::unique_lock lock(all.mutex);
    all.changed.wait(lock, [&] { return all.under > 0; });
}

bool EndlessLookUp::begun() const
{
    const std::lock_guard guard(lookUps().mutex);
    return lookUps().under > 0;
}

} // namespace zel::test

// What the program defines goes before what its libraries define, also for the libraries' own
// calls.

extern "C" __attribute__((visibility("default"))) CURLMcode
curl_multi_poll(CURLM* multi, curl_waitfd* extra, unsigned int count, int timeoutMs, int* ready)
{
    using namespace zel::test;
    static const auto real = next<decltype(&curl_multi_poll)>("curl_multi_poll");
    if (s_recordedPolls != nullptr) {
        s_recordedPolls->push_back(timeoutMs);
    }
    return real(multi, extra, count, s_endlessPolls ? std::numeric_limits<int>::max() : timeoutMs,
                ready);
}

extern "C" __attribute__((visibility("default"))) int
getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found)
{
    using namespace zel::test;
    static const auto real = next<decltype(&getaddrinfo)>("getaddrinfo");
    if (awaitEndOf(name)) {
        return EAI_NONAME;
    }
    return real(name, service, hints, found);
}
