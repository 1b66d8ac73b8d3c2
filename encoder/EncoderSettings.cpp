#include "encoder/EncoderSettings.h"

#include "common/ffmpeg/PictureSlices.h"
#include "common/utils/CBBLog.h"
#include "common/utils/StdString.h"
#include "encoder/FFMpegStreamingProfile.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <iterator>

using zel::streamer::AudioPacketDescription;
using zel::streamer::MapGeneric;
using zel::streamer::OutputStreamDescription;
using zel::streamer::VideoPacketDescription;

namespace {

/// The total rate at which a fallback stream also gets a smaller picture.
constexpr int SmallPictureTotalBitrate = 64000;

constexpr int MotionEstimationZero = 1;

/// The encoder's rates of a narrow-band and a wide-band AMR stream, highest first.
constexpr int AmrNarrowRates[] = {12200, 10200, 7950, 7400, 6700, 5900, 5150, 4750};
constexpr int AmrWideRates[] = {23850, 23050, 19850, 18250, 15850, 14250, 12650, 8850, 6600};

/// A double that may exceed an int, or be no number at all.
int clampedInt(double value)
{
    if (!(value > static_cast<double>(INT_MIN))) {
        return INT_MIN;
    }
    return value >= static_cast<double>(INT_MAX) ? INT_MAX : static_cast<int>(value);
}

/// The integer part in whole macroblocks; no picture is wider than the greatest that exist.
int roundedUpTo16(double pixels)
{
    return (static_cast<int>(std::min(pixels, 16384.0)) + 15) / 16 * 16;
}

/// Kept: a rate that is asked for exactly is not "below the request", so 12200 gives 10200.
template <std::size_t Count>
int highestRateBelow(const int (&rates)[Count], int request)
{
    const int* rate = std::find_if(std::begin(rates), std::end(rates),
                                   [request](int candidate) { return candidate < request; });
    return rate != std::end(rates) ? *rate : rates[Count - 1];
}

/// Fits the picture of the smallest fallback stream around 160 x 120, whole macroblocks.
void shrinkPicture(VideoEncoderSettings& settings)
{
    if (settings.width <= 0 || settings.height <= 0) {
        return;
    }
    const double aspect = static_cast<double>(settings.width) / settings.height;
    settings.width = 160;
    settings.height = 120;
    if (aspect <= 1.0) {
        settings.height = roundedUpTo16(160 / aspect);
    } else {
        settings.width = roundedUpTo16(120 * aspect);
    }
}

void settleRate(const FFMpegStreamingProfile& profile, const OutputStreamDescription& output,
                bool fallback, VideoEncoderSettings& settings)
{
    const VideoPacketDescription& video = *output.getVideo();
    const int wholeKiloBits = video.getBitrate() / 1000;
    double kiloBits = wholeKiloBits;
    if (output.isRTP()) {
        kiloBits *= 0.9;
    }
    settings.bitRate = clampedInt(static_cast<double>(clampedInt(kiloBits)) * 1000);
    if (!fallback) {
        settings.bitRateTolerance = profile.videoBitrateTolerance();
    }
    const double bitsAFrame = settings.bitRate * av_q2d(settings.timeBase);
    if (settings.bitRateTolerance < bitsAFrame) {
        settings.bitRateTolerance = clampedInt(bitsAFrame + 1.0);
    }
    if (profile.useConstantBitrate()) {
        settings.rcMaxRate = settings.bitRate;
        settings.rcMinRate = settings.bitRate;
        settings.rcBufferSize =
            clampedInt((static_cast<double>(settings.bitRate) + settings.bitRateTolerance) *
                       video.getFrameRate() * 10.0);
    }
}

template <class T>
T valueOr(T wanted, T otherwise)
{
    return wanted != T{} ? wanted : otherwise;
}

/// Sets a private option of the encoder where it has one of this name.
void setPrivate(AVCodecContext& context, const char* name, long long value)
{
    if (context.codec != nullptr && context.codec->priv_class != nullptr) {
        av_opt_set_int(context.priv_data, name, value, 0);
    }
}

} // namespace

