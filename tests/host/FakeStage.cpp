#include "tests/host/FakeStage.h"

#include "plugin/MetadataPacket.h"
#include "plugin/SimpleSamplePacket.h"
#include "tests/host/FakeLog.h"

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

/// The encoder stage of the fake library. It writes each call to the log; its output is a line of
/// text for each packet: the kind, "key", the time stamp and the bytes.
///
/// Options of the host change what it does:
///
///     refuses=video|audio|both    streams that it does not make, whatever they are
///     refusesCopies=video|audio|both          the same, but copied ones alone
///     initAnswers=N, startAnswers=0           results
///     stopsAfter=N                            ends by itself, without an end, after N packets
///     says=N                                  a line when it has taken N packets
///     room=N                                  packets that may wait for the reader

namespace {

using namespace zel::streamer;

class FakeStage : public TranscoderPluginAdaptor
{
public:
    ~FakeStage() override
    {
        drop();
        logLine("stage delete");
    }

    void getOutputStreamDescription(OutputStreamDescription* description) override
    {
        m_requested->getOutputDescription()->copyTo(description);
    }

    bool readFrame(PacketType::Enum& type, unsigned char*& data, unsigned int& size,
                   unsigned long long& timestamp, unsigned long long& duration, void*& context,
                   bool& keyFrame) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_readers;
        m_wake.wait(lock, [this] { return !m_queue.empty() || m_stopped || m_resetting; });
        --m_readers;
        m_wake.notify_all();
        if (m_stopped || m_resetting) {
            return false;
        }
        SamplePacket* packet = m_queue.front();
        m_queue.pop_front();
        type = packet->getType();
        data = packet->getBuffer();
        size = static_cast<unsigned int>(packet->getLength());
        timestamp = packet->getTimestamp();
        duration = packet->getDuration();
        keyFrame = packet->isKeyFrame();
        context = packet;
        ++m_lent;
        return true;
    }

    void freeFrame(unsigned char*, void* context) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        --m_lent;
        static_cast<SamplePacket*>(context)->release();
    }

    int init(const MediumDescription* medium, const InputStreamDescription* input,
             const RequestedStreamDescription* requested, const MapGeneric* options,
             EncoderEngine*) override
    {
        m_requested = requested;
        m_options = options;
        OutputStreamDescription* output = requested->getOutputDescription();
        logLine(std::string("init ") + requested->getFormat() + " of " +
                std::to_string(medium->getDuration()) + " ms" +
                (output->isMultiplexed() ? "" : ", elementary"));
        describe("video", *input->getVideo(), *requested->getVideo(), *output->getVideo());
        describe("audio", *input->getAudio(), *requested->getAudio(), *output->getAudio());
        for (const char* key : {"MpegTSMethod", "clipDuration", "sessionID", "fallbackStream",
                                "lowVideoBitrate", "crf"}) {
            if (options->get(key) != nullptr) {
                logLine(std::string("option ") + key + "=" + options->get(key));
            }
        }
        return number("initAnswers", Result::Done);
    }

    int start() override
    {
        logLine("stage start");
        const std::lock_guard<std::mutex> lock(m_mutex);
        push("header\n");
        return number("startAnswers", Result::Accepted);
    }

    int stop() override
    {
        logLine("stage stop");
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_wake.notify_all();
        return Result::Accepted;
    }

    int close() override
    {
        logLine("stage close");
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_lent != 0) {
            logLine("fault: packets not freed");
        }
        return Result::Accepted;
    }

    int write(SamplePacket* packet) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto room = static_cast<size_t>(number("room", 1000000));
        m_wake.wait(lock, [&] { return m_queue.size() < room || m_stopped; });
        if (!m_stopped) {
            take(*packet);
        }
        lock.unlock(); // giving a frame back calls the input
        packet->release();
        return 1;
    }

    void resetPosition(unsigned long long positionMs) override
    {
        logLine("resetPosition " + std::to_string(positionMs));
        std::unique_lock<std::mutex> lock(m_mutex);
        m_resetting = true;
        m_wake.notify_all();
        // Everybody who reads now gets the empty answer.
        m_wake.wait(lock, [this] { return m_readers == 0; });
        for (SamplePacket* packet : m_queue) {
            logLine("lost a packet");
            packet->release();
        }
        m_queue.clear();
        m_resetting = false;
    }

