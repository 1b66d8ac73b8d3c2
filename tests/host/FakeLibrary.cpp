#include "plugin/MetadataPacket.h"
#include "plugin/PluginFactory.h"
#include "plugin/StreamInterfaces.h"
#include "tests/host/FakeLog.h"
#include "tests/host/FakeStage.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

/// A plug-in library of the tests, loaded by zel-host in place of the real one. Its input plays a
/// script that stands in the URL and writes each call to standard output, where the real library
/// writes its log: so a test sees the order of calls, and that the host keeps its own output clean.
///
///     fake://WORD ARGUMENT...;WORD ARGUMENT...
///
///     duration MS; format RATE CHANNELS BITS; size WIDTH HEIGHT; noaudio; novideo
///     codecs VIDEO AUDIO; rate FPS
///     openfails CODE TEXT; openfails; openwaits; seekfails RESULT
///     audio TIME DURATION SIZE; video TIME DURATION [key]; times in microseconds, "-" is none
///     change RATE CHANNELS BITS; metadata KEY VALUE; none; broken; ended; buffer PERCENT;
///     wait; say LINE
///
/// "wait" and "openwaits" block until the input is stopped. Byte i of frame n is n + i.

namespace {

using namespace zel::streamer;

std::vector<std::string> wordsOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

unsigned long long timeOf(const std::string& word)
{
    return word == "-" ? SamplePacket::NoTimestamp : std::stoull(word);
}

class FakeInput : public InputPluginInterface
{
public:
    ~FakeInput() override { logLine("delete"); }

    void getOutputStreamDescription(OutputStreamDescription* description) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        description->setMultiplexed(false);
        if (m_hasVideo) {
            VideoPacketDescription* video = description->getVideo();
            video->setCodec(m_skipsVideo ? m_videoCodec.c_str() : "raw");
            video->setWidth(m_width);
            video->setHeight(m_height);
            video->setFrameRate(m_fps);
            video->setPixelFormat(VideoPixelFormat::YUYV422);
        }
        if (m_hasAudio) {
            AudioPacketDescription* audio = description->getAudio();
            audio->setCodec(m_skipsAudio ? m_audioCodec.c_str() : "raw");
            audio->setSampleRate(m_rate);
            audio->setChannels(m_channels);
            audio->setBitsPerSample(m_bits);
        }
    }

    bool readFrame(PacketType::Enum& type, unsigned char*& data, unsigned int& size,
                   unsigned long long& timestamp, unsigned long long& duration, void*& context,
                   bool& keyFrame) override
    {
        if (type != PacketType::None || data != nullptr || keyFrame) {
            logLine("fault: frame not preset");
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            if (!m_running || m_next >= m_script.size()) {
                return false;
            }
            const std::vector<std::string> words = m_script[m_next++];
            const std::string& word = words[0];
            context = this;
            if (word == "audio" || word == "video") {
                type = word == "audio" ? PacketType::Audio : PacketType::Video;
                timestamp = timeOf(words.at(1));
                duration = std::stoull(words.at(2));
                size = word == "audio" ? static_cast<unsigned>(std::stoul(words.at(3)))
                                       : static_cast<unsigned>((m_width + 1) / 2 * 4 * m_height);
                keyFrame = words.size() > 3 && words[3] == "key";
                data = newData(size);
                return true;
            }
            if (word == "change") {
                setFormat(words);
                type = PacketType::Notice;
                return true;
            }
            if (word == "metadata") {
                MetadataPacket packet(words.at(1).c_str(), words.at(2).c_str());
                type = PacketType::Metadata;
                timestamp = 0;
                size = static_cast<unsigned>(packet.getLength());
                data = packet.detachBuffer();
                m_live.insert(data);
                return true;
            }
            if (word == "none") {
                return true;
            }
            if (word == "broken" && m_callback != nullptr) {
                m_callback(InputEvent::BrokenStream, 0, 0, m_callbackData);
            }
            if (word == "ended" && m_callback != nullptr) {
                m_callback(InputEvent::EndOfFileReceived, 0, 0, m_callbackData);
            }
            if (word == "buffer") {
                m_bufferPercent = std::stoi(words.at(1));
            }
            if (word == "say") {
                logLine(words.at(1));
            }
            if (word == "wait") {
                logLine("waiting");
                m_wake.wait(lock, [this] { return !m_running; });
            }
        }
    }

