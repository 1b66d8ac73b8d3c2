#include "tests/input/DeliveryRules.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace zel::test {

namespace {

bool isNegative(const std::optional<int64_t>& stamp)
{
    return stamp && *stamp < 0;
}

/// dts, or pts.
std::optional<int64_t> stampOf(const ProbedPacket& packet)
{
    return packet.dts && *packet.dts >= 0 ? packet.dts : packet.pts;
}

/// One stream's way through the rules.
class VideoRules
{
public:
    VideoRules(const ProbedStream& stream, bool isLive) : m_stream(stream), m_isLive(isLive) {}

    std::optional<ExpectedFrame> take(const ProbedPacket& packet)
    {
        const std::optional<int64_t> stamp = stampOf(packet);
        if (!stamp || packet.size == 0) {
            return std::nullopt;
        }
        ++m_fed;
        if (m_fed <= delay()) {
            return std::nullopt;
        }
        if (m_fed == delay() + 1) {
            m_first = *stamp; // counted from the first packet that makes a picture
        }
        ExpectedFrame frame;
        frame.isVideo = true;
        frame.timestampUs = microseconds(*stamp - (m_isLive ? m_first : 0), m_stream);
        frame.durationUs = microseconds(packet.duration, m_stream);
        frame.picture = m_fed - delay() - 1;
        return frame;
    }

private:
    std::size_t delay() const { return static_cast<std::size_t>(m_stream.decoderDelay); }

    const ProbedStream& m_stream;
    bool m_isLive;
    std::size_t m_fed = 0;
    int64_t m_first = 0;
};

class AudioRules
{
public:
    AudioRules(const ProbedStream& stream, bool isLive) : m_stream(stream), m_isLive(isLive) {}

    std::optional<ExpectedFrame> take(const ProbedPacket& packet)
    {
        std::optional<int64_t> stamp = stampOf(packet);
        if (!stamp && m_previous) {
            stamp = *m_previous + 1;
        }
        m_first = m_first ? m_first : stamp;
        m_previous = stamp ? stamp : m_previous;
        if (m_stream.codec == "vorbis" && !std::exchange(m_primed, true)) {
            return std::nullopt;
        }
        ExpectedFrame frame;
        frame.durationUs = microseconds(packet.duration, m_stream);
        frame.timestampUs = m_nextUs;
        if (stamp) {
            const unsigned long long us =
                microseconds(*stamp - (m_isLive ? *m_first : 0), m_stream);
            frame.timestampUs = us < m_lastUs ? m_nextUs : us;
        }
        m_lastUs = frame.timestampUs;
        m_nextUs = frame.timestampUs + frame.durationUs;
        return frame;
    }

private:
    const ProbedStream& m_stream;
    bool m_isLive;
    std::optional<int64_t> m_first;
    std::optional<int64_t> m_previous;
    unsigned long long m_lastUs = 0;
    unsigned long long m_nextUs = 0;
    bool m_primed = false;
};

} // namespace

unsigned long long microseconds(int64_t stamp, const ProbedStream& stream)
{
    const double seconds = static_cast<double>(stream.timeBaseNum) / stream.timeBaseDen;
    return static_cast<unsigned long long>(
        static_cast<int64_t>(static_cast<double>(stamp) * seconds * 1000000.0));
}

Selection firstStreams(const ProbedMedium& medium)
{
    Selection selection;
    if (const ProbedStream* video = medium.first("video")) {
        selection.video = video->index;
    }
    if (const ProbedStream* audio = medium.first("audio")) {
        selection.audio = audio->index;
    }
    selection.isLive = !medium.durationS || *medium.durationS <= 0.0;
    return selection;
}

Selection bestStreams(const ProbedMedium& medium)
{
    Selection selection = firstStreams(medium);
    const auto at = [&medium](int index) -> const ProbedStream& {
        return medium.streams[static_cast<std::size_t>(index)];
    };
    for (const ProbedStream& stream : medium.streams) {
        if (stream.type == "video" && !stream.isCover &&
            stream.width * stream.height > at(selection.video).width * at(selection.video).height) {
            selection.video = stream.index;
        } else if (stream.type == "audio" && stream.bitrate > at(selection.audio).bitrate) {
            selection.audio = stream.index;
        }
    }
    return selection;
}

int countLeftOut(const ProbedMedium& medium, int stream)
{
    return static_cast<int>(std::count_if(
        medium.packets.begin(), medium.packets.end(), [stream](const ProbedPacket& packet) {
            return packet.stream == stream && !packet.isDiscarded &&
                   ((isNegative(packet.dts) && isNegative(packet.pts)) ||
                    (!packet.dts && !packet.pts));
        }));
}

std::vector<ExpectedFrame> expectedDelivery(const ProbedMedium& medium, const Selection& selection)
{
    static const ProbedStream s_none;
    const auto stream = [&medium](int index) -> const ProbedStream& {
        return index < 0 ? s_none : medium.streams[static_cast<std::size_t>(index)];
    };
    VideoRules video(stream(selection.video), selection.isLive);
    AudioRules audio(stream(selection.audio), selection.isLive);
    std::vector<ExpectedFrame> frames;
    for (const ProbedPacket& packet : medium.packets) {
        if (isNegative(packet.dts) && isNegative(packet.pts)) {
            continue;
        }
        std::optional<ExpectedFrame> frame;
        if (packet.stream == selection.video) {
            frame = video.take(packet);
        } else if (packet.stream == selection.audio) {
            frame = audio.take(packet);
        }
        if (frame) {
            frames.push_back(*frame);
        }
    }
    return frames;
}

} // namespace zel::test
