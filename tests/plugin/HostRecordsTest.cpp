#include "plugin/HostRecords.h"

#include "tests/plugin/Slots.h"

#include <gtest/gtest.h>

#include <type_traits>

using namespace zel::streamer;
using zel::test::slotOf;

// Hosts are built apart from this library: each accessor keeps its place for good.

TEST(HostRecords, MapGenericSlotsHold)
{
    EXPECT_EQ(slotOf(&MapGeneric::get), 2);
}

TEST(HostRecords, ErrorSlotsHold)
{
    EXPECT_EQ(slotOf(&Error::setCode), 2);
    EXPECT_EQ(slotOf(&Error::setMessage), 3);
}

TEST(HostRecords, MediumDescriptionSlotsHold)
{
    int slot = 2;
    EXPECT_EQ(slotOf(&MediumDescription::getUrl), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::getDuration), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::setDuration), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::setFileSize), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::getFileSize), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::setBitrate), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::setSeekable), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::setLive), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::setAlbum), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::setTitle), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::setArtist), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::getExtension), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::getProtocol), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::getProperties), slot++);
    EXPECT_EQ(slotOf(&MediumDescription::setProperty), slot++);
}

TEST(HostRecords, InputStreamDescriptionSlotsHold)
{
    int slot = 2;
    EXPECT_EQ(slotOf(&InputStreamDescription::isMultiplexed), slot++);
    EXPECT_EQ(slotOf(&InputStreamDescription::getFormat), slot++);
    EXPECT_EQ(slotOf(&InputStreamDescription::hasAudio), slot++);
    EXPECT_EQ(slotOf(&InputStreamDescription::hasVideo), slot++);
    EXPECT_EQ(slotOf(&InputStreamDescription::getAudio), slot++);
    EXPECT_EQ(slotOf(&InputStreamDescription::getVideo), slot++);
    EXPECT_EQ(slotOf(&InputStreamDescription::getStreamDescription), slot++);
}

TEST(HostRecords, RequestedStreamDescriptionSlotsHold)
{
    int slot = 2;
    EXPECT_EQ(slotOf(&RequestedStreamDescription::getFormat), slot++);
    EXPECT_EQ(slotOf(&RequestedStreamDescription::getAudio), slot++);
    EXPECT_EQ(slotOf(&RequestedStreamDescription::getVideo), slot++);
    EXPECT_EQ(slotOf(&RequestedStreamDescription::getOutputDescription), slot++);
}

TEST(HostRecords, OutputStreamDescriptionSlotsHold)
{
    int slot = 2;
    EXPECT_EQ(slotOf(&OutputStreamDescription::isMultiplexed), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::getFormat), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::getBitrate), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::hasAudio), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::hasVideo), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::setProperty), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::setMultiplexed), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::setFormat), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::isRTP), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::getRTPPacketSize), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::getAudio), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::getVideo), slot++);
    EXPECT_EQ(slotOf(&OutputStreamDescription::copyTo), slot++);
}

TEST(HostRecords, AudioPacketDescriptionSlotsHold)
{
    int slot = 2;
    EXPECT_EQ(slotOf(&AudioPacketDescription::getBitrate), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setBitrate), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::getSampleSize), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setSampleSize), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::getFixedSizeSamples), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setFixedSizeSamples), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::getTemporalCompression), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setTemporalCompression), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::getCodec), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setCodec), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::getCodecPrivateData), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setCodecPrivateData), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::getSampleFlags), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setSampleFlags), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::getBitsPerSample), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setBitsPerSample), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::getSampleRate), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setSampleRate), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::getChannels), slot++);
    EXPECT_EQ(slotOf(&AudioPacketDescription::setChannels), slot++);
}

TEST(HostRecords, VideoPacketDescriptionSlotsHold)
{
    int slot = 2;
    EXPECT_EQ(slotOf(&VideoPacketDescription::getBitrate), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setBitrate), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getSampleSize), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setSampleSize), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getFixedSizeSamples), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setFixedSizeSamples), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getTemporalCompression), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setTemporalCompression), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getCodec), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setCodec), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getCodecPrivateData), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setCodecPrivateData), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getPixelAspectNumerator), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setPixelAspectNumerator), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getPixelAspectDenominator), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setPixelAspectDenominator), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getWidth), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setWidth), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getHeight), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setHeight), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getBitsPerPixel), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setBitsPerPixel), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getFrameRate), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setFrameRate), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getEncoded), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setEncoded), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::getPixelFormat), slot++);
    EXPECT_EQ(slotOf(&VideoPacketDescription::setPixelFormat), slot++);
}

TEST(HostRecords, PlainDescriptionOfAnInputCanBeAdjustedAndCopied)
{
    const auto getStreamDescription = &InputStreamDescription::getStreamDescription;
    EXPECT_TRUE(
        (std::is_same_v<decltype(getStreamDescription),
                        OutputStreamDescription* (InputStreamDescription::*const)() const>));
}
