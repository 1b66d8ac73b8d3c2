#include "common/ffmpeg/CompositionOffsets.h"

#include "common/ffmpeg/PictureReader.h"

#include <utility>

namespace zel::av {

std::unique_ptr<CompositionOffsets> CompositionOffsets::create(const AVCodecParameters& parameters)
{
    std::unique_ptr<PictureReader> reader = PictureReader::create(parameters);
    return reader ? std::make_unique<CompositionOffsets>(std::move(reader)) : nullptr;
}

CompositionOffsets::CompositionOffsets(std::unique_ptr<PictureReader> reader)
    : m_reader(std::move(reader)),
      m_order(m_reader->units().step, m_reader->units().timeBase, m_reader->units().entersMiddle)
{
}

CompositionOffsets::~CompositionOffsets() = default;

double CompositionOffsets::next(const unsigned char* data, int size)
{
    CodedPicture picture;
    if (data == nullptr || size <= 0 || !m_reader->read(data, size, picture)) {
        return 0.0;
    }
    return m_order.next(picture);
}

void CompositionOffsets::reset()
{
    m_reader->reset();
    m_order.reset();
}

} // namespace zel::av
