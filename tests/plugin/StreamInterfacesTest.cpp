#include "plugin/StreamInterfaces.h"

#include "plugin/MetadataPacket.h"
#include "plugin/SimpleSamplePacket.h"
#include "tests/plugin/Slots.h"

#include <gtest/gtest.h>

using namespace zel::streamer;
using zel::test::slotOf;

namespace {

/// Two entries of a destructor stand in front of the first operation.
constexpr int firstSlot = 2;

/// A stage that has only what it must have.
class PlainStage : public TranscoderPluginAdaptor
{
public:
    void getOutputStreamDescription(OutputStreamDescription*) override {}
    bool readFrame(PacketType::Enum&, unsigned char*&, unsigned int&, unsigned long long&,
                   unsigned long long&, void*&, bool&) override
    {
        return false;
    }
    void freeFrame(unsigned char*, void*) override {}
    int init(const MediumDescription*, const InputStreamDescription*,
             const RequestedStreamDescription*, const MapGeneric*, EncoderEngine*) override
    {
        return 0;
    }
    int close() override { return 1; }
    int start() override { return 1; }
    int stop() override { return 1; }
    int write(SamplePacket*) override { return 41; }
    void resetPosition(unsigned long long positionMs) override { m_position = positionMs; }
    virtual void behindTheStage() {}

    unsigned long long m_position = 0;
};

class PlainInput : public InputPluginInterface
{
public:
    explicit PlainInput(bool& dead) : m_dead(dead) {}
    PlainInput(const PlainInput&) = delete;
    PlainInput& operator=(const PlainInput&) = delete;
    ~PlainInput() override { m_dead = true; }

    void getOutputStreamDescription(OutputStreamDescription*) override {}
    bool readFrame(PacketType::Enum&, unsigned char*&, unsigned int&, unsigned long long&,
                   unsigned long long&, void*&, bool&) override
    {
        return false;
    }
    void freeFrame(unsigned char*, void*) override {}
    bool open(const MediumDescription*, Error*, EncoderEngine*) override { return false; }
    bool updateMedium(const MediumDescription*, Error*, EncoderEngine*) override { return false; }
    int close() override { return 1; }
    int start() override { return 1; }
    int stop() override { return 1; }
    int pause() override { return 1; }
    int resume() override { return 1; }
    int getPosition(unsigned long long&) override { return 2; }
    int setTimePosition(unsigned long long) override { return 2; }
    int setBytePosition(unsigned long long) override { return 2; }
    int resetPosition(unsigned long long) override { return 2; }
    bool isSingleInstance() override { return false; }
    void getMediumDescription(MediumDescription*) override {}
    void getInputStreamDescription(OutputStreamDescription*) override {}
    bool skipAudioDecoding() override { return true; }
    bool skipVideoDecoding() override { return true; }
    bool setVideoDecodingMode(DecodingMode::Enum) override { return false; }
    bool getInputBufferStatus(unsigned int&) override { return false; }
    void setInputEventCallback(void (*)(InputEvent::Enum, int, int, void*), void*) override {}
    virtual void behindTheInput() {}

private:
    bool& m_dead;
};

class SimplePacketWithMore : public SimpleSamplePacket
{
public:
    virtual void behindThePacket() {}
};

class MetadataPacketWithMore : public MetadataPacket
{
public:
    MetadataPacketWithMore() : MetadataPacket("key", "value") {}
    virtual void behindThePacket() {}
};

} // namespace

TEST(StreamInterfaces, InputStreamSlotsHold)
{
    int slot = firstSlot;
    EXPECT_EQ(slotOf(&InputStream::getOutputStreamDescription), slot++);
    EXPECT_EQ(slotOf(&InputStream::readFrame), slot++);
    EXPECT_EQ(slotOf(&InputStream::freeFrame), slot++);
}

TEST(StreamInterfaces, OutputStreamSlotsHold)
{
    EXPECT_EQ(slotOf(&OutputStream::write), firstSlot);
    EXPECT_EQ(slotOf(&OutputStream::resetPosition), firstSlot + 1);
}

TEST(StreamInterfaces, InputPluginSlotsHold)
{
    int slot = firstSlot;
    EXPECT_EQ(slotOf(&InputPluginInterface::getOutputStreamDescription), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::readFrame), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::freeFrame), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::open), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::updateMedium), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::close), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::start), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::stop), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::pause), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::resume), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::getPosition), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::setTimePosition), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::setBytePosition), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::resetPosition), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::isSingleInstance), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::getMediumDescription), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::getInputStreamDescription), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::skipAudioDecoding), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::skipVideoDecoding), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::setVideoDecodingMode), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::getInputBufferStatus), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::setInputEventCallback), slot++);
    EXPECT_EQ(slotOf(&InputPluginInterface::getCPULoadFactor), slot++);
    EXPECT_EQ(slotOf(&PlainInput::behindTheInput), slot) << "an operation more or less";
}

