#include "common/ffmpeg/PresentationOrder.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

namespace zel::av {
namespace {

const int MostReordered = 16;                     // frames, the most that any codec's decoder keeps
const int64_t FarthestFrames = MostReordered + 1; // what lies farther away has no connection
const std::size_t RecentPictures = 64;
const int64_t FastestFrameClock = 60; // ticks a second; faster clocks divide frames
const int64_t ExactClock = 24000;     // from here on they divide them evenly
const double DelayLossPerFrame = 0.125;
const double MostDelay = 8.0; // frames
const int StepWindow = 16;    // distances that have to agree on a greater step
const double UsualRates[] = {25.0, 30.0, 24.0, 50.0, 60.0, 15.0, 20.0, 12.5, 10.0};

/// The distance of two frames, from that of two pictures in the order of decoding: the usual frame
/// rate of which it is a multiple, unless the clock of the stream tells.
/// @param timeBase  units of the distance in a second
int64_t likelyStep(int64_t distance, int64_t timeBase, int64_t clock)
{
    if (clock > 0 && clock <= FastestFrameClock) {
        return timeBase / clock;
    }
    const double seconds = static_cast<double>(distance) / static_cast<double>(timeBase);
    const int64_t ticks = std::llround(seconds * static_cast<double>(clock));
    for (const double rate : UsualRates) {
        const double frames = std::round(seconds * rate);
        const bool isMultiple = frames >= 1.0 && frames <= MostReordered &&
                                std::abs(seconds * rate - frames) < 0.01 * frames;
        // Clocks that are not made for the frame rate are coarse.
        if (isMultiple && (clock < ExactClock || ticks % std::llround(frames) == 0)) {
            return std::llround(static_cast<double>(distance) / frames);
        }
    }
    return distance;
}

} // namespace

PresentationOrder::PresentationOrder(int64_t usualStep, int64_t timeBase, bool entersMiddle)
    : m_timeBase(timeBase), m_entersMiddle(entersMiddle), m_step(usualStep)
{
}

void PresentationOrder::reset()
{
    m_decoded = 0.0;
    m_isBegun = false;
    m_delayEnd = 0.0;
}

double PresentationOrder::next(const CodedPicture& picture)
{
    if (!m_isBegun && !picture.beginsAnew && picture.kind == CodedPicture::Kind::Bidirectional) {
        return 0.0; // not decodable, and its order value may be wrong without those before it
    }
    m_reorder = std::clamp(picture.reorder, m_reorder, MostReordered);
    settleStep(picture);
    if (!m_isBegun || picture.beginsAnew || !isConnected(picture)) {
        begin(picture);
    } else {
        learnLeading(picture);
        settleReordering(picture);
    }
    const double number = numberOf(picture.order, picture.frames);
    const double shown = number + delayAt(number) + m_reorder;
    const double offset = m_reorder == 0 ? 0.0 : std::max(0.0, shown - m_decoded);
    m_decoded += picture.frames;
    takeIn({picture.order, picture.frames});
    return offset;
}

/// Whether the order value goes on from those before it. Encoders let it begin again without a
/// sign now and then, and recordings are joined.
bool PresentationOrder::isConnected(const CodedPicture& picture) const
{
    const int64_t far = FarthestFrames * m_step;
    const int64_t latest = m_waiting.empty() ? m_nextOrder : m_waiting.front().order;
    const bool isFar = picture.order < m_nextOrder - far || picture.order > latest + far ||
                       picture.order > m_nextOrder + 2 * far;
    // No picture is held back for an intra picture: others refer to it.
    const double mostAhead = picture.kind == CodedPicture::Kind::Intra ? m_reorder : MostReordered;
    return (m_step == 0 || !isFar) && framesAhead(picture.order) <= mostAhead;
}

void PresentationOrder::begin(const CodedPicture& picture)
{
    m_isBegun = true;
    m_recent.clear();
    m_waiting.clear();
    m_lastShown.reset();
    m_stepsSeen = 0;
    m_nextNumber = m_decoded;
    m_guessedLeading.reset();
    m_beganWith = picture.kind;
    if (!picture.beginsAnew) {
        m_guessedLeading = usualLeading(picture.kind);
        m_nextOrder = picture.order - std::llround(*m_guessedLeading * static_cast<double>(m_step));
    } else if (picture.order - picture.firstOrder <= FarthestFrames * m_step) {
        m_nextOrder = picture.firstOrder;
    } else {
        m_nextOrder = picture.order;
    }
}

/// Frames that are decoded after a picture of this kind and shown before it.
double PresentationOrder::usualLeading(CodedPicture::Kind kind) const
{
    if (m_reorder == 0) {
        return 0.0;
    }
    if (m_leadingIntra && (kind == CodedPicture::Kind::Intra || !m_leadingOther)) {
        return *m_leadingIntra;
    }
    // Two B pictures where one frame is held back, a pyramid of three where it is two.
    return m_leadingOther.value_or(m_entersMiddle ? m_reorder + 1.0 : 0.0);
}

void PresentationOrder::settleStep(const CodedPicture& picture)
{
    const int64_t distance = picture.order - m_nextOrder;
    if (m_step > 0 || !m_isBegun || distance <= 0) {
        return;
    }
    m_step = m_reorder == 0 ? distance : likelyStep(distance, m_timeBase, picture.clock);
    m_isStepGuessed = true;
    m_nextOrder += m_lastShown ? m_step : 0;
}

void PresentationOrder::settleReordering(const CodedPicture& picture)
{
    // A second picture that leaves a gap in front of it says that others will come to fill the gap.
    // Later gaps say nothing: pictures may have been lost.
    const bool leavesGap = m_decoded == 1.0 && numberOf(picture.order, picture.frames) >= 2.0;
    if (m_reorder == 0 && !picture.isReorderSure && leavesGap) {
        m_reorder = 1;
    }
    const int ahead = static_cast<int>(std::ceil(framesAhead(picture.order)));
    m_reorder = std::clamp(ahead, m_reorder, MostReordered);
}

/// Frames that were decoded before a picture and are shown after it.
double PresentationOrder::framesAhead(int64_t order) const
{
    double frames = 0.0;
    for (const Coded& picture : m_recent) {
        frames += picture.order > order ? picture.frames : 0.0;
    }
    return frames;
}

void PresentationOrder::learnLeading(const CodedPicture& picture)
{
    const int64_t latest = m_waiting.empty() ? m_nextOrder - m_step : m_waiting.front().order;
    if (m_step == 0 || picture.order <= latest || picture.frames < 1.0) {
        return;
    }
    const double frames =
        std::round(static_cast<double>(picture.order - latest) / static_cast<double>(m_step)) - 1.0;
    if (frames > MostReordered) {
        return; // pictures were lost
    }
    if (picture.kind == CodedPicture::Kind::Intra) {
        // Too many do less harm than too few.
        m_leadingIntra = std::max(m_leadingIntra.value_or(0.0), frames);
    } else {
        m_leadingOther = std::max(0.0, frames);
    }
}

double PresentationOrder::numberOf(int64_t order, double frames) const
{
    if (m_step == 0) {
        return m_nextNumber;
    }
    const double away = static_cast<double>(order - m_nextOrder) / static_cast<double>(m_step);
    // Order values that are times are uneven; pictures come in whole frames or in fields.
    return m_nextNumber + std::round(away / frames) * frames;
}

double PresentationOrder::delayAt(double number) const
{
    return std::max(0.0, (m_delayEnd - number) * DelayLossPerFrame);
}

/// Lets those pictures go that a decoder puts out when it gets this one.
void PresentationOrder::takeIn(const Coded& picture)
{
    m_recent.push_back(picture);
    if (m_recent.size() > RecentPictures) {
        m_recent.erase(m_recent.begin());
    }
    if (m_lastShown && picture.order < m_lastShown->order) {
        // Decoders hold more back than was thought. All numbers behind it move up.
        m_nextNumber += picture.frames;
        return;
    }
    const auto isLater = [](const Coded& a, const Coded& b) { return a.order > b.order; };
    m_waiting.insert(std::upper_bound(m_waiting.begin(), m_waiting.end(), picture, isLater),
                     picture);
    double frames = 0.0;
    for (const Coded& waiting : m_waiting) {
        frames += waiting.frames;
    }
    while (frames > m_reorder) {
        const Coded shown = m_waiting.back();
        m_waiting.pop_back();
        frames -= shown.frames;
        show(shown);
    }
}

void PresentationOrder::show(const Coded& shown)
{
    const double missing = numberOf(shown.order, shown.frames) - m_nextNumber;
    if (!m_lastShown && missing > 0.0) {
        // What was expected in front of it does not exist, and times were given with it in mind.
        const double latest =
            m_waiting.empty() ? m_nextNumber + missing : numberOf(m_waiting.front().order, 1.0);
        const double delay = std::min(missing + delayAt(latest), MostDelay);
        m_delayEnd = latest - missing + delay / DelayLossPerFrame;
    }
    if (!m_lastShown && m_guessedLeading) {
        const double leading = std::clamp(*m_guessedLeading - missing, 0.0, double{MostReordered});
        (m_beganWith == CodedPicture::Kind::Intra ? m_leadingIntra : m_leadingOther) = leading;
    }
    learnStep(shown);
    m_nextNumber += shown.frames;
    m_nextOrder = shown.order + std::llround(static_cast<double>(m_step) * shown.frames);
    m_lastShown = shown;
}

void PresentationOrder::learnStep(const Coded& shown)
{
    if (!m_lastShown || m_lastShown->frames != 1.0 || m_reorder == 0) {
        return;
    }
    const int64_t distance = shown.order - m_lastShown->order;
    if (distance <= 0) {
        return;
    }
    if (m_isStepGuessed || 4 * distance < 3 * m_step) {
        m_step = distance;
        m_isStepGuessed = false;
    }
    m_leastStep = m_stepsSeen == 0 ? distance : std::min(m_leastStep, distance);
    if (++m_stepsSeen == StepWindow) {
        m_stepsSeen = 0;
        m_step = 2 * m_leastStep >= 3 * m_step ? m_leastStep : m_step;
    }
}

} // namespace zel::av
