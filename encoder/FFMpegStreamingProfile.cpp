#include "encoder/FFMpegStreamingProfile.h"

#include "plugin/RTPSamplePackets.h"
#include "plugin/SimpleSamplePacket.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <limits>

using zel::streamer::AMRSamplePacket;
using zel::streamer::MP4AGENSamplePacket;
using zel::streamer::MP4ALATMSamplePacket;
using zel::streamer::SimpleSamplePacket;

namespace {

bool same(const CStdStr<char>& text, const char* word)
{
    return ssicmp(text.c_str(), word) == 0;
}

/// @return a copy, for a setter of the record may free what its getter answered
template <class Record>
CStdStr<char> codecOf(const Record* record)
{
    return record ? CStdStr<char>(record->getCodec()) : CStdStr<char>();
}

enum class Treatment
{
    Encode,
    Copy,
    Refuse
};

/// What happens to one kind of stream.
/// @param input  null when there is no such stream
template <class Record>
Treatment treatmentOf(const Record* input, const Record* requested)
{
    if (!input || same(codecOf(input), "raw")) {
        return Treatment::Encode;
    }
    const bool wanted = same(codecOf(input), codecOf(requested).c_str());
    return wanted ? Treatment::Copy : Treatment::Refuse;
}

int saturated(long long value)
{
    return static_cast<int>(std::clamp<long long>(value, std::numeric_limits<int>::min(),
                                                  std::numeric_limits<int>::max()));
}

/// Reads the option map; an absent key leaves the field alone.
class OptionReader
{
public:
    explicit OptionReader(const zel::streamer::MapGeneric* options) : m_options(options) {}

    const char* text(const char* key) const { return m_options ? m_options->get(key) : nullptr; }

    void read(const char* key, int& field) const
    {
        if (const char* value = text(key)) {
            field = saturated(std::strtoll(value, nullptr, 10));
        }
    }

    void read(const char* key, bool& field) const
    {
        int number = field ? 1 : 0;
        read(key, number);
        field = number != 0;
    }

    void read(const char* key, float& field) const
    {
        if (const char* value = text(key)) {
            constexpr double limit = std::numeric_limits<float>::max();
            field = static_cast<float>(std::clamp(std::strtod(value, nullptr), -limit, limit));
        }
    }

    /// A value out of range counts as not set. So does one that is no number at all.
    template <class Number>
    void readWithin(const char* key, Number least, Number most, Number& field) const
    {
        read(key, field);
        if (!(field >= least && field <= most)) {
            field = Number();
        }
    }

private:
    const zel::streamer::MapGeneric* m_options;
};

struct MotionEstimationRow
{
    const char* name;
    int id; ///< as the encoders number their methods
};

constexpr int defaultMotionEstimation = 5;

constexpr MotionEstimationRow motionEstimations[] = {
    {"default", defaultMotionEstimation},
    {"ZERO", 1},
    {"FULL", 2},
    {"LOG", 3},
    {"PHODS", 4},
    {"EPZS", 5},
    {"HEX", 7},
    {"UMH", 8},
    {"ITER", 9},
    {"TESA", 10},
};

int motionEstimationId(const char* name)
{
    const auto* row = std::find_if(
        std::begin(motionEstimations), std::end(motionEstimations),
        [name](const MotionEstimationRow& known) { return ssicmp(name, known.name) == 0; });
    return row == std::end(motionEstimations) ? defaultMotionEstimation : row->id;
}

constexpr int unchanged = 0;

/// One combination that players and encoders are known to take.
struct AudioRow
{
    int least; ///< bits per second; the first row whose value is reached is taken
    int bitrate;
    int channels;
    int sampleRate;
    int aacSampleRate;
    int aacRTPBitrate;
};

constexpr AudioRow audioLadder[] = {
    {320000, 320000, 2, unchanged, 44100, unchanged},
    {192000, 192000, 2, unchanged, 44100, unchanged},
    {160000, 160000, 2, unchanged, 44100, unchanged},
    {128000, 128000, 2, unchanged, 44100, 120000},
    {96000, 96000, 2, unchanged, 44100, 90000},
    {80000, 80000, 2, unchanged, 44100, 76000},
    {64000, 64000, 2, unchanged, 44100, 58000},
    {40000, 40000, 2, 32000, unchanged, 36000},
    {32000, 32000, 1, 44100, 16000, 30000},
    {20000, 20000, 1, 44100, 16000, 18000},
    {16000, 16000, 1, 16000, 16000, 14000},
    {12000, 12000, 1, 16000, 16000, 10000},
    {std::numeric_limits<int>::min(), 8000, 1, 8000, unchanged, unchanged},
};

/// AAC gains nothing audible above it.
constexpr int aacMaxBitrate = 192000;

/// What an audio encoder is set to.
struct AudioValues
{
    int bitrate; ///< bits per second
    int channels;
    int sampleRate; ///< hertz

