#include "input/FFMpegDecoderCore.h"

#include "common/utils/CBBLog.h"

extern "C" {
#include <libavutil/mathematics.h>
}

bool FFMpegDecoderCore::setPosition(unsigned long long ms)
{
    const Turn turn(*this);
    if (!m_formatContext || !m_reader) {
        return false;
    }
    CBBLog::debug("FFMpegDecoderCore::setPosition(): %u - duration is %u - file_size is %d",
                  static_cast<unsigned int>(ms), static_cast<unsigned int>(m_duration),
                  static_cast<int>(m_fileSize));
    const unsigned long long targetUs = ms * 1000;
    if (m_localFile) {
        m_reader->markPlace();
    }
    if (!seekMedium(ms, targetUs)) {
        CBBLog::warn("FFMpegDecoderCore::setPosition(): seeking failed, do not reset timestamps");
        if (m_localFile) {
            m_reader->resume();
        }
        return false;
    }
    resetWatchdogs();
    m_streamOffset = targetUs;
    const unsigned long long wholeSeconds = ms / 1000;
    m_frameCounter = static_cast<unsigned long long>(static_cast<double>(wholeSeconds) * m_fps);
    m_nextAudioTimestamp = targetUs;
    flushDecoders();
    return true;
}

/// Moves the demuxer. `ms` becomes 1 where 0 stands for the first byte of a file of known length.
bool FFMpegDecoderCore::seekMedium(unsigned long long& ms, unsigned long long targetUs)
{
    const unsigned long long durationMs = m_duration;
    if (durationMs > 0 && m_fileSize > 0) {
        ms = ms == 0 ? 1 : ms;
        const bool fits = ms <= INT64_MAX && durationMs <= INT64_MAX;
        const int64_t bytepos =
            fits ? av_rescale_rnd(m_fileSize, static_cast<int64_t>(ms),
                                  static_cast<int64_t>(durationMs), AV_ROUND_DOWN)
                 : 0;
        if (bytepos > 0 && m_seekByBytes) {
            CBBLog::debug("FFMpegDecoderCore::setPosition(): av_seek_frame (bytepos = %u, "
                          "flag=AVSEEK_FLAG_BYTE)",
                          static_cast<unsigned int>(bytepos));
            if (seekToByte(bytepos, targetUs) >= 0) {
                return true;
            }
            CBBLog::error("FFMpegDecoderCore::setPosition(): av_seek_frame (bytepos = %u, "
                          "flag=AVSEEK_FLAG_BYTE)",
                          static_cast<unsigned int>(bytepos));
            return false;
        }
    }
    const int64_t ts = timeOf(targetUs);
    if (m_reader->seek(ts, 0) >= 0) {
        return true;
    }
    CBBLog::debug("FFMpegDecoderCore::setPosition(): av_seek_frame (timepos = %d, flag=0) failed!",
                  static_cast<int>(ts));
    CBBLog::debug("FFMpegDecoderCore::setPosition(): trying with flag=AVSEEK_FLAG_ANY");
    if (m_reader->seek(ts, AVSEEK_FLAG_ANY) >= 0) {
        return true;
    }
    CBBLog::debug("FFMpegDecoderCore::setPosition(): av_seek_frame (timepos = %d, "
                  "flag=AVSEEK_FLAG_ANY) failed!",
                  static_cast<int>(ts));
    return false;
}

/// @return below 0 on failure
int FFMpegDecoderCore::seekToByte(int64_t bytepos, unsigned long long targetUs)
{
    if (!m_sourceSeeksByTime) {
        return m_reader->seek(bytepos, AVSEEK_FLAG_BYTE);
    }
    // The demuxer has to know, since it may stand in the middle of a packet, which it would go on
    // with in the new place; and the bytes that it has read ahead are never those of that place.
    m_io->aimAt(bytepos);
    return m_reader->seek(timeOf(targetUs), 0);
}

/// In the medium's own time.
int64_t FFMpegDecoderCore::timeOf(unsigned long long targetUs) const
{
    const int64_t started = m_formatContext->start_time;
    const int64_t start = started == AV_NOPTS_VALUE ? 0 : started;
    return static_cast<int64_t>(static_cast<unsigned long long>(start) + targetUs);
}

void FFMpegDecoderCore::flush(unsigned long long ms)
{
    const Turn turn(*this);
    resetWatchdogs();
    m_streamOffset = ms * 1000;
    flushDecoders();
    CBBLog::debug("FFMpegDecoderCore::flush(): reset to position %u %u %u",
                  static_cast<unsigned int>(ms), static_cast<unsigned int>(m_streamOffset),
                  static_cast<unsigned int>(m_position));
}

/// Forgets the times that the packet path compares with.
void FFMpegDecoderCore::resetWatchdogs()
{
    m_firstAudioTime = AV_NOPTS_VALUE;
    m_prevAudioTime = AV_NOPTS_VALUE;
    m_firstVideoTime = AV_NOPTS_VALUE;
    m_prevVideoTime = AV_NOPTS_VALUE;
    m_lastAudioTimestamp = 0;
    m_audioSeekPending = true;
    m_videoSeekPending = true;
}

void FFMpegDecoderCore::flushDecoders()
{
    if (m_pipeline) {
        m_pipeline->flush();
    }
    m_video.flush();
    if (m_audioCodec && avcodec_is_open(m_audioCodec.get()) != 0) {
        avcodec_flush_buffers(m_audioCodec.get());
    }
}
