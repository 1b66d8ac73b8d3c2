#include "input/FFMpegDecoderCore.h"

#include "plugin/Vocabulary.h"

#include <algorithm>

using zel::streamer::AudioPacketDescription;
using zel::streamer::MediumDescription;
using zel::streamer::OutputStreamDescription;
using zel::streamer::VideoPacketDescription;

namespace {

/// The border speaks of signed numbers throughout.
int toInt(unsigned int value)
{
    return static_cast<int>(value);
}

int clampBitrate(int64_t bitrate)
{
    return static_cast<int>(std::clamp<int64_t>(bitrate, 0, INT32_MAX));
}

} // namespace

/// The name that the host knows a codec by: the codec's own where a decoder has that name, else
/// the decoder's.
CStdStr<char> FFMpegDecoderCore::codecName(const AVCodecContext* codec)
{
    if (codec->codec == nullptr || codec->codec->name == nullptr) {
        return {};
    }
    const char* name = avcodec_get_name(codec->codec_id);
    if (avcodec_find_decoder_by_name(name) == nullptr) {
        name = codec->codec->name;
    }
    return zel::streamer::FFMpegCodecToZelCodec(name);
}

/// Copies what the queries tell to where they can read it without waiting for m_mutex.
void FFMpegDecoderCore::publishDescription()
{
    if ((m_videoStream != nullptr || m_rescaleOnly) && (m_outWidth == 0 || m_outHeight == 0)) {
        m_outWidth = DefaultWidth;
        m_outHeight = DefaultHeight;
    }
    Described told;
    told.isOpen = m_formatContext != nullptr;
    told.hasVideo = m_videoStream != nullptr;
    told.hasAudio = m_audioStream != nullptr;
    told.rescaleOnly = m_rescaleOnly;
    told.seekable = m_seekable;
    told.fileSize = m_fileSize;
    told.bitrate = m_formatContext ? m_formatContext->bit_rate : 0;
    if (m_demuxing && m_formatContext->iformat->name != nullptr) {
        told.format = zel::streamer::FFMpegFormatToZelFormat(m_formatContext->iformat->name);
    }
    if (const AVCodecContext* codec = videoCodec()) {
        told.videoCodec = codecName(codec);
        told.codecWidth = codec->width;
        told.codecHeight = codec->height;
        told.codecVideoBitrate = clampBitrate(codec->bit_rate);
        told.aspect = codec->sample_aspect_ratio;
    }
    if (const AVCodecContext* codec = m_audioCodec.get()) {
        told.audioCodec = codecName(codec);
        told.codecAudioBitrate = clampBitrate(codec->bit_rate);
        told.codecChannels = codec->ch_layout.nb_channels;
        told.codecSampleRate = codec->sample_rate;
    }
    told.fps = m_fps;
    told.outWidth = m_outWidth;
    told.outHeight = m_outHeight;
    told.videoBitsPerPixel = m_videoBitsPerPixel;
    told.videoBitrate = m_videoBitrate;
    told.videoFrameSize = m_videoFrameSize;
    told.pixelFormat = m_outPixelFormat;
    told.audioBitrate = m_audioBitrate;
    told.audioFrameBits = m_audioFrameBits;
    told.audioSampleFlags = m_audioSampleFlags;
    told.audioBits = m_audioBits;
    told.audioSampleRate = m_audioSampleRate;
    told.audioChannels = m_audioChannels;
    const PMutexGuard guard(m_describedLock);
    m_described = std::move(told);
}

FFMpegDecoderCore::Described FFMpegDecoderCore::described()
{
    const PMutexGuard guard(m_describedLock);
    return m_described;
}

