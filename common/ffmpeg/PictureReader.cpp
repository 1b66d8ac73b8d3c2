#include "common/ffmpeg/PictureReader.h"

#include "common/ffmpeg/Handles.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

namespace zel::av {
namespace {

using Bytes = std::span<const unsigned char>;

/// Where the next 00 00 01 begins; the size when there is none.
std::size_t findStartCode(Bytes data, std::size_t from)
{
    // Ones are rarer than zeroes.
    for (std::size_t at = from + 2; at < data.size(); ++at) {
        const void* one = std::memchr(data.data() + at, 1, data.size() - at);
        if (one == nullptr) {
            break;
        }
        at = static_cast<std::size_t>(static_cast<const unsigned char*>(one) - data.data());
        if (data[at - 1] == 0 && data[at - 2] == 0) {
            return at - 2;
        }
    }
    return data.size();
}

/// Of libavcodec's picture type, whose first numbers are those of the MPEG standards.
CodedPicture::Kind kindOf(int type)
{
    switch (type) {
    case AV_PICTURE_TYPE_I:
        return CodedPicture::Kind::Intra;
    case AV_PICTURE_TYPE_B:
        return CodedPicture::Kind::Bidirectional;
    default:
        return CodedPicture::Kind::Predicted;
    }
}

/// Frames that a decoder of this stream holds back, as it knows when it has decoded one packet.
int decoderDelay(const AVCodecContext& stream, Bytes data)
{
    const AVCodec* codec = avcodec_find_decoder(stream.codec_id);
    const CodecContext decoder(avcodec_alloc_context3(codec));
    AVCodecParameters* parameters = avcodec_parameters_alloc();
    if (codec == nullptr || !decoder || parameters == nullptr) {
        avcodec_parameters_free(&parameters);
        return 0;
    }
    avcodec_parameters_from_context(parameters, &stream);
    parameters->video_delay = 0;
    avcodec_parameters_to_context(decoder.get(), parameters);
    avcodec_parameters_free(&parameters);
    decoder->thread_count = 1;
    const Packet packet = makePacket();
    if (avcodec_open2(decoder.get(), codec, nullptr) < 0 ||
        av_new_packet(packet.get(), static_cast<int>(data.size())) < 0) {
        return 0;
    }
    std::copy(data.begin(), data.end(), packet->data);
    avcodec_send_packet(decoder.get(), packet.get());
    return decoder->has_b_frames;
}

/// What the two codecs share whose headers libavcodec's parser reads.
class ParsingReader : public PictureReader
{
public:
    explicit ParsingReader(const AVCodecParameters& parameters)
        : m_stream(avcodec_alloc_context3(nullptr))
    {
        if (!m_stream || avcodec_parameters_to_context(m_stream.get(), &parameters) < 0) {
            throw std::bad_alloc();
        }
        ParsingReader::reset();
    }

    void reset() override
    {
        m_parser.reset(av_parser_init(m_stream->codec_id));
        if (!m_parser) {
            return; // left out of this build of the library: nothing is ever found
        }
        m_parser->flags |= PARSER_FLAG_COMPLETE_FRAMES | PARSER_FLAG_USE_CODEC_TS;
    }

protected:
    /// @return false when there is no such parser
    bool parse(Bytes data)
    {
        if (!m_parser) {
            return false;
        }
        // What a parser does not find it leaves as it was.
        m_parser->picture_structure = AV_PICTURE_STRUCTURE_UNKNOWN;
        m_parser->pict_type = AV_PICTURE_TYPE_NONE;
        // The parser reads beyond the end, and callers' packets need not have room there.
        m_padded.assign(data.begin(), data.end());
        m_padded.resize(data.size() + AV_INPUT_BUFFER_PADDING_SIZE);
        uint8_t* out = nullptr;
        int outSize = 0;
        av_parser_parse2(m_parser.get(), m_stream.get(), &out, &outSize, m_padded.data(),
                         static_cast<int>(data.size()), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        return true;
    }

    int delay(Bytes data)
    {
        if (!m_delay) {
            m_front.insert(m_front.end(), data.begin(), data.end());
            m_delay = decoderDelay(*m_stream, m_front);
            m_front.clear();
        }
        return *m_delay;
    }

    /// A packet without a picture: a decoder may need what is in it.
    void keepFront(Bytes data)
    {
        if (!m_delay && m_front.size() + data.size() <= MostFront) {
            m_front.insert(m_front.end(), data.begin(), data.end());
        }
    }

    const AVCodecContext& stream() const { return *m_stream; }
    const AVCodecParserContext& found() const { return *m_parser; }

private:
    static const std::size_t MostFront = 65536;

    CodecContext m_stream; ///< never opened; the parser keeps the set-up data in it
    Parser m_parser;
    std::vector<unsigned char> m_padded;
    std::vector<unsigned char> m_front; ///< packets in front of the first picture
    std::optional<int> m_delay;
};

/// H.264: by picture order count.
class H264Reader : public ParsingReader
{
public:
    explicit H264Reader(const AVCodecParameters& parameters) : ParsingReader(parameters)
    {
        const Bytes setUp(parameters.extradata,
                          static_cast<std::size_t>(parameters.extradata_size));
        // The form of the set-up data is that of the packets: lengths, or start codes.
        if (setUp.size() >= 7 && setUp[0] == 1) {
            m_lengthSize = (setUp[4] & 3U) + 1;
        }
    }

