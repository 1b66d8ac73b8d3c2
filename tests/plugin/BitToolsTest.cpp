#include "plugin/BitTools.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

using namespace zel::streamer;

namespace {

using Bytes = std::vector<unsigned char>;

/// Writes into `size` bytes of `fill` and gives them back.
Bytes written(std::size_t size, unsigned char fill, unsigned long value, unsigned long bits,
              unsigned long offset)
{
    Bytes bytes(size, fill);
    writeBits(bytes.data(), value, bits, offset);
    return bytes;
}

Bytes writtenFrom(std::size_t size, const Bytes& source, unsigned long bits, unsigned long offset)
{
    Bytes bytes(size, 0);
    writeBits(bytes.data(), source.data(), bits, offset);
    return bytes;
}

} // namespace

TEST(BitTools, HexTextHasTwoLowerCaseDigitsAByteAndNoTerminator)
{
    unsigned char in[] = {0x00, 0x0F, 0xA5, 0xFF};
    std::array<unsigned char, 9> out{};
    out.fill('#');
    EXPECT_EQ(toHexString(in, 4, out.data(), 8), 8);
    EXPECT_EQ(std::string(out.begin(), out.end()), "000fa5ff#");
}

TEST(BitTools, HexTextOfNothingIsNothing)
{
    unsigned char in[] = {0xAB};
    unsigned char out[] = {'#', '#'};
    EXPECT_EQ(toHexString(in, 0, out, 2), 0);
    EXPECT_EQ(toHexString(in, -3, out, 2), 0);
    EXPECT_EQ(out[0], '#');
}

TEST(BitTools, HexTextIgnoresTheStatedRoom)
{
    unsigned char in[] = {0xAB};
    unsigned char out[] = {'#', '#'};
    EXPECT_EQ(toHexString(in, 1, out, 0), 2);
    EXPECT_EQ(out[0], 'a');
    EXPECT_EQ(out[1], 'b');
}

TEST(BitTools, MaskHasItsOnesBelowTheOffset)
{
    EXPECT_EQ(getBitMask(3, 2), 0x38);
    EXPECT_EQ(getBitMask(1, 0), 0x80);
    EXPECT_EQ(getBitMask(1, 7), 0x01);
    EXPECT_EQ(getBitMask(8, 0), 0xFF);
    EXPECT_EQ(getBitMask(5, 3), 0x1F);
}

TEST(BitTools, MaskOfBitsThatDoNotFitIsZero)
{
    EXPECT_EQ(getBitMask(3, 6), 0);
    EXPECT_EQ(getBitMask(0, 0), 0);
    EXPECT_EQ(getBitMask(0, 8), 0);
    EXPECT_EQ(getBitMask(9, 0), 0);
    EXPECT_EQ(getBitMask(1, 8), 0);
    EXPECT_EQ(getBitMask(1, 9), 0);
    EXPECT_EQ(getBitMask(4, ~0UL - 1), 0);
    EXPECT_EQ(getBitMask(~0UL, 2), 0);
}

TEST(BitTools, OctetKeepsTheBitsAround)
{
    unsigned char octet = 0xFF;
    writeBitsInOctet(&octet, 0, 3, 2);
    EXPECT_EQ(octet, 0xC7);
    octet = 0x00;
    writeBitsInOctet(&octet, 0x5, 3, 2);
    EXPECT_EQ(octet, 0x28);
}

TEST(BitTools, OctetTakesTheLowBitsOfTheValueOnly)
{
    unsigned char octet = 0x00;
    writeBitsInOctet(&octet, 0xFFFFFFF8UL, 3, 5);
    EXPECT_EQ(octet, 0x00);
    writeBitsInOctet(&octet, 0x1234567FUL, 8, 0);
    EXPECT_EQ(octet, 0x7F);
}

TEST(BitTools, OctetStaysAloneWhenTheBitsDoNotFit)
{
    unsigned char octet = 0x5A;
    writeBitsInOctet(&octet, 0xFF, 3, 6);
    writeBitsInOctet(&octet, 0xFF, 9, 0);
    writeBitsInOctet(&octet, 0xFF, 0, 0);
    writeBitsInOctet(&octet, 0xFF, 1, 8);
    EXPECT_EQ(octet, 0x5A);
}

TEST(BitTools, ValueGoesMostSignificantBitFirst)
{
    EXPECT_EQ(written(4, 0, 0x12345678UL, 32, 0), (Bytes{0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ(written(2, 0, 0xABCUL, 12, 4), (Bytes{0x0A, 0xBC}));
}

TEST(BitTools, ValueSpansBytesAndKeepsItsNeighbours)
{
    EXPECT_EQ(written(3, 0xFF, 0, 10, 3), (Bytes{0xE0, 0x07, 0xFF}));
    EXPECT_EQ(written(3, 0x00, 0x3FF, 10, 3), (Bytes{0x1F, 0xF8, 0x00}));
    EXPECT_EQ(written(3, 0x00, 1, 1, 15), (Bytes{0x00, 0x01, 0x00}));
}

TEST(BitTools, ValueOfNoBitsWritesNothing)
{
    EXPECT_EQ(written(2, 0xA5, 0xFFFF, 0, 3), (Bytes{0xA5, 0xA5}));
}

TEST(BitTools, ValueFillsAWidthBeyondItsOwnWithZerosInFront)
{
    EXPECT_EQ(written(9, 0xFF, ~0UL, 72, 0),
              (Bytes{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(BitTools, SourceBytesGoWholeFromTheFront)
{
    EXPECT_EQ(writtenFrom(4, {0xDE, 0xAD, 0xBE}, 24, 0), (Bytes{0xDE, 0xAD, 0xBE, 0x00}));
    EXPECT_EQ(writtenFrom(4, {0xDE, 0xAD, 0xBE}, 24, 8), (Bytes{0x00, 0xDE, 0xAD, 0xBE}));
    EXPECT_EQ(writtenFrom(4, {0xDE, 0xAD, 0xBE}, 24, 4), (Bytes{0x0D, 0xEA, 0xDB, 0xE0}));
}

TEST(BitTools, SourceRemainderLandsItsOwnWidthTooFar)
{
    // 11 bits: one byte, then the low three bits of the next at bit 8 + 3.
    EXPECT_EQ(writtenFrom(3, {0xFF, 0x07}, 11, 0), (Bytes{0xFF, 0x1C, 0x00}));
    // The remainder alone: the low five bits at bit 1 + 5.
    EXPECT_EQ(writtenFrom(3, {0xFF}, 5, 1), (Bytes{0x03, 0xE0, 0x00}));
}

TEST(BitTools, SourceOfNoBitsWritesNothing)
{
    EXPECT_EQ(writtenFrom(2, {0xFF}, 0, 3), (Bytes{0x00, 0x00}));
}
