#include "input/FFMpegInput.h"

#include "common/utils/Clock.h"
#include "input/FFMpegDecoderCore.h"
#include "network/HTTPClient.h"

#include <exception>

using zel::streamer::InputEvent::Enum;
namespace PacketType = zel::streamer::PacketType;
namespace DecodingMode = zel::streamer::DecodingMode;
namespace Result = zel::streamer::Result;

namespace {

constexpr uint32_t ReadLogIntervalMs = 30001;

} // namespace

bool FFMpegInput::readFrame(PacketType::Enum& type, unsigned char*& data, unsigned int& size,
                            unsigned long long& timestamp, unsigned long long& duration,
                            void*& context, bool& keyFrame)
{
    const PReadGuard guard(m_lock);
    const PMutexGuard readGuard(m_readLock);
    if (m_decoder == nullptr || !m_running) {
        return false;
    }
    // A call that has nothing to deliver leaves these as they are.
    type = PacketType::None;
    data = nullptr;
    size = 0;
    context = nullptr;
    if (m_metadataChanged.exchange(false)) {
        CBBLog::debug("[FFMpegInput::readFrame] m_metadataChanged");
        m_decoder->getMetadataPacket(data, size);
        type = PacketType::Metadata;
        unsigned long long positionMs = 0;
        m_decoder->getPosition(positionMs);
        timestamp = positionMs * 1000;
        duration = 0;
        return true;
    }
    if (!m_decoder->decodeFromMedium(type, data, size, timestamp, duration, context, keyFrame)) {
        return false;
    }

    // The pacing of radio comes here.

    const auto now = static_cast<uint32_t>(zel::uptimeMs());
    if (now - static_cast<uint32_t>(m_lastReadLog) >= ReadLogIntervalMs) {
        CBBLog::debug("FFMpegInput : read timestamp %u (ms)",
                      static_cast<unsigned int>(timestamp / 1000));
        m_lastReadLog = now;
    }
    return true;
}

void FFMpegInput::freeFrame(unsigned char* data, void* /*context*/)
{
    delete[] data;
}

int FFMpegInput::start()
{
    m_stopEvent.reset(m_stopSignalled);
    m_running = true;
    return Result::Accepted;
}

int FFMpegInput::stop()
{
    m_running = false;
    m_stopEvent.signal(m_stopSignalled);
    return Result::Accepted;
}

int FFMpegInput::pause()
{
    return Result::Accepted; // the host pauses by not reading
}

int FFMpegInput::resume()
{
    return Result::Accepted;
}

int FFMpegInput::getPosition(unsigned long long& positionMs)
{
    const PReadGuard guard(m_lock);
    if (m_decoder == nullptr) {
        return Result::NotPossible;
    }
    m_decoder->getPosition(positionMs);
    return Result::Done;
}

int FFMpegInput::setBytePosition(unsigned long long /*positionBytes*/)
{
    return Result::NotPossible;
}

int FFMpegInput::setTimePosition(unsigned long long positionMs)
{
    const Opening opening(m_opening);
    const PReadGuard guard(m_lock);
    if (m_decoder == nullptr) {
        return Result::NotPossible;
    }

    if (m_client != nullptr && !m_client->canSeek()) {
        CBBLog::info("FFMpegInput::setPosition(): protocol is not seekable");
        return Result::NotPossible;
    }
    CBBLog::info("FFMpegInput::setPosition(): %ums", static_cast<unsigned int>(positionMs));
    m_seekTarget = static_cast<long long>(positionMs);
    const bool done = m_decoder->setPosition(positionMs);
    m_seekTarget = -1;
    if (!done) {
        CBBLog::error("FFMpegInput::setPosition : setPosition failed!");
        return Result::Failed;
    }
    m_lastReadLog = 0;
    CBBLog::info("FFMpegInput::setPosition(): done");
    return Result::Done;
}

int FFMpegInput::resetPosition(unsigned long long positionMs)
{
    const PReadGuard guard(m_lock);
    const PMutexGuard readGuard(m_readLock);
    if (m_decoder == nullptr) {
        return Result::NotPossible;
    }
    CBBLog::info("FFMpegInput::resetPosition(): %ums", static_cast<unsigned int>(positionMs));
    m_decoder->flush(positionMs);

    if (m_client != nullptr) {
        flushNetworkBuffer();
    }
    m_lastReadLog = 0;
    CBBLog::info("FFMpegInput::resetPosition(): done");
    return Result::Done;
}

bool FFMpegInput::skipAudioDecoding()
{
    const PReadGuard guard(m_lock);
    m_skipAudio = true;
    return m_decoder == nullptr || m_decoder->skipAudioDecoding();
}

bool FFMpegInput::skipVideoDecoding()
{
    const PReadGuard guard(m_lock);
    m_skipVideo = true;
    return m_decoder == nullptr || m_decoder->skipVideoDecoding();
}

bool FFMpegInput::setVideoDecodingMode(DecodingMode::Enum mode)
{
    const PReadGuard guard(m_lock);
    return m_decoder != nullptr && m_decoder->setVideoDecodingMode(mode);
}

bool FFMpegInput::getInputBufferStatus(unsigned int& percent)
{
    const PReadGuard guard(m_lock);
    return m_client != nullptr && m_client->getBufferStatus(percent);
}

void FFMpegInput::setInputEventCallback(void (*callback)(Enum, int, int, void*), void* data)
{
    {
        const PMutexGuard guard(m_eventLock);
        m_inputEventCallback = callback;
        m_inputEventData = data;
    }
    const PReadGuard guard(m_lock);
    if (m_decoder != nullptr) {
        m_decoder->setMetadataCallback(&_metadataChangedEventCallback, this);
    }
    if (m_client != nullptr) {
        listenToClient();
    }
}

void FFMpegInput::_metadataChangedEventCallback(void* self)
{
    static_cast<FFMpegInput*>(self)->metadataChangedEventCallback();
}

void FFMpegInput::metadataChangedEventCallback()
{
    m_metadataChanged = true;
}
