#pragma once

#include <string>
#include <vector>

namespace zel::host {

/// A play list of segment files in the form of HTTP Live Streaming, version 3. It grows with each
/// segment and is closed at the end. Reading thread; finish on the main thread after it.
class PlayList
{
public:
    struct Segment
    {
        std::string file; ///< name in the play list's folder
        long long startUs = 0;
        long long durationUs = 0;
        unsigned long long bytes = 0;
        bool isAfterSeek = false; ///< its times do not follow those of the segment before
    };

    /// @param clipMs  expected length of a segment
    PlayList(std::string path, unsigned long long clipMs)
        : m_path(std::move(path)), m_clipMs(clipMs)
    {
    }

    void add(Segment segment) { m_segments.push_back(std::move(segment)); }
    std::vector<Segment>& segments() { return m_segments; }
    const std::vector<Segment>& segments() const { return m_segments; }
    const std::string& path() const { return m_path; }

    /// @param isWhole  nothing more comes
    std::string text(bool isWhole) const;
    /// Writes the list to its file in one step, so that a player never reads half a list.
    /// @throws HostError
    void write(bool isWhole) const;

private:
    std::string m_path;
    unsigned long long m_clipMs;
    std::vector<Segment> m_segments;
};

} // namespace zel::host
