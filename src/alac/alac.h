// The ALAC decoder of the audio path: one decoder per stream, one frame (the decrypted payload
// of one RTP packet) at a time, decoded into interleaved little-endian PCM.
//
// Arithmetic is 32-bit two's complement throughout: sums and products wrap, right shifts of
// signed values keep the sign, divisions truncate toward zero. The decoder never reads or
// writes outside the buffers it is given; a damaged frame decodes to garbage, never faults.
//
// Threads: a decoder is used by one thread at a time (the audio receiver); nothing here is
// shared between decoders.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

// Largest frame_length (samples per channel) for which set_buffers allocates its arrays.
inline constexpr uint32_t kAlacMaxFrameLength = 65536;
// Largest channel count a decoder can be created for.
inline constexpr int kAlacMaxChannels = 8;

struct alac_decoder {
    // Bit reader over the frame being decoded; reset by alac_frame_decode for every frame.
    const uint8_t* input = nullptr;  // first byte of the frame
    size_t input_size = 0;           // bytes of the frame; reads past them see zero bits
    size_t input_pos = 0;            // byte that holds the next bit (may run past input_size)
    int bit_offset = 0;              // bits of that byte already consumed, 0..7

    int sample_bits = 0;      // sample size given at creation
    int channels = 0;         // channel count given at creation (the audio path passes 2)
    int bytes_per_frame = 0;  // (sample_bits / 8) * channels: sets the reported output size

    // Work arrays of frame_length entries each. They keep their values from frame to frame:
    // a channel whose prediction type is not handled outputs what the last frame left.
    std::vector<int32_t> error_a;      // residuals of the first channel
    std::vector<int32_t> error_b;      // residuals of the second channel
    std::vector<int32_t> output_a;     // reconstructed samples of the first channel
    std::vector<int32_t> output_b;     // reconstructed samples of the second channel
    std::vector<int32_t> low_bytes_a;  // uncoded low-order bytes of the first channel
    std::vector<int32_t> low_bytes_b;  // uncoded low-order bytes of the second channel

    // Stream parameters from the SDP fmtp line, set by the creator before set_buffers.
    uint32_t frame_length = 0;         // samples per channel unless a frame states its count
    uint8_t compatible_version = 0;    // stored, not used
    uint8_t bit_depth = 0;             // sample size decoding uses: 16 and 24 produce PCM
    uint8_t rice_history_mult = 0;     // scaled per channel by the frame's Rice modifier
    uint8_t rice_initial_history = 0;  // Rice history at the start of every block
    uint8_t rice_limit = 0;            // largest Rice parameter
    uint8_t stream_channels = 0;       // stored, not used
    uint16_t max_run = 0;              // stored, not used
    uint32_t max_frame_bytes = 0;      // stored, not used
    uint32_t avg_bit_rate = 0;         // stored, not used
    uint32_t sample_rate = 0;          // stored, not used
};

// Creates a decoder with all parameters 0 and no arrays. Returns null when the record cannot
// be allocated, or when channels is outside 1..kAlacMaxChannels or sample_bits outside 0..255.
std::unique_ptr<alac_decoder> alac_decoder_new(int sample_bits, int channels);

// Sets the stream parameters from the twelve numbers of an SDP "a=fmtp:" line in line order
// (payload type, frame length, compatible version, bit depth, Rice history multiplier,
// initial history, limit, channels, maximum run, maximum frame bytes, average bit rate,
// sample rate), each cut to its field's width. Call before alac_decoder_set_buffers.
void alac_decoder_set_parameters(alac_decoder* decoder, const int* fmtp);

// Allocates the six zero-filled arrays of frame_length entries. Returns false (and leaves
// the decoder with no arrays, so that it refuses every frame) when frame_length exceeds
// kAlacMaxFrameLength or an allocation fails; such a decoder must not be used.
bool alac_decoder_set_buffers(alac_decoder* decoder);

// Releases a decoder taken out of its unique_ptr (for example one held in an atomic pointer).
// The caller makes sure no thread still decodes with it. Null is accepted.
void alac_decoder_free(alac_decoder* decoder);

// Bit reader. Bits come most significant first; bits past input_size read as zero.
// Next n bits as an unsigned number. Exact for 0 <= n <= 16 (also 17); n is clamped to 0..24.
uint32_t bit_reader_get(alac_decoder* decoder, int n);
// Next n bits, read as 16 bits then n - 16; n is clamped to 0..40, above 32 the low 32 bits
// of the value are returned.
uint32_t bit_reader_get_long(alac_decoder* decoder, int n);
// Next bit, 0 or 1.
int bit_reader_get_bit(alac_decoder* decoder);
// Steps back n bits, never before the frame's first bit.
void bit_reader_rewind(alac_decoder* decoder, int n);

// One adaptive Rice coded value with escape size e (bits of an escaped value), parameter k
// and multiplier mask m. A k outside 0..32 acts as 0 (only damaged frames produce one).
int32_t rice_read_value(alac_decoder* decoder, int e, int k, uint32_t m);

// Decodes count residuals into out[0..count-1]; a zero run is cut at the end of the block.
void rice_decode_block(alac_decoder* decoder, int32_t* out, int count, int e, int initial_history,
                       int limit, int history_mult, uint32_t run_mask);

// Rebuilds count samples into out from residuals r with the adaptive FIR predictor of n
// coefficients c (0..31, adapted in place) and quantisation shift q (0..15); samples wrap
// to read_size bits. Writes out[0..count-1] only; nothing when count <= 0. r may be out itself
// (each residual is read before its sample is written), which is the faster way.
void fir_adaptive_reconstruct(const int32_t* r, int32_t* out, int count, int read_size, int16_t* c,
                              int n, int q);

// Undoes the stereo decorrelation and writes 16-bit little-endian slots i * channels (left)
// and i * channels + 1 (right) for i < count. A shift of 32 or more acts as 31.
void stereo_interleave_16(const int32_t* a, const int32_t* b, uint8_t* out, int channels, int count,
                          int shift, int weight);

// The same for 24-bit output (3 bytes a slot), first appending low_bytes (0..3) uncoded low
// bytes from low_a and low_b to every sample.
void stereo_interleave_24(const int32_t* a, const int32_t* b, int low_bytes, const int32_t* low_a,
                          const int32_t* low_b, uint8_t* out, int channels, int count, int shift,
                          int weight);

// Decodes the first element of the frame_size-byte frame into out (out_capacity bytes, cleared
// by the caller; slots the frame does not fill stay as they are) and stores the PCM byte count,
// sample count * bytes_per_frame, into *out_size. A frame whose sample count is negative,
// exceeds the decoder's arrays, or whose output would not fit out_capacity is refused:
// nothing is decoded and *out_size is 0. Unhandled prediction types and sample sizes 20 and
// 32 are reported by a "FIXME: " line on standard error.
void alac_frame_decode(alac_decoder* decoder, const uint8_t* frame, size_t frame_size, uint8_t* out,
                       size_t out_capacity, int* out_size);
