#include "tests/common/ffmpeg/H264Headers.h"

#include <bit>
#include <cstdint>

namespace zel::test {
namespace {

/// Bits, the most significant first.
class BitWriter
{
public:
    BitWriter& bits(unsigned int value, int count)
    {
        for (int bit = count - 1; bit >= 0; --bit) {
            m_last = static_cast<unsigned char>(m_last << 1U |
                                                (value >> static_cast<unsigned int>(bit) & 1U));
            if (++m_used == 8) {
                m_bytes += static_cast<char>(m_last);
                m_last = 0;
                m_used = 0;
            }
        }
        return *this;
    }

    /// An Exponential-Golomb code.
    BitWriter& number(unsigned int value)
    {
        const int length = 32 - std::countl_zero(value + 1);
        return bits(0, length - 1).bits(value + 1, length);
    }

    /// With the one bit that ends a unit.
    std::string bytes()
    {
        bits(1, 1);
        while (m_used != 0) {
            bits(0, 1);
        }
        return m_bytes;
    }

private:
    std::string m_bytes;
    unsigned char m_last = 0;
    int m_used = 0;
};

/// Keeps three-byte patterns that look like start codes out of a unit.
std::string escaped(const std::string& payload)
{
    std::string escaped;
    int zeroes = 0;
    for (const char byte : payload) {
        if (zeroes == 2 && static_cast<unsigned char>(byte) <= 3) {
            escaped += '\3';
            zeroes = 0;
        }
        zeroes = byte == 0 ? zeroes + 1 : 0;
        escaped += byte;
    }
    return escaped;
}

const unsigned char SequenceUnit = 0x67;
const unsigned char PictureUnit = 0x68;

std::string bigEndian(std::size_t value, int bytes)
{
    std::string text;
    for (int byte = bytes - 1; byte >= 0; --byte) {
        text += static_cast<char>(value >> (8U * static_cast<unsigned int>(byte)) & 0xFFU);
    }
    return text;
}

} // namespace

std::string H264Headers::sequence() const
{
    BitWriter writer;
    writer.bits(77, 8).bits(0, 8).bits(30, 8); // profile, constraints, level
    writer.number(0);                          // id
    writer.number(4).number(0).number(4);      // 8 bits each of frame number and order count
    writer.number(4).bits(0, 1);               // reference frames, no gaps
    writer.number(10).number(m_stream.fields ? 4 : 9); // 176x160
    writer.bits(m_stream.fields ? 0 : 1, 1);
    if (m_stream.fields) {
        writer.bits(0, 1);
    }
    writer.bits(1, 1).bits(0, 1); // direct prediction, no cropping
    writer.bits(m_stream.declared >= 0 ? 1 : 0, 1);
    if (m_stream.declared >= 0) {
        writer.bits(0, 8).bits(1, 1); // nothing but restrictions
        writer.bits(1, 1).number(0).number(0).number(10).number(10);
        writer.number(static_cast<unsigned int>(m_stream.declared)).number(4);
    }
    return writer.bytes();
}

std::string H264Headers::picture()
{
    BitWriter writer;
    writer.number(0).number(0);                      // its id, that of the sequence
    writer.bits(0, 2).number(0);                     // CAVLC, one group of slices
    writer.number(0).number(0).bits(0, 3);           // references, no weights
    writer.number(0).number(0).number(0).bits(0, 3); // quantisers, no filters
    return writer.bytes();
}

std::string H264Headers::unit(unsigned char header, const std::string& payload) const
{
    const std::string body = static_cast<char>(header) + escaped(payload);
    return (m_stream.lengths ? bigEndian(body.size(), 4) : bigEndian(1, 4)) + body;
}

std::string H264Headers::setUp() const
{
    return unit(SequenceUnit, sequence()) + unit(PictureUnit, picture());
}

std::string H264Headers::setUpData() const
{
    const std::string sequenceUnit = static_cast<char>(SequenceUnit) + escaped(sequence());
    const std::string pictureUnit = static_cast<char>(PictureUnit) + escaped(picture());
    return std::string("\x01\x4D\x00\x1E\xFF\xE1", 6) + bigEndian(sequenceUnit.size(), 2) +
           sequenceUnit + '\x01' + bigEndian(pictureUnit.size(), 2) + pictureUnit;
}

std::string H264Headers::slice(const Slice& slice) const
{
    BitWriter writer;
    writer.number(0);                                                 // first macroblock
    writer.number(slice.type == 'I' ? 7 : slice.type == 'B' ? 6 : 5); // of the whole picture
    writer.number(0).bits(static_cast<unsigned int>(slice.frameNumber), 8);
    if (m_stream.fields) {
        writer.bits(slice.isField ? 1 : 0, 1);
        if (slice.isField) {
            writer.bits(slice.isBottom ? 1 : 0, 1);
        }
    }
    if (slice.isInstantRefresh) {
        writer.number(0);
    }
    writer.bits(static_cast<unsigned int>(slice.orderCount) & 0xFFU, 8);
    if (slice.type == 'B') {
        writer.bits(1, 1); // direct prediction
    }
    if (slice.type != 'I') {
        writer.bits(0, slice.type == 'B' ? 3 : 2); // references as they are
    }
    if (slice.isReference) {
        writer.bits(0, slice.isInstantRefresh ? 2 : 1);
    }
    writer.number(0);
    // The parser wants some bytes of picture behind the header.
    for (int n = 0; n < 16; ++n) {
        writer.bits(0xA5, 8);
    }
    const unsigned int importance = slice.isReference ? 0x60U : 0;
    const unsigned int type = slice.isInstantRefresh ? 5 : 1;
    return unit(static_cast<unsigned char>(importance | type), writer.bytes());
}

} // namespace zel::test
