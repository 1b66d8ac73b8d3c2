#include "host/SegmentCutter.h"

#include "host/HostError.h"
#include "plugin/MetadataPacket.h"

#include <utility>

namespace zel::host {

namespace {

namespace PacketType = streamer::PacketType;

// A stage holds fewer packets than this while it merges audio and video.
constexpr unsigned int MostHeldPackets = 100;
// Longer than any packet of audio, which is how much a segment of it can be too long.
constexpr unsigned long long LongestPacketUs = 2000000;

} // namespace

SegmentCutter::SegmentCutter(CutOptions options, Stage& stage, StageReader& reader)
    : m_options(std::move(options)), m_stage(stage), m_reader(reader)
{
}

void SegmentCutter::before(const Frame& frame)
{
    if (!frame.hasTimestamp()) {
        return;
    }
    if (!m_options.planner) {
        watchAudio(frame);
    } else if (frame.type == PacketType::Video) {
        cutVideo(frame);
    }
}

void SegmentCutter::restart()
{
    if (m_options.planner) {
        m_options.planner->restart();
    }
    m_isAsked = false;
    m_watchedUs.reset();
}

void SegmentCutter::cutVideo(const Frame& frame)
{
    const auto atUs = m_options.planner->plan(frame.timestampUs, frame.durationUs, frame.keyFrame);
    if (m_isAsked && ++m_sinceAsked > MostHeldPackets && !isFinished()) {
        fail();
    }
    if (!atUs) {
        return;
    }
    if (m_isAsked && !isFinished()) {
        m_options.planner->postpone();
        return;
    }
    m_isAsked = true;
    m_sinceAsked = 0;
    m_finished = m_options.finished();
    auto* packet = new streamer::MetadataPacket("ACTION", "START_NEW_SEGMENT");
    packet->setTimestamp(*atUs);
    m_stage.write(packet);
}

/// A segment of audio is finished by the first packet behind its length.
void SegmentCutter::watchAudio(const Frame& frame)
{
    const unsigned long long longestUs = m_options.clipMs * 1000 + LongestPacketUs;
    if (!m_watchedUs || frame.timestampUs < *m_watchedUs) {
        m_watchedUs = frame.timestampUs;
        m_finished = m_options.finished();
    }
    if (frame.timestampUs - *m_watchedUs < longestUs) {
        return;
    }
    if (!isFinished()) {
        fail();
    }
    m_watchedUs.reset();
}

/// True when a segment was finished since it was last noted how many there are.
bool SegmentCutter::isFinished()
{
    // What the stage gave out may still wait for the reader.
    if (m_options.finished() == m_finished && !m_reader.passMark(StageReader::Mark::Sync)) {
        return true; // reading ended, and tells why by itself
    }
    m_isAsked = m_isAsked && m_options.finished() == m_finished;
    return m_options.finished() != m_finished;
}

void SegmentCutter::fail() const
{
    throw HostError(m_options.folder +
                    ": the encoder stage makes no more segments; see the library's log");
}

} // namespace zel::host
