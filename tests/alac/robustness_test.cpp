// Damaged input: random bytes, truncated and bit-flipped real frames. The decoder must stay
// inside its buffers (the sanitizer build checks that) and report a sane output size.
#include <gtest/gtest.h>

#include <vector>

#include "alac/alac.h"
#include "alac_test_util.h"

namespace {

struct lcg {
    uint32_t state;
    uint32_t next() { return state = state * 1664525u + 1013904223u; }
};

// Decodes into a buffer of exactly the audio path's size; returns the reported size.
int decode_exact(alac_decoder* d, const std::vector<uint8_t>& frame) {
    std::vector<uint8_t> out((d->frame_length + 3) * 2 * 4);
    int size = -1;
    alac_frame_decode(d, frame.data(), frame.size(), out.data(), out.size(), &size);
    EXPECT_GE(size, 0);
    EXPECT_LE(static_cast<size_t>(size), out.size());
    return size;
}

TEST(AlacRobustness, RandomBytesUnderAnyParameters) {
    testing::internal::CaptureStderr();  // damaged frames log FIXME lines by the thousand
    lcg rng{2024};
    const int depths[] = {16, 24, 20, 32, 0, 8, 17, 31, 33, 255};
    for (int round = 0; round < 20000; ++round) {
        const int depth = depths[rng.next() % 10];
        auto d = make_test_decoder(depth, 352);
        d->rice_history_mult = static_cast<uint8_t>(rng.next() >> 24);
        d->rice_initial_history = static_cast<uint8_t>(rng.next() >> 24);
        d->rice_limit = static_cast<uint8_t>(rng.next() % 4 == 0 ? rng.next() >> 24 : 14);
        std::vector<uint8_t> frame(rng.next() % (round % 2 ? 64 : 2048));
        for (uint8_t& b : frame) b = static_cast<uint8_t>(rng.next() >> 24);
        // Mostly mono and stereo elements, so that decoding gets past the header.
        if (!frame.empty() && rng.next() % 4 != 0) frame[0] &= 0x3F;
        decode_exact(d.get(), frame);
    }
    testing::internal::GetCapturedStderr();
}

TEST(AlacRobustness, TruncatedAndBitFlippedRealFrames) {
    testing::internal::CaptureStderr();
    lcg rng{7};
    for (const stream_vector& v : load_vectors()) {
        auto d = make_stream_decoder(v.fmtp);
        const auto frames = split_frames(read_file(alac_data_dir() + v.name + ".frames"));
        for (size_t f = 0; f < frames.size(); f += 3) {
            for (size_t cut = 0; cut < frames[f].size(); cut += 1 + cut / 16) {
                decode_exact(d.get(),
                             std::vector<uint8_t>(frames[f].begin(), frames[f].begin() + cut));
            }
            for (int flip = 0; flip < 40; ++flip) {
                std::vector<uint8_t> damaged = frames[f];
                for (int k = 0; k < 1 + flip % 4; ++k) {
                    damaged[rng.next() % damaged.size()] ^=
                        static_cast<uint8_t>(1u << (rng.next() % 8));
                }
                decode_exact(d.get(), damaged);
            }
        }
    }
    testing::internal::GetCapturedStderr();
}

}  // namespace
