#include "common/ffmpeg/Deinterlacer.h"
#include "common/ffmpeg/Handles.h"
#include "common/ffmpeg/PackedAudio.h"
#include "common/ffmpeg/PackedPictureScaler.h"
#include "plugin/Vocabulary.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
}

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

zel::av::Frame makePicture(int width, int height)
{
    zel::av::Frame frame = zel::av::makeFrame();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width;
    frame->height = height;
    av_frame_get_buffer(frame.get(), 0);
    for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane == 0 ? height : height / 2;
        for (int y = 0; y < rows; ++y) {
            std::memset(frame->data[plane] + y * frame->linesize[plane], (y * 7 + plane) & 0xff,
                        static_cast<std::size_t>(frame->linesize[plane]));
        }
    }
    return frame;
}

/// What every delivered picture costs: an array and the way from planes to packed YUYV.
void pictureToCaller(benchmark::State& state)
{
    const auto width = static_cast<int>(state.range(0));
    const auto height = static_cast<int>(state.range(1));
    const zel::av::Frame picture = makePicture(width, height);
    const AVPixelFormat format =
        zel::streamer::zelToFFmpegPixelFormat(zel::streamer::VideoPixelFormat::YUYV422);
    const zel::av::Scaler scaler(sws_getContext(width, height, AV_PIX_FMT_YUV420P, width, height,
                                                format, SWS_BILINEAR, nullptr, nullptr, nullptr));
    const int bytes = av_image_get_buffer_size(format, width, height, 1);
    for ([[maybe_unused]] auto _ : state) {
        const std::unique_ptr<unsigned char[]> data(new unsigned char[bytes + 64]);
        uint8_t* planes[4] = {};
        int strides[4] = {};
        av_image_fill_arrays(planes, strides, data.get(), format, width, height, 1);
        sws_scale(scaler.get(), picture->data, picture->linesize, 0, height, planes, strides);
        benchmark::DoNotOptimize(data.get());
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(pictureToCaller)
    ->Name("FramePath/pictureToCaller")
    ->Args({1280, 720})
    ->Args({1920, 1080});

/// What every raw picture costs on its way into an encoder: from packed YUYV to planes.
void pictureToEncoder(benchmark::State& state)
{
    const auto width = static_cast<int>(state.range(0));
    const auto height = static_cast<int>(state.range(1));
    const zel::av::Frame picture = makePicture(width, height);
    const std::vector<unsigned char> packed(static_cast<std::size_t>(width) * height * 2, 0x40);
    const auto scaler = zel::av::PackedPictureScaler::create({AV_PIX_FMT_YUYV422, width, height},
                                                             {AV_PIX_FMT_YUV420P, width, height});
    for ([[maybe_unused]] auto _ : state) {
        scaler->scale(packed, false, *picture);
        benchmark::DoNotOptimize(picture->data[0]);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<long long>(packed.size()));
}
BENCHMARK(pictureToEncoder)
    ->Name("FramePath/pictureToEncoder")
    ->Args({1280, 720})
    ->Args({1920, 1080});

void deinterlacePicture(benchmark::State& state)
{
    const auto width = static_cast<int>(state.range(0));
    const auto height = static_cast<int>(state.range(1));
    const zel::av::Frame source = makePicture(width, height);
    const zel::av::Frame target = makePicture(width, height);
    for ([[maybe_unused]] auto _ : state) {
        zel::av::deinterlace(target->data, target->linesize, source->data, source->linesize,
                             AV_PIX_FMT_YUV420P, width, height);
        benchmark::DoNotOptimize(target->data[0]);
    }
}
BENCHMARK(deinterlacePicture)->Name("FramePath/deinterlace")->Args({1920, 1080});

/// One AAC frame's worth of float samples to 16 bits.
void packAudio(benchmark::State& state)
{
    zel::av::Frame frame = zel::av::makeFrame();
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->nb_samples = 1024;
    frame->sample_rate = 48000;
    av_channel_layout_default(&frame->ch_layout, static_cast<int>(state.range(0)));
    av_frame_get_buffer(frame.get(), 0);
    for (int channel = 0; channel < frame->ch_layout.nb_channels; ++channel) {
        std::memset(frame->extended_data[channel], 0, 1024 * sizeof(float));
    }
    zel::av::PackedAudio packer;
    std::vector<unsigned char> out(zel::av::PackedAudio::size(*frame, 16));
    for ([[maybe_unused]] auto _ : state) {
        packer.convert(*frame, 16, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(packAudio)->Name("FramePath/packAudio")->Arg(2)->Arg(6);

} // namespace