    void takeFromLadder(bool aac, bool rtp)
    {
        const AudioRow& row =
            *std::find_if(std::begin(audioLadder), std::end(audioLadder),
                          [this](const AudioRow& step) { return bitrate >= step.least; });
        bitrate = row.bitrate;
        channels = row.channels;
        takeSampleRate(row.sampleRate);
        if (!aac) {
            return;
        }
        takeSampleRate(row.aacSampleRate);
        if (rtp && row.aacRTPBitrate != unchanged) {
            bitrate = row.aacRTPBitrate;
        }
        bitrate = std::min(bitrate, aacMaxBitrate);
    }

    void takeSampleRate(int rate)
    {
        if (rate != unchanged) {
            sampleRate = rate;
        }
    }
};

/// A whole number, so that rates which differ by rounding alone count as one.
double milliFrames(const zel::streamer::VideoPacketDescription& video)
{
    return std::trunc(video.getFrameRate() * 1000.0);
}

} // namespace

FFMpegStreamingProfile*
FFMpegStreamingProfile::createProfile(const MapGeneric* options, const MediumDescription* medium,
                                      const InputStreamDescription* input,
                                      const RequestedStreamDescription* requested)
{
    if (!input || !requested) {
        return nullptr;
    }
    const Treatment video = treatmentOf<VideoPacketDescription>(
        input->hasVideo() ? input->getVideo() : nullptr, requested->getVideo());
    if (video == Treatment::Refuse) {
        return nullptr;
    }
    const Treatment audio = treatmentOf<AudioPacketDescription>(
        input->hasAudio() ? input->getAudio() : nullptr, requested->getAudio());
    if (audio == Treatment::Refuse) {
        return nullptr;
    }
    OutputStreamDescription* inputStream = input->getStreamDescription();
    OutputStreamDescription* outputStream = requested->getOutputDescription();
    if (!inputStream || !outputStream) {
        return nullptr;
    }
    return new FFMpegStreamingProfile(options, medium, inputStream, outputStream,
                                      audio == Treatment::Copy, video == Treatment::Copy);
}

const char* FFMpegStreamingProfile::zelCodecToFFMpegCodec(const CStdStr<char>& name,
                                                          bool forDecoder)
{
    return zel::streamer::zelCodecToFFMpegCodec(name, forDecoder);
}

const char* FFMpegStreamingProfile::zelCodecToFFMpegCodec(const char* name, bool forDecoder)
{
    return zel::streamer::zelCodecToFFMpegCodec(name, forDecoder);
}

const char* FFMpegStreamingProfile::FFMpegCodecToZelCodec(const CStdStr<char>& name)
{
    return zel::streamer::FFMpegCodecToZelCodec(name);
}

const char* FFMpegStreamingProfile::FFMpegCodecToZelCodec(const char* name)
{
    return zel::streamer::FFMpegCodecToZelCodec(name);
}

const char* FFMpegStreamingProfile::FFMpegFormatToZelFormat(const CStdStr<char>& name)
{
    return zel::streamer::FFMpegFormatToZelFormat(name);
}

const char* FFMpegStreamingProfile::FFMpegFormatToZelFormat(const char* name)
{
    return zel::streamer::FFMpegFormatToZelFormat(name);
}

