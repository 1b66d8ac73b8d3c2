#include "plugin/PluginTypes.h"

#include <gtest/gtest.h>

#include <type_traits>

using namespace zel::streamer;

// The values cross a binary border, so they are compared with plain numbers.

TEST(PluginTypes, PacketTypeValuesHold)
{
    EXPECT_EQ(PacketType::Audio, 0);
    EXPECT_EQ(PacketType::Video, 1);
    EXPECT_EQ(PacketType::None, 2);
    EXPECT_EQ(PacketType::Multiplexed, 3);
    EXPECT_EQ(PacketType::Notice, 4);
    EXPECT_EQ(PacketType::Metadata, 5);
}

TEST(PluginTypes, PacketTypeIsASignedIntegerSoThatMinusOneFits)
{
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<PacketType::Enum>, int>));
    EXPECT_EQ(static_cast<int>(static_cast<PacketType::Enum>(-1)), -1);
}

TEST(PluginTypes, InputEventValuesHold)
{
    EXPECT_EQ(InputEvent::EndOfFileReceived, 0);
    EXPECT_EQ(InputEvent::BrokenStream, 1);
}

TEST(PluginTypes, DecodingModeValuesHold)
{
    EXPECT_EQ(DecodingMode::All, 0);
    EXPECT_EQ(DecodingMode::KeyFramesOnly, 1);
    EXPECT_EQ(DecodingMode::None, 2);
}

TEST(PluginTypes, VideoPixelFormatValuesHold)
{
    EXPECT_EQ(VideoPixelFormat::RGB24, 0);
    EXPECT_EQ(VideoPixelFormat::BGR24, 1);
    EXPECT_EQ(VideoPixelFormat::BGRA, 2);
    EXPECT_EQ(VideoPixelFormat::RGBA, 3);
    EXPECT_EQ(VideoPixelFormat::YUV420P, 4);
    EXPECT_EQ(VideoPixelFormat::YUYV422, 5);
}
