#include "host/Records.h"
#include "input/FFMpegInput.h"
#include "tests/input/NetworkInputs.h"
#include "tests/support/CoreReader.h"
#include "tests/support/LinkProxy.h"
#include "tests/support/MmsServer.h"
#include "tests/support/Tasks.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WatchedThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using zel::host::ErrorRecord;
using zel::host::MediumRecord;
using zel::test::AsfFile;
using zel::test::clipPath;
using zel::test::LinkCut;
using zel::test::LinkProxy;
using zel::test::LinkRules;
using zel::test::MmsFault;
using zel::test::MmsServer;
using zel::test::MmsServerOptions;
using zel::test::ScriptedServer;
using zel::test::serveClip;
using zel::test::ServerConnection;
using zel::test::ServerRequest;
using zel::test::WatchedThread;
namespace InputEvent = zel::streamer::InputEvent;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr unsigned Schedules = zel::test::Sanitized ? 40 : 100; // of each server
constexpr int Callers = 3;
constexpr int CallsEach = 14;

unsigned below(std::mt19937& random, unsigned limit)
{
    return static_cast<unsigned>(random() % limit);
}

bool readOnce(FFMpegInput& input)
{
    PacketType::Enum type = PacketType::None;
    unsigned char* data = nullptr;
    unsigned int size = 0;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    void* context = nullptr;
    bool key = false;
    const bool delivered = input.readFrame(type, data, size, timestamp, duration, context, key);
    input.freeFrame(data, context);
    return delivered;
}

bool openOnce(FFMpegInput& input, const std::string& url)
{
    const MediumRecord medium(url);
    ErrorRecord error;
    return input.open(&medium, &error, nullptr);
}

/// Calls an input in an order that only its seed decides.
class NetworkCaller
{
public:
    NetworkCaller(FFMpegInput& input, std::string url, unsigned seed)
        : m_input(input), m_url(std::move(url)), m_random(seed)
    {
    }

    void call()
    {
        switch (below(m_random, 16)) {
        case 0:
        case 1:
            openOnce(m_input, m_url);
            break;
        case 2:
        case 3:
            m_input.setTimePosition(below(m_random, 6000));
            break;
        case 4:
            m_input.resetPosition(below(m_random, 6000));
            break;
        case 5:
            m_input.stop();
            break;
        case 6:
        case 7:
            m_input.start();
            break;
        case 8:
            m_input.close();
            break;
        case 9: {
            MediumRecord medium;
            m_input.getMediumDescription(&medium);
            break;
        }
        case 10: {
            unsigned percent = 0;
            m_input.getInputBufferStatus(percent);
            break;
        }
        case 11:
            m_input.setInputEventCallback(&onEvent, &m_input);
            break;
        default:
            for (int i = 0; i < 10 && readOnce(m_input); ++i) {
            }
            break;
        }
    }

private:
    /// A host that asks back, and now and then has had enough.
    static void onEvent(InputEvent::Enum event, int, int, void* data)
    {
        auto& input = *static_cast<FFMpegInput*>(data);
        unsigned percent = 0;
        input.getInputBufferStatus(percent);
        if (event == InputEvent::BrokenStream) {
            input.close();
        }
    }

    FFMpegInput& m_input;
    std::string m_url;
    std::mt19937 m_random;
};

/// Sees that all callers come to their end: once every one of them sleeps, the input is closed,
/// since that may be a wait for a server which says nothing any more.
void awaitCallers(FFMpegInput& input, std::vector<std::unique_ptr<WatchedThread>>& callers)
{
    for (;;) {
        bool allEnded = true;
        for (const auto& caller : callers) {
            if (!caller->ended()) {
                caller->awaitSleep();
                allEnded = allEnded && caller->ended();
            }
        }
        if (allEnded) {
            return;
        }
        input.close();
    }
}

/// One input, three threads.
void playSchedule(const std::string& url, unsigned seed)
{
    FFMpegInput input;
    openOnce(input, url);
    std::vector<std::unique_ptr<WatchedThread>> callers;
    for (unsigned i = 0; i < Callers; ++i) {
        callers.push_back(std::make_unique<WatchedThread>([&input, &url, seed, i] {
            NetworkCaller caller(input, url, seed * 10 + i);
            for (int call = 0; call < CallsEach; ++call) {
                caller.call();
            }
        }));
    }
    awaitCallers(input, callers);
    callers.clear();
    input.close();
    ASSERT_TRUE(openOnce(input, clipPath("amr_wb.3gp"))) << "whatever came before";
    EXPECT_TRUE(readOnce(input));
}

/// Trouble of a link, different with each connection. The first ones of each schedule are those
/// that its open makes, which must come to an end by themselves.
std::vector<LinkRules> troubles(unsigned seed, unsigned size)
{
    std::mt19937 random(seed);
    std::vector<LinkRules> all(12);
    for (std::size_t i = 0; i < all.size(); ++i) {
        LinkRules& rules = all[i];
        const unsigned kinds = i < 2 ? 3 : 5;
        switch (below(random, kinds)) {
        case 0:
            break;
        case 1:
            rules.toClient.cutBehind =
                i < 2 ? size / 2 + below(random, size / 3) : below(random, size);
            rules.toClient.cut = below(random, 2) == 0 ? LinkCut::Close : LinkCut::Reset;
            break;
        case 2:
            rules.toClient.pace.bytesPerSecond = 20000000;
            break;
        case 3:
            rules.toClient.cutBehind = below(random, size);
            rules.toClient.cut = LinkCut::Drop;
            break;
        default:
            rules.toClient.stallBehind = below(random, size);
            break;
        }
    }
    return all;
}

void playSchedules(int port, const std::string& path, unsigned size)
{
    const std::size_t threads = zel::test::taskCount();
    for (unsigned seed = 0; seed < Schedules; ++seed) {
        SCOPED_TRACE(seed);
        {
            LinkProxy link(port, troubles(seed, size));
            playSchedule(link.url(path), seed);
        }
        if (testing::Test::HasFatalFailure()) {
            return;
        }
    }
    zel::test::awaitTaskCount(threads);
}

TEST(InputNetworkThreads, CallsInAnyOrderStandATroubledDownload)
{
    for (const char* name : {"h264_aac.flv", "mp3_vbr.mp3"}) {
        SCOPED_TRACE(name);
        const auto size = static_cast<unsigned>(zel::test::readFile(clipPath(name)).size());
        ScriptedServer server(serveClip(name));
        playSchedules(server.port(), std::string("/") + name, size);
        server.waitUntilIdle();
    }
}

TEST(InputNetworkThreads, CallsInAnyOrderStandATroubledMmsServer)
{
    const AsfFile file = AsfFile::read(clipPath("wmv2_wma2.asf"));
    MmsServerOptions options;
    options.tellLength = true;
    for (std::size_t i = 0; i < 4UL * Schedules; ++i) {
        // Every other play breaks somewhere, so that recovery meets seeks, opens and closes.
        options.faults.push_back(i % 4 == 1   ? MmsFault::closeBehindPackets(40 + i % 100)
                                 : i % 4 == 3 ? MmsFault::resetBehindBytes(100000 + i * 331)
                                              : MmsFault());
    }
    MmsServer server(file, options);
    playSchedules(server.http().port(), "/clip.asf",
                  static_cast<unsigned>(file.packetCount() * file.packetSize()));
    server.http().waitUntilIdle();
}

} // namespace
