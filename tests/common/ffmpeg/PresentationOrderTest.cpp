#include "common/ffmpeg/PresentationOrder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

using zel::av::CodedPicture;
using zel::av::PresentationOrder;

namespace {

using Kind = CodedPicture::Kind;
using Offsets = std::vector<double>;

/// Frames of this order, two units apart as picture order counts are.
const int64_t Step = 2;

CodedPicture picture(int64_t number, Kind kind, int reorder)
{
    CodedPicture picture;
    picture.order = Step * number;
    picture.kind = kind;
    picture.reorder = reorder;
    picture.isReorderSure = true;
    return picture;
}

/// Ends all that was before, as the first picture of a closed sequence does.
CodedPicture opening(int64_t number, int reorder)
{
    CodedPicture opening = picture(number, Kind::Intra, reorder);
    opening.beginsAnew = true;
    opening.firstOrder = opening.order;
    return opening;
}

/// Predicted and bidirectional pictures after an anchor at number 0, as I0 P3 B1 B2 P6 B4 B5 ...
std::vector<CodedPicture> groups(int count, int between, int reorder, int64_t anchor = 0)
{
    std::vector<CodedPicture> pictures;
    for (int n = 0; n < count; ++n) {
        anchor += between + 1;
        pictures.push_back(picture(anchor, Kind::Predicted, reorder));
        for (int b = between; b > 0; --b) {
            pictures.push_back(picture(anchor - b, Kind::Bidirectional, reorder));
        }
    }
    return pictures;
}

Offsets offsetsOf(PresentationOrder& order, const std::vector<CodedPicture>& pictures)
{
    Offsets offsets;
    for (const CodedPicture& one : pictures) {
        offsets.push_back(order.next(one));
    }
    return offsets;
}

std::vector<CodedPicture> operator+(std::vector<CodedPicture> a, const std::vector<CodedPicture>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

PresentationOrder countedOrder()
{
    return PresentationOrder(Step, 0, true);
}

/// Whether pictures in the order of their numbers get ever later times, when each is decoded one
/// frame after the one before.
bool timesGrow(const std::vector<CodedPicture>& pictures, const Offsets& offsets)
{
    std::vector<std::pair<int64_t, double>> times;
    for (std::size_t n = 0; n < pictures.size(); ++n) {
        times.emplace_back(pictures[n].order, static_cast<double>(n) + offsets[n]);
    }
    std::sort(times.begin(), times.end());
    return std::is_sorted(times.begin(), times.end(),
                          [](const auto& a, const auto& b) { return a.second <= b.second; });
}

} // namespace

TEST(PresentationOrder, ReferencePicturesAreShownBehindThoseBetween)
{
    PresentationOrder order = countedOrder();
    EXPECT_EQ(offsetsOf(order, std::vector{opening(0, 1)} + groups(3, 2, 1)),
              (Offsets{1, 3, 0, 0, 3, 0, 0, 3, 0, 0}));
}

TEST(PresentationOrder, PyramidHoldsTwoFramesBack)
{
    PresentationOrder order = countedOrder();
    const std::vector<CodedPicture> pictures = {
        opening(0, 2),
        picture(4, Kind::Predicted, 2),
        picture(2, Kind::Bidirectional, 2),
        picture(1, Kind::Bidirectional, 2),
        picture(3, Kind::Bidirectional, 2),
        picture(8, Kind::Predicted, 2),
        picture(6, Kind::Bidirectional, 2),
        picture(5, Kind::Bidirectional, 2),
        picture(7, Kind::Bidirectional, 2),
    };
    EXPECT_EQ(offsetsOf(order, pictures), (Offsets{2, 5, 2, 0, 1, 5, 2, 0, 1}));
}

TEST(PresentationOrder, WithoutReorderingTheOffsetIsNone)
{
    PresentationOrder order = countedOrder();
    EXPECT_EQ(offsetsOf(order, std::vector{opening(0, 0)} + groups(50, 0, 0)), Offsets(51, 0.0));
}

TEST(PresentationOrder, HeldBackFramesWithoutReorderingAreAConstant)
{
    PresentationOrder order = countedOrder();
    EXPECT_EQ(offsetsOf(order, std::vector{opening(0, 2)} + groups(50, 0, 2)), Offsets(51, 2.0));
}

TEST(PresentationOrder, EachOpeningBeginsAnewWithoutABreak)
{
    PresentationOrder order = countedOrder();
    const auto sequence = std::vector{opening(0, 1)} + groups(2, 2, 1);
    const Offsets expected = {1, 3, 0, 0, 3, 0, 0};
    EXPECT_EQ(offsetsOf(order, sequence), expected);
    EXPECT_EQ(offsetsOf(order, sequence), expected);
    EXPECT_EQ(offsetsOf(order, sequence), expected);
}

TEST(PresentationOrder, UndeclaredReorderingShowsInTheFirstGap)
{
    PresentationOrder order = countedOrder();
    auto pictures = std::vector{opening(0, 0)} + groups(3, 2, 0);
    for (CodedPicture& one : pictures) {
        one.isReorderSure = false;
    }
    const Offsets offsets = offsetsOf(order, pictures);
    EXPECT_EQ(offsets, (Offsets{0, 3, 0, 0, 3, 0, 0, 3, 0, 0}));
    EXPECT_TRUE(timesGrow(pictures, offsets));
}

TEST(PresentationOrder, DeclarationThatIsWrongIsCorrectedByTheFirstGroup)
{
    for (const int between : {1, 2, 3, 5}) {
        PresentationOrder order = countedOrder();
        offsetsOf(order, std::vector{opening(0, 0)} + groups(1, between, 0));
        const Offsets offsets = offsetsOf(order, groups(2, between, 0, between + 1));
        Offsets expected(static_cast<std::size_t>(2 * (between + 1)));
        expected[0] = expected[static_cast<std::size_t>(between) + 1] = between + 1;
        EXPECT_EQ(offsets, expected) << between;
    }
}

TEST(PresentationOrder, WrongDeclarationIsCorrectedWhereOrderValuesAreTimes)
{
    for (const int64_t clock : {25, 25000}) {
        PresentationOrder order(0, 1200000, false);
        auto pictures = std::vector{picture(0, Kind::Intra, 0)} + groups(6, 2, 0);
        for (CodedPicture& one : pictures) {
            one.order = one.order / Step * 48000;
            one.clock = clock;
        }
        const Offsets offsets = offsetsOf(order, pictures);
        EXPECT_EQ(Offsets(offsets.begin() + 7, offsets.begin() + 13), (Offsets{3, 0, 0, 3, 0, 0}));
    }
}

TEST(PresentationOrder, DeeperPyramidThanDeclaredIsCorrected)
{
    PresentationOrder order = countedOrder();
    std::vector<CodedPicture> pictures = {opening(0, 1)};
    for (int64_t anchor = 4; anchor <= 40; anchor += 4) {
        pictures.push_back(picture(anchor, Kind::Predicted, 1));
        pictures.push_back(picture(anchor - 2, Kind::Bidirectional, 1));
        pictures.push_back(picture(anchor - 3, Kind::Bidirectional, 1));
        pictures.push_back(picture(anchor - 1, Kind::Bidirectional, 1));
    }
    const Offsets offsets = offsetsOf(order, pictures);
    EXPECT_EQ(Offsets(offsets.begin() + 5, offsets.begin() + 13),
              (Offsets{5, 2, 0, 1, 5, 2, 0, 1}));
}

TEST(PresentationOrder, GapsInAStreamWithoutReorderingMeanNothing)
{
    PresentationOrder order = countedOrder();
    std::vector<CodedPicture> pictures = {opening(0, 0)};
    for (const int64_t number : {1, 2, 5, 6, 9, 30, 31}) {
        pictures.push_back(picture(number, Kind::Predicted, 0));
        pictures.back().isReorderSure = false;
    }
    EXPECT_EQ(offsetsOf(order, pictures), Offsets(8, 0.0));
}

TEST(PresentationOrder, LostPictureDisturbsNothingBehindIt)
{
    for (std::size_t lost = 1; lost < 10; ++lost) {
        PresentationOrder order = countedOrder();
        auto pictures = std::vector{opening(0, 1)} + groups(8, 2, 1);
        pictures.erase(pictures.begin() + std::ptrdiff_t(lost));
        const Offsets offsets = offsetsOf(order, pictures);
        // From the next but one reference picture on all is as it was.
        const Offsets expected = {3, 0, 0, 3, 0, 0};
        EXPECT_EQ(Offsets(offsets.begin() + 15, offsets.begin() + 21), expected) << lost;
    }
}

TEST(PresentationOrder, LeadingPicturesOfAGroupComeFirst)
{
    PresentationOrder order = countedOrder();
    std::vector<CodedPicture> pictures;
    for (int group = 0; group < 3; ++group) {
        // I2 B0 B1 P5 B3 B4, counted from 0 in each group.
        pictures.push_back(picture(2, Kind::Intra, 1));
        pictures.back().beginsAnew = true;
        pictures.back().firstOrder = 0;
        pictures.push_back(picture(0, Kind::Bidirectional, 1));
        pictures.push_back(picture(1, Kind::Bidirectional, 1));
        pictures = pictures + groups(1, 2, 1, 2);
    }
    const Offsets group = {3, 0, 0, 3, 0, 0};
    Offsets expected = group;
    expected.insert(expected.end(), group.begin(), group.end());
    expected.insert(expected.end(), group.begin(), group.end());
    EXPECT_EQ(offsetsOf(order, pictures), expected);
}

TEST(PresentationOrder, LeadingPicturesThatWereCutAwayDelayForAWhile)
{
    PresentationOrder order = countedOrder();
    CodedPicture first = picture(2, Kind::Intra, 1);
    first.beginsAnew = true;
    const auto pictures = std::vector{first} + groups(20, 2, 1, 2);
    const Offsets offsets = offsetsOf(order, pictures);
    EXPECT_EQ(offsets[0], 3.0);
    EXPECT_TRUE(timesGrow(pictures, offsets));
    EXPECT_EQ(Offsets(offsets.end() - 6, offsets.end()), (Offsets{3, 0, 0, 3, 0, 0}));
}

TEST(PresentationOrder, DelayStaysSmallWhereEveryGroupIsCut)
{
    PresentationOrder order = countedOrder();
    CodedPicture first = picture(2, Kind::Intra, 1);
    first.beginsAnew = true;
    const auto group = std::vector{first} + groups(1, 2, 1, 2);
    for (int n = 0; n < 1000; ++n) {
        for (const double offset : offsetsOf(order, group)) {
            ASSERT_LE(offset, 14.0);
        }
    }
}

TEST(PresentationOrder, StreamEnteredAtAKeyFrameGetsGrowingTimes)
{
    for (const int between : {0, 1, 2, 3}) {
        for (int leading = 0; leading <= 2; ++leading) {
            PresentationOrder order = countedOrder();
            std::vector<CodedPicture> pictures = {picture(100, Kind::Intra, 1)};
            for (int b = leading; b > 0; --b) {
                pictures.push_back(picture(100 - b, Kind::Bidirectional, 1));
            }
            pictures = pictures + groups(20, between, 1, 100);
            const Offsets offsets = offsetsOf(order, pictures);
            EXPECT_TRUE(timesGrow(pictures, offsets)) << between << ", " << leading;
            EXPECT_EQ(offsets[offsets.size() - static_cast<std::size_t>(between) - 1], between + 1);
        }
    }
}

TEST(PresentationOrder, TooFewExpectedLeadingPicturesDisturbTheFirstAlone)
{
    PresentationOrder order = countedOrder();
    std::vector<CodedPicture> pictures = {picture(100, Kind::Intra, 1)};
    for (int b = 5; b > 0; --b) {
        pictures.push_back(picture(100 - b, Kind::Bidirectional, 1));
    }
    EXPECT_EQ(offsetsOf(order, pictures + groups(2, 2, 1, 100)),
              (Offsets{3, 0, 0, 0, 0, 0, 3, 0, 0, 3, 0, 0}));
}

TEST(PresentationOrder, WhatWasLearntOfTheStreamServesAfterASeek)
{
    for (const int leading : {1, 2, 3, 4}) {
        PresentationOrder order = countedOrder();
        offsetsOf(order, std::vector{opening(0, 1)} + groups(5, leading, 1));
        order.reset();
        std::vector<CodedPicture> pictures = {picture(100, Kind::Intra, 1)};
        for (int b = leading; b > 0; --b) {
            pictures.push_back(picture(100 - b, Kind::Bidirectional, 1));
        }
        Offsets expected(static_cast<std::size_t>(leading) + 1, 0.0);
        expected[0] = leading + 1.0;
        EXPECT_EQ(offsetsOf(order, pictures), expected);
    }
}

TEST(PresentationOrder, IntraPicturesTellMoreOfLeadingOnesThanOthers)
{
    PresentationOrder order = countedOrder();
    // Reference pictures come without others between, but before key frames two are.
    offsetsOf(order, std::vector{opening(0, 1)} + groups(3, 0, 1) +
                         std::vector{picture(6, Kind::Intra, 1), picture(4, Kind::Bidirectional, 1),
                                     picture(5, Kind::Bidirectional, 1)} +
                         groups(4, 0, 1, 6));
    order.reset();
    EXPECT_EQ(offsetsOf(order, {picture(100, Kind::Intra, 1), picture(98, Kind::Bidirectional, 1),
                                picture(99, Kind::Bidirectional, 1)}),
              (Offsets{3, 0, 0}));
}

TEST(PresentationOrder, OpeningAfterASeekNeedsNoGuess)
{
    PresentationOrder order = countedOrder();
    offsetsOf(order, std::vector{opening(0, 1)} + groups(5, 2, 1));
    order.reset();
    EXPECT_EQ(offsetsOf(order, std::vector{opening(500, 1)} + groups(2, 2, 1, 500)),
              (Offsets{1, 3, 0, 0, 3, 0, 0}));
}

TEST(PresentationOrder, BidirectionalPicturesInFrontOfAllOthersAreShownAtOnce)
{
    PresentationOrder order = countedOrder();
    offsetsOf(order, std::vector{opening(0, 1)} + groups(5, 2, 1));
    order.reset();
    // The picture behind them is the first whose order value can be trusted.
    EXPECT_EQ(
        offsetsOf(order, {picture(-40, Kind::Bidirectional, 1), picture(7, Kind::Bidirectional, 1),
                          picture(52, Kind::Predicted, 1), picture(50, Kind::Bidirectional, 1),
                          picture(51, Kind::Bidirectional, 1)}),
        (Offsets{0, 0, 3, 0, 0}));
}

TEST(PresentationOrder, SingleFieldsAreHalfAFrame)
{
    PresentationOrder order = countedOrder();
    std::vector<CodedPicture> fields;
    for (const CodedPicture& frame : std::vector{opening(0, 1)} + groups(2, 2, 1)) {
        CodedPicture field = frame;
        field.frames = 0.5;
        fields.push_back(field);
        field.order += 1;
        field.beginsAnew = false;
        fields.push_back(field);
    }
    EXPECT_EQ(offsetsOf(order, fields), (Offsets{1, 1, 3, 3, 0, 0, 0, 0, 3, 3, 0, 0, 0, 0}));
}

TEST(PresentationOrder, OtherDistancesOfOrderValuesAreLearnt)
{
    for (const int64_t step : {1, 4, 6}) {
        PresentationOrder order = countedOrder();
        auto pictures = std::vector{opening(0, 1)} + groups(30, 2, 1);
        for (CodedPicture& one : pictures) {
            one.order = one.order / Step * step;
            one.firstOrder = one.order;
        }
        const Offsets offsets = offsetsOf(order, pictures);
        EXPECT_EQ(Offsets(offsets.end() - 6, offsets.end()), (Offsets{3, 0, 0, 3, 0, 0})) << step;
    }
}

TEST(PresentationOrder, TimesNeedNotBeEven)
{
    for (const double rate : {25.0, 30.0, 24000.0 / 1001, 30000.0 / 1001, 15.0, 50.0, 60.0}) {
        PresentationOrder order(0, 1000000, false);
        auto pictures = std::vector{picture(0, Kind::Intra, 1)} + groups(500, 2, 1);
        for (CodedPicture& one : pictures) {
            const auto number = static_cast<double>(one.order) / Step;
            // In whole milliseconds, as some writers do.
            one.order = static_cast<int64_t>(number * 1000.0 / rate) * 1000;
            one.clock = 1000;
        }
        const Offsets offsets = offsetsOf(order, pictures);
        EXPECT_EQ(offsets[0], 1.0) << rate;
        // Slow rates are taken for a multiple at first.
        for (std::size_t n = rate < 20 ? 60 : 1; n < offsets.size(); ++n) {
            ASSERT_EQ(offsets[n], n % 3 == 1 ? 3.0 : 0.0) << rate << ", " << n;
        }
    }
}

TEST(PresentationOrder, SlowClockOfTheStreamTellsItsFrames)
{
    for (const int rate : {1, 5, 10, 12, 15, 25, 30, 50, 60}) {
        PresentationOrder order(0, 1200000, false);
        auto pictures = std::vector{picture(0, Kind::Intra, 1)} + groups(5, 3, 1);
        for (CodedPicture& one : pictures) {
            one.clock = rate;
            one.order = one.order / Step * (1200000 / rate);
        }
        EXPECT_EQ(offsetsOf(order, pictures),
                  (Offsets{1, 4, 0, 0, 0, 4, 0, 0, 0, 4, 0, 0, 0, 4, 0, 0, 0, 4, 0, 0, 0}))
            << rate;
    }
}

TEST(PresentationOrder, TimesThatBeginAgainAtAKeyFrameAreFollowed)
{
    PresentationOrder order(0, 1200000, false);
    for (int group = 0; group < 20; ++group) {
        auto pictures = std::vector{picture(0, Kind::Intra, 1)} + groups(3, 2, 1);
        for (CodedPicture& one : pictures) {
            one.order *= 24000;
            one.clock = 25;
        }
        const Offsets offsets = offsetsOf(order, pictures);
        EXPECT_EQ(Offsets(offsets.begin() + 4, offsets.end()), (Offsets{3, 0, 0, 3, 0, 0}))
            << group;
    }
}

TEST(PresentationOrder, JumpInTheOrderValuesIsNoOffset)
{
    for (const int64_t jump :
         {int64_t{-5000}, int64_t{-60}, int64_t{60}, int64_t{5000}, int64_t{1} << 40}) {
        PresentationOrder order = countedOrder();
        offsetsOf(order, std::vector{opening(6000, 1)} + groups(5, 2, 1, 6000));
        const Offsets offsets = offsetsOf(order, groups(8, 2, 1, 6000 + jump));
        EXPECT_LE(*std::max_element(offsets.begin(), offsets.end()), 8.0) << jump;
        EXPECT_EQ(Offsets(offsets.end() - 3, offsets.end()), (Offsets{3, 0, 0})) << jump;
    }
}

TEST(PresentationOrder, AnyOrderValuesGiveModerateOffsets)
{
    unsigned int state = 1;
    const auto random = [&state](unsigned int below) {
        state = state * 1664525U + 1013904223U;
        return static_cast<int>((state >> 8) % below);
    };
    for (int round = 0; round < 200; ++round) {
        PresentationOrder order(round % 2 == 0 ? Step : 0, 1200000, round % 3 == 0);
        for (int n = 0; n < 300; ++n) {
            CodedPicture any;
            any.order = random(4) == 0 ? random(1U << 22) - (1 << 21) : random(60);
            any.kind = static_cast<Kind>(random(3));
            any.beginsAnew = random(12) == 0;
            any.firstOrder = any.order - random(40);
            any.frames = random(5) == 0 ? 0.5 : 1.0;
            any.reorder = random(50) == 0 ? random(20) : 0;
            any.clock = random(50000);
            const double offset = order.next(any);
            ASSERT_GE(offset, 0.0);
            ASSERT_LE(offset, 64.0);
        }
        order.reset();
    }
}
