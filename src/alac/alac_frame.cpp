// Frame syntax: header, per-channel predictor parameters, residuals or verbatim samples,
// then PCM output. Only the frame's first element is decoded.
#include <algorithm>
#include <cstdio>

#include "alac/alac.h"
#include "alac/alac_internal.h"

using alac_arith::put16;
using alac_arith::put24;
using alac_arith::sign_extend;
using alac_arith::widen;

namespace {

struct channel_params {
    int prediction_type = 0;  // 0 adaptive FIR; anything else is not handled
    int quant_shift = 0;
    int rice_modifier = 0;  // scales rice_history_mult
    int coef_count = 0;
    int16_t coefs[32] = {};  // adapted in place while the channel is decoded
};

struct frame_header {
    int channel_field = 0;  // 0 mono, 1 stereo
    int count = 0;          // samples per channel
    int low_bytes = 0;      // uncoded low-order bytes per sample, 0..3
    bool not_compressed = false;
};

// Samples the arrays hold; they are allocated together, but a half-failed set-up counts too.
size_t array_capacity(const alac_decoder* d) {
    return std::min({d->error_a.size(), d->error_b.size(), d->output_a.size(), d->output_b.size(),
                     d->low_bytes_a.size(), d->low_bytes_b.size()});
}

// Whether count samples fit the arrays, and both the reported size and the bytes the output
// stage writes (slots_written slots per sample frame) fit the caller's buffer.
bool fits(const alac_decoder* d, int count, int slots_written, size_t out_capacity) {
    if (count < 0 || static_cast<size_t>(count) > array_capacity(d)) return false;
    const int64_t reported = int64_t{count} * d->bytes_per_frame;
    if (reported < 0 || static_cast<uint64_t>(reported) > out_capacity) return false;
    const int slot_bytes = d->bit_depth == 16 ? 2 : d->bit_depth == 24 ? 3 : 0;
    if (count == 0 || slot_bytes == 0) return true;
    const int64_t written = (int64_t{count - 1} * d->channels + slots_written) * slot_bytes;
    return static_cast<uint64_t>(written) <= out_capacity;
}

void read_channel_params(alac_decoder* d, channel_params* p) {
    alac_bits::cursor c = alac_bits::cursor_of(d);
    p->prediction_type = static_cast<int>(alac_bits::take(&c, 4));
    p->quant_shift = static_cast<int>(alac_bits::take(&c, 4));
    p->rice_modifier = static_cast<int>(alac_bits::take(&c, 3));
    p->coef_count = static_cast<int>(alac_bits::take(&c, 5));
    for (int j = 0; j < p->coef_count; ++j) {
        p->coefs[j] = static_cast<int16_t>(alac_bits::take(&c, 16));
    }
    alac_bits::hand_back(d, c);
}

void decode_channel(alac_decoder* d, channel_params* p, std::vector<int32_t>* error,
                    std::vector<int32_t>* output, int count, int read_size) {
    const int history_mult = (p->rice_modifier * d->rice_history_mult) / 4;
    // A channel that is predicted rebuilds its samples in place over its residuals; one that is
    // not keeps the samples of the last frame.
    const bool predicted = p->prediction_type == 0;
    int32_t* residuals = predicted ? output->data() : error->data();
    rice_decode_block(d, residuals, count, read_size, d->rice_initial_history, d->rice_limit,
                      history_mult, alac_arith::low_mask(d->rice_limit));
    if (predicted) {
        fir_adaptive_reconstruct(residuals, output->data(), count, read_size, p->coefs,
                                 p->coef_count, p->quant_shift);
    } else {
        std::fprintf(stderr, "FIXME: unhandled predicition type: %i\n", p->prediction_type);
    }
}

// One verbatim sample. Wide samples come as 16 bits and the rest, and keep only 24 bits.
int32_t read_verbatim_sample(alac_decoder* d) {
    const int depth = d->bit_depth;
    if (depth <= 16) return sign_extend(static_cast<int32_t>(bit_reader_get(d, depth)), depth);
    const int rest = depth - 16;
    const uint32_t high = bit_reader_get(d, 16);
    const uint32_t low = bit_reader_get_long(d, rest);
    const uint32_t value = (rest >= 32 ? 0u : high << rest) | low;
    return sign_extend(static_cast<int32_t>(value), 24);
}

// The uncoded low bytes (1..3) of every sample into low-bytes A (and B for stereo, taking
// turns per sample).
void read_low_bytes(alac_decoder* d, int count, int low_bytes, bool stereo) {
    int32_t* a = d->low_bytes_a.data();
    int32_t* b = d->low_bytes_b.data();
    const int bits = 8 * low_bytes;
    alac_bits::cursor c = alac_bits::cursor_of(d);
    for (int i = 0; i < count; ++i) {
        a[i] = static_cast<int32_t>(alac_bits::take(&c, bits));
        if (stereo) b[i] = static_cast<int32_t>(alac_bits::take(&c, bits));
    }
    alac_bits::hand_back(d, c);
}

// The verbatim samples of a frame into output A (and B for stereo, taking turns per sample).
// Samples of up to 25 bits come from one peek each: a wide sample's 16 bits and the rest
// read back to back are its bits read at once.
void read_verbatim(alac_decoder* d, int count, bool stereo) {
    int32_t* a = d->output_a.data();
    int32_t* b = d->output_b.data();
    const int depth = d->bit_depth;
    if (depth < 1 || depth > 25) {
        for (int i = 0; i < count; ++i) {
            a[i] = read_verbatim_sample(d);
            if (stereo) b[i] = read_verbatim_sample(d);
        }
        return;
    }
    alac_bits::cursor c = alac_bits::cursor_of(d);
    if (depth == 16 && stereo) {
        // The commonest case, where the sign extension is a conversion: both samples of a
        // frame from one peek where a word holds them.
        for (int i = 0; i < count; ++i) {
            if constexpr (alac_bits::kPeekBits >= 32) {
                const uint32_t pair = alac_bits::take(&c, 32);
                a[i] = static_cast<int16_t>(pair >> 16);
                b[i] = static_cast<int16_t>(pair);
            } else {
                a[i] = static_cast<int16_t>(alac_bits::take(&c, 16));
                b[i] = static_cast<int16_t>(alac_bits::take(&c, 16));
            }
        }
    } else {
        const int width = depth <= 16 ? depth : 24;  // the bit that becomes the sign, plus one
        for (int i = 0; i < count; ++i) {
            a[i] = sign_extend(static_cast<int32_t>(alac_bits::take(&c, depth)), width);
            if (stereo) b[i] = sign_extend(static_cast<int32_t>(alac_bits::take(&c, depth)), width);
        }
    }
    alac_bits::hand_back(d, c);
}

void write_mono(const alac_decoder* d, uint8_t* out, int count, int low_bytes) {
    const size_t stride = static_cast<size_t>(d->channels);
    if (d->bit_depth == 16) {
        for (int i = 0; i < count; ++i) put16(out + i * stride * 2, d->output_a[i]);
    } else {
        for (int i = 0; i < count; ++i) {
            int32_t s = d->output_a[i];
            if (low_bytes != 0) s = widen(s, low_bytes, d->low_bytes_a[i]);
            put24(out + i * stride * 3, s);
        }
    }
}

// PCM of the decoded frame by sample size; 16 and 24 are the sizes written.
void write_output(const alac_decoder* d, const frame_header& h, uint8_t* out, int shift,
                  int weight) {
    const int depth = d->bit_depth;
    if (depth == 20 || depth == 32) {
        std::fprintf(stderr, "FIXME: unimplemented sample size %i\n", depth);
    } else if (depth == 16 && h.channel_field == 1) {
        stereo_interleave_16(d->output_a.data(), d->output_b.data(), out, d->channels, h.count,
                             shift, weight);
    } else if (depth == 24 && h.channel_field == 1) {
        stereo_interleave_24(d->output_a.data(), d->output_b.data(), h.low_bytes,
                             d->low_bytes_a.data(), d->low_bytes_b.data(), out, d->channels,
                             h.count, shift, weight);
    } else if (depth == 16 || depth == 24) {
        write_mono(d, out, h.count, h.low_bytes);
    }
}

void decode_mono(alac_decoder* d, frame_header h, uint8_t* out) {
    const int read_size = d->bit_depth - 8 * h.low_bytes;
    if (!h.not_compressed) {
        bit_reader_get(d, 8);
        bit_reader_get(d, 8);
        channel_params a;
        read_channel_params(d, &a);
        if (h.low_bytes != 0) read_low_bytes(d, h.count, h.low_bytes, false);
        decode_channel(d, &a, &d->error_a, &d->output_a, h.count, read_size);
    } else {
        read_verbatim(d, h.count, false);
        h.low_bytes = 0;
    }
    write_output(d, h, out, 0, 0);
}

void decode_stereo(alac_decoder* d, frame_header h, uint8_t* out) {
    const int read_size = d->bit_depth - 8 * h.low_bytes + 1;
    int shift = 0;
    int weight = 0;
    if (!h.not_compressed) {
        shift = static_cast<int>(bit_reader_get(d, 8));
        weight = static_cast<int>(bit_reader_get(d, 8));
        channel_params a;
        channel_params b;
        read_channel_params(d, &a);
        read_channel_params(d, &b);
        if (h.low_bytes != 0) read_low_bytes(d, h.count, h.low_bytes, true);
        decode_channel(d, &a, &d->error_a, &d->output_a, h.count, read_size);
        decode_channel(d, &b, &d->error_b, &d->output_b, h.count, read_size);
    } else {
        read_verbatim(d, h.count, true);
        h.low_bytes = 0;
    }
    write_output(d, h, out, shift, weight);
}

}  // namespace

