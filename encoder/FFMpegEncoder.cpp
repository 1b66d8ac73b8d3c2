#include "encoder/FFMpegEncoder.h"

#include "encoder/BasicMuxer.h"
#include "encoder/FFMpegStreamingProfile.h"
#include "encoder/MpegTSSegmentedMuxer.h"
#include "encoder/PacketQueue.h"

#include <boost/make_shared.hpp>

using zel::streamer::EncoderEngine;
using zel::streamer::InputStreamDescription;
using zel::streamer::MapGeneric;
using zel::streamer::MediumDescription;
using zel::streamer::OutputStreamDescription;
using zel::streamer::RequestedStreamDescription;
namespace Result = zel::streamer::Result;

namespace {

constexpr long long LogBytes = 524288;
constexpr std::size_t FifoBytes = 262144;
constexpr unsigned int MonitorIntervalMs = 10000;

std::atomic<int> s_stages{0};

/// The bytes of a hexadecimal text, two digits each. What is no digit ends a byte early, as strtol
/// reads it.
std::vector<unsigned char> bytesOfHex(const char* text)
{
    const std::string hex(text != nullptr ? text : "");
    std::vector<unsigned char> bytes(hex.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] =
            static_cast<unsigned char>(std::strtol(hex.substr(2 * i, 2).c_str(), nullptr, 16));
    }
    return bytes;
}

} // namespace

FFMpegEncoder::FFMpegEncoder()
    : m_inputMonitor("FFMpegEncoder", false, MonitorIntervalMs), m_id(++s_stages)
{
}

FFMpegEncoder::~FFMpegEncoder()
{
    flush();
    FFMpegEncoder::close();
    delete m_profile;
}

int FFMpegEncoder::init(const MediumDescription* medium, const InputStreamDescription* input,
                        const RequestedStreamDescription* requested, const MapGeneric* options,
                        EncoderEngine* /*engine*/)
{
    stopQueue();
    const PMutexGuard guard(m_writeMutex);
    m_log = boost::make_shared<CBBLog>("FFMpegEncoder.log", true, LogBytes);
    CBBLog::setLogger(m_log);
    CBBLog::info("FFMpegEncoder<%d>::init() ", m_id);
    closeLocked();
    forgetSession();
    m_profile = FFMpegStreamingProfile::createProfile(options, medium, input, requested);
    if (m_profile == nullptr) {
        CBBLog::error("FFMpegEncoder<%d>::init : failed, could not compute profile", m_id);
        return Result::Failed;
    }
    if (CStdStr<char>(requested->getFormat()) == "bdlive" && m_profile->audioPassthrough() &&
        m_profile->videoPassthrough()) {
        return Result::NotPossible;
    }
    // Taken now: a host may hand out one record for input and output, and the set-up writes there.
    OutputStreamDescription& source = *m_profile->inputStream();
    if (source.hasAudio() && source.getAudio() != nullptr) {
        m_audioPrivateData = bytesOfHex(source.getAudio()->getCodecPrivateData());
    }
    if (source.hasVideo() && source.getVideo() != nullptr) {
        m_videoPrivateData = bytesOfHex(source.getVideo()->getCodecPrivateData());
    }
    m_audioOnly = source.hasAudio() && !source.hasVideo();
    const int result = initFFMpeg(m_profile->outputStream());
    if (result != 0) {
        CBBLog::error("FFMpegEncoder<%d>::init() initFFMpegContext failed %d", m_id, result);
    }
    CBBLog::info("FFMpegEncoder<%d>::init() done", m_id);
    return result;
}

void FFMpegEncoder::forgetSession()
{
    delete m_profile;
    m_profile = nullptr;
    m_frameCount = 0;
    m_frameCountAtSeek = 0;
    m_firstVideoTs = -1;
    m_lastPts = 0;
    m_videoTs = 0;
    m_audioSeekPending = false;
    m_videoSeekPending = false;
    m_seekOffset = 0;
    m_videoTsOffset = 0;
    m_nextAudioTs = 0;
    m_audioPrivateData.clear();
    m_videoPrivateData.clear();
    m_audioOnly = false;
    m_stopped.reset(m_stoppedFlag);
    m_queueHasRoom.reset(m_queueHasRoomFlag);
}

int FFMpegEncoder::start()
{
    const PMutexGuard guard(m_writeMutex);
    if (m_muxer == nullptr) {
        return 0;
    }
    m_stopped.reset(m_stoppedFlag);
    resetQueue();
    return startLocked();
}

int FFMpegEncoder::startLocked()
{
    m_queueHasRoom.signal(m_queueHasRoomFlag);
    m_videoEncoded = false;
    m_audioEncoded = false;
    m_audioFifo.reset(av_fifo_alloc2(FifoBytes, 1, AV_FIFO_FLAG_AUTO_GROW));
    return m_muxer->writeHeader() ? 1 : 0;
}

