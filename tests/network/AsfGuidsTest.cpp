#include "network/AsfGuids.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <set>
#include <string>

namespace {

using zel::_GUID;
using zel::asfGuids;
using zel::CopyGuid;
using zel::get_guid;
using zel::IsGuidEqual;

/// The bytes of a GUID as its text shows them.
std::string inTextOrder(const _GUID& guid)
{
    char text[64];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", guid.data1,
                  guid.data2, guid.data3, guid.data4[0], guid.data4[1], guid.data4[2],
                  guid.data4[3], guid.data4[4], guid.data4[5], guid.data4[6], guid.data4[7]);
    return text;
}

TEST(AsfGuids, BytesOfAFileAreFoundInTheirMixedOrder)
{
    const unsigned char header[] = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                    0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
    EXPECT_EQ(get_guid(header), 1);
    const unsigned char fileProperties[] = {0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11,
                                            0x8E, 0xE4, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
    EXPECT_EQ(get_guid(fileProperties), 7);
    const unsigned char asf2Header[] = {0xD1, 0x29, 0xE2, 0xD6, 0xDA, 0x35, 0xD1, 0x11,
                                        0x90, 0x34, 0x00, 0xA0, 0xC9, 0x03, 0x49, 0xBE};
    EXPECT_EQ(get_guid(asf2Header), 36);
}

TEST(AsfGuids, WhatMatchesNothingIsRowZero)
{
    const unsigned char zeros[16] = {};
    EXPECT_EQ(get_guid(zeros), 0) << "the row of zeros is not searched";
    unsigned char nearly[] = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                              0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6D};
    EXPECT_EQ(get_guid(nearly), 0);
}

TEST(AsfGuids, TableHasItsRowsInTheirPlaces)
{
    EXPECT_STREQ(asfGuids[0].name, "error");
    EXPECT_EQ(inTextOrder(asfGuids[2].guid), "75B22636-668E-11CF-A6D9-00AA0062CE6C");
    EXPECT_EQ(inTextOrder(asfGuids[8].guid), "B7DC0791-A9B7-11CF-8EE6-00C00C205365");
    EXPECT_EQ(inTextOrder(asfGuids[17].guid), "7BF875CE-468D-11D1-8D82-006097C9A2B2");
    EXPECT_EQ(inTextOrder(asfGuids[20].guid), "F8699E40-5B4D-11CF-A8FD-00805F5C442B");
    EXPECT_EQ(inTextOrder(asfGuids[21].guid), "BC19EFC0-5B4D-11CF-A8FD-00805F5C442B");
    EXPECT_EQ(inTextOrder(asfGuids[22].guid), "59DACFC0-59E6-11D0-A3AC-00A0C90348F6");
    EXPECT_EQ(inTextOrder(asfGuids[23].guid), "B61BE100-5B4E-11CF-A8FD-00805F5C442B");
    EXPECT_EQ(inTextOrder(asfGuids[24].guid), "35907DE0-E415-11CF-A917-00805F5C442B");
    EXPECT_STREQ(asfGuids[36].name, "asf 2.0 header");
    std::set<std::string> all;
    for (const zel::AsfGuid& row : asfGuids) {
        all.insert(inTextOrder(row.guid));
    }
    EXPECT_EQ(all.size(), asfGuids.size());
}

TEST(AsfGuids, EveryFieldCountsInAComparison)
{
    const _GUID guid = asfGuids[12].guid;
    _GUID other = {};
    EXPECT_FALSE(IsGuidEqual(guid, other));
    CopyGuid(other, guid);
    EXPECT_TRUE(IsGuidEqual(guid, other));
    other.data1 ^= 1;
    EXPECT_FALSE(IsGuidEqual(guid, other));
    CopyGuid(other, guid);
    other.data2 ^= 1;
    EXPECT_FALSE(IsGuidEqual(guid, other));
    CopyGuid(other, guid);
    other.data3 ^= 1;
    EXPECT_FALSE(IsGuidEqual(guid, other));
    for (std::size_t i = 0; i < 8; ++i) {
        CopyGuid(other, guid);
        other.data4[i] ^= 1;
        EXPECT_FALSE(IsGuidEqual(guid, other)) << i;
    }
}

} // namespace
