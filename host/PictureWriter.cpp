#include "host/PictureWriter.h"

#include "host/HostError.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}
#include <png.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>

namespace zel::host {

PictureWriter::PictureWriter(std::string folder, unsigned long long every)
    : m_folder(std::move(folder)), m_every(every)
{
    std::error_code error;
    std::filesystem::create_directories(m_folder, error);
    if (error) {
        throw systemError(m_folder, error.value());
    }
}

PictureWriter::~PictureWriter()
{
    sws_freeContext(m_scaler);
}

void PictureWriter::describe(const OutputStreamRecord& description)
{
    const VideoRecord& video = description.video;
    if (!video.isPresent()) {
        throw HostError(m_folder + ": The medium has no pictures to write");
    }
    if (video.getPixelFormat() != streamer::VideoPixelFormat::YUYV422) {
        throw HostError(m_folder + ": The pictures are not packed YUYV 4:2:2");
    }
    if (m_scaler != nullptr && m_width == video.getWidth() && m_height == video.getHeight()) {
        return;
    }
    m_width = video.getWidth();
    m_height = video.getHeight();
    sws_freeContext(m_scaler);
    m_scaler = sws_getContext(m_width, m_height, AV_PIX_FMT_YUYV422, m_width, m_height,
                              AV_PIX_FMT_RGB24, SWS_BICUBIC, nullptr, nullptr, nullptr);
    const int size = av_image_get_buffer_size(AV_PIX_FMT_RGB24, m_width, m_height, 1);
    if (m_scaler == nullptr || size <= 0) {
        throw HostError(m_folder + ": The pictures have a size that cannot be written");
    }
    // swscale may write a few bytes past the last row.
    constexpr size_t Slack = 64;
    m_rgb.resize(static_cast<size_t>(size) + Slack);
}

void PictureWriter::take(const Frame& frame)
{
    if (frame.type != streamer::PacketType::Video || m_count++ % m_every != 0) {
        return;
    }
    convert(frame);
    char name[48];
    std::snprintf(name, sizeof name, "picture-%06llu.png", m_count);
    write((std::filesystem::path(m_folder) / name).string());
}

void PictureWriter::convert(const Frame& frame)
{
    const int rowSize = av_image_get_linesize(AV_PIX_FMT_YUYV422, m_width, 0);
    const int expected = av_image_get_buffer_size(AV_PIX_FMT_YUYV422, m_width, m_height, 1);
    if (frame.size != static_cast<unsigned int>(expected)) {
        throw HostError(m_folder + ": A picture has " + std::to_string(frame.size) +
                        " bytes instead of " + std::to_string(expected));
    }
    const unsigned char* const source[] = {frame.data, nullptr, nullptr, nullptr};
    const int sourceStride[] = {rowSize, 0, 0, 0};
    unsigned char* const target[] = {m_rgb.data(), nullptr, nullptr, nullptr};
    const int targetStride[] = {m_width * 3, 0, 0, 0};
    sws_scale(m_scaler, source, sourceStride, 0, m_height, target, targetStride);
}

void PictureWriter::write(const std::string& path)
{
    const std::string begun = path + ".part";
    const auto close = [](FILE* file) { std::fclose(file); };
    std::unique_ptr<FILE, decltype(close)> file(std::fopen(begun.c_str(), "wbe"), close);
    if (!file) {
        throw systemError(begun, errno);
    }
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(m_width);
    image.height = static_cast<png_uint_32>(m_height);
    image.format = PNG_FORMAT_RGB;
    const bool written =
        png_image_write_to_stdio(&image, file.get(), 0, m_rgb.data(), m_width * 3, nullptr) != 0;
    const std::string reason = image.message;
    if (!written || std::fflush(file.get()) != 0) {
        std::remove(begun.c_str());
        throw HostError(path + ": " + (written ? "The picture could not be written" : reason));
    }
    file.reset();
    if (std::rename(begun.c_str(), path.c_str()) != 0) {
        throw systemError(path, errno);
    }
}

} // namespace zel::host
