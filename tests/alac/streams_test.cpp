// Real encoder streams (tests/data/alac, made by make_vectors.py) must decode to their source
// PCM byte for byte, through the alac_decode tool and through the decoder from buffers of the
// frames' exact size; damaged input (random bytes, truncated and bit-flipped real frames) must
// keep the decoder inside its buffers (the sanitizer build checks that) with a sane size.
#include <gtest/gtest.h>

#include "alac_test_util.h"

namespace {

// What the decoder writes for the source PCM: mono samples land in the first slot of each
// two-channel sample frame, the second slot stays zero.
std::string expected_output(const stream_vector& v) {
    std::string source = zt::load_alac_pcm(v.name), spread;
    for (size_t i = 0, width = size_t(v.bits / 8); v.channels == 1 && i < source.size(); i += width)
        spread += source.substr(i, width) + std::string(width, '\0');
    return v.channels == 2 ? source : spread;
}

// The tool's standard output and error: the PCM alone when all goes well.
std::string run_tool(const stream_vector& v) {
    std::vector<std::string> argv = {zt::build_dir() + "/alac_decode",
                                     zt::source_dir() + "/tests/data/alac/" + v.name + ".frames"};
    for (int value : v.fmtp) argv.push_back(std::to_string(value));
    zt::Process tool;
    EXPECT_TRUE(tool.start(argv, "/tmp/alac_decode.out")) << v.name;
    EXPECT_EQ(tool.wait_exit(std::chrono::seconds(30)), 0) << v.name;
    return tool.log();
}

// Decodes into a buffer of exactly the audio path's size, checks the reported size.
std::string decode_exact(alac_decoder* d, const std::vector<uint8_t>& frame) {
    std::string out((d->frame_length + 3) * 2 * 4, '\0');
    int size = -1;
    alac_frame_decode(d, frame.data(), frame.size(), reinterpret_cast<uint8_t*>(out.data()),
                      out.size(), &size);
    EXPECT_GE(size, 0);
    EXPECT_LE(size_t(size), out.size());
    return out.substr(0, size_t(std::max(size, 0)));
}

TEST(AlacStreams, EveryVectorDecodesToItsSourcePcmThroughTheToolAndFromExactBuffers) {
    const std::vector<stream_vector> vectors = load_vectors();
    ASSERT_GE(vectors.size(), 7u) << "tests/data/alac/vectors.txt is missing";
    for (const stream_vector& v : vectors) {
        const std::string expected = expected_output(v);
        EXPECT_EQ(expected.size(), size_t(v.samples) * 2 * size_t(v.bits / 8)) << v.name;
        EXPECT_TRUE(run_tool(v) == expected) << v.name;
        // Without a zero-filled work buffer behind the frame, the bit reader's look-ahead runs
        // off its end; the bits it sees there must still count as zeros.
        auto d = make_stream_decoder(v.fmtp);
        const auto frames = zt::load_alac_frames(v.name);
        ASSERT_EQ(frames.size(), size_t(v.frames)) << v.name;
        std::string pcm;
        for (const auto& frame : frames) pcm += decode_exact(d.get(), frame);
        EXPECT_TRUE(pcm == expected) << v.name;
    }
}

struct lcg {
    uint32_t state;
    uint32_t next() { return state = state * 1664525u + 1013904223u; }
    uint8_t byte() { return uint8_t(next() >> 24); }
};

TEST(AlacRobustness, DamagedFramesStayInsideTheBuffers) {
    testing::internal::CaptureStderr();  // damaged frames log FIXME lines by the thousand
    lcg rng{2024};
    // Random bytes under any parameters, mostly mono and stereo elements so that decoding
    // gets past the header.
    const int depths[] = {16, 24, 20, 32, 0, 8, 17, 31, 33, 255};
    for (int round = 0; round < 20000; ++round) {
        auto d = make_test_decoder(depths[rng.next() % 10], 352);
        d->rice_history_mult = rng.byte();
        d->rice_initial_history = rng.byte();
        d->rice_limit = rng.next() % 4 == 0 ? rng.byte() : 14;
        std::vector<uint8_t> frame(rng.next() % (round % 2 ? 64 : 2048));
        for (uint8_t& b : frame) b = rng.byte();
        if (!frame.empty() && rng.next() % 4 != 0) frame[0] &= 0x3F;
        decode_exact(d.get(), frame);
    }
    // Every third frame of every vector, cut short and with one to four bits flipped.
    for (const stream_vector& v : load_vectors()) {
        auto d = make_stream_decoder(v.fmtp);
        const auto frames = zt::load_alac_frames(v.name);
        for (size_t f = 0; f < frames.size(); f += 3) {
            const auto& real = frames[f];
            for (size_t cut = 0; cut < real.size(); cut += 1 + cut / 16)
                decode_exact(d.get(), std::vector<uint8_t>(real.begin(), real.begin() + long(cut)));
            for (int flip = 0; flip < 40; ++flip) {
                std::vector<uint8_t> damaged = real;
                for (int k = 0; k < 1 + flip % 4; ++k)
                    damaged[rng.next() % damaged.size()] ^= uint8_t(1u << (rng.next() % 8));
                decode_exact(d.get(), damaged);
            }
        }
    }
    testing::internal::GetCapturedStderr();
}

}  // namespace
