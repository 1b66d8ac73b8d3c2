#include "input/FFMpegDecoderCore.h"

#include "common/utils/CBBLog.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/intreadwrite.h>
#include <libavutil/log.h>
#include <libavutil/mathematics.h>
}

#include <sys/stat.h>

#include <algorithm>
#include <mutex>

namespace {

constexpr int IoBufferBytes = 9400; // fifty transport stream packets
constexpr int LiveCameraAnalyzeUs = 3000000;

bool contains(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

bool startsWith(const std::string& text, const char* start)
{
    return text.rfind(start, 0) == 0;
}

/// Keeps FFmpeg's lines beyond the debug level out, and one caller at a time in the log callback.
void logTrampoline(void* avcl, int level, const char* format, va_list arguments)
{
    if (level > AV_LOG_DEBUG || !CBBLog::isDebugEnabled()) {
        return;
    }
    static std::mutex s_mutex;
    const std::lock_guard guard(s_mutex);
    ffdecoder_log_callback(avcl, level, format, arguments);
}

} // namespace

void FFMpegDecoderCore::init()
{
    s_interruptFFMpeg = 0;
    av_log_set_level(AV_LOG_DEBUG);
    av_log_set_callback(&logTrampoline);
    m_sendExtradata = false;
}

int FFMpegDecoderCore::isInterrupted(void* core)
{
    return static_cast<FFMpegDecoderCore*>(core)->m_interrupted ? 1 : 0;
}

zel::av::FormatContext FFMpegDecoderCore::makeFormatContext()
{
    zel::av::FormatContext context(avformat_alloc_context());
    if (context) {
        context->interrupt_callback = {&isInterrupted, this};
    }
    return context;
}

bool FFMpegDecoderCore::isLocalFile(const char* path) const
{
    struct stat status = {};
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

int FFMpegDecoderCore::initWithUrl(const CStdStr<char>& url, const CStdStr<char>& format)
{
    const Turn turn(*this);
    init();
    CBBLog::debug("FFMpegDecoderCore::init : %s", url.c_str());
    m_format = format;
    const bool isCamera = ssicmp(format.c_str(), "cgi") == 0;
    const AVInputFormat* forced = nullptr;
    if (isCamera || ssicmp(format.c_str(), "mjpeg") == 0) {
        forced = av_find_input_format("mjpeg");
    }
    int result = openUrlWithFallbacks(url, forced);
    if (result < 0) {
        CBBLog::debug("FFMpegDecoderCore::init : av_open_input_file %s failed %d", url.c_str(),
                      result);
        return result;
    }
    m_demuxing = true;
    m_openedFromUrl = true;
    m_localFile = isLocalFile(url.c_str());
    if (isCamera) {
        m_formatContext->max_analyze_duration = LiveCameraAnalyzeUs;
    }
    result = avformat_find_stream_info(m_formatContext.get(), nullptr);
    if (result < 0) {
        CBBLog::debug("FFMpegDecoderCore::init : av_find_stream_info %s failed %d", url.c_str(),
                      result);
        m_formatContext.reset();
        return result;
    }
    rememberFileSize();
    computeDuration();
    return initFormatStreams();
}

/// Tries the protocols that a URL may mean. On failure nothing is open.
int FFMpegDecoderCore::openUrlWithFallbacks(const CStdStr<char>& url, const AVInputFormat* format)
{
    CStdStr<char> attempt = url;
    const bool isMms = startsWith(attempt, "mms://");
    if (isMms) {
        CBBLog::warn("FFMpegDecoderCore::initWithUrl - mms protocol, replacing by mmst");
        attempt.Replace("mms://", "mmst://");
    }
    int result = openUrl(attempt, format);
    if (result < 0 && isMms) {
        CBBLog::warn("FFMpegDecoderCore::initWithUrl - mms protocol, replacing by mmsh");
        attempt.Replace("mmst://", "mmsh://");
        result = openUrl(attempt, format);
    }
    if (result < 0 && startsWith(attempt, "http://")) {
        CBBLog::warn("FFMpegDecoderCore::initWithUrl - http protocol, replacing by mmsh");
        attempt.Replace("http://", "mmsh://");
        result = openUrl(attempt, format);
    }
    return result;
}

int FFMpegDecoderCore::openUrl(const CStdStr<char>& url, const AVInputFormat* format)
{
    // A failed open frees the context, so each attempt has its own.
    AVFormatContext* context = makeFormatContext().release();
    if (context == nullptr) {
        return AVERROR(ENOMEM);
    }
    const int result = avformat_open_input(&context, url.c_str(), format, nullptr);
    m_formatContext.reset(result < 0 ? nullptr : context);
    return result;
}

int FFMpegDecoderCore::initWithTransportStream(const char* url, const char* format,
                                               int (*read)(void*, unsigned char*, int),
                                               long long (*seek)(void*, long long, int),
                                               void* opaque)
{
    const Turn turn(*this);
    init();
    const CStdStr<char> name(url);
    const CStdStr<char> hint(format);
    CBBLog::debug("FFMpegDecoderCore::initWithTransportStream : %s", name.c_str());
    const AVInputFormat* demuxer = av_find_input_format(hint.c_str());
    if (demuxer == nullptr) {
        demuxer = av_find_input_format("mpegts");
    }
    if (demuxer == nullptr) {
        CBBLog::warn("FFMpegDecoderCore::initWithTransportStream NULL fmt");
        return -1;
    }
    CBBLog::debug("FFMpegDecoderCore::initWithTransportStream : av_find_input_format %s",
                  demuxer->name != nullptr ? demuxer->name : "(null)");
    m_io = std::make_unique<zel::av::ByteSourceIO>(read, seek, opaque, IoBufferBytes);
    zel::av::FormatContext context = makeFormatContext();
    if (m_io->context() == nullptr || !context) {
        m_io.reset();
        return -1;
    }
    context->pb = m_io->context();
    // Only for the open itself: left set, reading of the first packets would hang on it.
    context->pb->error = AVERROR(EAGAIN);
    AVFormatContext* raw = context.release();
    int result = avformat_open_input(&raw, name.c_str(), demuxer, nullptr);
    if (result < 0) {
        CBBLog::debug("FFMpegDecoderCore::initWithTransportStream : av_open_input_stream failed %d",
                      result);
        m_io.reset();
        return result;
    }
    m_formatContext.reset(raw);
    m_io->context()->error = 0;
    m_demuxing = true;
    m_openedFromStream = true;
    applyStreamFormatRules(hint, name);
    result = avformat_find_stream_info(m_formatContext.get(), nullptr);
    if (result < 0) {
        CBBLog::debug("FFMpegDecoderCore::initWithTransportStream : av_find_stream_info failed %d",
                      result);
        m_formatContext.reset();
        CBBLog::debug("FFMpegDecoderCore::initWithTransportStream : av_close_input_stream_done");
        m_io.reset();
        return result;
    }
    rememberFileSize();
    computeDuration();
    return initFormatStreams();
}

/// What a byte source of a format can do.
void FFMpegDecoderCore::applyStreamFormatRules(const CStdStr<char>& format,
                                               const CStdStr<char>& url)
{
    m_seekable = false;
    m_byteSeekable = true;
    if (contains(format, "mp3")) {
        m_seekable = true;
        m_seekByBytes = true;
        m_generateTimestamps = true;
    }
    if (contains(format, "matroska")) {
        m_seekable = true;
    }
    if (contains(format, "asf")) {
        m_seekable = true;
        m_seekByBytes = true;
        m_generateTimestamps = true;
        m_byteSeekable = false;
        if (startsWith(url, "http://") || startsWith(url, "https://") ||
            startsWith(url, "mmsh://")) {
            m_formatContext->max_analyze_duration = 1;
        }
        if (m_sourceSeeksByTime) {
            // Nothing but the header has been read by now.
            m_io->seekByTime(avio_tell(m_io->context()));
        }
    }
}

/// Asked once, since on a network source each question may be a request.
void FFMpegDecoderCore::rememberFileSize()
{
    const int64_t size = m_formatContext->pb != nullptr ? avio_size(m_formatContext->pb) : 0;
    m_fileSize = std::max<int64_t>(0, size);
}

void FFMpegDecoderCore::computeDuration()
{
    const char* demuxer = m_formatContext->iformat->name;
    if (m_formatContext->duration != AV_NOPTS_VALUE) {
        CBBLog::debug("FFMpegDecoderCore::computeDuration : m_formatContext->duration %d",
                      static_cast<int>(m_formatContext->duration));
        m_duration = static_cast<unsigned long long>(m_formatContext->duration / 1000);
    } else if (ssicmp(demuxer, "flac") != 0) {
        computeStreamDurations();
    } else {
        computeFlacDuration();
    }
    if (ssicmp(demuxer, "nsv") == 0) {
        CBBLog::info("FFMpegDecoderCore::computeDuration : nsv files are non seekable for now");
        m_seekable = false;
    }
    CBBLog::debug("FFMpegDecoderCore::computeDuration(): duration is %llu  startTime %llu",
                  m_duration.load(), static_cast<unsigned long long>(m_formatContext->start_time));
}

void FFMpegDecoderCore::computeStreamDurations()
{
    for (unsigned int i = 0; i < m_formatContext->nb_streams; ++i) {
        const AVStream* stream = m_formatContext->streams[i];
        const AVMediaType type = stream->codecpar->codec_type;
        if ((type != AVMEDIA_TYPE_AUDIO && type != AVMEDIA_TYPE_VIDEO) ||
            stream->duration == AV_NOPTS_VALUE || stream->time_base.num <= 0 ||
            stream->time_base.den <= 0) {
            continue;
        }
        CBBLog::debug("FFMpegDecoderCore::computeDuration : m_formatContext->streams[i]->duration "
                      "%d %d %d",
                      static_cast<int>(m_formatContext->duration), stream->time_base.den,
                      stream->time_base.num);
        // Kept: seconds divided by 1000. It stays near 0 and so marks such media as live,
        // which is how hosts treat streams that no container gives a length for.
        const int64_t seconds = av_rescale_rnd(stream->duration, stream->time_base.num,
                                               stream->time_base.den, AV_ROUND_ZERO);
        const auto candidate = static_cast<unsigned long long>(seconds) / 1000;
        m_duration = std::max(m_duration.load(), candidate);
    }
}

/// A flac medium whose header tells no length: the demuxer has eaten the header, but its
/// STREAMINFO block is the decoder's set-up.
void FFMpegDecoderCore::computeFlacDuration()
{
    constexpr int UsedStreamInfoBytes = 18;
    m_seekByBytes = true;
    if (m_formatContext->nb_streams == 0) {
        return;
    }
    const AVCodecParameters* codec = m_formatContext->streams[0]->codecpar;
    unsigned long long samples = 0;
    if (codec->extradata != nullptr && codec->extradata_size >= UsedStreamInfoBytes) {
        m_ignorePacketTime = true;
        m_seekable = false;
        samples = static_cast<unsigned long long>(
            static_cast<long long>(static_cast<int32_t>(AV_RB32(codec->extradata + 14))));
        // Kept: the byte before the count acts as a flag, not as its high bits.
        if (codec->extradata[13] != 0) {
            samples = (samples & 0xffffffffULL) | (1ULL << 32);
        }
    }
    if (codec->codec_type == AVMEDIA_TYPE_AUDIO && codec->sample_rate > 0) {
        m_duration =
            static_cast<unsigned long long>(static_cast<long long>(samples) / codec->sample_rate) *
            1000;
    }
}
