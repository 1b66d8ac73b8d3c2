#pragma once

#include "common/ffmpeg/CompositionOffsets.h"
#include "common/ffmpeg/Handles.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

/// Makes complete time stamps of what the stage passes to a muxer.
///
/// The stage knows one presentation time a packet, and of encoded audio not even that: 0 stands for
/// "behind the packet before". A muxer wants pts, dts and duration of every packet, none of them
/// guessed:
///
///     encoded video   pts = dts = the stage's time
///     copied video    dts = the medium's time, counted from the first packet, which has the
///                     stage's; pts = dts + composition offset of the picture
///     encoded audio   a clock in samples, which jumps over what the medium leaves out
///     copied audio    pts = dts = the stage's time, counted from the first video packet
///
/// Copied video does not take the stage's time as it is, because that is rounded to the frames of
/// the output's rate: pictures between two of them would be shown out of step.
///
/// Audio and video keep the distance that they have in the medium. Where they lie too far apart
/// for one medium, as in a capture with broken clocks, each begins at its own first.
///
/// Owner: a muxer. Threads: under the muxer's locks.
class MuxTimes
{
public:
    struct Stamp
    {
        int64_t pts = 0; ///< of the stream's time base, as all three
        int64_t dts = 0;
        int64_t duration = 0;
    };

    /// @param frame  seconds of one frame
    void addVideo(const AVCodecParameters& parameters, AVRational frame, bool copied);
    void addAudio(const AVCodecParameters& parameters, bool copied);
    /// A header is out, which settles the time bases: all clocks begin anew.
    /// @param isOrdered  the container breaks when a frame lies before one that has left it, of
    ///                   whatever stream
    void begin(AVRational videoTimeBase, AVRational audioTimeBase, bool isOrdered = false);

    /// A video packet is on its way, maybe behind audio that is written before it.
    /// @param timestampUs  its time in the medium
    /// @param pts          its time in the output, of the video stream's time base
    /// @param firstPts     what is subtracted from all video times, of the same
    void noteVideo(long long timestampUs, int64_t pts, int64_t firstPts);
    /// Samples for the audio encoder are on their way. The packet that has them comes later and
    /// carries a later time; where some are missing, it does not tell.
    /// @param durationUs  how long they sound
    void noteSamples(long long timestampUs, double durationUs);

    /// What was stamped so far has left the container.
    void drained() { m_floorUs = m_latestUs; }

    /// @param pts  counted from the first video packet
    Stamp video(const unsigned char* data, int size, int64_t pts, long long timestampUs);
    /// @param pts  as the stage passes it
    Stamp audio(int size, int64_t pts, long long timestampUs);

private:
    /// One stream's side.
    struct Stream
    {
        bool present = false;
        bool copied = false;
        AVRational timeBase{1, 1000};   ///< of the stream
        std::optional<int64_t> lastDts; ///< since begin()
    };

    /// Where a stream stands in the medium, since begin().
    struct Passed
    {
        std::optional<long long> firstUs;
        long long lastUs = 0;

        void note(long long timestampUs);
        /// Whether a time of the other stream can be one of the same clock.
        bool isNear(long long timestampUs) const;
    };

    /// The last distances between two packets in the order of decoding.
    struct Spacings
    {
        std::array<long long, 9> us{};
        std::size_t count = 0; ///< noted

        void note(long long distanceUs) { us[count++ % us.size()] = distanceUs; }
        bool hasNear(double distanceUs) const;
        long long medianUs() const;
    };

    /// Of the video stream's time base, from one picture to the next. What the medium says of its
    /// frame rate may be wrong: it counts unless no two pictures lately were so far apart.
    double frameTicks() const;
    void beginVideo(long long timestampUs, int64_t pts);
    long long audioZero(long long startUs) const;
    int64_t copiedAudio(int64_t pts, long long timestampUs);
    int64_t encodedAudioStart(int64_t pts, long long timestampUs);
    int64_t packetSamples(int size) const;
    int64_t behindLast(Stream& stream, int64_t dts);

    Stream m_video;
    Stream m_audio;
    AVRational m_frame{1, 25}; ///< seconds
    zel::av::CodecParameters m_audioParameters;
    std::unique_ptr<zel::av::CompositionOffsets> m_composition; ///< null where nothing is reordered

    // Since begin().
    Passed m_videoPassed;
    Spacings m_spacings; ///< of copied video
    Passed m_audioPassed;
    long long m_latestUs = 0; ///< dts of all that was stamped
    long long m_floorUs = 0;  ///< m_latestUs when the container was drained
    bool m_isOrdered = false;
    int64_t m_videoStart = 0;     ///< output time of the first packet, of the stream's time base
    int64_t m_videoShift = 0;     ///< added to the stage's times, where audio began long before
    long long m_videoStartUs = 0; ///< m_videoStart in microseconds
    std::optional<long long> m_firstSamplesUs;
    double m_nextSamplesUs = 0.0;           ///< when the next samples are due
    long long m_missingUs = 0;              ///< what the medium left out between samples
    std::optional<long long> m_audioZeroUs; ///< time in the medium of the audio's output time 0
    std::optional<int64_t> m_audioClock;    ///< of encoded audio, samples
};