    void freeFrame(unsigned char* data, void* context) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (data != nullptr && m_live.erase(data) == 0) {
            logLine("fault: freed what is not a frame");
        }
        if (context != this) {
            logLine("fault: context changed");
        }
        delete[] data;
    }

    bool open(const MediumDescription* medium, Error* error, EncoderEngine*) override
    {
        logLine("open");
        if (medium->getProperties() != nullptr &&
            medium->getProperties()->get("decoderThreads") != nullptr) {
            logLine(std::string("threads ") + medium->getProperties()->get("decoderThreads"));
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        m_running = true;
        m_next = 0;
        m_script.clear();
        std::istringstream steps(std::strstr(medium->getUrl(), "://") + 3);
        for (std::string step; std::getline(steps, step, ';');) {
            const auto words = wordsOf(step);
            if (!words.empty() && !prepare(words)) {
                m_script.push_back(words);
            }
        }
        if (m_openWaits) {
            logLine("waiting");
            m_wake.wait(lock, [this] { return !m_running; });
            return false;
        }
        if (!m_openFails) {
            return true;
        }
        if (!m_openError.empty()) {
            error->setCode(m_openCode);
            error->setMessage(m_openError.c_str());
        }
        return false;
    }

    bool updateMedium(const MediumDescription* medium, Error* error, EncoderEngine* engine) override
    {
        logLine("updateMedium");
        close();
        return open(medium, error, engine);
    }

    int close() override
    {
        logLine("close");
        stop();
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_live.empty()) {
            logLine("fault: frames not freed");
        }
        return Result::Accepted;
    }
    int start() override
    {
        logLine("start");
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_running = true;
        return Result::Accepted;
    }
    int stop() override
    {
        logLine("stop");
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_running = false;
        m_wake.notify_all();
        return Result::Accepted;
    }
    int pause() override { return Result::Accepted; }
    int resume() override { return Result::Accepted; }
    int getPosition(unsigned long long&) override { return Result::NotPossible; }
    int setTimePosition(unsigned long long positionMs) override
    {
        logLine("setTimePosition " + std::to_string(positionMs));
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_seekResult != Result::Done) {
            return m_seekResult;
        }
        // To the first frame at or after the position.
        for (m_next = 0; m_next < m_script.size(); ++m_next) {
            const auto& words = m_script[m_next];
            const bool isMedia = words[0] == "audio" || words[0] == "video";
            if (isMedia && timeOf(words[1]) >= positionMs * 1000) {
                break;
            }
        }
        return Result::Done;
    }
    int setBytePosition(unsigned long long) override { return Result::NotPossible; }
    int resetPosition(unsigned long long) override { return Result::NotPossible; }
    bool isSingleInstance() override { return false; }
    void getMediumDescription(MediumDescription* description) override
    {
        description->setDuration(m_durationMs);
        description->setLive(m_durationMs == 0);
        description->setSeekable(m_durationMs > 0);
    }
    void getInputStreamDescription(OutputStreamDescription* description) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        description->setMultiplexed(true);
        description->setFormat("fake");
        if (m_hasVideo) {
            description->getVideo()->setCodec(m_videoCodec.c_str());
            description->getVideo()->setFrameRate(m_fps);
        }
        if (m_hasAudio) {
            description->getAudio()->setCodec(m_audioCodec.c_str());
        }
    }
    bool skipAudioDecoding() override
    {
        logLine("skipAudioDecoding");
        m_skipsAudio = true;
        return true;
    }
    bool skipVideoDecoding() override
    {
        logLine("skipVideoDecoding");
        m_skipsVideo = true;
        return true;
    }
    bool setVideoDecodingMode(DecodingMode::Enum mode) override
    {
        logLine("setVideoDecodingMode " + std::to_string(mode));
        return true;
    }
    bool getInputBufferStatus(unsigned int& percent) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        percent = static_cast<unsigned>(std::max(m_bufferPercent, 0));
        return m_bufferPercent >= 0;
    }
    void setInputEventCallback(void (*callback)(InputEvent::Enum, int, int, void*),
                               void* data) override
    {
        logLine("setInputEventCallback");
        m_callback = callback;
        m_callbackData = data;
    }

