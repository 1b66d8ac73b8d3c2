#include "host/PlayPass.h"

#include "host/Times.h"
#include "plugin/MetadataPacket.h"

namespace zel::host {

namespace {

using Clock = std::chrono::steady_clock;
namespace PacketType = streamer::PacketType;

double secondsSince(Clock::time_point then)
{
    return std::chrono::duration<double>(Clock::now() - then).count();
}

/// Gives a frame back on every way out.
class FrameOwner
{
public:
    FrameOwner(Input& input, Frame& frame) : m_input(input), m_frame(frame) {}
    ~FrameOwner() { m_input.release(m_frame); }
    FrameOwner(const FrameOwner&) = delete;
    FrameOwner& operator=(const FrameOwner&) = delete;

private:
    Input& m_input;
    Frame& m_frame;
};

} // namespace

PlayPass::PlayPass(const PlayOptions& options, Console& console, StopSignal& stop, Input& input,
                   const FrameSinks& sinks, Clock::time_point processStart)
    : m_options(options), m_stop(stop), m_input(input), m_sinks(sinks),
      m_processStart(processStart), m_statistics(!options.keyFrames), m_stretch(options),
      m_pacer(stop),
      m_progress(console, console.canDraw(options.printsFrames()),
                 Stretch::lengthUs(
                     options, static_cast<long long>(input.describeMedium().getDuration()) * 1000))
{
}

const PlayStatistics& PlayPass::run()
{
    const auto started = Clock::now();
    if (m_options.keyFrames) {
        m_input.plugin().setVideoDecodingMode(streamer::DecodingMode::KeyFramesOnly);
    }
    describe();
    m_statistics.output = m_input.describeOutput();
    m_input.plugin().start();
    beginStretch(m_options.startMs.value_or(0));
    if (!m_options.startMs || seekTo(*m_options.startMs)) {
        readAll();
    }
    m_progress.clear();
    m_input.plugin().stop();
    m_statistics.seconds = secondsSince(started);
    m_statistics.brokenStream = m_input.isBroken();
    m_statistics.events = m_input.events();
    return m_statistics;
}

void PlayPass::describe()
{
    const OutputStreamRecord output = m_input.describeOutput();
    m_stretch.setKinds(output.hasVideo() && !m_options.noVideo,
                       output.hasAudio() && !m_options.noAudio);
    for (const auto& sink : m_sinks) {
        sink->describe(output);
    }
}

void PlayPass::readAll()
{
    Frame frame;
    while (!m_stop.isRequested()) {
        bool goesOn = m_input.read(frame);
        if (goesOn) {
            const FrameOwner owner(m_input, frame);
            goesOn = handle(frame);
        }
        if (!goesOn && !seekAtEnd()) {
            return;
        }
    }
}

bool PlayPass::handle(const Frame& frame)
{
    switch (frame.type) {
    case PacketType::Audio:
    case PacketType::Video:
        return handleMedia(frame);
    case PacketType::Notice:
        describe();
        m_statistics.audioChanges.push_back(
            {m_statistics.audio.frames, m_input.describeOutput().audio});
        return true;
    case PacketType::Metadata:
        handleMetadata(frame);
        return true;
    default:
        return true;
    }
}

bool PlayPass::handleMedia(const Frame& frame)
{
    if (isUnwanted(frame)) {
        leaveOutVideo(frame);
        return true;
    }
    if (m_stretch.isPastEnd(frame)) {
        return !m_stretch.isOver(frame);
    }
    if (m_options.realtime && frame.hasTimestamp() && !m_pacer.waitFor(frame.timestampUs)) {
        return true;
    }
    if (m_statistics.video.frames + m_statistics.audio.frames == 0) {
        m_statistics.secondsToFirstFrame = secondsSince(m_processStart);
    }
    m_statistics.add(frame);
    for (const auto& sink : m_sinks) {
        sink->take(frame);
    }
    const std::optional<unsigned int> buffered = m_input.bufferPercent();
    if (buffered) {
        m_statistics.addBufferLevel(*buffered);
    }
    if (frame.hasTimestamp()) {
        m_progress.update(static_cast<long long>(frame.timestampUs), buffered);
    }
    if (m_options.frames &&
        m_statistics.video.frames + m_statistics.audio.frames >= *m_options.frames) {
        return false;
    }
    seekWhenDue(frame);
    return true;
}

void PlayPass::handleMetadata(const Frame& frame)
{
    PlayStatistics::Metadata block;
    block.atUs = static_cast<long long>(frame.timestampUs);
    const streamer::MetadataPacket packet(reinterpret_cast<const char*>(frame.data),
                                          frame.data == nullptr ? 0 : frame.size);
    for (const auto& [key, value] : packet.getAllMetadata()) {
        block.entries.emplace_back(key, value);
    }
    m_statistics.metadata.push_back(block);
    for (const auto& sink : m_sinks) {
        sink->take(frame);
    }
}

bool PlayPass::isUnwanted(const Frame& frame) const
{
    return frame.type == PacketType::Video ? m_options.noVideo : m_options.noAudio;
}

/// Ends video decoding with the first picture. Not earlier: an input holds audio back until video
/// has started. And no skipVideoDecoding, which moves the time stamps of audio as well.
void PlayPass::leaveOutVideo(const Frame& frame)
{
    if (frame.type == PacketType::Video && !m_videoLeftOut) {
        m_videoLeftOut = m_input.plugin().setVideoDecodingMode(streamer::DecodingMode::None);
    }
}

void PlayPass::seekWhenDue(const Frame& frame)
{
    if (const SeekRequest* request = m_stretch.takeDueSeek(frame)) {
        seekTo(request->targetMs);
    }
}

/// A seek that still waits when the medium or the stretch ends is made there.
bool PlayPass::seekAtEnd()
{
    const bool allFrames =
        m_options.frames &&
        m_statistics.video.frames + m_statistics.audio.frames >= *m_options.frames;
    while (!allFrames && !m_stop.isRequested()) {
        const SeekRequest* request = m_stretch.takeSeek();
        if (request == nullptr) {
            return false;
        }
        if (seekTo(request->targetMs)) {
            return true;
        }
    }
    return false;
}

bool PlayPass::seekTo(unsigned long long targetMs)
{
    const int result = m_input.plugin().setTimePosition(targetMs);
    m_statistics.seeks.push_back({targetMs, result, {}, {}});
    if (result != streamer::Result::Done) {
        if (m_failure.empty()) {
            m_failure = "Seek to " + formatTime(static_cast<long long>(targetMs) * 1000) +
                        (result == streamer::Result::NotPossible ? " is not possible" : " failed");
        }
        return false;
    }
    m_statistics.jump();
    beginStretch(targetMs);
    return true;
}

void PlayPass::beginStretch(unsigned long long startMs)
{
    m_stretch.begin(startMs);
    m_pacer.restart();
}

} // namespace zel::host
