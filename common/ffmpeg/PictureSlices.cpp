#include "common/ffmpeg/PictureSlices.h"

#include <algorithm>
#include <cstddef>

namespace zel::av {
namespace {

using Bytes = std::span<const unsigned char>;

const int OptionDistance = 128;

enum class MarkKind
{
    None,
    Mpeg4,
    H263,
    Mpeg12
};

MarkKind markKind(AVCodecID codec)
{
    switch (codec) {
    case AV_CODEC_ID_MPEG4:
        return MarkKind::Mpeg4;
    case AV_CODEC_ID_H263:
    case AV_CODEC_ID_H263P:
        return MarkKind::H263;
    case AV_CODEC_ID_MPEG1VIDEO:
    case AV_CODEC_ID_MPEG2VIDEO:
        return MarkKind::Mpeg12;
    default:
        return MarkKind::None;
    }
}

/// Walks through a picture from unit to unit.
class UnitFinder
{
public:
    UnitFinder(MarkKind kind, Bytes picture) : m_kind(kind), m_picture(picture) {}

    /// Where the unit after the last found one begins; the picture's size at its end.
    std::size_t next()
    {
        // A mark has two zero bytes and one or two that tell its kind.
        while (m_at + 3 < m_picture.size()) {
            const std::size_t at = m_at++;
            if (m_picture[at + 1] != 0) {
                ++m_at;
            } else if (m_picture[at] == 0 && isMark(at)) {
                return at;
            }
        }
        return m_picture.size();
    }

private:
    bool isMark(std::size_t at)
    {
        const unsigned int third = m_picture[at + 2];
        const unsigned int fourth = m_picture[at + 3];
        switch (m_kind) {
        case MarkKind::Mpeg4:
            // 16 to 22 zero bits and a one; a start code has 23.
            m_isInPicture = m_isInPicture || (third == 1 && fourth == 0xB6);
            return m_isInPicture && third >= 2;
        case MarkKind::H263:
            // 16 zero bits, a one, the group's number; number 0 is the picture itself.
            return (third & 0x80U) != 0 && (third & 0x7CU) != 0;
        case MarkKind::Mpeg12: {
            if (third != 1) {
                return false;
            }
            // The first slice stays with the headers in front of it.
            const bool isSlice = fourth >= 0x01 && fourth <= 0xAF;
            const bool isLaterSlice = isSlice && m_isInPicture;
            m_isInPicture = isSlice;
            return isLaterSlice;
        }
        case MarkKind::None:
            break;
        }
        return false;
    }

    MarkKind m_kind;
    Bytes m_picture;
    std::size_t m_at = 0;
    bool m_isInPicture = false; ///< behind the headers
};

} // namespace

int slicePayloadOption(AVCodecID codec, int payloadSize)
{
    return markKind(codec) == MarkKind::None ? 0 : std::max(0, payloadSize - OptionDistance);
}

std::vector<Bytes> slicePicture(AVCodecID codec, Bytes picture, int payloadSize)
{
    if (picture.empty()) {
        return {};
    }
    const MarkKind kind = markKind(codec);
    if (kind == MarkKind::None || payloadSize <= 0 ||
        picture.size() <= static_cast<std::size_t>(payloadSize)) {
        return {picture};
    }
    std::vector<Bytes> pieces;
    UnitFinder units(kind, picture);
    std::size_t begin = 0; // of the piece that grows
    std::size_t end = 0;   // of its last whole unit
    while (end < picture.size()) {
        const std::size_t next = units.next();
        if (next - begin > static_cast<std::size_t>(payloadSize) && end > begin) {
            pieces.push_back(picture.subspan(begin, end - begin));
            begin = end;
        }
        end = next;
    }
    pieces.push_back(picture.subspan(begin));
    return pieces;
}

} // namespace zel::av
