#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zel::host {

/// What the host knows of an output format, so that it can choose codecs by itself. Names are those
/// of the border.
struct Container
{
    std::string_view format;
    std::string_view extensions; ///< of file names, with a blank around each
    /// Codecs that are copied unasked. Left out is what a player cannot decode without set-up data
    /// that no input hands over: Windows Media, FLAC, Vorbis and the like.
    std::vector<std::string_view> videoCopies;
    std::vector<std::string_view> audioCopies;
    std::string_view usualVideo; ///< empty for a format without video
    std::string_view usualAudio;
    bool isForced = false; ///< the stage takes these two codecs, whatever it is asked for
};

/// @return null for a format that the host knows nothing of
const Container* findContainer(std::string_view format);

/// The format of a file by its name.
/// @return empty when the name tells none
std::string formatOfFile(const std::string& path);

} // namespace zel::host
