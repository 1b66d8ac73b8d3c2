#include "input/FFMpegInput.h"

#include "common/utils/CallbackMark.h"
#include "input/FFMpegDecoderCore.h"
#include "network/HTTPClient.h"

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>

#include <cstdlib>
#include <cstring>
#include <exception>

using zel::streamer::EncoderEngine;
using zel::streamer::Error;
using zel::streamer::MapGeneric;
using zel::streamer::MediumDescription;
using zel::streamer::OutputStreamDescription;
namespace Result = zel::streamer::Result;

namespace {

constexpr int ErrorCannotRender = 2;
constexpr long long LogBytes = 524288;

PMutex s_loggerLock; // guards FFMpegInput::s_logger

/// Whether a word stands in the text, but not at its very start.
bool containsBehindStart(const std::string& text, const char* word)
{
    const std::size_t position = text.find(word);
    return position != std::string::npos && position > 0;
}

/// Counts a call for its scope.
class Closing
{
public:
    explicit Closing(std::atomic<int>& count) : m_count(count) { ++m_count; }
    ~Closing() { --m_count; }
    Closing(const Closing&) = delete;
    Closing& operator=(const Closing&) = delete;

private:
    std::atomic<int>& m_count;
};

/// A property of the medium, empty without one.
CStdStr<char> propertyOf(const MediumDescription* medium, const char* key)
{
    const MapGeneric* properties = medium->getProperties();
    return properties != nullptr ? properties->get(key) : nullptr;
}

} // namespace

boost::weak_ptr<CBBLog> FFMpegInput::s_logger;

FFMpegInput::FFMpegInput() = default;

FFMpegInput::~FFMpegInput()
{
    FFMpegInput::close();
}

const char* FFMpegInput::getFFMpegFormatFromExtension(const char* extension)
{
    static constexpr struct
    {
        const char* extension;
        const char* format;
    } Rules[] = {
        {"cgi", "mjpeg"}, {"mkv", "matroska"}, {"fla", "flv"}, {"flv", "flv"},
        {"mp4", "mov"},   {"mov", "mov"},      {"m4v", "mov"}, {"aac", "mov"},
        {"3gp", "mov"},   {"m4a", "mov"},      {"wma", "asf"}, {"wmv", "asf"},
    };
    CBBLog::debug("FFMpegInput -- retrieving format for extension %s",
                  extension != nullptr ? extension : "(null)");
    for (const auto& rule : Rules) {
        if (ssicmp(extension, rule.extension) == 0) {
            return rule.format;
        }
    }
    return extension;
}

bool FFMpegInput::open(const MediumDescription* medium, Error* error, EncoderEngine* /*engine*/)
{
    if (zel::CallbackMark::isInside(this)) {
        // What is to be replaced runs this call.
        CBBLog::error("FFMpegInput::open(): not within an input event");
        return false;
    }
    const PMutexGuard oneAtATime(m_openLock);
    useClassLog();
    const Opening opening(m_opening);
    m_url = medium->getUrl();
    CBBLog::info("FFMpegInput::open(%s)", m_url.c_str());
    createDecoder(medium);

    int result = -1;
    if (!openThroughClient(medium, error, result)) {
        return false;
    }
    if (m_running && result < 0) {
        result = openDirectly(medium);
    }
    if (!m_running || result < 0) {
        return fail(result, error);
    }
    return applyDuration(medium);
}

/// All inputs of the process write one log, which lives as long as one of them holds it.
void FFMpegInput::useClassLog()
{
    const PMutexGuard guard(s_loggerLock);
    boost::shared_ptr<CBBLog> log = s_logger.lock();
    if (!log) {
        log = boost::make_shared<CBBLog>("FFMpegInput.log", true, LogBytes);
        s_logger = log;
    }
    m_logger = log;
    CBBLog::setLogger(log);
}

void FFMpegInput::createDecoder(const MediumDescription* medium)
{
    deleteDecoder(); // of an open without a close in between
    deleteClient();
    auto decoder = std::make_unique<FFMpegDecoderCore>();
    decoder->m_decoderThreads = std::atoi(propertyOf(medium, "decoderThreads").c_str());
    if (m_skipAudio) {
        decoder->skipAudioDecoding();
    }
    if (m_skipVideo) {
        decoder->skipVideoDecoding();
    }
    const PWriteGuard guard(m_lock);
    m_decoder = decoder.release();
    m_running = true;
}

