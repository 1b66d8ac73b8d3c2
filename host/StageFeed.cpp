#include "host/StageFeed.h"

#include "host/FramePacket.h"
#include "host/Times.h"
#include "plugin/SimpleSamplePacket.h"

#include <algorithm>
#include <memory>

namespace zel::host {

namespace {

namespace PacketType = streamer::PacketType;

/// Gives a packet's reference back unless a stage took it.
struct ReleasePacket
{
    void operator()(FramePacket* packet) const { packet->release(); }
};
using PacketOwner = std::unique_ptr<FramePacket, ReleasePacket>;

} // namespace

StageFeed::StageFeed(TranscodeSession& session, const TranscodeOptions& options,
                     StageReader& reader, StopSignal& stop, ProgressBar& progress,
                     const std::optional<CutOptions>& cuts)
    : m_session(session), m_options(options), m_reader(reader), m_stop(stop), m_progress(progress),
      m_stretch(options), m_frames([&session](Frame& frame) { return session.read(frame); },
                                   [&session](Frame& frame) { session.input().release(frame); })
{
    if (cuts) {
        m_cutter.emplace(*cuts, session.stage(), reader);
    }
    m_stretch.setKinds(session.plan().video.isWanted(), session.plan().audio.isWanted());
}

long long StageFeed::lengthUs() const
{
    return m_earlierUs + (m_firstUs ? static_cast<long long>(m_endUs - *m_firstUs) : 0);
}

bool StageFeed::goesOn() const
{
    return !m_stop.isRequested() && !m_reader.hasFailed();
}

void StageFeed::run()
{
    beginStretch(m_options.startMs.value_or(0));
    Frame frame;
    while (goesOn()) {
        const bool isMore = m_frames.next(frame) && take(frame);
        if (!isMore && !seekAtEnd()) {
            break;
        }
    }
    if (!m_reader.hasFailed()) {
        m_session.stage().write(new streamer::SimpleSamplePacket); // of the type that ends a stream
    }
}

bool StageFeed::take(Frame& frame)
{
    switch (frame.type) {
    case PacketType::Audio:
    case PacketType::Video:
        return takeMedia(frame);
    case PacketType::Notice:
        m_session.input().release(frame);
        m_session.updateAudio();
        return true;
    default:
        m_session.input().release(frame);
        return true;
    }
}

bool StageFeed::takeMedia(Frame& frame)
{
    const Frame told = frame; // its bytes are not looked at
    PacketOwner packet(new FramePacket(m_session.input(), frame));
    if (!isWanted(told)) {
        return true;
    }
    if (m_stretch.isPastEnd(told)) {
        return !m_stretch.isOver(told);
    }
    count(told);
    if (m_cutter) {
        m_cutter->before(told);
    }
    m_session.stage().write(packet.release());
    if (told.hasTimestamp()) {
        m_progress.update(static_cast<long long>(told.timestampUs));
    }
    if (const SeekRequest* request = m_stretch.takeDueSeek(told)) {
        seekTo(request->targetMs);
    }
    return true;
}

bool StageFeed::isWanted(const Frame& frame)
{
    const Plan& plan = m_session.plan();
    if (frame.type == PacketType::Audio) {
        return plan.audio.isWanted();
    }
    if (!plan.video.isWanted()) {
        leaveOutVideo();
        return false;
    }
    // The set-up of copied video stands in its description already.
    return !plan.video.isCopied() || frame.hasTimestamp();
}

/// Ends video decoding with the first picture. Not earlier: an input holds audio back until video
/// has started.
void StageFeed::leaveOutVideo()
{
    if (!m_videoLeftOut) {
        m_videoLeftOut =
            m_session.input().plugin().setVideoDecodingMode(streamer::DecodingMode::None);
    }
}

void StageFeed::count(const Frame& frame)
{
    (frame.type == PacketType::Video ? m_video : m_audio).add(frame, false);
    if (!frame.hasTimestamp()) {
        return;
    }
    if (!m_firstUs) {
        m_firstUs = frame.timestampUs;
        m_endUs = frame.timestampUs;
    }
    m_endUs = std::max(m_endUs, frame.timestampUs + frame.durationUs);
}

/// A seek that still waits when the medium or the stretch ends is made there.
bool StageFeed::seekAtEnd()
{
    while (goesOn()) {
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

bool StageFeed::seekTo(unsigned long long targetMs)
{
    m_frames.halt();
    const int result = m_session.input().plugin().setTimePosition(targetMs);
    m_seeks.push_back({targetMs, result});
    if (result != streamer::Result::Done) {
        if (m_failure.empty()) {
            m_failure = "Seek to " + formatTime(static_cast<long long>(targetMs) * 1000) +
                        (result == streamer::Result::NotPossible ? " is not possible" : " failed");
        }
        return false;
    }
    m_frames.drop();
    // The stage drops what was not read before the new position; nobody waits for it here, so
    // everything is read first.
    if (!m_reader.passMark(StageReader::Mark::Jump)) {
        return false;
    }
    m_session.stage().resetPosition(targetMs);
    m_earlierUs = lengthUs();
    beginStretch(targetMs);
    return true;
}

void StageFeed::beginStretch(unsigned long long startMs)
{
    m_stretch.begin(startMs);
    m_video.jump();
    m_audio.jump();
    m_firstUs.reset();
    if (m_cutter) {
        m_cutter->restart();
    }
}

} // namespace zel::host
