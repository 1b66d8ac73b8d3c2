#include "plugin/PluginFactory.h"

#include <dlfcn.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

using zel::streamer::InputPluginInterface;
using zel::streamer::TranscoderPluginInterface;

namespace {

/// The built library, loaded as a host does it.
class PluginLibrary : public testing::Test
{
protected:
    void SetUp() override
    {
        m_library = dlopen(ZEL_PLUGIN_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(m_library, nullptr) << dlerror();
        m_input = find<decltype(m_input)>("InputPluginFactory");
        m_stage = find<decltype(m_stage)>("TranscoderPluginFactory");
        ASSERT_NE(m_input, nullptr) << dlerror();
        ASSERT_NE(m_stage, nullptr) << dlerror();
    }

    void TearDown() override
    {
        if (m_library) {
            dlclose(m_library);
        }
    }

    template <class Function>
    Function find(const char* name)
    {
        return reinterpret_cast<Function>(dlsym(m_library, name));
    }

    bool hasStage(const char* name)
    {
        return std::unique_ptr<TranscoderPluginInterface>(m_stage(name)) != nullptr;
    }

    void* m_library = nullptr;
    InputPluginInterface* (*m_input)() = nullptr;
    TranscoderPluginInterface* (*m_stage)(const char*) = nullptr;
};

} // namespace

TEST_F(PluginLibrary, NameInAnotherLetterCaseGivesNull)
{
    for (const char* name : {"ffmpegdecoder", "FFMPEGDECODER", "FFMpegdecoder", "ffMpegDemuxer",
                             "FFMpegEncodeR", "FFMpegAudioresampler", "FFmpegAudioResampler"}) {
        EXPECT_FALSE(hasStage(name)) << name;
    }
}

TEST_F(PluginLibrary, NameThatOnlyBeginsOrEndsRightGivesNull)
{
    for (const char* name : {"FFMpegDecoder ", " FFMpegDecoder", "FFMpegDecode", "FFMpegDecoders",
                             "FFMpegEncoder\n", "FFMpeg"}) {
        EXPECT_FALSE(hasStage(name)) << name;
    }
}

TEST_F(PluginLibrary, UnknownNameGivesNull)
{
    EXPECT_FALSE(hasStage("FFMpegInput"));
    EXPECT_FALSE(hasStage("anything"));
}

TEST_F(PluginLibrary, NullNameCountsAsEmptyAndGivesNull)
{
    EXPECT_FALSE(hasStage(nullptr));
    EXPECT_FALSE(hasStage(""));
}

TEST_F(PluginLibrary, EachCallGivesANewInput)
{
    const std::unique_ptr<InputPluginInterface> first(m_input());
    const std::unique_ptr<InputPluginInterface> second(m_input());
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_FALSE(first->isSingleInstance());
}

TEST_F(PluginLibrary, StaysLoadedAfterTheLastClose)
{
    // A log callback that FFmpeg keeps and an event loop's thread live in its code.
    dlclose(m_library);
    m_library = nullptr;
    void* still = dlopen(ZEL_PLUGIN_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(still, nullptr);
    if (still) {
        dlclose(still);
    }
}

TEST_F(PluginLibrary, EncoderStageIsMadeByItsName)
{
    EXPECT_TRUE(hasStage("FFMpegEncoder"));
}
