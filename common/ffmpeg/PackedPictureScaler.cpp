#include "common/ffmpeg/PackedPictureScaler.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>

namespace zel::av {

namespace {

/// How far the scaler may read beyond the end of a picture.
constexpr std::size_t Slack = 64;

/// Rows that are read from the copy; even, since chroma rows stand for two.
constexpr int TailRows = 16;

} // namespace

std::unique_ptr<PackedPictureScaler> PackedPictureScaler::create(const Shape& from, const Shape& to)
{
    const int size = av_image_get_buffer_size(from.format, from.width, from.height, 1);
    if (size <= 0 || to.width <= 0 || to.height <= 0) {
        return nullptr;
    }
    Scaler scaler(sws_getContext(from.width, from.height, from.format, to.width, to.height,
                                 to.format, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!scaler) {
        return nullptr;
    }
    return std::unique_ptr<PackedPictureScaler>(
        new PackedPictureScaler(std::move(scaler), from, to, static_cast<std::size_t>(size)));
}

PackedPictureScaler::PackedPictureScaler(Scaler scaler, const Shape& from, const Shape& to,
                                         std::size_t size)
    : m_scaler(std::move(scaler)), m_from(from), m_to(to), m_size(size)
{
}

bool PackedPictureScaler::scale(std::span<const unsigned char> picture, bool bottomUp, AVFrame& out)
{
    if (picture.size() < m_size || out.width != m_to.width || out.height != m_to.height ||
        !scaleInOneOrTwo(picture, bottomUp, out)) {
        return false;
    }
    if (m_from.format == AV_PIX_FMT_YUYV422 && m_to.format == AV_PIX_FMT_YUV420P && keepsSize() &&
        m_from.height % 2 != 0) {
        const Rows all = rowsOf(picture.data());
        const int last = bottomUp ? 0 : all.count - 1;
        drawLastChroma(all.planes[0] + static_cast<std::ptrdiff_t>(all.strides[0]) * last, out);
    }
    return true;
}

bool PackedPictureScaler::scaleInOneOrTwo(std::span<const unsigned char> picture, bool bottomUp,
                                          AVFrame& out)
{
    const bool hasSlack = picture.size() - m_size >= Slack;
    if (hasSlack || isIndivisible()) {
        const Rows all = rowsOf(hasSlack ? picture.data() : keep(picture.data(), m_size));
        return scaleRows(bottomUp ? turned(all) : all, out);
    }
    const Rows all = rowsOf(picture.data());
    return bottomUp ? scaleBottomUp(all, out) : scaleTopDown(all, picture.data() + m_size, out);
}

/// Whether a copy of the last rows alone is not enough.
bool PackedPictureScaler::isIndivisible() const
{
    // The library's converter for this pair makes the chroma of the last two rows that it is given
    // from fewer pixels, which would be seen in the middle of the picture.
    if (m_from.format == AV_PIX_FMT_BGR24 && keepsSize()) {
        return true;
    }
    // What is read beyond the rows in place, or beyond another plane, must end in the copied rows.
    const int last = av_pix_fmt_count_planes(m_from.format) - 1;
    const int rows = chromaRows(last, m_from.height) - chromaRows(last, firstTailRow());
    return static_cast<std::size_t>(rows) *
               static_cast<std::size_t>(av_image_get_linesize(m_from.format, m_from.width, last)) <
           Slack;
}

/// Of packed pictures with an odd number of rows the library leaves the last row of chroma as it
/// was. It is that of the picture's last row.
void PackedPictureScaler::drawLastChroma(const unsigned char* lastRow, AVFrame& out) const
{
    constexpr int PairBytes = 4;
    unsigned char* u =
        out.data[1] + static_cast<std::ptrdiff_t>(out.linesize[1]) * (out.height / 2);
    unsigned char* v =
        out.data[2] + static_cast<std::ptrdiff_t>(out.linesize[2]) * (out.height / 2);
    for (int pair = 0; pair < (out.width + 1) / 2; ++pair, lastRow += PairBytes) {
        u[pair] = lastRow[1];
        v[pair] = lastRow[3];
    }
}

bool PackedPictureScaler::keepsSize() const
{
    return m_from.width == m_to.width && m_from.height == m_to.height;
}

PackedPictureScaler::Rows PackedPictureScaler::rowsOf(const unsigned char* picture) const
{
    Rows all{};
    unsigned char* planes[4];
    av_image_fill_arrays(planes, all.strides, picture, m_from.format, m_from.width, m_from.height,
                         1);
    std::copy_n(planes, 4, all.planes);
    all.count = m_from.height;
    return all;
}

PackedPictureScaler::Rows PackedPictureScaler::turned(const Rows& all)
{
    Rows rows = all;
    rows.planes[0] += static_cast<std::ptrdiff_t>(all.strides[0]) * (all.count - 1);
    rows.strides[0] = -all.strides[0];
    return rows;
}

bool PackedPictureScaler::scaleTopDown(const Rows& all, const unsigned char* end, AVFrame& out)
{
    const int top = firstTailRow();
    if (top > 0) {
        Rows rows = all;
        rows.count = top;
        if (!scaleRows(rows, out)) {
            return false;
        }
    }
    Rows tail = all;
    tail.first = top;
    tail.count = all.count - top;
    int last = 0;
    for (int plane = 0; plane < 4 && all.planes[plane] != nullptr; ++plane) {
        tail.planes[plane] +=
            static_cast<std::ptrdiff_t>(all.strides[plane]) * chromaRows(plane, top);
        last = plane;
    }
    // Reading beyond the other planes ends in the one behind it.
    tail.planes[last] = keep(tail.planes[last], static_cast<std::size_t>(end - tail.planes[last]));
    return scaleRows(tail, out);
}

bool PackedPictureScaler::scaleBottomUp(const Rows& all, AVFrame& out)
{
    const std::ptrdiff_t stride = all.strides[0];
    const int head = std::min(all.count, TailRows);
    const unsigned char* headRows = all.planes[0] + stride * (all.count - head);
    Rows rows = all;
    rows.strides[0] = -all.strides[0];
    // What is on top of the image stands at the end of the memory.
    rows.planes[0] = keep(headRows, static_cast<std::size_t>(stride * head)) + stride * (head - 1);
    rows.count = head;
    if (!scaleRows(rows, out)) {
        return false;
    }
    if (head == all.count) {
        return true;
    }
    rows.planes[0] = headRows - stride;
    rows.first = head;
    rows.count = all.count - head;
    return scaleRows(rows, out);
}

bool PackedPictureScaler::scaleRows(const Rows& rows, AVFrame& out)
{
    return sws_scale(m_scaler.get(), rows.planes, rows.strides, rows.first, rows.count, out.data,
                     out.linesize) >= 0;
}

int PackedPictureScaler::chromaRows(int plane, int rows) const
{
    if (plane == 0) {
        return rows;
    }
    return AV_CEIL_RSHIFT(rows, av_pix_fmt_desc_get(m_from.format)->log2_chroma_h);
}

/// Of pictures that are not turned.
int PackedPictureScaler::firstTailRow() const
{
    return std::max((m_from.height - TailRows) & ~1, 0);
}

const unsigned char* PackedPictureScaler::keep(const unsigned char* data, std::size_t size)
{
    m_tail.resize(size + Slack);
    std::copy_n(data, size, m_tail.begin());
    return m_tail.data();
}

} // namespace zel::av
