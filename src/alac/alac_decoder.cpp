// Creation and release of a decoder and its work arrays.
#include <new>

#include "alac/alac.h"

std::unique_ptr<alac_decoder> alac_decoder_new(int sample_bits, int channels) {
    if (channels < 1 || channels > kAlacMaxChannels || sample_bits < 0 || sample_bits > 255) {
        return nullptr;
    }
    std::unique_ptr<alac_decoder> decoder;
    try {
        decoder = std::make_unique<alac_decoder>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    decoder->sample_bits = sample_bits;
    decoder->channels = channels;
    decoder->bytes_per_frame = (sample_bits / 8) * channels;
    return decoder;
}

bool alac_decoder_set_buffers(alac_decoder* decoder) {
    std::vector<int32_t>* arrays[] = {&decoder->error_a,     &decoder->error_b,
                                      &decoder->output_a,    &decoder->output_b,
                                      &decoder->low_bytes_a, &decoder->low_bytes_b};
    bool ok = decoder->frame_length <= kAlacMaxFrameLength;
    if (ok) {
        try {
            for (std::vector<int32_t>* array : arrays) array->assign(decoder->frame_length, 0);
        } catch (const std::bad_alloc&) {
            ok = false;
        }
    }
    if (!ok) {
        // Empty arrays make alac_frame_decode refuse every frame that holds a sample.
        for (std::vector<int32_t>* array : arrays) std::vector<int32_t>().swap(*array);
    }
    return ok;
}

void alac_decoder_free(alac_decoder* decoder) {
    std::unique_ptr<alac_decoder> owned(decoder);
}

void alac_decoder_set_parameters(alac_decoder* d, const int* fmtp) {
    d->frame_length = static_cast<uint32_t>(fmtp[1]);
    d->compatible_version = static_cast<uint8_t>(fmtp[2]);
    d->bit_depth = static_cast<uint8_t>(fmtp[3]);
    d->rice_history_mult = static_cast<uint8_t>(fmtp[4]);
    d->rice_initial_history = static_cast<uint8_t>(fmtp[5]);
    d->rice_limit = static_cast<uint8_t>(fmtp[6]);
    d->stream_channels = static_cast<uint8_t>(fmtp[7]);
    d->max_run = static_cast<uint16_t>(fmtp[8]);
    d->max_frame_bytes = static_cast<uint32_t>(fmtp[9]);
    d->avg_bit_rate = static_cast<uint32_t>(fmtp[10]);
    d->sample_rate = static_cast<uint32_t>(fmtp[11]);
}
