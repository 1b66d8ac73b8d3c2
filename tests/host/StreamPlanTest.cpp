#include "host/StreamPlan.h"

#include "host/Containers.h"
#include "host/HostError.h"

#include <gtest/gtest.h>

#include <string>

namespace zel::host {

namespace {

using Wish = StreamChoice::Wish;

OutputStreamRecord medium(const std::string& video, const std::string& audio)
{
    OutputStreamRecord record;
    if (!video.empty()) {
        record.video.codec = video;
        record.video.frameRate = 25;
    }
    if (!audio.empty()) {
        record.audio.codec = audio;
    }
    return record;
}

PlanRequest request(const std::string& format, const std::string& video = "",
                    const std::string& audio = "")
{
    PlanRequest result;
    result.format = format;
    if (!video.empty()) {
        result.video = *parseStreamChoice(video);
    }
    if (!audio.empty()) {
        result.audio = *parseStreamChoice(audio);
    }
    return result;
}

/// "h264 copied, aac to mp3".
std::string planned(const PlanRequest& asked, const OutputStreamRecord& source)
{
    const Plan plan = choosePlan(asked, source);
    return actionText(plan.video) + ", " + actionText(plan.audio);
}

} // namespace

TEST(HostStreamPlan, CopiesWhatTheFormatTakes)
{
    EXPECT_EQ(planned(request("flv"), medium("h264", "aac")), "h264 copied, aac copied");
    EXPECT_EQ(planned(request("mpegts"), medium("mpeg2", "ac3")), "mpeg2 copied, ac3 copied");
    EXPECT_EQ(planned(request("matroska"), medium("mpeg4", "mp3")), "mpeg4 copied, mp3 copied");
    EXPECT_EQ(planned(request("mkv"), medium("mpeg4", "mp3")), "mpeg4 copied, mp3 copied");
}

TEST(HostStreamPlan, EncodesTheRestToTheUsualCodecs)
{
    EXPECT_EQ(planned(request("flv"), medium("mpeg4", "opus")), "mpeg4 to flv, opus to mp3");
    EXPECT_EQ(planned(request("mpegts"), medium("vp9", "opus")), "vp9 to mpeg2, opus to mp2");
    EXPECT_EQ(planned(request("matroska"), medium("vp9", "opus")), "vp9 to mpeg4, opus to mp3");
    EXPECT_EQ(planned(request("dvd"), medium("h264", "aac")), "h264 to mpeg2, aac to mp2");
    EXPECT_EQ(planned(request("asf"), medium("h264", "aac")), "h264 to wmv9, aac to wma");
}

TEST(HostStreamPlan, EachKindIsDecidedByItself)
{
    EXPECT_EQ(planned(request("flv"), medium("h264", "ac3")), "h264 copied, ac3 to mp3");
    EXPECT_EQ(planned(request("flv"), medium("hevc", "aac")), "hevc to flv, aac copied");
}

TEST(HostStreamPlan, WindowsMediaIsNotCopiedUnasked)
{
    EXPECT_EQ(planned(request("asf"), medium("wmv8", "wma")), "wmv8 to wmv9, wma to wma");
    EXPECT_EQ(planned(request("asf", "copy", "copy"), medium("wmv8", "wma")),
              "wmv8 copied, wma copied");
}

TEST(HostStreamPlan, WhatWouldBeAnnouncedAsAnotherCodecIsNeverCopied)
{
    const Plan plan = choosePlan(request("asf", "copy", "none"), medium("wmv9", "wma"));
    EXPECT_EQ(actionText(plan.video), "wmv9 to wmv9");
    ASSERT_EQ(plan.notes.size(), 1U);
    EXPECT_EQ(plan.notes[0], "video wmv9 cannot be copied, it is encoded as wmv9");
}

TEST(HostStreamPlan, KindsThatAreAbsentOrUnwantedAreLeftOut)
{
    EXPECT_EQ(planned(request("flv"), medium("", "mp3")), "none, mp3 copied");
    EXPECT_EQ(planned(request("flv"), medium("h264", "")), "h264 copied, none");
    EXPECT_EQ(planned(request("flv", "none"), medium("h264", "mp3")), "none, mp3 copied");
    EXPECT_EQ(planned(request("flv", "mpeg4"), medium("", "mp3")), "none, mp3 copied");
}

TEST(HostStreamPlan, NothingLeftIsAnError)
{
    EXPECT_THROW(choosePlan(request("flv", "none", "none"), medium("h264", "aac")), HostError);
    EXPECT_THROW(choosePlan(request("flv"), medium("", "")), HostError);
}

TEST(HostStreamPlan, ANamedCodecIsEncodedUnlessTheMediumHasIt)
{
    EXPECT_EQ(planned(request("flv", "flv", "mp3"), medium("h264", "mp3")),
              "h264 to flv, mp3 copied");
    EXPECT_EQ(planned(request("matroska", "VP9", "opus"), medium("vp9", "aac")),
              "vp9 copied, aac to opus");
}

TEST(HostStreamPlan, AForcedFormatTakesItsOwnCodecsAlone)
{
    const Plan plan = choosePlan(request("mpeg", "mpeg4", "mp2"), medium("mpeg4", "mp2"));
    EXPECT_EQ(actionText(plan.video), "mpeg4 to mpeg1video");
    EXPECT_EQ(actionText(plan.audio), "mp2 copied");
    ASSERT_EQ(plan.notes.size(), 1U);
    EXPECT_NE(plan.notes[0].find("mpeg1video"), std::string::npos);
    EXPECT_EQ(planned(request("mpeg"), medium("mpeg1video", "mp2")),
              "mpeg1video copied, mp2 copied");
    EXPECT_EQ(planned(request("mpeg", "copy"), medium("mpeg2", "mp2")),
              "mpeg2 to mpeg1video, mp2 copied");
}

TEST(HostStreamPlan, AnAudioFormatLeavesVideoOut)
{
    EXPECT_EQ(planned(request("mp3"), medium("h264", "aac")), "none, aac to mp3");
}

TEST(HostStreamPlan, AnUnknownFormatNeedsCodecsFromTheUser)
{
    EXPECT_THROW(choosePlan(request("nut"), medium("h264", "aac")), HostError);
    EXPECT_EQ(planned(request("nut", "copy", "mp3"), medium("h264", "aac")),
              "h264 copied, aac to mp3");
    EXPECT_EQ(planned(request("nut", "copy", "none"), medium("h264", "aac")), "h264 copied, none");
}

TEST(HostStreamPlan, BitRatesComeFromTheChoiceOrTheDefaults)
{
    const Plan plan = choosePlan(request("flv", "mpeg4:800k"), medium("hevc", "opus"));
    EXPECT_EQ(plan.video.bitrate, 800000);
    EXPECT_EQ(plan.audio.bitrate, 128000);
    EXPECT_EQ(choosePlan(request("flv"), medium("hevc", "opus")).video.bitrate, 500000);
}

TEST(HostStreamPlan, AFallbackStreamCopiesNothing)
{
    PlanRequest low = request("mpegts", "h264", "copy");
    low.isFallback = true;
    EXPECT_EQ(planned(low, medium("h264", "mp3")), "h264 to h264, mp3 to mp2");
    low = request("mpegts");
    low.isFallback = true;
    EXPECT_EQ(planned(low, medium("h264", "mp3")), "h264 to mpeg2, mp3 to mp2");
}

TEST(HostStreamPlanRetreat, ARefusedCopyIsEncodedAndSaidSo)
{
    const PlanRequest asked = request("mpegts", "copy");
    const auto source = medium("hevc", "aac");
    Plan plan = choosePlan(asked, source);
    EXPECT_TRUE(retreat(plan, asked, source, true, false));
    EXPECT_EQ(actionText(plan.video), "hevc to mpeg2");
    EXPECT_EQ(actionText(plan.audio), "aac copied");
    ASSERT_EQ(plan.notes.size(), 1U);
    EXPECT_EQ(plan.notes[0], "video hevc cannot be copied into mpegts, it is encoded as mpeg2");
    EXPECT_FALSE(retreat(plan, asked, source, true, false));
}

TEST(HostStreamPlanRetreat, ACopyAtABrokenRateIsDescribedByAWholeOneFirst)
{
    const PlanRequest asked = request("mpegts");
    auto source = medium("mpeg2", "mp2");
    source.video.frameRate = 29.97;
    Plan plan = choosePlan(asked, source);
    EXPECT_EQ(plan.video.frameRate, 0);
    EXPECT_TRUE(retreat(plan, asked, source, true, false));
    EXPECT_EQ(actionText(plan.video), "mpeg2 copied");
    EXPECT_EQ(plan.video.frameRate, 30);
    EXPECT_TRUE(plan.notes.empty());
    EXPECT_TRUE(retreat(plan, asked, source, true, false));
    EXPECT_EQ(actionText(plan.video), "mpeg2 to mpeg2");
    EXPECT_EQ(plan.video.frameRate, 0);
}

TEST(HostStreamPlanRetreat, WithoutAWordFromTheStageOneCopyAfterTheOtherGoes)
{
    const PlanRequest asked = request("flv");
    const auto source = medium("h264", "mp3");
    Plan plan = choosePlan(asked, source);
    EXPECT_TRUE(retreat(plan, asked, source, false, false));
    EXPECT_EQ(actionText(plan.audio), "mp3 to mp3");
    EXPECT_EQ(actionText(plan.video), "h264 copied");
    EXPECT_TRUE(retreat(plan, asked, source, false, false));
    EXPECT_EQ(actionText(plan.video), "h264 to flv");
    EXPECT_FALSE(retreat(plan, asked, source, false, false));
}

TEST(HostStreamPlanRetreat, BothAtOnceWhenBothAreRefused)
{
    const PlanRequest asked = request("mpegts", "copy", "copy");
    const auto source = medium("vp9", "opus");
    Plan plan = choosePlan(asked, source);
    EXPECT_TRUE(retreat(plan, asked, source, true, true));
    EXPECT_EQ(actionText(plan.video), "vp9 to mpeg2");
    EXPECT_EQ(actionText(plan.audio), "opus to mp2");
    EXPECT_EQ(plan.notes.size(), 2U);
}

TEST(HostStreamPlanRetreat, IsImpossibleWhereTheRefusedStreamIsEncoded)
{
    const PlanRequest asked = request("mpegts", "vp9", "copy");
    const auto source = medium("h264", "aac");
    Plan plan = choosePlan(asked, source);
    EXPECT_FALSE(retreat(plan, asked, source, true, false));
}

TEST(HostAudioTrouble, SurroundIsFineAtSixteenBitsAlone)
{
    AudioRecord audio;
    const auto trouble = [&](int channels, int bits) {
        audio.channels = channels;
        audio.bitsPerSample = bits;
        return audioTrouble(audio);
    };
    EXPECT_EQ(trouble(1, 8), "");
    EXPECT_EQ(trouble(2, 32), "");
    EXPECT_EQ(trouble(6, 16), "");
    EXPECT_NE(trouble(3, 32).find("3 channels at 32 bits"), std::string::npos);
    EXPECT_NE(trouble(7, 16), "");
}

TEST(HostContainers, FormatComesFromTheNameOfTheFile)
{
    EXPECT_EQ(formatOfFile("/a/b.flv"), "flv");
    EXPECT_EQ(formatOfFile("b.TS"), "mpegts");
    EXPECT_EQ(formatOfFile("b.mkv"), "matroska");
    EXPECT_EQ(formatOfFile("b.vob"), "dvd");
    EXPECT_EQ(formatOfFile("b.wmv"), "asf");
    EXPECT_EQ(formatOfFile("b"), "");
    EXPECT_EQ(formatOfFile("b.mp4"), "");
    EXPECT_EQ(formatOfFile("ts"), "");
    EXPECT_EQ(formatOfFile("-"), "");
}

TEST(HostContainers, UsualCodecsOfAFormatAreAmongItsOwn)
{
    for (const char* format : {"flv", "mpegts", "matroska", "mpeg", "dvd", "avi"}) {
        const Container* container = findContainer(format);
        ASSERT_NE(container, nullptr) << format;
        const auto has = [](const auto& codecs, std::string_view codec) {
            return std::find(codecs.begin(), codecs.end(), codec) != codecs.end();
        };
        EXPECT_TRUE(has(container->videoCopies, container->usualVideo)) << format;
        EXPECT_TRUE(has(container->audioCopies, container->usualAudio)) << format;
    }
}

} // namespace zel::host
