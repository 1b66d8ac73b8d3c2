#include "encoder/MpegTSSegmentedMuxer.h"

#include "common/utils/CBBLog.h"
#include "common/utils/CFileTools.h"
#include "common/utils/CRegistry.h"
#include "encoder/FFMpegEncoder.h"
#include "encoder/FFMpegStreamingProfile.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>

using zel::streamer::SamplePacket;
using zel::streamer::SimpleSamplePacket;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr const char* CacheSection = "Software\\Tamrix Labs\\Zel\\ZelStreamer";

} // namespace

MpegTSSegmentedMuxer::MpegTSSegmentedMuxer(FFMpegEncoder* encoder, FFMpegStreamingProfile* profile)
    : BasicMuxer(encoder, profile)
{
    const auto* options = profile->options();
    const char* clipDuration = options != nullptr ? options->get("clipDuration") : nullptr;
    if (clipDuration != nullptr) {
        // A clip without a length would be cut at every packet.
        const int durationMs = std::atoi(clipDuration);
        if (durationMs > 0) {
            m_segmentDuration = static_cast<unsigned long long>(durationMs) * 1000;
        }
        CBBLog::debug("[MpegTSSegmentedMuxer::MpegTSSegmentedMuxer] segmentDuration %llu",
                      m_segmentDuration);
    }
    const auto* video = profile->outputStream()->getVideo();
    const float frameRate = video != nullptr ? static_cast<float>(video->getFrameRate()) : 0.0F;
    if (frameRate > 0.001F) {
        m_frameDuration = static_cast<int>(1000000 / frameRate);
    }
    CBBLog::debug("[MpegTSSegmentedMuxer::MpegTSSegmentedMuxer] frameDuration %d", m_frameDuration);
}

MpegTSSegmentedMuxer::~MpegTSSegmentedMuxer()
{
    closeFile();
}

int MpegTSSegmentedMuxer::getType()
{
    return 1;
}

void MpegTSSegmentedMuxer::setNewSegmentTs(unsigned long long timestamp)
{
    m_nextCutTs = timestamp;
}

int MpegTSSegmentedMuxer::initOutputContext()
{
    const PMutexGuard guard(m_contextLock);
    m_outputContext = getNewContext();
    if (!m_outputContext) {
        return -1;
    }
    return isMultiplexed() ? initIOContext() : 0;
}

int MpegTSSegmentedMuxer::initIOContext()
{
    CStdStr<char> folder = CFileTools::getTmpFolder("ZelStreamCache");
    if (folder.empty()) {
        folder = CFileTools::getTmpFolder();
    }
    m_basePath = folder;
    if (!m_basePath.empty() && m_basePath.back() != '/') {
        m_basePath += '/';
    }
    m_basePath.AppendFormat("%s-%u", "segment", static_cast<unsigned int>(m_profile->sessionID()));
    if (!openFirstTSFile()) {
        CBBLog::error("[MpegTSSegmentedMuxer::initIOContext] : could not open temp file");
        return -1;
    }
    return 0;
}

CStdStr<char> MpegTSSegmentedMuxer::pathOf(unsigned int index) const
{
    CStdStr<char> path;
    path.Format("%s-%u", m_basePath.c_str(), index);
    if (m_profile->fallbackStream()) {
        path.AppendFormat("%s-%u", "-low", static_cast<unsigned int>(m_profile->lowTotalBitrate()));
    }
    path.AppendFormat(".%s", "ts");
    return path;
}

bool MpegTSSegmentedMuxer::openFirstTSFile()
{
    if (!isMultiplexed()) {
        return true;
    }
    m_currentPath = pathOf(0);
    CBBLog::debug("MpegTSSegmentedMuxer::openFirstTSFile %s", m_currentPath.c_str());
    const PMutexGuard guard(m_contextLock);
    if (!m_outputContext) {
        CBBLog::error("[MpegTSSegmentedMuxer::openFirstTSFile] m_outputContext NULL");
        return false;
    }
    return openCurrentPath();
}

bool MpegTSSegmentedMuxer::openNextTSFile()
{
    if (!isMultiplexed()) {
        return true;
    }
    closeFile();
    ++m_segmentIndex;
    m_currentPath = pathOf(m_segmentIndex);
    CBBLog::debug("[MpegTSSegmentedMuxer::openNextTSFile] %s", m_currentPath.c_str());
    const PMutexGuard guard(m_contextLock);
    if (!m_outputContext) {
        return true;
    }
    if (!openCurrentPath()) {
        return false;
    }
    // Each file plays alone: its first packet brings the tables along.
    av_opt_set(m_outputContext->priv_data, "mpegts_flags", "+resend_headers", 0);
    avio_flush(m_outputContext->pb);
    m_segmentFiles.push_back(m_currentPath);
    return true;
}

bool MpegTSSegmentedMuxer::openCurrentPath()
{
    return avio_open(&m_outputContext->pb, m_currentPath.c_str(), AVIO_FLAG_WRITE) >= 0;
}

void MpegTSSegmentedMuxer::closeFile()
{
    const PMutexGuard guard(m_contextLock);
    if (!m_outputContext || m_outputContext->pb == nullptr) {
        return;
    }
    avio_flush(m_outputContext->pb);
    const int writeResult = m_outputContext->pb->error;
    const int closeResult = avio_closep(&m_outputContext->pb);
    if (writeResult < 0 || closeResult < 0) {
        CBBLog::warn("[MpegTSSegmentedMuxer::closeFile] %s is not whole: %d", m_currentPath.c_str(),
                     writeResult < 0 ? writeResult : closeResult);
    }
}

