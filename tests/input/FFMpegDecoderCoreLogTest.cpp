#include "input/FFMpegDecoderCore.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include <cstdarg>
#include <string>
#include <thread>
#include <vector>

using zel::test::LogCapture;

namespace {

/// Calls the bridge as the library would.
void say(void* object, const char* format, ...) __attribute__((format(printf, 2, 3)));
void say(void* object, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    ffdecoder_log_callback(object, AV_LOG_INFO, format, arguments);
    va_end(arguments);
}

const char* nameOf(void* /*object*/)
{
    return "speaker";
}

/// An object of the library that logs.
struct Speaker
{
    const AVClass* avClass;
};

class FFMpegDecoderCoreLog : public testing::Test
{
protected:
    /// The state is the process's own, so each test starts at a line's start with a line of its
    /// own.
    FFMpegDecoderCoreLog()
    {
        speakerClass.class_name = "Speaker";
        speakerClass.item_name = &nameOf;
        speaker.avClass = &speakerClass;
        say(nullptr, "\n");
        say(nullptr, "start of %s\n",
            testing::UnitTest::GetInstance()->current_test_info()->name());
        log.clear();
    }

    std::vector<std::string> lines() const
    {
        std::vector<std::string> texts;
        for (const LogCapture::Line& line : log.lines()) {
            EXPECT_EQ(line.level, LOGLEVEL_DEBUG);
            texts.push_back(line.text);
        }
        return texts;
    }

    std::string prefix() const
    {
        char text[64];
        std::snprintf(text, sizeof(text), "[speaker @ %p]", static_cast<const void*>(&speaker));
        return text;
    }

    using Lines = std::vector<std::string>;

    LogCapture log;
    AVClass speakerClass = {};
    Speaker speaker = {};
};

} // namespace

TEST_F(FFMpegDecoderCoreLog, LineIsWrittenAtDebugLevelWhateverItsOwn)
{
    say(nullptr, "number %d of %s\n", 7, "nine");
    EXPECT_EQ(lines(), (Lines{"[ffmpeg dec] number 7 of nine"}));
}

TEST_F(FFMpegDecoderCoreLog, TwoIdenticalLinesYieldOneAndALaterOneTellsTheRepeat)
{
    say(nullptr, "same\n");
    say(nullptr, "same\n");
    EXPECT_EQ(lines(), (Lines{"[ffmpeg dec] same"}));
    say(nullptr, "other\n");
    EXPECT_EQ(lines(),
              (Lines{"[ffmpeg dec] same", "    [ffmpeg dec] Last message repeated 1 times\n",
                     "[ffmpeg dec] other"}));
}

TEST_F(FFMpegDecoderCoreLog, RepeatsAreCountedUntilAnotherLineComes)
{
    for (int i = 0; i < 5; ++i) {
        say(nullptr, "same\n");
    }
    say(nullptr, "other\n");
    say(nullptr, "same\n");
    say(nullptr, "other\n");
    EXPECT_EQ(lines(),
              (Lines{"[ffmpeg dec] same", "    [ffmpeg dec] Last message repeated 4 times\n",
                     "[ffmpeg dec] other", "[ffmpeg dec] same", "[ffmpeg dec] other"}));
}

TEST_F(FFMpegDecoderCoreLog, ObjectIsNamedAtTheStartOfALine)
{
    say(&speaker, "hello\n");
    EXPECT_EQ(lines(), (Lines{"[ffmpeg dec] " + prefix() + "hello"}));
}

TEST_F(FFMpegDecoderCoreLog, ObjectIsNotNamedInTheMiddleOfALine)
{
    say(&speaker, "first, ");
    say(&speaker, "second, ");
    say(&speaker, "third\n");
    say(&speaker, "new\n");
    EXPECT_EQ(lines(), (Lines{"[ffmpeg dec] " + prefix() + "first, ", "[ffmpeg dec] second, ",
                              "[ffmpeg dec] third", "[ffmpeg dec] " + prefix() + "new"}));
}

