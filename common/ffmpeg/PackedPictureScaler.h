#pragma once

#include "common/ffmpeg/Handles.h"

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace zel::av {

/// Scales pictures whose planes and rows follow each other without padding into an encoder's frame.
///
/// The scaler reads some bytes beyond the end of a picture. A picture that comes from elsewhere may
/// have none there, so its last rows are read from a padded copy, and the rest where it lies:
///
///     rows 0 ... n-17   in place
///     rows n-16 ... n-1 of the last plane: copy | 64 zeros
///
/// Either way the result is that of one call for the whole picture.
///
/// Owner: the encoder stage. Threads: the one that writes to the stage.
class PackedPictureScaler
{
public:
    struct Shape
    {
        AVPixelFormat format = AV_PIX_FMT_NONE;
        int width = 0;  ///< pixels
        int height = 0; ///< pixels
        bool operator==(const Shape&) const = default;
    };

    /// @return null for a shape that no scaler takes
    static std::unique_ptr<PackedPictureScaler> create(const Shape& from, const Shape& to);

    const Shape& source() const { return m_from; }
    std::size_t sourceBytes() const { return m_size; }

    /// @param picture   may be longer than a picture needs
    /// @param bottomUp  the rows stand in reverse order; for formats of one plane
    /// @return false when the picture is too short or the frame does not fit
    bool scale(std::span<const unsigned char> picture, bool bottomUp, AVFrame& out);

private:
    PackedPictureScaler(Scaler scaler, const Shape& from, const Shape& to, std::size_t size);

    /// A stretch of rows of the source, and where they lie.
    struct Rows
    {
        const unsigned char* planes[4];
        int strides[4];
        int first;
        int count;
    };
    Rows rowsOf(const unsigned char* picture) const;
    static Rows turned(const Rows& all);
    bool scaleInOneOrTwo(std::span<const unsigned char> picture, bool bottomUp, AVFrame& out);
    bool scaleRows(const Rows& rows, AVFrame& out);
    bool scaleTopDown(const Rows& all, const unsigned char* end, AVFrame& out);
    bool scaleBottomUp(const Rows& all, AVFrame& out);
    bool isIndivisible() const;
    bool keepsSize() const;
    void drawLastChroma(const unsigned char* lastRow, AVFrame& out) const;
    int chromaRows(int plane, int rows) const;
    int firstTailRow() const;
    const unsigned char* keep(const unsigned char* data, std::size_t size);

    Scaler m_scaler;
    Shape m_from;
    Shape m_to;
    std::size_t m_size; ///< bytes of a picture
    std::vector<unsigned char> m_tail;
};

} // namespace zel::av