AVPixelFormat FFMpegStreamingProfile::zelToFFmpegPixelFormat(VideoPixelFormat format)
{
    return zel::streamer::zelToFFmpegPixelFormat(format);
}

FFMpegStreamingProfile::VideoPixelFormat
FFMpegStreamingProfile::FFmpegToZelPixelFormat(AVPixelFormat format)
{
    return zel::streamer::FFmpegToZelPixelFormat(format);
}

int FFMpegStreamingProfile::getBitsPerPixels(VideoPixelFormat format)
{
    return zel::streamer::getBitsPerPixels(format);
}

FFMpegStreamingProfile::FFMpegStreamingProfile(const MapGeneric* options,
                                               const MediumDescription* medium,
                                               OutputStreamDescription* inputStream,
                                               OutputStreamDescription* outputStream,
                                               bool audioPassthrough, bool videoPassthrough)
    : m_options(options), m_medium(medium), m_inputStream(inputStream),
      m_outputStream(outputStream), m_audioPassthrough(audioPassthrough),
      m_videoPassthrough(videoPassthrough)
{
    init();
}

SimpleSamplePacket* FFMpegStreamingProfile::getSamplePacket(PacketType type) const
{
    if (type != zel::streamer::PacketType::Audio) {
        return new SimpleSamplePacket();
    }
    const CStdStr<char> codec = audioCodec();
    if (same(codec, "libopencore_amrwb") || same(codec, "libopencore_amrnb")) {
        return new AMRSamplePacket();
    }
    if (!same(codec, "aac")) {
        return new SimpleSamplePacket();
    }
    if (m_audioUseLATM) {
        return new MP4ALATMSamplePacket();
    }
    return new MP4AGENSamplePacket();
}

void FFMpegStreamingProfile::setAudioFormatConfig(const char* hex)
{
    const CStdStr<char> text(hex);
    if (AudioPacketDescription* audio = m_outputStream->getAudio()) {
        audio->setCodecPrivateData(text.c_str());
    }
}

void FFMpegStreamingProfile::setVideoFormatConfig(const char* hex)
{
    const CStdStr<char> text(hex);
    if (VideoPacketDescription* video = m_outputStream->getVideo()) {
        video->setCodecPrivateData(text.c_str());
    }
}

void FFMpegStreamingProfile::init()
{
    readOptions();
    fixCodecNames();
    adjustAudioEncoderValues();
    adjustVideoEncoderValues();

    int lowVideoBitrate = 0;
    if (m_fallbackStream) {
        OptionReader(m_options).read("lowVideoBitrate", lowVideoBitrate);
    }
    const AudioPacketDescription* audio = m_outputStream->getAudio();
    const long long audioBitrate = audio ? audio->getBitrate() : 0;
    m_lowTotalBitrate = saturated(lowVideoBitrate + audioBitrate);
}

void FFMpegStreamingProfile::readOptions()
{
    const OptionReader options(m_options);
    options.read("audioUseLATM", m_audioUseLATM);
    options.read("fallbackStream", m_fallbackStream);
    options.read("sessionID", m_sessionID);
    readEncoderOptions();
    options.read("encoderPreload", m_preload);
    m_maxDelay = same(format(), "flv") ? 0.5F : 1.0F;
    options.read("encoderMaxDelay", m_maxDelay);
    options.read("videoBitrateTolerance", m_videoBitrateTolerance);
    options.read("audioBitrateTolerance", m_audioBitrateTolerance);
    options.read("useConstantBitrate", m_useConstantBitrate);
    if (m_outputStream->hasVideo()) {
        options.read("videoAudioBitrateTolerance", m_audioBitrateTolerance);
    }
}

void FFMpegStreamingProfile::readEncoderOptions()
{
    const OptionReader options(m_options);
    options.readWithin("encoderQMin", 1, 31, m_qMin);
    options.readWithin("encoderQMax", 1, 31, m_qMax);
    options.readWithin("encoderQDiffMax", 3, 31, m_qDiffMax);
    options.readWithin("encoderQCompress", 0.0F, 1.0F, m_qCompress);
    options.readWithin("encoderQBlur", 0.0F, 1.0F, m_qBlur);
    if (const char* method = options.text("encoderMotionEstimationMethod")) {
        m_motionEstimationMethod = motionEstimationId(method);
    }
}

