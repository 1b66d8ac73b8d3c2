#include "encoder/EncoderStream.h"

#include <algorithm>

namespace av = zel::av;

int EncoderStream::open()
{
    pictures.reset();
    frames.reset();
    context.reset();
    av::CodecContext fresh(avcodec_alloc_context3(encoder));
    if (!fresh) {
        return AVERROR(ENOMEM);
    }
    fresh->opaque = owner;
    fresh->codec_type = type;
    fresh->codec_id = encoder != nullptr ? encoder->id : AV_CODEC_ID_H264;
    if (type == AVMEDIA_TYPE_AUDIO) {
        audio.applyTo(*fresh);
        if (encoder != nullptr) {
            fresh->sample_fmt = av::pickSampleFormat(*encoder);
        }
    } else {
        video.applyTo(*fresh);
    }
    if (encoder != nullptr) {
        const int result = avcodec_open2(fresh.get(), encoder, nullptr);
        if (result < 0) {
            return result;
        }
    }
    context = std::move(fresh);
    if (encoder != nullptr && !copied) {
        if (type == AVMEDIA_TYPE_AUDIO) {
            frames = std::make_unique<av::AudioFrameEncoder>(*context);
        } else {
            pictures = std::make_unique<av::PictureEncoder>(*context);
        }
    }
    return 0;
}

void EncoderStream::setExtradata(const std::vector<unsigned char>& bytes)
{
    auto* copy =
        static_cast<unsigned char*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (copy == nullptr) {
        return;
    }
    std::copy(bytes.begin(), bytes.end(), copy);
    av_freep(&context->extradata);
    context->extradata = copy;
    context->extradata_size = static_cast<int>(bytes.size());
}
