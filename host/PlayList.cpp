#include "host/PlayList.h"

#include "host/HostError.h"
#include "host/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace zel::host {

std::string PlayList::text(bool isWhole) const
{
    constexpr long long Second = 1000000;
    long long longestUs = static_cast<long long>(m_clipMs) * 1000;
    if (isWhole) {
        longestUs = 1;
    }
    for (const Segment& segment : m_segments) {
        longestUs = std::max(longestUs, segment.durationUs);
    }
    std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n";
    text += "#EXT-X-TARGETDURATION:" + std::to_string((longestUs + Second - 1) / Second) + "\n";
    text += "#EXT-X-MEDIA-SEQUENCE:0\n";
    text += isWhole ? "#EXT-X-PLAYLIST-TYPE:VOD\n" : "#EXT-X-PLAYLIST-TYPE:EVENT\n";
    for (const Segment& segment : m_segments) {
        if (segment.isAfterSeek) {
            text += "#EXT-X-DISCONTINUITY\n";
        }
        char line[64];
        std::snprintf(line, sizeof line, "#EXTINF:%lld.%06lld,\n", segment.durationUs / Second,
                      segment.durationUs % Second);
        text += line + segment.file + "\n";
    }
    return isWhole ? text + "#EXT-X-ENDLIST\n" : text;
}

void PlayList::write(bool isWhole) const
{
    const std::string fresh = m_path + ".new";
    const std::string content = text(isWhole);
    OutputFile file(fresh);
    file.write(content.data(), content.size());
    file.close();
    if (std::rename(fresh.c_str(), m_path.c_str()) != 0) {
        throw systemError(m_path, errno);
    }
}

} // namespace zel::host