VideoEncoderSettings adjustVideoCodecValues(const FFMpegStreamingProfile& profile, bool fallback)
{
    const OutputStreamDescription& output = *profile.outputStream();
    const VideoPacketDescription& wanted = *output.getVideo();
    const VideoPacketDescription& source = *profile.inputStream()->getVideo();
    const double frameRate = wanted.getFrameRate();
    VideoEncoderSettings settings;
    settings.width = source.getWidth();
    settings.height = source.getHeight();
    if (fallback && profile.lowTotalBitrate() == SmallPictureTotalBitrate) {
        shrinkPicture(settings);
    }
    if (frameRate > 0.0) {
        settings.timeBase = av_d2q(1.0 / frameRate, 10001);
    }
    settleRate(profile, output, fallback, settings);
    settings.hasBFrames = 1;
    settings.qMin = valueOr(profile.qMin(), 2);
    settings.qMax = valueOr(profile.qMax(), 31);
    settings.maxQDiff = valueOr(profile.qDiffMax(), 3);
    settings.qCompress = valueOr(profile.qCompress(), 0.6F);
    settings.qBlur = valueOr(profile.qBlur(), 0.5F);
    // One key frame each second.
    settings.gopSize = clampedInt(std::ceil(frameRate));
    if (ssicmp(wanted.getCodec(), "h264Empty") == 0) {
        getH264Parameters(profile, settings);
    }
    if (fallback) {
        settings.crf = 90.0F;
        settings.mbDecision = 2;
    } else {
        settings.mbDecision = 1;
    }
    if (profile.motionEstimationMethod() > 0) {
        settings.meMethod = profile.motionEstimationMethod();
    }
    if (ssicmp(output.getFormat(), "mpegts") != 0) {
        settings.flags |= GlobalHeaderFlag;
    }
    settings.rtpPayloadSize = output.isRTP() ? output.getRTPPacketSize() : 0;
    return settings;
}

void getH264Parameters(const FFMpegStreamingProfile& profile, VideoEncoderSettings& settings)
{
    const MapGeneric* options = profile.options();
    const auto integer = [options](const char* key, int otherwise) {
        const char* text = options != nullptr ? options->get(key) : nullptr;
        return text != nullptr ? std::atoi(text) : otherwise;
    };
    constexpr int I4x4P8x8B8x8 = 0x111;
    settings.flags2 |= BPyramidFlag;
    settings.flags |= LoopFilterFlag;
    settings.partitions = static_cast<unsigned int>(integer("partitions", I4x4P8x8B8x8));
    settings.gopSize = integer("gopSize", settings.gopSize);
    settings.keyIntMin = integer("keyIntMin", 25);
    settings.refs = integer("refs", 1);
    settings.meRange = integer("motionEstimationRange", 12);
    settings.meSubpelQuality = integer("motionEstimationQuality", 5);
    const char* rateFactor = options != nullptr ? options->get("constantRateFactor") : nullptr;
    settings.crf = rateFactor != nullptr ? static_cast<float>(std::atof(rateFactor)) : 25.0F;
    settings.trellis = 0;
    if (profile.qMin() == 0) {
        settings.qMin = 3;
    }
    if (profile.qMax() == 0) {
        settings.qMax = 30;
    }
    if (profile.qDiffMax() == 0) {
        settings.maxQDiff = 4;
    }
    if (profile.qCompress() == 0.0F) {
        settings.qCompress = 0.6F;
    }
}

AudioEncoderSettings adjustAudioCodecValues(const FFMpegStreamingProfile& profile, AVCodecID codec)
{
    const OutputStreamDescription& output = *profile.outputStream();
    const AudioPacketDescription& wanted = *output.getAudio();
    AudioEncoderSettings settings;
    settings.bitRate = wanted.getBitrate();
    settings.bitRateTolerance = profile.audioBitrateTolerance();
    settings.sampleRate = wanted.getSampleRate();
    if (settings.sampleRate == 0) {
        settings.sampleRate = profile.inputStream()->getAudio()->getSampleRate();
    }
    settings.channels = wanted.getChannels();
    if (profile.useConstantBitrate()) {
        settings.rcMaxRate = settings.bitRate;
        settings.rcMinRate = settings.bitRate;
        settings.rcBufferSize = settings.bitRate;
    }
    settings.flags = GlobalHeaderFlag;
    settings.rtpPayloadSize = output.isRTP() ? output.getRTPPacketSize() : 0;
    if (codec == AV_CODEC_ID_AMR_NB) {
        settings.sampleRate = 8000;
        settings.channels = 1;
        settings.bitRate = highestRateBelow(AmrNarrowRates, settings.bitRate);
    } else if (codec == AV_CODEC_ID_AMR_WB) {
        settings.sampleRate = 16000;
        settings.channels = 1;
        settings.bitRate = highestRateBelow(AmrWideRates, settings.bitRate);
    }
    return settings;
}

