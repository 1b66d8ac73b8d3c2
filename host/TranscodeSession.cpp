#include "host/TranscodeSession.h"

#include "common/utils/StdString.h"
#include "host/HostError.h"
#include "host/Times.h"
#include "plugin/BitTools.h"

#include <utility>

namespace zel::host {

namespace {

namespace Result = streamer::Result;
using Wish = StreamChoice::Wish;

constexpr const char* StageName = "FFMpegEncoder";

std::string hexText(const unsigned char* data, unsigned int size)
{
    std::string text(static_cast<size_t>(size) * 2, '\0');
    streamer::toHexString(data, static_cast<int>(size),
                          reinterpret_cast<unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
    return text;
}

} // namespace

/// Why a stage did not do.
struct TranscodeSession::Refusal
{
    int result;   ///< of init
    bool started; ///< the output began
    bool video;   ///< there is no video stream in it
    bool audio;
};

TranscodeSession::TranscodeSession(const Library& library, const TranscodeOptions& options,
                                   StopSignal& stop)
    : m_library(library), m_options(options), m_stop(stop)
{
    const PlanRequest& request = options.request;
    // What is certain already spares the medium a second opening.
    openFor(request.video.wish == Wish::Copy,
            request.audio.wish == Wish::Copy || request.audio.wish == Wish::None);
    m_source = m_input->describeInput();
    try {
        m_plan = choosePlan(request, m_source);
    } catch (const HostError& error) {
        fail(error.what());
    }
    settle();
}

void TranscodeSession::fail(const std::string& reason) const
{
    throw HostError(m_options.medium + ": " + reason);
}

/// Opens the medium with these streams undecoded, unless it is open so. A new input for each way,
/// since an input does not forget what it was told.
void TranscodeSession::openFor(bool copiesVideo, bool skipsAudio)
{
    if (m_input && copiesVideo == m_copiesVideo && skipsAudio == m_skipsAudio) {
        return;
    }
    m_stage.reset();
    m_ahead.reset();
    m_input.reset();
    m_input = std::make_unique<Input>(m_library, m_stop);
    m_input->setMedium(m_options.medium, m_options.decoderThreads);
    if (skipsAudio) {
        m_input->plugin().skipAudioDecoding();
    }
    if (copiesVideo) {
        m_input->plugin().skipVideoDecoding();
    }
    m_copiesVideo = copiesVideo;
    m_skipsAudio = skipsAudio;
    m_hasBegun = false;
    m_setUp.clear();
    m_input->open();
}

/// Finds a plan that the stage goes along with.
void TranscodeSession::settle()
{
    for (;;) {
        openFor(m_plan.video.isCopied(), !m_plan.audio.isEncoded());
        begin();
        const auto refusal = tryStage();
        if (!refusal) {
            return;
        }
        m_stage.reset();
        if (m_stop.isRequested()) {
            fail("Interrupted");
        }
        if (!changePlan(*refusal)) {
            failFor(*refusal);
        }
    }
}

/// @return false when no other plan is left
bool TranscodeSession::changePlan(const Refusal& refusal)
{
    const bool isAllCopied = m_plan.video.isCopied() && m_plan.audio.isCopied();
    const bool isPassedOn = m_options.request.format == "bdlive" && isAllCopied;
    if (refusal.result == Result::Failed || isPassedOn) {
        return false;
    }
    try {
        return retreat(m_plan, m_options.request, m_source, refusal.video, refusal.audio);
    } catch (const HostError&) {
        return false; // nobody knows what to encode it to
    }
}

/// Brings the input to where reading begins.
void TranscodeSession::begin()
{
    if (std::exchange(m_hasBegun, true)) {
        return;
    }
    m_input->plugin().start();
    if (m_options.startMs) {
        const int result = m_input->plugin().setTimePosition(*m_options.startMs);
        if (result != Result::Done) {
            fail("Seek to " + formatTime(static_cast<long long>(*m_options.startMs) * 1000) +
                 (result == Result::NotPossible ? " is not possible" : " failed"));
        }
    }
    if (m_copiesVideo) {
        readAhead();
    }
}

/// Copied video may begin with a packet of the codec's set-up, which formats with a header of their
/// own need before anything is written.
void TranscodeSession::readAhead()
{
    Frame frame;
    if (!m_input->read(frame)) {
        return;
    }
    if (frame.type == streamer::PacketType::Video && !frame.hasTimestamp()) {
        m_setUp = hexText(frame.data, frame.size);
        m_input->release(frame);
    } else {
        m_ahead = std::make_unique<HeldFrame>(*m_input, frame);
    }
}

/// @return empty when the stage stands and has begun its output
std::optional<TranscodeSession::Refusal> TranscodeSession::tryStage()
{
    describeStreams();
    m_stage = std::make_unique<Stage>(m_library, StageName);
    m_medium = m_input->describeMedium();
    const int result = m_stage->init(m_medium, m_inputRecord, m_requested, m_options.stageOptions);
    // The stage writes the set-up of a stream, be it empty, when it has opened the codec.
    const OutputStreamRecord& output = m_requested.output;
    Refusal refusal{result, false, m_plan.video.isWanted() && !output.video.codecPrivateData,
                    m_plan.audio.isWanted() && !output.audio.codecPrivateData};
    if (result != Result::Done || refusal.video || refusal.audio) {
        return refusal;
    }
    refusal.started = m_stage->start();
    return refusal.started ? std::nullopt : std::optional(refusal);
}

/// Fills in what the stage is told of its input, and what is asked of it.
void TranscodeSession::describeStreams()
{
    OutputStreamRecord& stream = m_inputRecord.stream;
    stream = m_input->describeOutput();
    m_requested = RequestedStreamRecord();
    m_requested.format = m_options.request.format;
    m_requested.output.format = m_options.request.format;
    m_requested.output.multiplexed = true;
    m_requested.video.codec = "none";
    m_requested.audio.codec = "none";
    if (m_plan.video.isWanted()) {
        VideoRecord& video = m_requested.video;
        video.codec = m_plan.video.codec;
        video.bitrate = m_plan.video.bitrate;
        video.width = stream.video.getWidth();
        video.height = stream.video.getHeight();
        video.frameRate =
            m_plan.video.frameRate > 0 ? m_plan.video.frameRate : stream.video.getFrameRate();
        if (m_plan.video.isCopied() && !m_setUp.empty()) {
            stream.video.codecPrivateData = m_setUp;
        }
    } else {
        stream.video = VideoRecord();
        stream.video.codec = "none";
    }
    if (m_plan.audio.isWanted()) {
        AudioRecord& audio = m_requested.audio;
        audio.codec = m_plan.audio.codec;
        audio.bitrate = m_plan.audio.bitrate;
        if (m_plan.audio.isCopied()) {
            // The library tells it in the video record. Windows Media cannot be decoded without it.
            const int told = m_source.video.getBitrate();
            audio.bitrate = told > 0 ? told : m_plan.audio.bitrate;
            audio.channels = stream.audio.getChannels();
            audio.sampleRate = stream.audio.getSampleRate();
        } else {
            checkAudio(stream.audio);
            audio.channels = m_options.channels;
            audio.sampleRate = m_options.sampleRate;
        }
    } else {
        stream.audio = AudioRecord();
        stream.audio.codec = "none";
    }
    m_requested.output.video = m_requested.video;
    m_requested.output.audio = m_requested.audio;
}

void TranscodeSession::checkAudio(const AudioRecord& raw) const
{
    const std::string trouble = audioTrouble(raw);
    if (!trouble.empty()) {
        fail(trouble);
    }
}

void TranscodeSession::failFor(const Refusal& refusal) const
{
    const auto isH264 = [](const StreamPlan& video) {
        return ssicmp(video.codec.c_str(), "h264") == 0;
    };
    if (m_plan.video.isEncoded() && isH264(m_plan.video)) {
        fail("H.264 can only be copied, and the video is " + m_plan.video.source);
    }
    if (m_options.request.format == "bdlive" && m_plan.video.isCopied() &&
        m_plan.audio.isCopied()) {
        fail("both streams are passed on as they are, there is nothing to write");
    }
    if (refusal.result == Result::Failed) {
        fail("format \"" + m_options.request.format + "\" cannot be written");
    }
    const auto reason = [](const char* kind, const StreamPlan& stream) {
        return std::string(kind) + " cannot be encoded as " + stream.codec +
               ": there is no such encoder, or it does not take this size or rate";
    };
    if (refusal.video) {
        fail(reason("video", m_plan.video));
    }
    if (refusal.audio) {
        fail(reason("audio", m_plan.audio));
    }
    fail("format \"" + m_options.request.format + "\" does not take " +
         (m_plan.video.isWanted() ? m_plan.video.codec : "") +
         (m_plan.video.isWanted() && m_plan.audio.isWanted() ? " with " : "") +
         (m_plan.audio.isWanted() ? m_plan.audio.codec : ""));
}

bool TranscodeSession::read(Frame& frame)
{
    if (m_ahead) {
        frame = m_ahead->take();
        m_ahead.reset();
        return true;
    }
    return m_input->read(frame);
}

void TranscodeSession::updateAudio()
{
    if (!m_plan.audio.isEncoded()) {
        return;
    }
    const OutputStreamRecord now = m_input->describeOutput();
    checkAudio(now.audio);
    // The stage reads the record with each packet, on this thread.
    m_inputRecord.stream.audio = now.audio;
}

} // namespace zel::host