void FFMpegInput::deleteDecoder()
{
    std::unique_ptr<FFMpegDecoderCore> decoder;
    {
        const PWriteGuard guard(m_lock);
        decoder.reset(std::exchange(m_decoder, nullptr));
    }
}

/// Lets FFmpeg open the URL or path by itself.
/// @return below 0 on failure
int FFMpegInput::openDirectly(const MediumDescription* medium)
{
    const PReadGuard guard(m_lock);
    if (m_decoder == nullptr || m_closers > 0) {
        return -1;
    }
    if (containsBehindStart(m_url, "skipTranscoding=1")) {
        CBBLog::debug("FFMpegInput failed to open skipTranscoding stream");
        return -1;
    }
    CBBLog::debug("NOT using HTTPClient");
    try {
        return m_decoder->initWithUrl(m_url, medium->getExtension());
    } catch (const std::exception& failure) {
        CBBLog::error("FFMpegInput::open(): %s", failure.what());
        return -1;
    }
}

bool FFMpegInput::fail(int result, Error* error)
{
    deleteDecoder();
    deleteClient();
    if (error != nullptr) {
        error->setCode(ErrorCannotRender);
        error->setMessage("FFMpeg input: File could not be rendered.");
    }
    CBBLog::error("FFMpegInput::open(): Init() failed %d", result);
    return false;
}

bool FFMpegInput::applyDuration(const MediumDescription* medium)
{
    const PReadGuard guard(m_lock);
    if (m_decoder == nullptr) {
        return false;
    }
    if (m_client != nullptr) {
        applyClientDuration();
    } else if (useMediumDuration(m_decoder, medium)) {
        CBBLog::debug("FFMpegInput::open(): override duration using medium info %u",
                      static_cast<unsigned int>(medium->getDuration()));
        m_decoder->setDuration(medium->getDuration());
    }
    return true;
}

bool FFMpegInput::useMediumDuration(FFMpegDecoderCore* decoder, const MediumDescription* medium)
{
    const unsigned long long told = medium->getDuration();
    if (decoder->needToStartAtZero() && told != 0) {
        return true;
    }
    boost::system::error_code ignored;
    if (boost::filesystem::exists(m_url.c_str(), ignored)) {
        // An MP3 without a header of its own has only a guessed length.
        return told != 0 &&
               ssicmp(getFFMpegFormatFromExtension(medium->getExtension()), "mp3") == 0;
    }
    return told == 0 && containsBehindStart(propertyOf(medium, "mediatype"), ".web");
}

bool FFMpegInput::updateMedium(const MediumDescription* medium, Error* error, EncoderEngine* engine)
{
    close();
    return open(medium, error, engine);
}

int FFMpegInput::close()
{
    const Closing closing(m_closers);
    // On behalf of the destructor this is the class's own stop, which is all there is to stop then.
    stop(); // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall)
    {
        // A reader inside client or core holds the read side; closing these first makes it leave.
        const PReadGuard guard(m_lock);
        if (m_client != nullptr) {
            m_client->close();
        }
        if (m_decoder != nullptr) {
            m_decoder->close();
        }
    }
    if (zel::CallbackMark::isInside(this)) {
        return Result::Accepted; // this is a thread that the client's end would wait for
    }
    deleteDecoder();
    deleteClient();
    return Result::Accepted;
}

bool FFMpegInput::isSingleInstance()
{
    return false;
}

bool FFMpegInput::isSeekable()
{
    const PReadGuard guard(m_lock);
    return m_decoder != nullptr && !m_decoder->needToStartAtZero();
}

void FFMpegInput::getMediumDescription(MediumDescription* out)
{
    const PReadGuard guard(m_lock);
    if (m_decoder == nullptr) {
        return;
    }
    m_decoder->getMediumDescription(out);
    if (m_client != nullptr && !m_client->canSeek()) {
        out->setSeekable(false);
    }
    if (m_client != nullptr && m_client->getStreamID() > 0) {
        out->setProperty("ZelStreamID", std::to_string(m_client->getStreamID()).c_str());
    }
}

void FFMpegInput::getOutputStreamDescription(OutputStreamDescription* out)
{
    const PReadGuard guard(m_lock);
    if (m_decoder != nullptr) {
        m_decoder->getOutputStreamDescription(out);
    }
}

void FFMpegInput::getInputStreamDescription(OutputStreamDescription* out)
{
    const PReadGuard guard(m_lock);
    if (m_decoder != nullptr) {
        m_decoder->getInputStreamDescription(out);
    }
}