void alac_frame_decode(alac_decoder* d, const uint8_t* frame, size_t frame_size, uint8_t* out,
                       size_t out_capacity, int* out_size) {
    d->input = frame;
    d->input_size = frame != nullptr ? frame_size : 0;
    d->input_pos = 0;
    d->bit_offset = 0;
    *out_size = 0;

    frame_header h;
    h.count = static_cast<int32_t>(d->frame_length);
    h.channel_field = static_cast<int>(bit_reader_get(d, 3));
    if (h.channel_field > 1) {
        // Not a mono or stereo element: silence of a whole frame.
        if (fits(d, h.count, 0, out_capacity)) *out_size = h.count * d->bytes_per_frame;
        return;
    }
    bit_reader_get(d, 4);
    bit_reader_get(d, 12);
    const bool has_size = bit_reader_get(d, 1) != 0;
    h.low_bytes = static_cast<int>(bit_reader_get(d, 2));
    h.not_compressed = bit_reader_get(d, 1) != 0;
    if (has_size) h.count = static_cast<int32_t>(bit_reader_get_long(d, 32));
    if (!fits(d, h.count, h.channel_field + 1, out_capacity)) return;
    *out_size = h.count * d->bytes_per_frame;

    if (h.channel_field == 0) {
        decode_mono(d, h, out);
    } else {
        decode_stereo(d, h, out);
    }
}
