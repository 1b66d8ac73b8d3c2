#pragma once

#include <string>

namespace zel::test {

/// Writes H.264 streams that consist of headers alone: what a reader of the order of pictures
/// looks at, in varieties that no encoder at hand makes.
class H264Headers
{
public:
    struct Stream
    {
        bool fields = false;  ///< pictures may be single fields
        int declared = -1;    ///< frames held back, as the stream says; negative: it does not say
        bool lengths = false; ///< each unit behind its length in four bytes, not a start code
    };

    struct Slice
    {
        char type = 'P';
        int orderCount = 0; ///< low bits of the picture order count
        bool isInstantRefresh = false;
        bool isField = false;
        bool isBottom = false;
        bool isReference = true;
        int frameNumber = 0;
    };

    explicit H264Headers(Stream stream) : m_stream(stream) {}

    /// Sequence and picture parameters, each as a unit.
    std::string setUp() const;
    /// The same as set-up data of the container, for units behind lengths.
    std::string setUpData() const;
    std::string slice(const Slice& slice) const;

private:
    std::string sequence() const;
    static std::string picture();
    std::string unit(unsigned char header, const std::string& payload) const;

    Stream m_stream;
};

} // namespace zel::test
