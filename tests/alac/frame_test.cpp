// Whole frames built by hand: verbatim and compressed, mono and stereo, stated sizes, and the
// frames the decoder reports or refuses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "alac_test_util.h"

namespace {

// Frame header: channel field, 4 + 12 unused bits, has-size, low bytes, not-compressed.
bit_writer header(int channel_field, bool has_size, int low_bytes, bool not_compressed) {
    return bit_writer().put(channel_field, 3).put(0, 16).put(has_size, 1).put(low_bytes, 2).put(
        not_compressed, 1);
}

// Channel parameters with order 0 and Rice modifier 0: residuals are the samples and, with an
// initial history of 255, every one is coded with k = 1 and no zero runs come up.
bit_writer& channel_params(bit_writer& w, int prediction_type) {
    return w.put(prediction_type, 4).put(0, 12);
}

struct decoded {
    std::vector<uint8_t> pcm;
    int size = -1;
    std::string errors;
    std::vector<int16_t> s16(size_t n) const {
        std::vector<int16_t> s(n);
        for (size_t i = 0; i < n; ++i) s[i] = int16_t(pcm[2 * i] | pcm[2 * i + 1] << 8);
        return s;
    }
};

decoded decode(alac_decoder* d, const bit_writer& frame, size_t capacity = 64) {
    decoded r;
    r.pcm.assign(capacity, 0);
    auto bytes = frame.bytes();
    testing::internal::CaptureStderr();
    alac_frame_decode(d, bytes.data(), bytes.size(), r.pcm.data(), capacity, &r.size);
    r.errors = testing::internal::GetCapturedStderr();
    return r;
}

TEST(AlacFrame, VerbatimFramesStatedSizesAndRefusals) {
    // Stereo reads samples in turn, mono fills the first slot of each sample frame only.
    auto d = make_test_decoder(16, 3);
    auto stereo = header(1, false, 0, true);
    for (int v : {1, -1, 300, -300, 32767, -32768}) stereo.put(uint16_t(v), 16);
    auto r = decode(d.get(), stereo, 12);
    EXPECT_EQ(r.size, 12);
    EXPECT_EQ(r.s16(6), (std::vector<int16_t>{1, -1, 300, -300, 32767, -32768}));
    auto mono = header(0, false, 0, true).put(5, 16).put(uint16_t(-6), 16).put(7, 16);
    EXPECT_EQ(decode(d.get(), mono, 12).s16(6), (std::vector<int16_t>{5, 0, -6, 0, 7, 0}));

    // 24 bits come as 16 and 8, whatever the low-bytes field says.
    auto d24 = make_test_decoder(24, 2);
    auto wide = header(1, false, 2, true);
    for (uint32_t v : {0x123456u, 0xFEDCBAu, 0x800000u, 0x7FFFFFu}) wide.put(v, 24);
    r = decode(d24.get(), wide, 12);
    EXPECT_EQ(r.size, 12);
    EXPECT_EQ(r.pcm, (std::vector<uint8_t>{0x56, 0x34, 0x12, 0xBA, 0xDC, 0xFE, 0x00, 0x00, 0x80,
                                           0xFF, 0xFF, 0x7F}));

    // A stated count sets the size; more samples than the arrays hold, a negative count, or
    // output that would not fit are refused with nothing written.
    auto d8 = make_test_decoder(16, 8);
    r = decode(d8.get(), header(1, true, 0, true).put(2, 32).put(1, 16).put(2, 16).put(3, 16).put(4, 16));
    EXPECT_EQ(r.size, 8);
    EXPECT_EQ(r.s16(5), (std::vector<int16_t>{1, 2, 3, 4, 0}));
    const std::pair<uint32_t, size_t> refused[] = {{9, 64}, {0xFFFFFFFF, 64}, {0x80000000, 64}, {8, 31}};
    for (auto [count, capacity] : refused) {
        r = decode(d8.get(), header(1, true, 0, true).put(count, 32).put(0x7777, 16), capacity);
        EXPECT_EQ(r.size, 0) << count;
        EXPECT_EQ(r.pcm, std::vector<uint8_t>(capacity, 0)) << count;
    }
    // Sized for 16-bit stereo, the buffer is too small for 24-bit stereo of the same length.
    EXPECT_EQ(decode(make_test_decoder(24, 8).get(), header(1, false, 0, true), 8 * 4).size, 0);
}

TEST(AlacFrame, OtherElementsAndUnwrittenSampleSizesReportSilence) {
    // Channel field 7 (end of frame): silence, nothing written, nothing logged. Sizes 20 and
    // 32 are decoded but not written, one line per frame; any other size says nothing.
    const struct {
        int depth;
        bit_writer frame;
        int size;
        std::string errors;
    } cases[] = {
        {16, bit_writer().put(7, 3).put(0xFFFFF, 20), 20, ""},
        {20, header(1, false, 0, true).put(0x12345, 20).put(0x54321, 20).put(1, 20).put(2, 20), 8,
         "FIXME: unimplemented sample size 20\n"},
        {32, header(1, false, 0, true).put(0x12345, 32).put(0x54321, 32).put(1, 32).put(2, 32), 16,
         "FIXME: unimplemented sample size 32\n"},
        {8, header(1, false, 0, true).put(0xABCDEF01, 32), 4, ""},
    };
    for (const auto& c : cases) {
        auto r = decode(make_test_decoder(c.depth, c.depth == 16 ? 5 : 2).get(), c.frame);
        EXPECT_EQ(r.size, c.size) << c.depth;
        EXPECT_EQ(r.pcm, std::vector<uint8_t>(64, 0)) << c.depth;
        EXPECT_EQ(r.errors, c.errors) << c.depth;
    }
}

TEST(AlacFrame, UnhandledPredictionTypeKeepsTheLastFrameAndStillDecodesTheOtherChannel) {
    auto d = make_test_decoder(16, 4);
    d->rice_initial_history = 255;
    auto verbatim = header(1, false, 0, true);
    for (int v : {1, 5, 2, 6, 3, 7, 4, 8}) verbatim.put(v, 16);
    decode(d.get(), verbatim);

    auto compressed = header(1, false, 0, false).put(0, 16);  // no interlacing
    channel_params(channel_params(compressed, 1), 0);
    for (int v : {9, 9, 9, 9, 10, -3, 0, 2000}) compressed.residual_k1(v, 17);
    auto r = decode(d.get(), compressed);
    EXPECT_EQ(r.size, 16);
    EXPECT_EQ(r.s16(8), (std::vector<int16_t>{1, 10, 2, -3, 3, 0, 4, 2000}));
    EXPECT_EQ(r.errors, "FIXME: unhandled predicition type: 1\n");

    // A mono frame of type 2 leaves its slots with the samples of the last frame.
    auto mono = header(0, false, 0, false).put(0, 16);
    channel_params(mono, 2);
    for (int v : {-1, -1, -1, -1}) mono.residual_k1(v, 16);
    r = decode(d.get(), mono);
    EXPECT_EQ(r.s16(8), (std::vector<int16_t>{1, 0, 2, 0, 3, 0, 4, 0}));
    EXPECT_EQ(r.errors, "FIXME: unhandled predicition type: 2\n");
}

TEST(AlacFrame, CompressedFrameWithWeightAndLowBytes) {
    // 24-bit stereo with one low byte a sample: read size 24 - 8 + 1 = 17, interlacing shift
    // 1, weight 1, low bytes of each sample frame before the residuals.
    auto d = make_test_decoder(24, 2);
    d->rice_initial_history = 255;
    auto frame = header(1, false, 1, false).put(1, 8).put(1, 8);
    channel_params(channel_params(frame, 0), 0).put(0x11223344, 32);
    for (int v : {100, -7, 10, 0}) frame.residual_k1(v, 17);
    auto r = decode(d.get(), frame);
    EXPECT_EQ(r.size, 12);
    // Sample 0: right = 100 - (10 >> 1) = 95, left = 105; sample 1: both -7.
    EXPECT_EQ(std::vector<uint8_t>(r.pcm.begin(), r.pcm.begin() + 12),
              (std::vector<uint8_t>{0x11, 105, 0, 0x22, 95, 0, 0x33, 0xF9, 0xFF, 0x44, 0xF9, 0xFF}));
}

TEST(AlacDecoder, CreationAndArraysRefuseWhatCannotBeDecoded) {
    EXPECT_EQ(alac_decoder_new(16, 0), nullptr);
    EXPECT_EQ(alac_decoder_new(16, kAlacMaxChannels + 1), nullptr);
    EXPECT_EQ(alac_decoder_new(-16, 2), nullptr);
    auto d = alac_decoder_new(24, 2);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->bytes_per_frame, 6);
    d->frame_length = kAlacMaxFrameLength + 1;
    d->bit_depth = 24;
    EXPECT_FALSE(alac_decoder_set_buffers(d.get()));
    EXPECT_TRUE(d->output_a.empty());
    EXPECT_EQ(decode(d.get(), header(1, false, 0, true)).size, 0);
    alac_decoder_free(d.release());
    alac_decoder_free(nullptr);
}

}  // namespace