bool MpegTSSegmentedMuxer::writeHeader()
{
    const PMutexGuard guard(m_contextLock);
    if (!m_outputContext || m_outputContext->pb == nullptr || m_headerWritten) {
        return true;
    }
    const int result = beginContainer();
    if (result < 0) {
        CBBLog::warn("avformat_write_header returned %d", result);
        return false;
    }
    return true;
}

int MpegTSSegmentedMuxer::writeTrailer()
{
    const PMutexGuard guard(m_contextLock);
    if (m_headerWritten && m_outputContext && m_outputContext->pb != nullptr) {
        m_headerWritten = false;
        av_write_trailer(m_outputContext.get());
        avio_flush(m_outputContext->pb);
        closeFile();
        pushNotice(0);
    }
    return 1;
}

void MpegTSSegmentedMuxer::close()
{
    writeTrailer();
    closeFile();
    {
        const PMutexGuard guard(m_contextLock);
        m_outputContext.reset();
    }
    int keep = 0;
    const bool isRead =
        CRegistry::getInstance()->ReadSettingImpl(CacheSection, "KeepCacheFiles", keep);
    if (isRead && keep != 0) {
        return;
    }
    removeFiles();
}

void MpegTSSegmentedMuxer::removeFiles()
{
    while (!m_segmentFiles.empty()) {
        CFileTools::DeleteFile(m_segmentFiles.back());
        m_segmentFiles.pop_back();
    }
}

void MpegTSSegmentedMuxer::seekPause()
{
    const PMutexGuard merge(m_muxLock);
    m_resumed.reset(m_resumedFlag);
    CBBLog::debug("[MpegTSSegmentedMuxer::seekPause]");
}

void MpegTSSegmentedMuxer::seekResume(const unsigned long long& position)
{
    CBBLog::debug("[MpegTSSegmentedMuxer::seekResume] pos %llu", position);
    flush();
    const unsigned long long segmentMs = m_segmentDuration / 1000;
    const unsigned long long index = position / segmentMs;
    constexpr unsigned long long HighestIndex = std::numeric_limits<std::uint32_t>::max();
    // At the beginning this wraps, so that the next file has number 0.
    m_segmentIndex = static_cast<unsigned int>(std::min(index, HighestIndex)) - 1U;
    m_segmentStartTs = position * 1000;
    m_firstVideoPts = NoPts;
    m_openNextPending = true;
    m_resumed.signal(m_resumedFlag);
}

void MpegTSSegmentedMuxer::muxSyncedPacket(MuxerPacket* packet)
{
    if (m_openNextPending) {
        m_openNextPending = false;
        if (!openNextTSFile()) {
            CBBLog::error("[MpegTSSegmentedMuxer::muxSyncedPacket] : could not open temp file");
        }
    }
    const PacketType::Enum type = packet->getType();
    const bool isMedia = type == PacketType::Audio || type == PacketType::Video;
    if ((isMedia || m_videoStreamIndex < 0) && !checkTSSegmentation(packet)) {
        packet->release();
        return;
    }
    BasicMuxer::muxSyncedPacket(packet);
}

bool MpegTSSegmentedMuxer::isCutDue(const MuxerPacket& packet)
{
    const unsigned long long timestamp = packet.getTimestamp();
    const bool isVideo = packet.getType() == PacketType::Video;
    (isVideo ? m_lastVideoTs : m_lastAudioTs) = timestamp;
    if (!isMultiplexed()) {
        return false;
    }
    if (m_segmentStartTs == SamplePacket::NoTimestamp) {
        m_segmentStartTs = timestamp;
    }
    if (m_encoder->audioOnly()) {
        m_nextCutTs = m_segmentStartTs + m_segmentDuration;
    } else if (!isVideo) {
        return false;
    }
    return m_nextCutTs != 0 && m_nextCutTs <= timestamp;
}

bool MpegTSSegmentedMuxer::checkTSSegmentation(const MuxerPacket* packet)
{
    if (!isCutDue(*packet)) {
        return true;
    }
    const auto low = [](unsigned long long ts) { return static_cast<std::uint32_t>(ts); };
    const long long difference =
        std::llabs(static_cast<std::int32_t>(low(m_lastVideoTs) - low(m_lastAudioTs)));
    if (difference > 2LL * m_frameDuration) {
        CBBLog::warn("[MpegTSSegmentedMuxer::checkTSSegmentation] audio video diff is too big: %d "
                     "usec.",
                     static_cast<int>(difference));
    }
    const unsigned long long timestamp = packet->getTimestamp();
    const unsigned long long durationUs = timestamp - m_segmentStartTs;
    CBBLog::debug("[MpegTSSegmentedMuxer::checkTSSegmentation] new segment %s  AudioTs %llu  "
                  "VideoTs %llu duration %llu",
                  m_currentPath.c_str(), m_lastAudioTs, m_lastVideoTs, durationUs);
    {
        const PMutexGuard guard(m_contextLock);
        // Without an open file, after one that could not be opened, there is none to announce.
        if (m_outputContext && m_outputContext->pb != nullptr) {
            drainContainer();
            closeFile();
            pushNotice(durationUs);
        }
    }
    if (!openNextTSFile()) {
        CBBLog::error(
            "MpegTSSegmentedMuxer::checkTSSegmentation : could not open next temp file!!!");
        return false;
    }
    m_segmentStartTs = timestamp;
    m_nextCutTs = 0;
    return true;
}

void MpegTSSegmentedMuxer::pushNotice(unsigned long long durationUs)
{
    auto* notice = new SimpleSamplePacket;
    notice->setAndCopy(PacketType::Notice,
                       reinterpret_cast<const unsigned char*>(m_currentPath.data()),
                       static_cast<int>(m_currentPath.size()), m_segmentStartTs, durationUs, true);
    m_encoder->pushPacket(notice);
}
