#include "host/Records.h"

#include <gtest/gtest.h>

namespace zel::host {

TEST(HostRecords, AnEmptyFieldAnswersZeroAtTheBorder)
{
    const AudioRecord audio;
    EXPECT_FALSE(audio.bitrate.has_value());
    EXPECT_EQ(audio.getBitrate(), 0);
    EXPECT_STREQ(audio.getCodec(), "");
    const VideoRecord video;
    EXPECT_EQ(video.getFrameRate(), 0.0);
    EXPECT_EQ(video.getPixelFormat(), streamer::VideoPixelFormat::RGB24);
}

TEST(HostRecords, ZeroThatWasWrittenIsNotEmpty)
{
    AudioRecord audio;
    audio.setSampleFlags(0);
    EXPECT_TRUE(audio.sampleFlags.has_value());
}

TEST(HostRecords, NullTextsBecomeEmptyOnes)
{
    MediumRecord medium;
    medium.setTitle(nullptr);
    medium.setProperty("key", nullptr);
    EXPECT_EQ(medium.title, "");
    EXPECT_STREQ(medium.getProperties()->get("key"), "");
}

TEST(HostRecords, PropertyThatIsNotThereIsNull)
{
    const PropertyMap map{{"key", "value"}};
    EXPECT_STREQ(map.get("key"), "value");
    EXPECT_EQ(map.get("Key"), nullptr);
    EXPECT_EQ(map.get(nullptr), nullptr);
}

TEST(HostRecords, ProtocolAndExtensionComeFromTheMediumsName)
{
    const auto parts = [](const char* url) {
        const MediumRecord medium(url);
        return std::pair(medium.protocol, medium.extension);
    };
    EXPECT_EQ(parts("/films/a.b/c.MP4"), std::pair(std::string(), std::string("MP4")));
    EXPECT_EQ(parts("/films.d/c"), std::pair(std::string(), std::string()));
    EXPECT_EQ(parts("/films/.hidden"), std::pair(std::string(), std::string()));
    EXPECT_EQ(parts("http://host.org/a.mp3?b=c.d"),
              std::pair(std::string("http://"), std::string("mp3")));
    EXPECT_EQ(parts("https://host.org/a.flv#t=1.5/x.avi"),
              std::pair(std::string("https://"), std::string("flv")));
    EXPECT_EQ(parts("http://host.org/a.wmv?next=http://b.org/c.mp4"),
              std::pair(std::string("http://"), std::string("wmv")));
    EXPECT_EQ(parts("http://host.org?a=/b.mp4"), std::pair(std::string("http://"), std::string()));
    EXPECT_EQ(parts("http://host.org"), std::pair(std::string("http://"), std::string()));
    EXPECT_EQ(parts("windleRadio://17"), std::pair(std::string("windleRadio://"), std::string()));
    EXPECT_EQ(parts("a/b://c.mp4"), std::pair(std::string(), std::string("mp4")));
}

TEST(HostRecords, ErrorKeepsItsFirstMessageBesideTheLast)
{
    ErrorRecord error;
    error.setMessage("refused");
    EXPECT_FALSE(error.earlier.has_value());
    error.setMessage("not opened");
    error.setMessage("given up");
    EXPECT_EQ(error.earlier, "refused");
    EXPECT_EQ(error.message, "given up");
}

TEST(HostRecords, PartIsPresentOnceItHasACodec)
{
    OutputStreamRecord stream;
    EXPECT_FALSE(stream.hasVideo());
    stream.getVideo()->setCodec("raw");
    EXPECT_TRUE(stream.hasVideo());
    stream.getVideo()->setCodec("none");
    EXPECT_FALSE(stream.hasVideo());
}

TEST(HostRecords, CopyBetweenOwnRecordsKeepsEveryField)
{
    OutputStreamRecord from;
    from.setFormat("mov");
    from.setProperty("basePath", "/tmp");
    from.bitrate = 7;
    from.getAudio()->setCodec("aac");
    OutputStreamRecord to;
    from.copyTo(&to);
    EXPECT_EQ(to.format, "mov");
    EXPECT_STREQ(to.properties.get("basePath"), "/tmp");
    EXPECT_EQ(to.getBitrate(), 7);
    EXPECT_FALSE(to.multiplexed.has_value());
    EXPECT_TRUE(to.hasAudio());
    EXPECT_FALSE(to.hasVideo());
}

TEST(HostRecords, InputRecordIsOneStreamUnderBothInterfaces)
{
    const InputStreamRecord input;
    input.getStreamDescription()->setFormat("flv");
    input.getStreamDescription()->getVideo()->setWidth(320);
    EXPECT_STREQ(input.getFormat(), "flv");
    EXPECT_EQ(input.getVideo()->getWidth(), 320);
}

} // namespace zel::host
