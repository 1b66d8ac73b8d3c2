#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zel::test {

/// What container bytes look like to a reader who knows the format by its description alone.

struct FlvTag
{
    int type = 0; ///< 8 audio, 9 video, 18 script
    int64_t timestampMs = 0;
    bool isKey = false;   ///< of video
    bool isSetUp = false; ///< a sequence header
    std::string body;
};

/// @param bytes  whole tags, from their first byte on, or with the file header in front
/// @throws std::runtime_error where no tag stands
std::vector<FlvTag> flvTags(const std::string& bytes);

struct TSPacket
{
    int pid = 0;
    bool beginsUnit = false;     ///< of a table or an elementary packet
    bool isRandomAccess = false; ///< decoding can begin here
    std::string payload;
};

/// @throws std::runtime_error where no packet stands
std::vector<TSPacket> tsPackets(const std::string& bytes);

/// The bytes of an elementary stream without the headers of its packets.
std::string elementaryBytes(const std::vector<TSPacket>& packets, int pid);

constexpr int TablePid = 0;
constexpr int DescriptionPid = 17;
/// Of libavformat's program map and first stream.
constexpr int ProgramPid = 0x1000;
constexpr int FirstStreamPid = 0x100;

struct Block
{
    int track = 0; ///< from 1
    int64_t timestampMs = 0;
    bool isKey = false;
};

/// The blocks of the cluster with which bytes begin; none where no cluster of Matroska stands.
std::vector<Block> clusterBlocks(const std::string& bytes);

} // namespace zel::test