void FFMpegStreamingProfile::fixCodecNames()
{
    setAudioCodec(zelCodecToFFMpegCodec(audioCodec(), false));
    setVideoCodec(zelCodecToFFMpegCodec(videoCodec(), false));

    if (same(format(), "mkv")) {
        m_outputStream->setFormat("matroska");
    }
    if (!m_outputStream->hasVideo() && same(format(), "mpeg") && same(audioCodec(), "libmp3lame")) {
        m_outputStream->setFormat("mp3");
        setVideoCodec("none");
    }
    if (same(format(), "mpeg")) {
        setAudioCodec("mp2");
        setVideoCodec("mpeg1video");
    }
    if (same(videoCodec(), "mpeg2video") && !m_outputStream->hasVideo()) {
        setAudioCodec("mp2");
    }
    if (same(format(), "bdlive")) {
        m_outputStream->setFormat("mpegts");
    }
}

void FFMpegStreamingProfile::adjustAudioEncoderValues()
{
    AudioPacketDescription* audio = m_outputStream->getAudio();
    if (m_audioPassthrough || !audio) {
        return;
    }
    const AudioValues asked{audio->getBitrate(), audio->getChannels(), audio->getSampleRate()};
    const CStdStr<char> codec = audioCodec();
    const CStdStr<char> container = format();
    AudioValues values = asked;
    values.takeFromLadder(same(codec, "aac"), m_outputStream->isRTP());

    // lame goes no lower at a rate that players take.
    if (same(codec, "libmp3lame") && values.bitrate < 16000) {
        values = {16000, 1, 22050};
    }
    if (same(container, "flv") || same(container, "fla")) {
        const bool playable = values.sampleRate == 11025 || values.sampleRate == 22050;
        values.sampleRate = playable ? values.sampleRate : 44100;
    }
    if (same(container, "dvd") || same(container, "mpegts")) {
        values.sampleRate = 48000;
        values.channels = 2;
    }
    // What was asked for beats every rule above.
    values.channels = asked.channels > 0 ? asked.channels : values.channels;
    values.sampleRate = asked.sampleRate > 0 ? asked.sampleRate : values.sampleRate;

    audio->setBitrate(values.bitrate);
    audio->setChannels(values.channels);
    audio->setSampleRate(values.sampleRate);
}

void FFMpegStreamingProfile::adjustVideoEncoderValues()
{
    VideoPacketDescription* video = m_outputStream->getVideo();
    if (m_videoPassthrough || !video) {
        return;
    }
    // Kept: these two run at 24 frames per second, whatever was asked for; hosts count on it.
    if (same(videoCodec(), "mpeg1video") || same(videoCodec(), "mpeg2video")) {
        video->setFrameRate(24.0);
    }
    const VideoPacketDescription* input = m_inputStream->getVideo();
    if (m_outputStream->hasVideo() && input) {
        m_sameFrameRate = milliFrames(*input) == milliFrames(*video);
    }
}

CStdStr<char> FFMpegStreamingProfile::format() const
{
    return CStdStr<char>(m_outputStream->getFormat());
}

CStdStr<char> FFMpegStreamingProfile::audioCodec() const
{
    return codecOf(m_outputStream->getAudio());
}

CStdStr<char> FFMpegStreamingProfile::videoCodec() const
{
    return codecOf(m_outputStream->getVideo());
}

/// A record may take the writing of a codec for the presence of a stream, so a name that is right
/// already is not written again.
void FFMpegStreamingProfile::setAudioCodec(const char* name)
{
    AudioPacketDescription* audio = m_outputStream->getAudio();
    if (audio && audioCodec() != name) {
        audio->setCodec(name);
    }
}

void FFMpegStreamingProfile::setVideoCodec(const char* name)
{
    VideoPacketDescription* video = m_outputStream->getVideo();
    if (video && videoCodec() != name) {
        video->setCodec(name);
    }
}
