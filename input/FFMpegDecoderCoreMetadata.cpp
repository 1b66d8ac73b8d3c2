#include "input/FFMpegDecoderCore.h"

#include "common/utils/CBBLog.h"
#include "plugin/MetadataPacket.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int MinCommandBytes = 12;

bool startsWith(const std::string& text, const char* start)
{
    return text.rfind(start, 0) == 0;
}

/// NUL-separated texts of UTF-16 with the high bytes left out. A text without end is dropped.
std::vector<std::string> splitTexts(const AVPacket& packet)
{
    std::vector<std::string> texts;
    std::string text;
    for (int i = 0; i < packet.size; i += 2) {
        if (packet.data[i] != 0) {
            text.push_back(static_cast<char>(packet.data[i]));
        } else {
            texts.push_back(std::exchange(text, {}));
        }
    }
    return texts;
}

/// Whether the packet begins with this word at its even bytes.
bool beginsWithWord(const AVPacket& packet, const std::string& word)
{
    if (static_cast<std::size_t>(packet.size) < word.size() * 2) {
        return false;
    }
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (packet.data[2 * i] != static_cast<unsigned char>(word[i])) {
            return false;
        }
    }
    return true;
}

/// What follows a key at the start of a field, without blanks around it.
CStdStr<char> valueBehind(const std::string& field, const char* key)
{
    CStdStr<char> value(field.substr(std::string(key).size()));
    value.Trim();
    return value;
}

} // namespace

void FFMpegDecoderCore::handleMetaDataPacket(const AVPacket& packet)
{
    if (packet.data == nullptr || packet.size < MinCommandBytes ||
        (!beginsWithWord(packet, "TEXT") && !beginsWithWord(packet, "NEWFLG"))) {
        return;
    }
    const std::vector<std::string> texts = splitTexts(packet);
    if (texts.size() < 2) {
        return;
    }
    const bool isSong = startsWith(texts[0], "TEXT") && startsWith(texts[1], "TYPE=SNG");
    const bool isChange =
        startsWith(texts[0], "NEWFLG") && startsWith(texts[1], "MetaDataChangeTYPE=SNG");
    if (!isSong && !isChange) {
        return;
    }
    CStdStr<char> title;
    CStdStr<char> artist;
    bool changed = false;
    MetadataCallback callback = nullptr;
    void* callbackContext = nullptr;
    {
        const PMutexGuard guard(m_describedLock);
        const auto take = [&changed](CStdStr<char>& known, CStdStr<char> told) {
            if (told != known) {
                known = std::move(told);
                changed = true;
            }
        };
        const std::string& command = texts[1];
        for (std::size_t at = 0; at < command.size();) {
            const std::size_t end = std::min(command.find('|', at), command.size());
            const std::string field = command.substr(at, end - at);
            at = end + 1;
            if (startsWith(field, "TITLE")) {
                take(m_title, valueBehind(field, "TITLE"));
            } else if (startsWith(field, "ARTIST")) {
                take(m_artist, valueBehind(field, "ARTIST"));
            }
        }
        title = m_title;
        artist = m_artist;
        callback = m_metadataCallback;
        callbackContext = m_metadataCallbackContext;
    }
    if (!changed || callback == nullptr) {
        return;
    }
    CBBLog::info("FFMpegDecoderCore::handleMetaDataPacket New metadata title %s, artist %s",
                 title.c_str(), artist.c_str());
    updateMetadata({{"artist", artist}, {"title", title}});
    callback(callbackContext);
}

void FFMpegDecoderCore::setMetadataCallback(MetadataCallback callback, void* context)
{
    const PMutexGuard guard(m_describedLock);
    m_metadataCallback = callback;
    m_metadataCallbackContext = context;
}

void FFMpegDecoderCore::updateMetadata(const Metadata& values)
{
    const PMutexGuard guard(m_describedLock);
    m_metadata = values;
    for (const auto& [key, value] : values) {
        CBBLog::info(" FFMpegDecoderCore::updateMetadata %s %s", key.c_str(), value.c_str());
        const std::pair<const char*, CStdStr<char>&> known[] = {
            {"artist", m_artist},
            {"album", m_album},
            {"title", m_title},
            {"thumbnailURL", m_thumbnailUrl},
        };
        for (const auto& [name, member] : known) {
            if (ssicmp(key.c_str(), name) == 0) {
                member = value;
            }
        }
    }
}

void FFMpegDecoderCore::getMetadataPacket(unsigned char*& data, unsigned int& size)
{
    Metadata values;
    {
        const PMutexGuard guard(m_describedLock);
        values = m_metadata;
    }
    auto* packet = new zel::streamer::MetadataPacket(values);
    size = static_cast<unsigned int>(packet->getLength());
    data = packet->detachBuffer();
    packet->release();
}
