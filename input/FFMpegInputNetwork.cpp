#include "input/FFMpegInput.h"

#include "common/utils/CallbackMark.h"
#include "common/utils/Clock.h"
#include "input/FFMpegDecoderCore.h"
#include "network/HTTPClient.h"
#include "network/MMSHClient.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <stdexcept>

using zel::HTTPClient;
using zel::MMSHClient;
using zel::streamer::Error;
using zel::streamer::MediumDescription;
namespace ConnectionEvent = zel::ConnectionEvent;
namespace InputEvent = zel::streamer::InputEvent;
namespace PacketType = zel::streamer::PacketType;

namespace {

constexpr unsigned int RingBytes = 0xa00000;
constexpr unsigned int HistoryBytes = 0x200000;
constexpr int ErrorNotReached = 404;
/// A stalled server must not hold an open or a seek for ever.
constexpr int OpeningReadMs = 10000;
/// How long a steady read waits before it looks whether the input was stopped.
constexpr int StopCheckMs = 100;
/// libavformat's question for the size, as a `whence`.
constexpr int SizeQuery = 0x10000;
/// Told for a stream without a length, since a demuxer seeks only in what has one.
constexpr long long FakeSize = 0x7ffffffe;
constexpr long long FakeTail = 0x7ffffbfe;
constexpr long long TailBytes = 128;
/// A flush of the network buffer stops so far from its end that the demuxer does not run dry.
constexpr long long FlushMargin = 4000;

bool isHttp(const CStdStr<char>& protocol)
{
    return protocol == "http://" || protocol == "https://";
}

template <std::size_t N>
bool isOneOf(const CStdStr<char>& word, const char* const (&words)[N])
{
    return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

const char* nameOf(ConnectionEvent::ConnectionEvent event)
{
    switch (event) {
    case ConnectionEvent::END_OF_FILE_RECEIVED:
        return "END_OF_FILE_RECEIVED";
    case ConnectionEvent::BROKEN_STREAM:
        return "BROKEN_STREAM";
    }
    return "";
}

} // namespace

// -------------------------------------------------------------------------------------------------
// Opening.

bool FFMpegInput::isMMSHSupported(CStdStr<char> protocol, CStdStr<char> extension)
{
    static constexpr const char* Extensions[] = {"asf", "wma", "wmv"};
    protocol.ToLower();
    extension.ToLower();
    return isHttp(protocol) && isOneOf(extension, Extensions);
}

bool FFMpegInput::isProgressiveDownloadSupported(CStdStr<char> protocol, CStdStr<char> extension)
{
    // Kept: "mkv" arrives as "matroska" and so never matches; FFmpeg reads such URLs by itself.
    static constexpr const char* Formats[] = {"flv", "fla", "fll", "mp3", "mkv", "mov", "mp4"};
    protocol.ToLower();
    extension.ToLower();
    const CStdStr<char> format(getFFMpegFormatFromExtension(extension.c_str()));
    return isHttp(protocol) && isOneOf(format, Formats);
}

/// Opens a medium that a client of this library fetches.
/// @param result  0 or above when the medium is open; otherwise FFmpeg may still try
/// @return false when the open has failed for good, with `error` filled as far as it will be
bool FFMpegInput::openThroughClient(const MediumDescription* medium, Error* error, int& result)
{
    const CStdStr<char> protocol(medium->getProtocol());
    const CStdStr<char> extension(medium->getExtension());
    if (isMMSHSupported(protocol, extension) && !openOverMMSH(medium, error, result)) {
        return false;
    }
    if (m_running && result < 0 && isProgressiveDownloadSupported(protocol, extension)) {
        return openProgressively(medium, error, result);
    }
    return true;
}

bool FFMpegInput::openOverMMSH(const MediumDescription* medium, Error* error, int& result)
{
    CBBLog::debug("Using MMSHClient");
    setClient(std::make_unique<MMSHClient>(RingBytes, HistoryBytes));
    {
        const PReadGuard guard(m_lock);
        if (m_client == nullptr || m_decoder == nullptr || m_closers > 0) {
            return false;
        }
        if (!m_client->open(m_url, error)) {
            CBBLog::warn("FFMpegInput::open(): MMSH Client open failed");
        } else {
            listenToClient();
            m_client->setMetadataCallback(
                [this](const HTTPClient::Metadata& table) { _MMSHMetadataCallback(table); });
            m_decoder->m_sourceSeeksByTime = true;
            result = initFromClient(medium);
        }
    }
    if (result < 0) {
        deleteClient();
    }
    return true;
}

bool FFMpegInput::openProgressively(const MediumDescription* medium, Error* error, int& result)
{
    CBBLog::debug("Using HTTPClient");
    setClient(std::make_unique<HTTPClient>(RingBytes, HistoryBytes));
    const PReadGuard guard(m_lock);
    if (m_client == nullptr || m_decoder == nullptr || m_closers > 0) {
        return false;
    }
    if (!m_client->open(m_url, error)) {
        CBBLog::error("FFMpegInput::open(): HTTP Client open failed");
        if (error != nullptr) {
            error->setCode(ErrorNotReached);
            error->setMessage("FFMpeg input: URL could not be reached.");
        }
        return false;
    }
    listenToClient();
    result = initFromClient(medium);
    return true;
}

int FFMpegInput::initFromClient(const MediumDescription* medium)
{
    CStdStr<char> format(getFFMpegFormatFromExtension(medium->getExtension()));
    const CStdStr<char> forced = m_client->getCustomExtension();
    if (!forced.empty()) {
        format = getFFMpegFormatFromExtension(forced.c_str());
    }
    try {
        return m_decoder->initWithTransportStream(medium->getUrl(), format.c_str(),
                                                  &_HTTPReadCallback, &_HTTPSeekCallback, this);
    } catch (const std::exception& failure) {
        CBBLog::error("FFMpegInput::open(): %s", failure.what());
        return -1;
    }
}

/// What the server knows of the stream goes before what the demuxer has found.
void FFMpegInput::applyClientDuration()
{
    const int duration = m_client->getStreamDuration();
    if (duration >= 0) {
        CBBLog::debug("FFMpegInput::open(): override duration using HTTP/MMSH header info %u",
                      static_cast<unsigned int>(duration));
        m_decoder->setDuration(static_cast<unsigned long long>(duration));
    }
    const CStdStr<char> extension = m_client->getCustomExtension();
    if (!extension.empty()) {
        CBBLog::debug("FFMpegInput::open(): override extension using HTTP/MMSH header info %s",
                      extension.c_str());
    }
}

// -------------------------------------------------------------------------------------------------
// The client's life.

/// A close that began before has not seen this client, and would wait for what reads from it: the
/// open asks for such a close behind this, and gives up.
void FFMpegInput::setClient(std::unique_ptr<HTTPClient> client)
{
    deleteClient(); // of the route before
    const PWriteGuard guard(m_lock);
    m_client = client.release();
}

void FFMpegInput::deleteClient()
{
    {
        const PReadGuard guard(m_lock);
        if (m_client != nullptr) {
            m_client->close();
        }
    }
    std::unique_ptr<HTTPClient> client;
    const PWriteGuard guard(m_lock);
    client.reset(std::exchange(m_client, nullptr));
}

void FFMpegInput::listenToClient()
{
    m_client->m_connectionEventData = this;
    m_client->m_connectionEventCallback = &_connectionEventCallback;
}

// -------------------------------------------------------------------------------------------------
// What the demuxer asks for.

int FFMpegInput::_HTTPReadCallback(void* opaque, unsigned char* buffer, int size)
{
    return static_cast<FFMpegInput*>(opaque)->HTTPReadCallback(buffer, size);
}

long long FFMpegInput::_HTTPSeekCallback(void* opaque, long long offset, int whence)
{
    return static_cast<FFMpegInput*>(opaque)->HTTPSeekCallback(offset, whence);
}

int FFMpegInput::HTTPReadCallback(unsigned char* buffer, int size)
{
    assumeReading();
    if (m_client == nullptr || !m_running) {
        CBBLog::debug("FFMpegInput::HTTPReadCallback not running!!!!! ");
        return -1;
    }
    const int result = readFromClient(buffer, size);
    if (result <= 0) {
        CBBLog::debug("FFMpegInput::HTTPReadCallback returned %d", result);
    }
    return result;
}

/// Waits as long as the stream takes, or until stop(); while a medium is being opened or sought,
/// for some seconds only.
int FFMpegInput::readFromClient(unsigned char* buffer, int size)
{
    const unsigned long long begin = zel::uptimeMs();
    for (;;) {
        const int result = m_client->read(reinterpret_cast<char*>(buffer),
                                          static_cast<unsigned long long>(size), StopCheckMs);
        if (result != 0 || m_client->hasReachedEnd()) {
            return result;
        }
        if (!m_running) {
            return -1;
        }
        if (m_opening && zel::uptimeMs() - begin >= OpeningReadMs) {
            return 0;
        }
    }
}

long long FFMpegInput::HTTPSeekCallback(long long offset, int whence)
{
    assumeReading();
    if (m_client == nullptr || m_decoder == nullptr || !m_running) {
        CBBLog::debug("FFMpegInput::HTTPSeekCallback not running!!!!! ");
        return -1;
    }
    const unsigned long long length = m_client->getContentLength();
    const long long seekTarget = m_seekTarget;
    if (seekTarget < 0 && length != 0 && static_cast<unsigned long long>(offset) >= length) {
        // A demuxer that looks behind the end finds nothing there, without a request.
        CBBLog::debug("HTTPClient::seek %d >= contentLength %d", static_cast<int>(offset),
                      static_cast<int>(length));
        return offset;
    }
    if (m_client->isZelTranscoding()) {
        if (whence == SizeQuery && length == 0 && m_client->canSeek()) {
            CBBLog::debug("FFMpegInput::HTTPSeekCallback AVSEEK_SIZE: Zel seekable content - "
                          "return fake size to make sure ffmpeg seeks");
            return FakeSize;
        }
        if (m_decoder->m_byteSeekable && isTail(offset, length, seekTarget)) {
            CBBLog::debug("HTTPClient::seek %d - tail requested", static_cast<int>(offset));
            return -1;
        }
    }
    return m_client->seek(offset, whence, seekTarget);
}

/// Whether a demuxer looks for an index at the end, which a stream in the making does not have.
bool FFMpegInput::isTail(long long offset, unsigned long long length, long long seekTarget)
{
    if (length == 0) {
        return offset > FakeTail;
    }
    return seekTarget < 0 && offset >= static_cast<long long>(length) - TailBytes;
}

/// Drops what lies in the buffer. Through the demuxer, packet by packet, so that it stays in step
/// with the stream.
void FFMpegInput::flushNetworkBuffer()
{
    HTTPClient& client = *m_client;
    const auto position = [&client] {
        return static_cast<long long>(client.getCurrentBufferReadPosition());
    };
    const auto available = [&client] {
        return static_cast<long long>(client.getByteAvailableToReadInBuffer());
    };
    long long read = position();
    const long long written = read + available();
    CBBLog::debug("Flushing network buffer. Initial r/w: %d/%d", static_cast<int>(read),
                  static_cast<int>(written));
    PacketType::Enum type = PacketType::None;
    unsigned long long timestamp = 0;
    unsigned long long duration = 0;
    int count = 0;
    do {
        if (!m_decoder->skipPacket(type, timestamp, duration)) {
            CBBLog::warn("FFMpegInput::resetPosition: skipPacket failed");
            break;
        }
        read = position();
        ++count;
        if (count % 100 == 1) {
            CBBLog::debug("Flushing network buffer skipped packet %d. current r: %d",
                          static_cast<int>(timestamp), static_cast<int>(read));
        }
        if (read < written - FlushMargin && available() < FlushMargin) {
            CBBLog::debug("Flushing network buffer. buffer empty");
            break;
        }
    } while (read < written - FlushMargin);
    CBBLog::debug("FFMpegInput::resetPosition: flushed %d network packets. Final ts/r: %d/%d",
                  count, static_cast<int>(timestamp), static_cast<int>(read));
}

// -------------------------------------------------------------------------------------------------
// What the client tells.

void FFMpegInput::_MMSHMetadataCallback(const std::map<CStdStr<char>, CStdStr<char>>& table)
{
    CBBLog::debug(" FFMpegInput::_MMSHMetadataCallback");
    assumeReading();
    if (m_decoder != nullptr) {
        m_decoder->updateMetadata(table);
    }
    m_metadataChanged = true;
}

void FFMpegInput::_connectionEventCallback(ConnectionEvent::ConnectionEvent event, void* data)
{
    static_cast<FFMpegInput*>(data)->connectionEventCallback(event);
}

void FFMpegInput::connectionEventCallback(ConnectionEvent::ConnectionEvent event)
{
    const char* name = nameOf(event);
    if (m_opening) {
        CBBLog::debug("FFMpegInput: %s received while opening, ignore to prevent deadlock", name);
        return;
    }
    unsigned int percent = 0;
    if (getInputBufferStatus(percent)) {
        CBBLog::debug("FFMpegInput: %s received, getInputBufferStatus : %d", name,
                      static_cast<int>(percent));
    }
    void (*callback)(InputEvent::Enum, int, int, void*) = nullptr;
    void* data = nullptr;
    {
        const PMutexGuard guard(m_eventLock);
        callback = m_inputEventCallback;
        data = m_inputEventData;
    }
    if (callback == nullptr) {
        return;
    }
    if (event != ConnectionEvent::END_OF_FILE_RECEIVED && event != ConnectionEvent::BROKEN_STREAM) {
        throw std::logic_error("unknown ConnectionEvent");
    }
    const zel::CallbackMark mark(this);
    callback(event == ConnectionEvent::BROKEN_STREAM ? InputEvent::BrokenStream
                                                     : InputEvent::EndOfFileReceived,
             0, 0, data);
}
