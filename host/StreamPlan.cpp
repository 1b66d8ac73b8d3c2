#include "host/StreamPlan.h"

#include "common/utils/StdString.h"
#include "host/Containers.h"
#include "host/HostError.h"

#include <algorithm>
#include <cmath>

namespace zel::host {

namespace {

using Wish = StreamChoice::Wish;
using Action = StreamPlan::Action;

constexpr int MostChannels = 6;
constexpr int FullWidthBits = 16;

bool isSame(std::string_view left, std::string_view right)
{
    return ssicmp(std::string(left).c_str(), std::string(right).c_str()) == 0;
}

/// One kind of stream: the same rules go for both.
struct Kind
{
    const char* name;
    const StreamChoice& choice;
    std::string source; ///< empty when the medium has none
    const std::vector<std::string_view>* copies;
    std::string_view usual;
    int bitrate;
};

Kind videoOf(const PlanRequest& request, const OutputStreamRecord& medium,
             const Container* container)
{
    return {"video",
            request.video,
            medium.hasVideo() ? medium.video.getCodec() : "",
            container != nullptr ? &container->videoCopies : nullptr,
            container != nullptr ? container->usualVideo : "",
            request.video.bitrate.value_or(request.videoBitrate)};
}

Kind audioOf(const PlanRequest& request, const OutputStreamRecord& medium,
             const Container* container)
{
    return {"audio",
            request.audio,
            medium.hasAudio() ? medium.audio.getCodec() : "",
            container != nullptr ? &container->audioCopies : nullptr,
            container != nullptr ? container->usualAudio : "",
            request.audio.bitrate.value_or(request.audioBitrate)};
}

bool isCopiedUnasked(const Kind& kind)
{
    return kind.copies != nullptr &&
           std::any_of(kind.copies->begin(), kind.copies->end(),
                       [&](std::string_view codec) { return isSame(codec, kind.source); });
}

bool canCopy(const Kind& kind, const PlanRequest& request, const Container* container)
{
    // What the border calls wmv9 would be announced as the codec before it.
    if (request.isFallback || isSame(kind.source, "wmv9")) {
        return false;
    }
    return container == nullptr || !container->isForced || isCopiedUnasked(kind);
}

StreamPlan encoded(const Kind& kind, const PlanRequest& request, const Container* container,
                   Plan& plan)
{
    const bool isNamed = kind.choice.wish == Wish::Codec;
    const std::string codec = isNamed ? kind.choice.codec : std::string(kind.usual);
    if (codec.empty() && container == nullptr) {
        throw HostError("format \"" + request.format + "\": its usual " + kind.name +
                        " codec is not known, say which with --" + kind.name);
    }
    if (codec.empty()) {
        return {};
    }
    StreamPlan stream{Action::Encode, kind.source, codec, kind.bitrate, request.frameRate};
    if (container != nullptr && container->isForced && !isSame(codec, kind.usual)) {
        stream.codec = kind.usual;
        plan.notes.push_back("format \"" + request.format + "\" takes no " + kind.name + " but " +
                             stream.codec + ", which is encoded");
    }
    return stream;
}

StreamPlan choose(const Kind& kind, const PlanRequest& request, const Container* container,
                  Plan& plan)
{
    if (kind.source.empty() || kind.choice.wish == Wish::None) {
        return {};
    }
    const bool isAsked = kind.choice.wish == Wish::Copy || (kind.choice.wish == Wish::Codec &&
                                                            isSame(kind.choice.codec, kind.source));
    const bool isWanted = isAsked || (kind.choice.wish == Wish::Auto && isCopiedUnasked(kind));
    if (isWanted && canCopy(kind, request, container)) {
        return {Action::Copy, kind.source, kind.source, kind.bitrate, 0};
    }
    StreamPlan stream = encoded(kind, request, container, plan);
    if (kind.choice.wish == Wish::Copy && stream.isWanted()) {
        plan.notes.push_back(std::string(kind.name) + " " + kind.source +
                             " cannot be copied, it is encoded as " + stream.codec);
    }
    return stream;
}

/// @return false when the stream is encoded already
bool retreat(StreamPlan& stream, const Kind& kind, const PlanRequest& request,
             const Container* container, Plan& plan)
{
    if (!stream.isCopied()) {
        return false;
    }
    stream = encoded(kind, request, container, plan);
    plan.notes.push_back(
        std::string(kind.name) + " " + kind.source + " cannot be copied into " + request.format +
        (stream.isWanted() ? ", it is encoded as " + stream.codec : ", it is left out"));
    return true;
}

/// A copy is described by a frame rate only so that the stage can round time stamps to it, and some
/// codecs know no rates but whole ones.
bool retreatToWholeRate(StreamPlan& video, const OutputStreamRecord& medium)
{
    const double rate = medium.video.getFrameRate();
    if (!video.isCopied() || video.frameRate > 0 || rate <= 0 || rate == std::ceil(rate)) {
        return false;
    }
    video.frameRate = std::ceil(rate);
    return true;
}

} // namespace

Plan choosePlan(const PlanRequest& request, const OutputStreamRecord& medium)
{
    const Container* container = findContainer(request.format);
    Plan plan;
    plan.video = choose(videoOf(request, medium, container), request, container, plan);
    plan.audio = choose(audioOf(request, medium, container), request, container, plan);
    if (!plan.video.isWanted() && !plan.audio.isWanted()) {
        throw HostError("no stream is left to write");
    }
    return plan;
}

bool retreat(Plan& plan, const PlanRequest& request, const OutputStreamRecord& medium, bool video,
             bool audio)
{
    const Container* container = findContainer(request.format);
    const Kind videoKind = videoOf(request, medium, container);
    const Kind audioKind = audioOf(request, medium, container);
    const bool isKnown = video || audio;
    if (video && retreatToWholeRate(plan.video, medium)) {
        return true;
    }
    if (!isKnown) {
        // One at a time: audio is the cheaper one to encode in vain.
        return retreat(plan.audio, audioKind, request, container, plan) ||
               retreat(plan.video, videoKind, request, container, plan);
    }
    return (!video || retreat(plan.video, videoKind, request, container, plan)) &&
           (!audio || retreat(plan.audio, audioKind, request, container, plan));
}

std::string audioTrouble(const AudioRecord& raw)
{
    const int channels = raw.getChannels();
    const int bits = raw.getBitsPerSample();
    if (channels <= 2 || (channels <= MostChannels && bits == FullWidthBits)) {
        return {};
    }
    return "audio of " + std::to_string(channels) + " channels at " + std::to_string(bits) +
           " bits cannot be encoded; use --audio copy or --audio none";
}

std::string actionText(const StreamPlan& plan)
{
    switch (plan.action) {
    case Action::Copy:
        return plan.source + " copied";
    case Action::Encode:
        return plan.source + " to " + plan.codec;
    case Action::None:
        break;
    }
    return "none";
}

} // namespace zel::host