int FFMpegEncoder::stop()
{
    CBBLog::debug("FFMpegEncoder<%d>::stop() ", m_id);
    m_stopped.signal(m_stoppedFlag);
    m_queueHasRoom.signal(m_queueHasRoomFlag);
    stopQueue();
    const PMutexGuard guard(m_writeMutex);
    // A start or a seek that was under way may have let things run again.
    m_stopped.signal(m_stoppedFlag);
    stopQueue();
    deleteMuxer();
    return Result::Accepted;
}

int FFMpegEncoder::close()
{
    CBBLog::debug("FFMpegEncoder<%d>::close() ", m_id);
    stopQueue();
    const PMutexGuard guard(m_writeMutex);
    closeLocked();
    return Result::Accepted;
}

void FFMpegEncoder::closeLocked()
{
    m_queueHasRoom.signal(m_queueHasRoomFlag);
    m_picture.reset();
    m_swsContext.reset();
    m_resampleBuffer.reset();
    m_audioFrameBuffer.reset();
    deleteMuxer();
    {
        const PMutexGuard description(m_descriptionLock);
        m_outputStream = nullptr;
        m_audioFacts = StreamFacts();
        m_videoFacts = StreamFacts();
        m_basePath.clear();
    }
    m_audioStream.reset();
    m_videoStream.reset();
    m_resampleContext.reset();
    m_audioFifo.reset();
    const PWriteGuard queue(m_queueLock);
    if (m_queue != nullptr) {
        m_queue->flush();
        delete m_queue;
        m_queue = nullptr;
    }
}

void FFMpegEncoder::deleteMuxer()
{
    if (m_muxer != nullptr) {
        m_muxer->close();
        delete m_muxer;
        m_muxer = nullptr;
        // What the container's end brought may have filled the queue once more, before a writer
        // that was let go had even looked.
        m_queueHasRoom.signal(m_queueHasRoomFlag);
    }
}

void FFMpegEncoder::publishFacts()
{
    const PMutexGuard guard(m_descriptionLock);
    m_outputStream = m_profile->outputStream();
    m_audioFacts = m_audioStream ? factsOf(*m_audioStream) : StreamFacts();
    m_videoFacts = m_videoStream ? factsOf(*m_videoStream) : StreamFacts();
    m_basePath = m_muxer->getType() == 1 ? static_cast<MpegTSSegmentedMuxer*>(m_muxer)->basePath()
                                         : CStdStr<char>();
}

FFMpegEncoder::StreamFacts FFMpegEncoder::factsOf(const EncoderStream& stream)
{
    const AVCodecContext& context = *stream.context;
    StreamFacts facts;
    facts.present = true;
    for (int i = 0; i < context.extradata_size; ++i) {
        facts.extradata.AppendFormat("%.2x", context.extradata[i]);
    }
    facts.bitrate = static_cast<int>(context.bit_rate);
    facts.channels = context.ch_layout.nb_channels;
    facts.sampleRate = context.sample_rate;
    facts.width = context.width;
    facts.height = context.height;
    facts.framePeriod = av_q2d(stream.timeBase());
    return facts;
}

void FFMpegEncoder::getOutputStreamDescription(OutputStreamDescription* out)
{
    const PMutexGuard guard(m_descriptionLock);
    if (out == nullptr || m_outputStream == nullptr) {
        return;
    }
    m_outputStream->copyTo(out);
    out->setMultiplexed(m_outputStream->isMultiplexed());
    auto* audio = out->getAudio();
    auto* video = out->getVideo();
    if (!out->isMultiplexed() && m_audioFacts.present && audio != nullptr) {
        const CStdStr<char> codec(audio->getCodec());
        audio->setCodec(FFMpegStreamingProfile::FFMpegCodecToZelCodec(codec));
        audio->setBitrate(m_audioFacts.bitrate);
        audio->setChannels(m_audioFacts.channels);
        audio->setSampleRate(m_audioFacts.sampleRate);
        if (!m_audioFacts.extradata.empty()) {
            audio->setCodecPrivateData(m_audioFacts.extradata.c_str());
        }
    }
    if (!out->isMultiplexed() && m_videoFacts.present && video != nullptr) {
        const CStdStr<char> codec(video->getCodec());
        video->setCodec(FFMpegStreamingProfile::FFMpegCodecToZelCodec(codec));
        video->setBitrate(m_videoFacts.bitrate);
        video->setWidth(m_videoFacts.width);
        video->setHeight(m_videoFacts.height);
        video->setEncoded(true);
        // Kept: the period of a frame, not its inverse. Hosts know how to read it.
        video->setFrameRate(m_videoFacts.framePeriod);
        if (!m_videoFacts.extradata.empty()) {
            video->setCodecPrivateData(m_videoFacts.extradata.c_str());
        }
    }
    if (!m_basePath.empty()) {
        out->setProperty("basePath", m_basePath.c_str());
    }
    if (m_outputStream->isRTP() && video != nullptr && !m_videoFacts.extradata.empty()) {
        video->setCodecPrivateData(m_videoFacts.extradata.c_str());
    }
}
