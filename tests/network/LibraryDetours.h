#pragma once

#include <string>
#include <vector>

/// Detours around two library calls in this test program. Without a request for one of these they
/// only pass on.
namespace zel::test {

/// While it lives, libcurl's polls on this thread end by an event or a wake-up only, not by the
/// time that the caller allows.
class EndlessPolls
{
public:
    EndlessPolls();
    ~EndlessPolls();
    EndlessPolls(const EndlessPolls&) = delete;
    EndlessPolls& operator=(const EndlessPolls&) = delete;
};

/// While it lives, notes the time that this thread's polls allow.
class RecordedPolls
{
public:
    RecordedPolls();
    ~RecordedPolls();
    RecordedPolls(const RecordedPolls&) = delete;
    RecordedPolls& operator=(const RecordedPolls&) = delete;

    const std::vector<int>& timeoutsMs() const { return m_timeoutsMs; }

private:
    std::vector<int> m_timeoutsMs;
};

/// While it lives, looking up `name` takes for ever, and then fails. One at a time.
class EndlessLookUp
{
public:
    explicit EndlessLookUp(const std::string& name);
    /// Lets those who look it up go.
    ~EndlessLookUp();
    EndlessLookUp(const EndlessLookUp&) = delete;
    EndlessLookUp& operator=(const EndlessLookUp&) = delete;

    /// Blocks until somebody looks the name up.
    void awaitBegin() const;
    /// Whether somebody looks the name up.
    bool begun() const;
};

} // namespace zel::test
