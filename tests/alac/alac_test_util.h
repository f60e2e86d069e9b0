// Helpers of the ALAC tests: hand-made bit strings and decoders set up as the audio path does.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "alac/alac.h"
#include "support/support.h"

// Builds a bit string most significant bit first; the last byte is padded with zeros.
class bit_writer {
   public:
    // The low n bits of value, most significant first.
    bit_writer& put(uint64_t value, int n) {
        for (int i = n - 1; i >= 0; --i) bits_.push_back(((value >> i) & 1) != 0);
        return *this;
    }
    // Bits given as text: '0' and '1' count, anything else (blanks) is ignored.
    bit_writer& bits(const std::string& text) {
        for (char ch : text) {
            if (ch == '0' || ch == '1') bits_.push_back(ch == '1');
        }
        return *this;
    }
    // A residual coded with Rice parameter 1: v = 2r (r >= 0) or -2r - 1 as that many ones and
    // a zero, or nine ones and v in e bits when v is above 8.
    bit_writer& residual_k1(int32_t r, int e) {
        const uint32_t v =
            r >= 0 ? 2u * static_cast<uint32_t>(r) : static_cast<uint32_t>(-2 * r - 1);
        if (v <= 8) return put((1u << v) - 1, static_cast<int>(v)).put(0, 1);
        return put(0x1FF, 9).put(v, e);
    }
    size_t size() const { return bits_.size(); }
    std::vector<uint8_t> bytes() const {
        std::vector<uint8_t> out((bits_.size() + 7) / 8, 0);
        for (size_t i = 0; i < bits_.size(); ++i) {
            if (bits_[i]) out[i / 8] |= static_cast<uint8_t>(0x80 >> (i % 8));
        }
        return out;
    }

   private:
    std::vector<bool> bits_;
};

// A two-channel decoder like the audio path's, with the usual Rice parameters 40, 10, 14.
inline std::unique_ptr<alac_decoder> make_test_decoder(int bit_depth, uint32_t frame_length) {
    std::unique_ptr<alac_decoder> d = alac_decoder_new(bit_depth, 2);
    d->frame_length = frame_length;
    d->bit_depth = static_cast<uint8_t>(bit_depth);
    d->rice_history_mult = 40;
    d->rice_initial_history = 10;
    d->rice_limit = 14;
    alac_decoder_set_buffers(d.get());
    return d;
}

// Points the decoder's bit reader at bytes, as alac_frame_decode does at a frame's start.
inline void start_reading(alac_decoder* d, const std::vector<uint8_t>& bytes) {
    d->input = bytes.data();
    d->input_size = bytes.size();
    d->input_pos = 0;
    d->bit_offset = 0;
}

// Bits consumed so far.
inline size_t bits_read(const alac_decoder* d) {
    return d->input_pos * 8 + d->bit_offset;
}

// A committed test stream: tests/data/alac/NAME.frames and NAME.pcm, listed in vectors.txt.
struct stream_vector {
    std::string name;
    int bits = 0;
    int channels = 0;
    int frames = 0;
    int samples = 0;
    std::vector<int> fmtp;  // the twelve numbers of the SDP fmtp line
};

inline std::string alac_data_dir() {
    return zt::source_dir() + "/tests/data/alac/";
}

inline std::string alac_build_dir() {
    return zt::build_dir();
}

inline std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

inline std::vector<stream_vector> load_vectors() {
    std::vector<stream_vector> vectors;
    std::ifstream in(alac_data_dir() + "vectors.txt");
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        stream_vector v;
        fields >> v.name >> v.bits >> v.channels >> v.frames >> v.samples;
        for (int value; fields >> value;) v.fmtp.push_back(value);
        vectors.push_back(v);
    }
    return vectors;
}

// The frames of a length-prefixed frames file.
inline std::vector<std::vector<uint8_t>> split_frames(const std::vector<uint8_t>& file) {
    std::vector<std::vector<uint8_t>> frames;
    for (size_t pos = 0; pos + 4 <= file.size();) {
        const size_t length = (size_t{file[pos]} << 24) | (size_t{file[pos + 1]} << 16) |
                              (size_t{file[pos + 2]} << 8) | file[pos + 3];
        pos += 4;
        if (length > file.size() - pos) break;
        frames.emplace_back(file.begin() + pos, file.begin() + pos + length);
        pos += length;
    }
    return frames;
}

// A decoder set up from fmtp numbers as the audio path does (always two channels).
inline std::unique_ptr<alac_decoder> make_stream_decoder(const std::vector<int>& fmtp) {
    std::unique_ptr<alac_decoder> d = alac_decoder_new(fmtp[3], 2);
    d->frame_length = static_cast<uint32_t>(fmtp[1]);
    d->bit_depth = static_cast<uint8_t>(fmtp[3]);
    d->rice_history_mult = static_cast<uint8_t>(fmtp[4]);
    d->rice_initial_history = static_cast<uint8_t>(fmtp[5]);
    d->rice_limit = static_cast<uint8_t>(fmtp[6]);
    alac_decoder_set_buffers(d.get());
    return d;
}