void VideoEncoderSettings::applyTo(AVCodecContext& context) const
{
    context.width = width;
    context.height = height;
    context.sample_aspect_ratio = sampleAspectRatio;
    context.time_base = timeBase;
    context.framerate = av_inv_q(timeBase);
    context.bit_rate = bitRate;
    context.bit_rate_tolerance = bitRateTolerance;
    context.rc_max_rate = rcMaxRate;
    context.rc_min_rate = rcMinRate;
    context.rc_buffer_size = rcBufferSize;
    context.has_b_frames = hasBFrames;
    context.qmin = qMin;
    context.qmax = qMax;
    context.max_qdiff = maxQDiff;
    context.qcompress = qCompress;
    context.qblur = qBlur;
    context.gop_size = gopSize;
    context.keyint_min = keyIntMin;
    context.refs = refs;
    context.me_range = meRange;
    context.me_subpel_quality = meSubpelQuality;
    context.mb_decision = mbDecision;
    context.trellis = trellis;
    context.flags |= static_cast<int>(flags);
    context.pix_fmt = pixelFormat;
    // Slices of several threads would change the stream and gain little.
    context.thread_count = 1;
    // Of the old methods today's encoders have two: no search at all, and the predictive one.
    setPrivate(context, "motion_est", meMethod == MotionEstimationZero ? 0 : 1);
    if (rtpPayloadSize > 0) {
        const int sliceSize = zel::av::slicePayloadOption(context.codec_id, rtpPayloadSize);
        if (sliceSize > 0) {
            setPrivate(context, "ps", sliceSize);
        }
    }
    if (context.codec_id == AV_CODEC_ID_MPEG1VIDEO || context.codec_id == AV_CODEC_ID_MPEG2VIDEO) {
        // Else these two hold one picture back, which nobody would ever fetch.
        context.flags |= AV_CODEC_FLAG_LOW_DELAY;
        context.strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;
    } else if (context.codec_id == AV_CODEC_ID_MJPEG) {
        // The encoder wants to be asked twice for pictures of limited range.
        context.strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;
    }
}

void VideoEncoderSettings::log(int codec, bool fallback) const
{
    CBBLog::debug("FFENC V:  codec = %d (fallback? %d)", codec, fallback ? 1 : 0);
    CBBLog::debug("FFENC V:  w = %d      h = %d", width, height);
    CBBLog::debug("FFENC V:  fps = %d/%d", timeBase.den, timeBase.num);
    CBBLog::debug("FFENC V:  bps = %d    tol = %d", bitRate, bitRateTolerance);
    CBBLog::debug("FFENC V:  aratio = %d/%d", sampleAspectRatio.den, sampleAspectRatio.num);
    CBBLog::debug("FFENC V:  Qmin = %d  Qmax = %d   QDiff = %d", qMin, qMax, maxQDiff);
    CBBLog::debug("FFENC V:  Qcomp = %f  Qblur = %f", static_cast<double>(qCompress),
                  static_cast<double>(qBlur));
    CBBLog::debug("FFENC V:  flags = 0x%X", flags);
    CBBLog::debug("FFENC V:  flags2 = 0x%X", flags2);
    CBBLog::debug("FFENC V:  gop = %d", gopSize);
    CBBLog::debug("FFENC V:  keyintmin = %d", keyIntMin);
    CBBLog::debug("FFENC V:  partitions = 0x%X", partitions);
    CBBLog::debug("FFENC V:  refs = %d", refs);
    CBBLog::debug("FFENC V:  me_method = 0x%X", static_cast<unsigned int>(meMethod));
    CBBLog::debug("FFENC V:  me_range = %d", meRange);
    CBBLog::debug("FFENC V:  me_quality = %d", meSubpelQuality);
    CBBLog::debug("FFENC V:  crf = %f", static_cast<double>(crf));
    CBBLog::debug("FFENC V:  pxfmt = %d", static_cast<int>(pixelFormat));
    CBBLog::debug("FFENC V:rtp psz = %d", rtpPayloadSize);
}

void AudioEncoderSettings::applyTo(AVCodecContext& context) const
{
    context.bit_rate = bitRate;
    // With a tolerance of 0 an encoder may look for ever for a frame that fits.
    if (bitRateTolerance > 0) {
        context.bit_rate_tolerance = bitRateTolerance;
    }
    context.sample_rate = sampleRate;
    context.time_base = {1, std::max(sampleRate, 1)};
    if (channels > 0) {
        av_channel_layout_default(&context.ch_layout, channels);
    }
    context.rc_max_rate = rcMaxRate;
    context.rc_min_rate = rcMinRate;
    context.rc_buffer_size = rcBufferSize;
    context.flags |= static_cast<int>(flags);
    context.thread_count = 1;
}

void AudioEncoderSettings::log(int codec) const
{
    CBBLog::debug("FFENC A:  codec = %d", codec);
    CBBLog::debug("FFENC A:     sr = %d     ch = %d", sampleRate, channels);
    CBBLog::debug("FFENC A:    bps = %d    tol = %d", bitRate, bitRateTolerance);
    CBBLog::debug("FFENC A:  flags = %X", flags);
    CBBLog::debug("FFENC A:rtp psz = %d", rtpPayloadSize);
}