TEST_F(FFMpegDecoderCoreLog, ObjectWithoutClassIsNotNamed)
{
    Speaker nameless = {};
    say(&nameless, "hello\n");
    EXPECT_EQ(lines(), (Lines{"[ffmpeg dec] hello"}));
}

TEST_F(FFMpegDecoderCoreLog, RepeatsOfPartsOfALineAreWritten)
{
    say(nullptr, "dot.");
    say(nullptr, "dot.");
    say(nullptr, "\n");
    EXPECT_EQ(lines(), (Lines{"[ffmpeg dec] dot.", "[ffmpeg dec] dot.", "[ffmpeg dec] "}));
}

TEST_F(FFMpegDecoderCoreLog, LineBreaksAreCutAtBothEnds)
{
    say(nullptr, "\r\n\nin\r\nside\r\r\n");
    EXPECT_EQ(lines(), (Lines{"[ffmpeg dec] in\r\nside"}));
}

TEST_F(FFMpegDecoderCoreLog, ComplaintAboutSbrIsDroppedAndLeavesNoTrace)
{
    say(nullptr, "same\n");
    say(nullptr, "SBR not implemented. Update your FFmpeg\n");
    say(nullptr, "same\n");
    say(nullptr, "part, ");
    say(&speaker, "SBR not implemented\n"); // the line's start is not marked by it
    say(&speaker, "rest\n");
    EXPECT_EQ(lines(),
              (Lines{"[ffmpeg dec] same", "    [ffmpeg dec] Last message repeated 1 times\n",
                     "[ffmpeg dec] part, ", "[ffmpeg dec] rest"}));
}

TEST_F(FFMpegDecoderCoreLog, LongLineIsCutTo1023Bytes)
{
    const std::string text(3000, 'x');
    say(nullptr, "%s\n", text.c_str());
    EXPECT_EQ(lines(), (Lines{"[ffmpeg dec] " + std::string(1023, 'x')}));
    // Its end was lost, so the next one still belongs to it.
    say(&speaker, "rest\n");
    EXPECT_EQ(lines().back(), "[ffmpeg dec] rest");
}

TEST_F(FFMpegDecoderCoreLog, LongLineOfAnObjectIsCutToTheSameLength)
{
    const std::string text(3000, 'x');
    say(&speaker, "%s\n", text.c_str());
    EXPECT_EQ(lines(),
              (Lines{"[ffmpeg dec] " + prefix() + std::string(1023 - prefix().size(), 'x')}));
    say(nullptr, "\n");
}

TEST_F(FFMpegDecoderCoreLog, LinesOfTheLibraryArriveHere)
{
    FFMpegDecoderCore core;
    core.initWithUrl("/no/such/file", "");
    log.clear();
    av_log(nullptr, AV_LOG_WARNING, "a warning of the library\n");
    av_log(nullptr, AV_LOG_DEBUG, "a debug line of the library\n");
    av_log(nullptr, AV_LOG_TRACE, "a trace of the library\n");
    EXPECT_EQ(lines(), (Lines{"[ffmpeg dec] a warning of the library",
                              "[ffmpeg dec] a debug line of the library"}));
    EXPECT_EQ(av_log_get_level(), 48);
}

TEST_F(FFMpegDecoderCoreLog, ThreadsOfTheLibraryMayLogAtOnce)
{
    FFMpegDecoderCore core;
    core.initWithUrl("/no/such/file", "");
    log.clear();
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                av_log(nullptr, AV_LOG_INFO, "line %d of thread %d\n", i, t);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.count("[ffmpeg dec] line "), 800);
    EXPECT_EQ(log.count("[ffmpeg dec] line 199 of thread 3"), 1);
}

TEST(FFMpegDecoderCoreQuietLog, NothingOfTheLibraryIsKeptAboveDebugLevel)
{
    const LogCapture log(LOGLEVEL_INFO);
    FFMpegDecoderCore core;
    core.initWithUrl("/no/such/file", "");
    av_log(nullptr, AV_LOG_ERROR, "an error of the library\n");
    EXPECT_EQ(log.count("[ffmpeg dec]"), 0);
}
