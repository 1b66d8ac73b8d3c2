#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace zel::av {

/// What a coded picture says about its place in the order of presentation.
struct CodedPicture
{
    enum class Kind
    {
        Intra,
        Predicted,
        Bidirectional
    };

    int64_t order = 0;       ///< grows with the time of presentation
    double frames = 1.0;     ///< 0.5 for a packet with a single field
    bool beginsAnew = false; ///< all pictures decoded before are shown before it and what follows
    int64_t firstOrder = 0;  ///< where it begins anew: order of what is shown first from here on
    Kind kind = Kind::Predicted;
    int64_t clock = 0; ///< where order values are times: ticks a second that they are made of
    int reorder = 0;   ///< frames that a decoder holds back, as far as the stream says it
    bool isReorderSure = false; ///< false: the true number may be greater
};

/// Tells, picture by picture in the order of decoding, how many frames later each is shown than it
/// is decoded. Knows nothing but what came so far.
///
/// The number of a picture in the order of presentation minus its number in the order of decoding,
/// plus what a decoder holds back, is the offset. Its place in the order of presentation follows
/// from the distance between its order value and that of the picture to be shown next:
///
///     decoding       I0  P3  B1  B2  P6  B4  B5        order value of each: the number here
///     to be shown     0   0   1   1   2   3   4        the smallest that may still come
///     offset          1   3   0   0   3   0   0        with one frame held back
///
/// Where the sequence was entered in its middle, the pictures may come first that are shown before
/// the first one: their number is taken from the last picture of this kind. Too small a number
/// gives the first picture too early a time, once; too great a one delays what follows, and the
/// delay goes away at an eighth of a frame a picture, so that times neither repeat nor run back.
///
/// Owner: CompositionOffsets. Threads: its caller's.
class PresentationOrder
{
public:
    /// @param usualStep    distance of order values from frame to frame; 0 when the first pictures
    ///                     have to tell. Corrected where the stream has another
    /// @param timeBase     units of the order value in a second, where it is a time
    /// @param entersMiddle false: a stream without anything known begins with its first picture
    PresentationOrder(int64_t usualStep, int64_t timeBase, bool entersMiddle);

    /// @return frames, not negative
    double next(const CodedPicture& picture);

    /// Begins anew with the next picture. What was learnt about the stream stays.
    void reset();

private:
    struct Coded
    {
        int64_t order;
        double frames;
    };

    void begin(const CodedPicture& picture);
    double usualLeading(CodedPicture::Kind kind) const;
    void settleStep(const CodedPicture& picture);
    void settleReordering(const CodedPicture& picture);
    double framesAhead(int64_t order) const;
    bool isConnected(const CodedPicture& picture) const;
    void learnLeading(const CodedPicture& picture);
    double numberOf(int64_t order, double frames) const;
    double delayAt(double number) const;
    void takeIn(const Coded& picture);
    void show(const Coded& shown);
    void learnStep(const Coded& shown);

    const int64_t m_timeBase;
    const bool m_entersMiddle;

    // What is known of the stream.
    int64_t m_step;
    bool m_isStepGuessed = false;
    int m_reorder = 0; ///< frames
    /// Frames decoded behind an intra picture and shown before it: as it was where the stream was
    /// entered last, or more if more were seen.
    std::optional<double> m_leadingIntra;
    std::optional<double> m_leadingOther; ///< the same of the last predicted picture

    // Where the stream is.
    double m_decoded = 0.0; ///< frames decoded
    bool m_isBegun = false;
    double m_nextNumber = 0.0;        ///< number, in presentation, of what is shown next
    int64_t m_nextOrder = 0;          ///< its order value, if no picture is missing
    std::vector<Coded> m_recent;      ///< what was decoded last, since it began anew
    std::vector<Coded> m_waiting;     ///< decoded and not yet shown; the latest in front
    std::optional<Coded> m_lastShown; ///< since it began anew
    CodedPicture::Kind m_beganWith = CodedPicture::Kind::Intra;
    std::optional<double> m_guessedLeading; ///< of the picture with which it began
    double m_delayEnd = 0.0; ///< number of the picture from which there is no delay any more

    // Distances of the last pictures, for the step.
    int64_t m_leastStep = 0;
    int m_stepsSeen = 0;
};

} // namespace zel::av
