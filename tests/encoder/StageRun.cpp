#include "tests/encoder/StageRun.h"

#include "input/FFMpegInput.h"
#include "plugin/BitTools.h"
#include "plugin/MetadataPacket.h"
#include "plugin/SimpleSamplePacket.h"

#include <stdexcept>
#include <utility>

namespace PacketType = zel::streamer::PacketType;
using zel::streamer::MetadataPacket;
using zel::streamer::SamplePacket;
using zel::streamer::SimpleSamplePacket;

namespace zel::test {

namespace {

std::string hexOf(const std::string& bytes)
{
    std::string text(bytes.size() * 2, '0');
    streamer::toHexString(
        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
        reinterpret_cast<unsigned char*>(text.data()), static_cast<int>(text.size()));
    return text;
}

/// Whether a packet is the one of StageRun::soFar.
bool isMarker(const Delivered& packet)
{
    const MetadataPacket block(packet.bytes.data(), static_cast<unsigned int>(packet.bytes.size()));
    return packet.type == PacketType::Metadata && block.getMetadata("marker") == "here";
}

} // namespace

std::string Delivered::action() const
{
    const MetadataPacket block(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return block.getMetadata("ACTION");
}

std::vector<Delivered> deliveredOf(const std::vector<Delivered>& packets, PacketType::Enum type)
{
    std::vector<Delivered> found;
    for (const Delivered& packet : packets) {
        if (packet.type == type) {
            found.push_back(packet);
        }
    }
    return found;
}

std::string containerBytes(const std::vector<Delivered>& packets)
{
    std::string bytes;
    for (const Delivered& packet : packets) {
        if (packet.type == PacketType::Multiplexed) {
            bytes += packet.bytes;
        }
    }
    return bytes;
}

SamplePacket* samplePacket(PacketType::Enum type, const std::string& bytes,
                           unsigned long long timestampUs, unsigned long long durationUs,
                           bool keyFrame)
{
    auto* packet = new SimpleSamplePacket;
    packet->setAndCopy(type, reinterpret_cast<const unsigned char*>(bytes.data()),
                       static_cast<int>(bytes.size()), timestampUs, durationUs, keyFrame);
    return packet;
}

StageRun::StageRun(OutputSession& session, Reader reader)
    : m_stage(std::make_unique<FFMpegEncoder>()), m_readerKind(reader),
      m_initResult(m_stage->init(&session.medium, &session.input, &session.request,
                                 &session.options, nullptr))
{
    if (m_initResult == 0) {
        m_startResult = m_stage->start();
    }
    if (m_startResult != 0 && reader == Reader::OnItsThread) {
        m_reader = std::thread([this] { readAll(); });
    }
}

StageRun::~StageRun()
{
    m_stage->stop();
    if (m_reader.joinable()) {
        m_reader.join();
    }
    m_stage->close();
}

std::optional<Delivered> StageRun::next()
{
    Delivered packet;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    void* context = nullptr;
    if (!m_stage->readFrame(packet.type, data, size, packet.timestampUs, packet.durationUs, context,
                            packet.keyFrame)) {
        return std::nullopt;
    }
    packet.bytes.assign(reinterpret_cast<const char*>(data), data != nullptr ? size : 0);
    m_stage->freeFrame(data, context);
    return packet;
}

std::vector<Delivered> StageRun::soFar()
{
    // A packet that the stage passes on at once marks the place.
    const MetadataPacket marker("marker", "here");
    m_stage->write(samplePacket(PacketType::Metadata,
                                std::string(reinterpret_cast<const char*>(marker.getBuffer()),
                                            static_cast<std::size_t>(marker.getLength())),
                                0));
    if (m_readerKind == Reader::TheTest) {
        readToMarker();
    }
    std::unique_lock guard(m_mutex);
    if (m_readerKind == Reader::OnItsThread) {
        m_changed.wait(guard, [this] { return m_isMarkerRead || m_hasReaderEnded; });
    }
    m_isMarkerRead = false;
    return std::exchange(m_delivered, {});
}

void StageRun::readToMarker()
{
    for (auto packet = next(); packet; packet = next()) {
        if (isMarker(*packet)) {
            return;
        }
        const std::lock_guard guard(m_mutex);
        m_delivered.push_back(*packet);
    }
}

void StageRun::seek(unsigned long long positionMs)
{
    ++m_seeks;
    m_stage->resetPosition(positionMs);
    ++m_seeks;
    m_seeks.notify_all();
}

void StageRun::readAll()
{
    for (unsigned int seeks = m_seeks;; seeks = m_seeks) {
        const auto packet = next();
        if (!packet && (seeks % 2 != 0 || seeks != m_seeks)) {
            // The stage lets its readers go while the host seeks.
            const unsigned int now = m_seeks;
            if (now % 2 != 0) {
                m_seeks.wait(now);
            }
            continue;
        }
        const std::lock_guard guard(m_mutex);
        m_hasReaderEnded = !packet || packet->type == PacketType::None;
        m_isMarkerRead = m_isMarkerRead || (packet && isMarker(*packet));
        m_changed.notify_all();
        if (m_hasReaderEnded) {
            return;
        }
        if (!isMarker(*packet)) {
            m_delivered.push_back(*packet);
        }
    }
}

std::vector<Delivered> StageRun::finish()
{
    m_stage->write(samplePacket(PacketType::None, "", 0));
    if (m_reader.joinable()) {
        m_reader.join();
    } else if (m_readerKind == Reader::TheTest && m_startResult != 0) {
        readAll();
    }
    const std::lock_guard guard(m_mutex);
    return std::exchange(m_delivered, {});
}

MediumFeed::MediumFeed(const std::string& path, const Feed& feed)
    : m_feed(feed), m_input(std::make_unique<FFMpegInput>()), m_medium(path)
{
    if (feed.copyAudio) {
        m_input->skipAudioDecoding();
    }
    if (feed.copyVideo) {
        m_input->skipVideoDecoding();
    }
    host::ErrorRecord error;
    if (!m_input->open(&m_medium, &error, nullptr)) {
        throw std::runtime_error(path + ": " + error.message.value_or("cannot be opened"));
    }
    m_input->start();
    if (feed.startMs > 0) {
        m_input->setTimePosition(feed.startMs);
    }
}

MediumFeed::~MediumFeed()
{
    m_input->stop();
    m_input->close();
}

std::optional<std::string> MediumFeed::readSetUp()
{
    PacketType::Enum type = PacketType::None;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool keyFrame = false;
    if (!m_input->readFrame(type, data, size, timestamp, duration, context, keyFrame)) {
        return std::nullopt;
    }
    const std::string bytes(reinterpret_cast<char*>(data), data != nullptr ? size : 0);
    m_input->freeFrame(data, context);
    const bool isMedia = type == PacketType::Audio || type == PacketType::Video;
    if (isMedia && timestamp == SamplePacket::NoTimestamp) {
        return bytes;
    }
    m_first.reset(samplePacket(type, bytes, timestamp, duration, keyFrame));
    return std::nullopt;
}

void MediumFeed::describe(OutputSession& session)
{
    m_input->getMediumDescription(&m_medium);
    session.medium = m_medium;
    host::OutputStreamRecord stream;
    m_input->getOutputStreamDescription(&stream);
    stream.copyTo(&session.input.stream);
    // What a copied stream is set up with comes in front of its first packet.
    if (const auto setUp = m_feed.copyVideo ? readSetUp() : std::nullopt) {
        session.input.stream.video.codecPrivateData = hexOf(*setUp);
    }
    if (!session.request.video.frameRate) {
        session.request.video.frameRate = stream.video.getFrameRate();
    }
    session.request.video.width = stream.video.getWidth();
    session.request.video.height = stream.video.getHeight();
    if (m_feed.copyAudio && session.request.audio.getChannels() == 0) {
        session.request.audio.channels = stream.audio.getChannels();
        session.request.audio.sampleRate = stream.audio.getSampleRate();
    }
    session.request.output.video = session.request.video;
    session.request.output.audio = session.request.audio;
    session.request.output.multiplexed = session.request.output.multiplexed.value_or(true);
}

void MediumFeed::writeTo(FFMpegEncoder& stage, std::size_t most)
{
    PacketType::Enum type = PacketType::None;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool keyFrame = false;
    std::size_t written = 0;
    if (m_first) {
        stage.write(m_first.release());
        ++written;
    }
    while (written < most &&
           m_input->readFrame(type, data, size, timestamp, duration, context, keyFrame)) {
        const bool isMedia = type == PacketType::Audio || type == PacketType::Video;
        if (isMedia && data != nullptr) {
            if (timestamp != SamplePacket::NoTimestamp && timestamp >= m_feed.endMs * 1000) {
                m_input->freeFrame(data, context);
                return;
            }
            if (m_feed.beforeWrite) {
                m_feed.beforeWrite(type, timestamp, keyFrame);
            }
            stage.write(samplePacket(type, std::string(reinterpret_cast<char*>(data), size),
                                     timestamp, duration, keyFrame));
            ++written;
        }
        m_input->freeFrame(data, context);
    }
}

void MediumFeed::seek(unsigned long long positionMs)
{
    m_first.reset();
    m_input->setTimePosition(positionMs);
}

std::vector<Delivered> transcode(const std::string& path, OutputSession& session, const Feed& feed)
{
    MediumFeed medium(path, feed);
    medium.describe(session);
    StageRun run(session);
    if (run.startResult() == 0) {
        return {};
    }
    medium.writeTo(run.stage());
    return run.finish();
}

} // namespace zel::test
