#pragma once

#include "encoder/FFMpegEncoder.h"
#include "tests/encoder/OutputSession.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zel::test {

/// A packet that the stage delivered, and that was given back.
struct Delivered
{
    streamer::PacketType::Enum type = streamer::PacketType::None;
    std::string bytes;
    unsigned long long timestampUs = 0;
    unsigned long long durationUs = 0;
    bool keyFrame = false;

    bool hasTimestamp() const { return timestampUs != streamer::SamplePacket::NoTimestamp; }
    /// Of a metadata packet.
    std::string action() const;
};

/// The packets of a kind.
std::vector<Delivered> deliveredOf(const std::vector<Delivered>& packets,
                                   streamer::PacketType::Enum type);
/// The container's bytes.
std::string containerBytes(const std::vector<Delivered>& packets);

/// A packet to write, with the one reference that write takes over.
streamer::SamplePacket* samplePacket(streamer::PacketType::Enum type, const std::string& bytes,
                                     unsigned long long timestampUs,
                                     unsigned long long durationUs = 0, bool keyFrame = false);

/// An encoder stage with a reader on a thread of its own, as a host has one.
///
///     StageRun run(session);           // init and start
///     run.write(samplePacket(...));    // on the test's thread
///     for (const Delivered& packet : run.finish()) ...
///
/// A test whose packets find room in the queue can do without that thread: what the stage delivers
/// then waits until it is asked for.
///
/// Owner and thread: the test.
class StageRun
{
public:
    enum class Reader
    {
        OnItsThread,
        TheTest, ///< through next() and finish()
    };

    /// @param session  outlives this
    explicit StageRun(OutputSession& session, Reader reader = Reader::OnItsThread);
    /// Stops and closes.
    ~StageRun();
    StageRun(const StageRun&) = delete;
    StageRun& operator=(const StageRun&) = delete;

    int initResult() const { return m_initResult; }
    int startResult() const { return m_startResult; }
    FFMpegEncoder& stage() { return *m_stage; }
    void write(streamer::SamplePacket* packet) { m_stage->write(packet); }
    /// Reads one packet on the test's thread, and waits for it.
    /// @return nothing once the stage is stopped
    std::optional<Delivered> next();
    /// All that the stage has delivered by now, since the last call; not for RTP, whose packets are
    /// put in order.
    std::vector<Delivered> soFar();
    /// The host's seek. A reader on its thread goes on behind it; calls of the stage itself end it.
    void seek(unsigned long long positionMs);
    /// Writes the end of the stream and waits until it has come out.
    /// @return all that was delivered, without the packet that says the end
    std::vector<Delivered> finish();

private:
    void readAll();
    void readToMarker();

    std::unique_ptr<FFMpegEncoder> m_stage;
    const Reader m_readerKind;
    int m_initResult;
    int m_startResult = 0;
    std::atomic<unsigned int> m_seeks{0}; ///< begun and ended ones, so odd during one
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Delivered> m_delivered; ///< guarded by m_mutex, as the next two
    bool m_isMarkerRead = false;
    bool m_hasReaderEnded = false;
    std::thread m_reader;
};

/// Which streams of a medium are read as they are, and from where to where.
struct Feed
{
    bool copyAudio = false;
    bool copyVideo = false;
    unsigned long long startMs = 0;
    unsigned long long endMs = ~0ULL;
    /// Called before each packet is written, with its kind, time stamp and key flag.
    std::function<void(streamer::PacketType::Enum, unsigned long long, bool)> beforeWrite;
};

/// Reads a medium with the input plug-in, as a host does before the stage's set-up.
class MediumFeed
{
public:
    MediumFeed(const std::string& path, const Feed& feed);
    ~MediumFeed();
    MediumFeed(const MediumFeed&) = delete;
    MediumFeed& operator=(const MediumFeed&) = delete;

    /// Describes medium and input in the session. Size and frame rate of the request are the
    /// medium's unless they are set, and so are channels and sample rate of copied audio.
    void describe(OutputSession& session);
    /// Writes packets up to the end of the medium or of the feed. Can be called again.
    /// @param most  packets
    void writeTo(FFMpegEncoder& stage, std::size_t most = ~std::size_t{0});
    void seek(unsigned long long positionMs);

private:
    struct Releaser
    {
        void operator()(streamer::SamplePacket* packet) const { packet->release(); }
    };

    /// @return nothing when the first packet is one of the medium, which is kept
    std::optional<std::string> readSetUp();

    Feed m_feed;
    std::unique_ptr<streamer::InputPluginInterface> m_input;
    host::MediumRecord m_medium;
    std::unique_ptr<streamer::SamplePacket, Releaser> m_first; ///< read, but not yet written
};

/// The whole way: a medium through a session.
/// @return what was delivered, without the packet that says the end; empty when the stage refused
std::vector<Delivered> transcode(const std::string& path, OutputSession& session,
                                 const Feed& feed = {});

} // namespace zel::test