private:
    int number(const char* key, int otherwise) const
    {
        const char* value = m_options->get(key);
        return value == nullptr ? otherwise : std::atoi(value);
    }

    bool isRefused(const char* option, const char* kind) const
    {
        const char* value = m_options->get(option);
        return value != nullptr &&
               (std::strcmp(value, kind) == 0 || std::strcmp(value, "both") == 0);
    }

    template <class Description>
    void describe(const char* kind, const Description& input, const Description& requested,
                  Description& output)
    {
        const bool isCopy = std::strcmp(input.getCodec(), requested.getCodec()) == 0;
        logLine(std::string(kind) + " " + input.getCodec() + " to " + requested.getCodec() + " " +
                std::to_string(requested.getBitrate()) + shapeOf(requested) +
                (*input.getCodecPrivateData() != '\0'
                     ? std::string(" set-up ") + input.getCodecPrivateData()
                     : ""));
        if (std::strcmp(requested.getCodec(), output.getCodec()) != 0) {
            logLine("fault: two requests differ");
        }
        if (!isRefused("refuses", kind) && !(isCopy && isRefused("refusesCopies", kind))) {
            output.setCodecPrivateData("");
        }
    }

    static std::string shapeOf(const VideoPacketDescription& video)
    {
        return " " + std::to_string(video.getWidth()) + "x" + std::to_string(video.getHeight()) +
               " " + std::to_string(static_cast<int>(video.getFrameRate() * 100)) + "/100";
    }
    static std::string shapeOf(const AudioPacketDescription& audio)
    {
        return " " + std::to_string(audio.getChannels()) + "x" +
               std::to_string(audio.getSampleRate());
    }

    void take(const SamplePacket& packet)
    {
        const auto* bytes = reinterpret_cast<const char*>(packet.getBuffer());
        const auto size = static_cast<unsigned int>(packet.getLength());
        if (packet.getType() == PacketType::None) {
            logLine("end");
            push("trailer\n");
            push("", PacketType::None);
        } else if (packet.getType() == PacketType::Metadata) {
            const MetadataPacket metadata(bytes, size);
            if (metadata.getMetadata("ACTION").empty()) {
                push(std::string(bytes, size), PacketType::Metadata);
            } else {
                logLine(std::string("action ") + metadata.getMetadata("ACTION").c_str() + " " +
                        std::to_string(packet.getTimestamp()));
            }
        } else {
            push(std::string(packet.getType() == PacketType::Video ? "video" : "audio") +
                 (packet.isKeyFrame() ? " key " : " ") + std::to_string(packet.getTimestamp()) +
                 " " + std::to_string(size) + "\n");
        }
        ++m_taken;
        if (m_taken == number("says", 0)) {
            logLine("taken " + std::to_string(m_taken));
        }
        if (m_taken == number("stopsAfter", 0)) {
            m_stopped = true;
            m_wake.notify_all();
        }
    }

    void push(const std::string& text, PacketType::Enum type = PacketType::Multiplexed)
    {
        auto* packet = new SimpleSamplePacket;
        packet->setAndCopy(type, reinterpret_cast<const unsigned char*>(text.data()),
                           static_cast<int>(text.size()), 0, 0, false);
        m_queue.push_back(packet);
        m_wake.notify_all();
    }

    void drop()
    {
        for (SamplePacket* packet : m_queue) {
            packet->release();
        }
    }

    const RequestedStreamDescription* m_requested = nullptr;
    const MapGeneric* m_options = nullptr;
    std::mutex m_mutex; ///< guards all that follows
    std::condition_variable m_wake;
    std::deque<SamplePacket*> m_queue; ///< owned
    int m_readers = 0;                 ///< threads inside readFrame
    int m_lent = 0;
    int m_taken = 0;
    bool m_stopped = false;
    bool m_resetting = false;
};

} // namespace

TranscoderPluginInterface* makeFakeStage()
{
    logLine("TranscoderPluginFactory FFMpegEncoder");
    return new FakeStage;
}