private:
    /// @return false for a word that readFrame plays
    bool prepare(const std::vector<std::string>& words)
    {
        const std::string& word = words[0];
        if (word == "duration") {
            m_durationMs = std::stoull(words.at(1));
        } else if (word == "format") {
            setFormat(words);
        } else if (word == "size") {
            m_width = std::stoi(words.at(1));
            m_height = std::stoi(words.at(2));
        } else if (word == "codecs") {
            m_videoCodec = words.at(1);
            m_audioCodec = words.at(2);
        } else if (word == "rate") {
            m_fps = std::stod(words.at(1));
        } else if (word == "noaudio") {
            m_hasAudio = false;
        } else if (word == "novideo") {
            m_hasVideo = false;
        } else if (word == "openfails") {
            m_openFails = true;
            if (words.size() > 2) {
                m_openCode = std::stoi(words[1]);
                m_openError = words[2];
            }
        } else if (word == "openwaits") {
            m_openWaits = true;
        } else if (word == "seekfails") {
            m_seekResult = std::stoi(words.at(1));
        } else {
            return false;
        }
        return true;
    }

    void setFormat(const std::vector<std::string>& words)
    {
        m_rate = std::stoi(words.at(1));
        m_channels = std::stoi(words.at(2));
        m_bits = std::stoi(words.at(3));
    }

    unsigned char* newData(unsigned int size)
    {
        auto* data = new unsigned char[size];
        for (unsigned int i = 0; i < size; ++i) {
            data[i] = static_cast<unsigned char>(m_frameCount + i);
        }
        ++m_frameCount;
        m_live.insert(data);
        return data;
    }

    std::mutex m_mutex; ///< guards all that follows
    std::condition_variable m_wake;
    bool m_running = false;
    std::vector<std::vector<std::string>> m_script;
    size_t m_next = 0;
    std::set<unsigned char*> m_live; ///< frames that the host has
    int m_bufferPercent = -1;        ///< below 0 without a network buffer
    unsigned int m_frameCount = 0;
    unsigned long long m_durationMs = 0;
    int m_rate = 48000;
    int m_channels = 2;
    int m_bits = 16;
    std::string m_videoCodec = "h264"; ///< in the medium
    std::string m_audioCodec = "aac";
    double m_fps = 25;
    bool m_skipsVideo = false;
    bool m_skipsAudio = false;
    int m_width = 4;
    int m_height = 2;
    bool m_hasAudio = true;
    bool m_hasVideo = true;
    bool m_openFails = false;
    bool m_openWaits = false;
    int m_openCode = 0;
    std::string m_openError;
    int m_seekResult = Result::Done;
    void (*m_callback)(InputEvent::Enum, int, int, void*) = nullptr;
    void* m_callbackData = nullptr;
};

} // namespace

zel::streamer::InputPluginInterface* InputPluginFactory()
{
    logLine("InputPluginFactory");
    return new FakeInput;
}

zel::streamer::TranscoderPluginInterface* TranscoderPluginFactory(const char* name)
{
    return std::strcmp(name, "FFMpegEncoder") == 0 ? makeFakeStage() : nullptr;
}
