#include "tests/encoder/RTPReceiver.h"

#include "common/ffmpeg/Handles.h"

#include <algorithm>
#include <stdexcept>

namespace av = zel::av;

namespace zel::test {

namespace {

constexpr int PayloadType = 96;
constexpr std::size_t MostBytes = 250000;
constexpr int BufferBytes = 32768;
/// Some value, as the protocol wants it.
constexpr unsigned int FirstTimestamp = 123456;

void appendBigEndian(std::string& bytes, unsigned int value, int count)
{
    for (int shift = (count - 1) * 8; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift);
    }
}

/// The description, then its end, then one packet a read.
class Wire
{
public:
    Wire(std::string description, const std::vector<RTPPayload>& payloads)
        : m_description(std::move(description))
    {
        unsigned int sequence = 1000;
        for (const RTPPayload& payload : payloads) {
            std::string packet;
            packet += '\x80'; // version 2
            packet += static_cast<char>(PayloadType | (payload.marker ? 0x80 : 0));
            appendBigEndian(packet, sequence++, 2);
            appendBigEndian(packet, FirstTimestamp + payload.timestamp, 4);
            appendBigEndian(packet, 0x5EED5EED, 4);
            m_packets.push_back(packet + payload.bytes);
        }
    }

    static int _read(void* self, uint8_t* buffer, int size)
    {
        return static_cast<Wire*>(self)->read(buffer, size);
    }

    void beginPackets() { m_isDescribed = true; }

private:
    int read(uint8_t* buffer, int size)
    {
        if (m_isDescribed) {
            return m_next < m_packets.size() ? give(m_packets[m_next++], buffer, size)
                                             : AVERROR_EOF;
        }
        const std::string rest = m_description.substr(m_given);
        m_given = m_description.size();
        return rest.empty() ? AVERROR_EOF : give(rest, buffer, size);
    }

    static int give(const std::string& bytes, uint8_t* buffer, int size)
    {
        if (bytes.size() > static_cast<std::size_t>(size)) {
            return AVERROR(EMSGSIZE);
        }
        std::copy(bytes.begin(), bytes.end(), buffer);
        return static_cast<int>(bytes.size());
    }

    std::string m_description;
    std::size_t m_given = 0;
    std::vector<std::string> m_packets;
    std::size_t m_next = 0;
    bool m_isDescribed = false;
};

std::string descriptionOf(const std::string& media, const std::string& encoding,
                          const std::string& format)
{
    const std::string type = std::to_string(PayloadType);
    std::string text = "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=test\r\nc=IN IP4 127.0.0.1\r\n"
                       "t=0 0\r\nm=" +
                       media + " 40000 RTP/AVP " + type + "\r\na=rtpmap:" + type + " " + encoding +
                       "\r\n";
    if (!format.empty()) {
        text += "a=fmtp:" + type + " " + format + "\r\n";
    }
    return text;
}

} // namespace

ReceivedStream receiveRTP(const std::string& media, const std::string& encoding,
                          const std::string& format, const std::vector<RTPPayload>& payloads)
{
    std::size_t bytes = 0;
    for (const RTPPayload& payload : payloads) {
        bytes += payload.bytes.size();
    }
    if (bytes > MostBytes) {
        throw std::runtime_error("more than the receiver takes without an answer");
    }
    Wire wire(descriptionOf(media, encoding, format), payloads);
    auto* buffer = static_cast<unsigned char*>(av_malloc(BufferBytes));
    const av::IOContext io(
        avio_alloc_context(buffer, BufferBytes, 0, &wire, &Wire::_read, nullptr, nullptr));
    AVFormatContext* raw = avformat_alloc_context();
    raw->pb = io.get();
    AVDictionary* options = nullptr;
    av_dict_set(&options, "sdp_flags", "custom_io", 0);
    const int result = avformat_open_input(&raw, "", av_find_input_format("sdp"), &options);
    av_dict_free(&options);
    if (result < 0) {
        throw std::runtime_error("the receiver refuses the description");
    }
    const av::FormatContext context(raw);
    if (context->nb_streams != 1) {
        throw std::runtime_error("the receiver finds no stream");
    }
    wire.beginPackets();
    io->eof_reached = 0;
    ReceivedStream stream;
    const AVCodecParameters& codec = *context->streams[0]->codecpar;
    stream.codec = avcodec_get_name(codec.codec_id);
    stream.setUp.assign(reinterpret_cast<const char*>(codec.extradata),
                        static_cast<std::size_t>(codec.extradata_size));
    const av::Packet packet = av::makePacket();
    while (av_read_frame(context.get(), packet.get()) >= 0) {
        stream.frames.push_back({std::string(reinterpret_cast<const char*>(packet->data),
                                             static_cast<std::size_t>(packet->size)),
                                 packet->pts});
        av_packet_unref(packet.get());
    }
    return stream;
}

} // namespace zel::test