TEST(StreamInterfaces, TranscoderPluginSlotsHold)
{
    int slot = firstSlot;
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::getOutputStreamDescription), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::readFrame), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::freeFrame), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::init), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::close), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::start), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::stop), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::updateBitrate), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::getBitrate), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::setPerformanceLevel), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::getPerformanceLevel), slot++);
    EXPECT_EQ(slotOf(&TranscoderPluginInterface::skipFrame), slot++);
    // A concrete stage repeats the output stream's two operations behind those of the adaptor.
    EXPECT_EQ(slotOf(&PlainStage::write), slot++);
    EXPECT_EQ(slotOf(&PlainStage::resetPosition), slot++);
    EXPECT_EQ(slotOf(&PlainStage::behindTheStage), slot) << "an operation more or less";
}

TEST(StreamInterfaces, SamplePacketSlotsHold)
{
    int slot = firstSlot;
    EXPECT_EQ(slotOf(&SamplePacket::release), slot++);
    EXPECT_EQ(slotOf(&SamplePacket::retain), slot++);
    EXPECT_EQ(slotOf(&SamplePacket::getTimestamp), slot++);
    EXPECT_EQ(slotOf(&SamplePacket::setTimestamp), slot++);
    EXPECT_EQ(slotOf(&SamplePacket::getDuration), slot++);
    EXPECT_EQ(slotOf(&SamplePacket::setDuration), slot++);
    EXPECT_EQ(slotOf(&SamplePacket::getType), slot++);
    EXPECT_EQ(slotOf(&SamplePacket::getBuffer), slot++);
    EXPECT_EQ(slotOf(&SamplePacket::getLength), slot++);
    EXPECT_EQ(slotOf(&SamplePacket::isKeyFrame), slot++);
    EXPECT_EQ(slotOf(&MetadataPacketWithMore::behindThePacket), slot);
    EXPECT_EQ(slotOf(&SimpleSamplePacket::setAndCopy), slot++);
    EXPECT_EQ(slotOf(&SimpleSamplePacket::set), slot++);
    EXPECT_EQ(slotOf(&SimplePacketWithMore::behindThePacket), slot);
}

TEST(StreamInterfaces, StageIsAnInputStreamFirstAndAnOutputStreamSecond)
{
    PlainStage stage;
    TranscoderPluginInterface* plugin = &stage;
    EXPECT_EQ(static_cast<void*>(static_cast<InputStream*>(plugin)), static_cast<void*>(plugin));
    OutputStream* sink = plugin;
    EXPECT_EQ(reinterpret_cast<char*>(sink) - reinterpret_cast<char*>(plugin),
              static_cast<std::ptrdiff_t>(sizeof(void*)));
    EXPECT_EQ(sink->write(nullptr), 41);
    sink->resetPosition(42);
    EXPECT_EQ(stage.m_position, 42U);
}

TEST(StreamInterfaces, AdaptorAnswersNotSupportedAndTouchesNothing)
{
    PlainStage stage;
    TranscoderPluginInterface* plugin = &stage;
    unsigned int value = 77;
    EXPECT_EQ(plugin->updateBitrate(1000000), 2);
    EXPECT_EQ(plugin->getBitrate(value), 2);
    EXPECT_EQ(plugin->setPerformanceLevel(1), 2);
    EXPECT_EQ(plugin->getPerformanceLevel(value), 2);
    EXPECT_EQ(plugin->skipFrame(), 2);
    EXPECT_EQ(value, 77U);
}

TEST(StreamInterfaces, InputHasNoEstimateOfItsLoad)
{
    bool dead = false;
    PlainInput input(dead);
    EXPECT_EQ(static_cast<InputPluginInterface&>(input).getCPULoadFactor(), 0);
}

TEST(StreamInterfaces, HostEndsAPluginThroughItsInterface)
{
    bool dead = false;
    InputPluginInterface* input = new PlainInput(dead);
    delete input;
    EXPECT_TRUE(dead);
    dead = false;
    InputStream* stream = new PlainInput(dead);
    delete stream;
    EXPECT_TRUE(dead);
}