    Units units() const override { return {2, 0, true}; }

    bool read(const unsigned char* bytes, int size, CodedPicture& picture) override
    {
        const Bytes data(bytes, static_cast<std::size_t>(size));
        if (!parse(data) || found().picture_structure == AV_PICTURE_STRUCTURE_UNKNOWN) {
            keepFront(data);
            return false;
        }
        const bool isFrame = found().picture_structure == AV_PICTURE_STRUCTURE_FRAME;
        const Slices slices = countSlices(data, !isFrame);
        picture.order = found().output_picture_number;
        picture.frames = isFrame || slices.pictures > 1 ? 1.0 : 0.5;
        // Nothing but this slice type ends all that was before; pictures from which a decoder can
        // set in do not.
        picture.beginsAnew = slices.isInstantRefresh && !m_wasInstantRefresh;
        picture.firstOrder = picture.order;
        picture.kind = kindOf(found().pict_type);
        picture.reorder = delay(data);
        // The second field of such a picture may come as a packet of its own.
        m_wasInstantRefresh =
            slices.isInstantRefresh && picture.frames < 1.0 && !m_wasInstantRefresh;
        return true;
    }

    void reset() override
    {
        ParsingReader::reset();
        m_wasInstantRefresh = false;
    }

private:
    struct Slices
    {
        bool isInstantRefresh = false;
        int pictures = 0; ///< first slices of a picture
    };

    /// @param all  false: the first slice is enough
    Slices countSlices(Bytes data, bool all) const
    {
        Slices slices;
        std::size_t at = 0;
        for (Bytes unit = nextUnit(data, at); !unit.empty(); unit = nextUnit(data, at)) {
            const unsigned int type = unit[0] & 0x1FU;
            if (type != 1 && type != 5) {
                continue;
            }
            slices.isInstantRefresh = slices.isInstantRefresh || type == 5;
            // A one bit is the number 0 of the first macroblock.
            slices.pictures += unit.size() > 1 && (unit[1] & 0x80U) != 0 ? 1 : 0;
            if (!all) {
                break;
            }
        }
        return slices;
    }

    /// The unit at a position, which moves on behind it; empty at the end. With start codes it may
    /// reach to the end of the packet.
    Bytes nextUnit(Bytes data, std::size_t& at) const
    {
        if (m_lengthSize == 0) {
            const std::size_t begin = findStartCode(data, at) + 3;
            at = begin;
            return begin < data.size() ? data.subspan(begin) : Bytes();
        }
        if (data.size() - at <= m_lengthSize) {
            return {};
        }
        std::size_t length = 0;
        for (std::size_t n = 0; n < m_lengthSize; ++n) {
            length = length << 8 | data[at++];
        }
        const Bytes unit = data.subspan(at, std::min(length, data.size() - at));
        at += unit.size();
        return unit;
    }

    std::size_t m_lengthSize = 0; ///< bytes; 0 with start codes
    bool m_wasInstantRefresh = false;
};

/// MPEG-4 part 2: by the time that stands in each picture.
class Mpeg4Reader : public ParsingReader
{
public:
    using ParsingReader::ParsingReader;

