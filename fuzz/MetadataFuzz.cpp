#include "plugin/MetadataPacket.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

using zel::streamer::MetadataPacket;

/// Any block is read without leaving it, and a table that was read survives a round trip.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // A copy of the exact size, so that a read behind the block is a read behind an allocation.
    const std::vector<char> block(data, data + size);
    auto* first = new MetadataPacket(block.data(), static_cast<unsigned int>(block.size()));
    auto* encoded = new MetadataPacket(first->getAllMetadata());
    auto* second = new MetadataPacket(reinterpret_cast<const char*>(encoded->getBuffer()),
                                      static_cast<unsigned int>(encoded->getLength()));

    // Rows with an empty key or value are not encoded; all others come back.
    MetadataPacket::Table expected;
    for (const auto& [key, value] : first->getAllMetadata()) {
        if (!key.empty() && !value.empty()) {
            expected[key] = value;
        }
    }
    if (second->getAllMetadata() != expected) {
        std::abort();
    }
    second->release();
    encoded->release();
    first->release();
    return 0;
}
