// Helpers of the ALAC tests: hand-made bit strings and decoders set up as the audio path does.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "alac/alac.h"
#include "support/airtunes_sender.h"

// Builds a bit string most significant bit first; the last byte is padded with zeros.
class bit_writer {
   public:
    bit_writer& put(uint64_t value, int n) {  // the low n bits of value
        for (int i = n - 1; i >= 0; --i) bits_.push_back(((value >> i) & 1) != 0);
        return *this;
    }
    // A Rice (k = 1) residual: v = 2r or -2r - 1 as v ones and a zero, above 8 nine ones and v.
    bit_writer& residual_k1(int32_t r, int e) {
        const uint32_t v = r >= 0 ? 2u * uint32_t(r) : uint32_t(-2 * r - 1);
        return v <= 8 ? put((1u << v) - 1, int(v)).put(0, 1) : put(0x1FF, 9).put(v, e);
    }
    std::vector<uint8_t> bytes() const {
        std::vector<uint8_t> out((bits_.size() + 7) / 8, 0);
        for (size_t i = 0; i < bits_.size(); ++i) out[i / 8] |= uint8_t(bits_[i] << (7 - i % 8));
        return out;
    }

   private:
    std::vector<bool> bits_;
};

// A decoder set up from fmtp numbers as the audio path does (always two channels).
inline std::unique_ptr<alac_decoder> make_stream_decoder(const std::vector<int>& fmtp) {
    std::unique_ptr<alac_decoder> d = alac_decoder_new(fmtp[3], 2);
    alac_decoder_set_parameters(d.get(), fmtp.data());
    alac_decoder_set_buffers(d.get());
    return d;
}