    Units units() const override { return {0, PartsOfSecond, false}; }

    bool read(const unsigned char* bytes, int size, CodedPicture& picture) override
    {
        const Bytes data(bytes, static_cast<std::size_t>(size));
        if (!parse(data) || found().pts == AV_NOPTS_VALUE) {
            keepFront(data);
            return false;
        }
        picture.order = found().pts;
        picture.clock = stream().framerate.num;
        picture.kind = kindOf(found().pict_type);
        picture.reorder = delay(data);
        picture.isReorderSure = true;
        return true;
    }

private:
    static const int64_t PartsOfSecond = 1200000; ///< in which the parser gives the time
};

/// MPEG-1 and MPEG-2 video: by temporal reference, which counts from each group of pictures.
class Mpeg12Reader : public PictureReader
{
public:
    explicit Mpeg12Reader(const AVCodecParameters& parameters)
    {
        CodedPicture none;
        Mpeg12Reader::read(parameters.extradata, parameters.extradata_size, none);
        Mpeg12Reader::reset();
    }

    Units units() const override { return {2, 0, true}; }

    bool read(const unsigned char* bytes, int size, CodedPicture& picture) override
    {
        const Bytes data(bytes, static_cast<std::size_t>(size));
        int pictures = 0;
        bool isField = false;
        bool beginsGroup = false;
        for (std::size_t at = findStartCode(data, 0); at + 8 < data.size();
             at = findStartCode(data, at + 3)) {
            const Bytes header = data.subspan(at + 4);
            const unsigned int code = data[at + 3];
            if (code == GroupCode) {
                beginsGroup = true;
            } else if (code == PictureCode && ++pictures == 1) {
                m_reference = header[0] << 2 | header[1] >> 6;
                picture.kind = kindOf(header[1] >> 3 & 7);
            } else if (code == ExtensionCode && header[0] >> 4 == SequenceExtension &&
                       header.size() > 5) {
                m_delay = (header[5] & 0x80U) != 0 ? 0 : 1;
            } else if (code == ExtensionCode && header[0] >> 4 == PictureExtension) {
                isField = isField || (header[2] & 3U) != 3;
            }
        }
        if (pictures == 0) {
            return false;
        }
        place(picture, beginsGroup, isField && pictures == 1);
        picture.reorder = m_delay;
        picture.isReorderSure = true;
        return true;
    }

    void reset() override
    {
        m_order.reset();
        m_isSecondField = false;
    }

private:
    void place(CodedPicture& picture, bool beginsGroup, bool isSingleField)
    {
        // Without groups the reference goes on, modulo 1024.
        const int64_t last = beginsGroup ? 0 : m_order.value_or(m_reference);
        const int64_t reference =
            beginsGroup ? m_reference : last + ((m_reference - last + 512) & 1023) - 512;
        m_isSecondField = isSingleField && m_order == reference && !m_isSecondField;
        m_order = reference;
        // Two for a frame, so that there is room for fields.
        picture.order = 2 * reference + (m_isSecondField ? 1 : 0);
        picture.frames = isSingleField ? 0.5 : 1.0;
        picture.beginsAnew = beginsGroup;
        picture.firstOrder = 0;
    }

    static const unsigned int PictureCode = 0x00;
    static const unsigned int ExtensionCode = 0xB5;
    static const unsigned int GroupCode = 0xB8;
    static const unsigned int SequenceExtension = 1;
    static const unsigned int PictureExtension = 8;

    int m_delay = 1; ///< frames; 0 where the stream says that it has no B pictures
    int64_t m_reference = 0;
    std::optional<int64_t> m_order;
    bool m_isSecondField = false;
};

} // namespace

std::unique_ptr<PictureReader> PictureReader::create(const AVCodecParameters& parameters)
{
    switch (parameters.codec_id) {
    case AV_CODEC_ID_H264:
        return std::make_unique<H264Reader>(parameters);
    case AV_CODEC_ID_MPEG1VIDEO:
    case AV_CODEC_ID_MPEG2VIDEO:
        return std::make_unique<Mpeg12Reader>(parameters);
    case AV_CODEC_ID_MPEG4:
        return std::make_unique<Mpeg4Reader>(parameters);
    default:
        return nullptr;
    }
}

} // namespace zel::av
