#include "common/ffmpeg/EncoderNames.h"

#include <gtest/gtest.h>

#include <string>

using zel::av::findEncoder;

TEST(EncoderNames, NamesThatHostsUseAreFound)
{
    for (const std::string name :
         {"wmv1", "wmv2", "wmav1", "wmav2", "libmp3lame", "libopencore_amrnb", "libvo_amrwbenc",
          "mpeg1video", "mpeg2video", "mp2", "flv", "aac", "mpeg4", "mjpeg", "h263", "h263p", "ac3",
          "flac"}) {
        const AVCodec* codec = findEncoder(name.c_str());
        ASSERT_NE(codec, nullptr) << name;
        EXPECT_EQ(codec->name, name);
    }
}

TEST(EncoderNames, OldNameOfWideBandAmrStillWorks)
{
    const AVCodec* codec = findEncoder("libopencore_amrwb");
    ASSERT_NE(codec, nullptr);
    EXPECT_EQ(codec->id, AV_CODEC_ID_AMR_WB);
    EXPECT_EQ(codec, findEncoder("libvo_amrwbenc"));
}

TEST(EncoderNames, UnknownNamesAreNotFound)
{
    EXPECT_EQ(findEncoder(nullptr), nullptr);
    for (const char* name : {"", "vp6", "wmv3", "MP2", "mp2 ", "no such encoder"}) {
        EXPECT_EQ(findEncoder(name), nullptr) << name;
    }
}

TEST(EncoderNames, EmptyH264HasNoEncoder)
{
    EXPECT_EQ(findEncoder("h264Empty"), nullptr);
}