int FFMpegDecoderCore::getMediumDescription(MediumDescription* out)
{
    const Described told = described();
    if (!told.isOpen) {
        return -1;
    }
    CStdStr<char> title;
    CStdStr<char> artist;
    CStdStr<char> album;
    CStdStr<char> thumbnailUrl;
    {
        const PMutexGuard guard(m_describedLock);
        title = m_title;
        artist = m_artist;
        album = m_album;
        thumbnailUrl = m_thumbnailUrl;
    }
    if (!title.empty()) {
        out->setTitle(title.c_str());
    }
    if (!artist.empty()) {
        out->setArtist(artist.c_str());
    }
    if (!album.empty()) {
        out->setAlbum(album.c_str());
    }
    if (!thumbnailUrl.empty()) {
        out->setProperty("thumbnailURL", thumbnailUrl.c_str());
    }
    out->setDuration(m_duration);
    out->setSeekable(told.seekable);
    out->setLive(needToStartAtZero());
    if (told.fileSize > 0) {
        out->setFileSize(static_cast<unsigned long long>(told.fileSize));
    }
    if (told.bitrate > 0) {
        out->setBitrate(told.bitrate);
    }
    return 0;
}

void FFMpegDecoderCore::getInputStreamDescription(OutputStreamDescription* out)
{
    describeInput(described(), out);
}

void FFMpegDecoderCore::describeInput(const Described& told, OutputStreamDescription* out)
{
    if (!told.isOpen) {
        return;
    }
    out->setMultiplexed(true);
    if (!told.format.empty()) {
        out->setFormat(told.format.c_str());
    }
    VideoPacketDescription* video = out->getVideo();
    if (told.hasVideo && video != nullptr) {
        if (!told.videoCodec.empty()) {
            video->setCodec(told.videoCodec.c_str());
        }
        video->setFrameRate(told.fps);
        video->setWidth(told.codecWidth);
        video->setHeight(told.codecHeight);
        video->setBitrate(told.codecVideoBitrate);
    }
    AudioPacketDescription* audio = out->getAudio();
    if (told.hasAudio && audio != nullptr) {
        if (!told.audioCodec.empty()) {
            audio->setCodec(told.audioCodec.c_str());
        }
        // Kept: the audio bit rate stands in the video record; hosts size their buffers from it.
        if (video != nullptr) {
            video->setBitrate(told.codecAudioBitrate);
        }
        audio->setChannels(told.codecChannels);
        audio->setSampleRate(told.codecSampleRate);
    }
}

void FFMpegDecoderCore::getOutputStreamDescription(OutputStreamDescription* out)
{
    const Described told = described();
    if (!told.isOpen) {
        return;
    }
    if (m_skipVideo || m_skipAudio) {
        describeInput(told, out);
    }
    out->setMultiplexed(false);
    VideoPacketDescription* video = out->getVideo();
    if (told.hasVideo && !m_skipVideo) {
        if (video != nullptr) {
            video->setCodec("raw");
            video->setFrameRate(told.fps);
            video->setSampleSize(toInt(told.videoFrameSize));
            video->setTemporalCompression(false);
            video->setFixedSizeSamples(true);
            video->setPixelFormat(told.pixelFormat);
            video->setBitsPerPixel(toInt(told.videoBitsPerPixel));
            video->setWidth(toInt(told.outWidth));
            video->setHeight(toInt(told.outHeight));
            video->setBitrate(toInt(told.videoBitrate));
            if (told.aspect.num != 0 && told.aspect.den != 0) {
                video->setPixelAspectNumerator(told.aspect.num);
                video->setPixelAspectDenominator(told.aspect.den);
            }
        }
        m_videoRequested = true;
    } else if (told.rescaleOnly && video != nullptr) {
        video->setPixelFormat(told.pixelFormat);
        video->setBitsPerPixel(toInt(told.videoBitsPerPixel));
        video->setWidth(toInt(told.outWidth));
        video->setHeight(toInt(told.outHeight));
    }
    AudioPacketDescription* audio = out->getAudio();
    if (told.hasAudio && !m_skipAudio && audio != nullptr) {
        audio->setCodec("raw");
        audio->setBitrate(toInt(told.audioBitrate));
        audio->setBitsPerSample(toInt(told.audioBits));
        audio->setChannels(toInt(told.audioChannels));
        audio->setSampleFlags(toInt(told.audioSampleFlags));
        audio->setSampleRate(toInt(told.audioSampleRate));
        audio->setSampleSize(toInt(told.audioFrameBits));
        audio->setTemporalCompression(false);
        audio->setFixedSizeSamples(false);
    }
}
