#include "host/Containers.h"

#include "host/Records.h"

#include <algorithm>
#include <cctype>

namespace zel::host {

namespace {

const std::vector<Container>& containers()
{
    static const std::vector<Container> all = {
        {"flv", " flv ", {"h264", "flv"}, {"mp3", "aac"}, "flv", "mp3"},
        {"mpegts",
         " ts m2ts mts ",
         {"h264", "mpeg2", "mpeg1video", "mpeg4"},
         {"mp2", "mp3", "aac", "ac3", "eac3"},
         "mpeg2",
         "mp2"},
        {"matroska",
         " mkv mka ",
         {"h264", "mpeg4", "mpeg2", "mpeg1video", "mjpeg"},
         {"mp2", "mp3", "aac", "ac3", "eac3", "pcm_s16le"},
         "mpeg4",
         "mp3"},
        {"mpeg", " mpg mpeg ", {"mpeg1video"}, {"mp2"}, "mpeg1video", "mp2", true},
        {"dvd", " vob ", {"mpeg2"}, {"mp2", "ac3"}, "mpeg2", "mp2"},
        {"asf", " asf wmv wma ", {}, {"mp3"}, "wmv9", "wma"},
        {"avi", " avi ", {"mpeg4", "mjpeg"}, {"mp3", "ac3"}, "mpeg4", "mp3"},
        {"mp3", " mp3 ", {}, {"mp3"}, "", "mp3"},
        {"adts", " aac ", {}, {"aac"}, "", "aac"},
        {"mp2", " mp2 ", {}, {"mp2"}, "", "mp2"},
        {"ac3", " ac3 ", {}, {"ac3"}, "", "ac3"},
        {"wav", " wav ", {}, {"pcm_s16le"}, "", "pcm_s16le"},
        {"amr", " amr ", {}, {}, "", "amr_nb"},
    };
    return all;
}

} // namespace

const Container* findContainer(std::string_view format)
{
    // Two formats have a second name at the border.
    if (format == "mkv" || format == "bdlive") {
        format = format == "mkv" ? "matroska" : "mpegts";
    }
    const auto found = std::find_if(containers().begin(), containers().end(),
                                    [&](const auto& one) { return one.format == format; });
    return found == containers().end() ? nullptr : &*found;
}

std::string formatOfFile(const std::string& path)
{
    std::string extension = MediumRecord::extensionOf(path);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char letter) { return std::tolower(letter); });
    if (extension.empty()) {
        return {};
    }
    for (const Container& one : containers()) {
        if (one.extensions.find(" " + extension + " ") != std::string_view::npos) {
            return std::string(one.format);
        }
    }
    return {};
}

} // namespace zel::host
