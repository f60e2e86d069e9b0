// Whole frames built by hand: verbatim and compressed, mono and stereo, stated sizes, and the
// frames the decoder reports or refuses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "alac/alac.h"
#include "alac_test_util.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// Frame header: channel field, 4 + 12 unused bits, has-size, low bytes, not-compressed.
bit_writer header(int channel_field, bool has_size, int low_bytes, bool not_compressed) {
    bit_writer w;
    w.put(channel_field, 3).put(0, 4).put(0, 12);
    w.put(has_size, 1).put(low_bytes, 2).put(not_compressed, 1);
    return w;
}

// Channel parameters with order 0 and Rice modifier 0: residuals are the samples and, with an
// initial history of 255, every one is coded with k = 1 and no zero runs come up.
void channel_params(bit_writer* w, int prediction_type) {
    w->put(prediction_type, 4).put(0, 4).put(0, 3).put(0, 5);
}

struct decoded {
    std::vector<uint8_t> pcm;
    int size = -1;
    std::string errors;
};

decoded decode(alac_decoder* d, const std::vector<uint8_t>& frame, size_t capacity = 64) {
    decoded result;
    result.pcm.assign(capacity, 0);
    CaptureStderr();
    alac_frame_decode(d, frame.data(), frame.size(), result.pcm.data(), capacity, &result.size);
    result.errors = GetCapturedStderr();
    return result;
}

std::vector<int16_t> samples16(const decoded& r) {
    std::vector<int16_t> s;
    for (size_t i = 0; i + 1 < r.pcm.size(); i += 2) {
        s.push_back(static_cast<int16_t>(r.pcm[i] | (r.pcm[i + 1] << 8)));
    }
    return s;
}

std::vector<int16_t> first16(const decoded& r, size_t n) {
    std::vector<int16_t> s = samples16(r);
    s.resize(n);
    return s;
}

TEST(AlacFrame, VerbatimFramesReadSamplesInTurnAndIgnoreInterlacing) {
    auto d = make_test_decoder(16, 3);
    auto stereo = header(1, false, 0, true);
    for (int v : {1, -1, 300, -300, 32767, -32768}) stereo.put(static_cast<uint16_t>(v), 16);
    auto r = decode(d.get(), stereo.bytes(), 12);
    EXPECT_EQ(r.size, 12);
    EXPECT_EQ(samples16(r), (std::vector<int16_t>{1, -1, 300, -300, 32767, -32768}));

    // Mono fills the first slot of every sample frame only.
    auto mono = header(0, false, 0, true);
    for (int v : {5, -6, 7}) mono.put(static_cast<uint16_t>(v), 16);
    r = decode(d.get(), mono.bytes(), 12);
    EXPECT_EQ(r.size, 12);
    EXPECT_EQ(samples16(r), (std::vector<int16_t>{5, 0, -6, 0, 7, 0}));

    // 24 bits come as 16 and 8, whatever the low-bytes field says.
    auto d24 = make_test_decoder(24, 2);
    auto wide = header(1, false, 2, true);
    for (uint32_t v : {0x123456u, 0xFEDCBAu, 0x800000u, 0x7FFFFFu}) wide.put(v, 24);
    r = decode(d24.get(), wide.bytes(), 12);
    EXPECT_EQ(r.size, 12);
    EXPECT_EQ(r.pcm, (std::vector<uint8_t>{0x56, 0x34, 0x12, 0xBA, 0xDC, 0xFE, 0x00, 0x00, 0x80,
                                           0xFF, 0xFF, 0x7F}));
}

TEST(AlacFrame, StatedSampleCountSetsTheOutputSizeAndOversizedFramesAreRefused) {
    auto d = make_test_decoder(16, 8);
    auto two = header(1, true, 0, true).put(2, 32);
    for (int v : {1, 2, 3, 4}) two.put(v, 16);
    auto r = decode(d.get(), two.bytes());
    EXPECT_EQ(r.size, 8);
    EXPECT_EQ(first16(r, 5), (std::vector<int16_t>{1, 2, 3, 4, 0}));

    // More samples than the arrays hold, a negative count, or output that would not fit.
    for (uint32_t count : {9u, 0xFFFFFFFFu, 0x80000000u}) {
        auto big = header(1, true, 0, true).put(count, 32).put(0x7777, 16);
        r = decode(d.get(), big.bytes());
        EXPECT_EQ(r.size, 0) << count;
        EXPECT_EQ(r.pcm, std::vector<uint8_t>(64, 0)) << count;
    }
    auto fits_arrays = header(1, true, 0, true).put(8, 32).put(0x7777, 16);
    r = decode(d.get(), fits_arrays.bytes(), 31);
    EXPECT_EQ(r.size, 0);
    EXPECT_EQ(r.pcm, std::vector<uint8_t>(31, 0));
    // Sized for 16-bit stereo, the buffer is too small for 24-bit stereo of the same length.
    auto d24 = make_test_decoder(24, 8);
    r = decode(d24.get(), header(1, false, 0, true).bytes(), 8 * 4);
    EXPECT_EQ(r.size, 0);
}

TEST(AlacFrame, OtherElementsAndUnwrittenSampleSizesReportSilence) {
    // Channel field 7 (end of frame): a frame of silence, nothing written, nothing logged.
    auto d = make_test_decoder(16, 5);
    auto r = decode(d.get(), bit_writer().put(7, 3).put(0xFFFFF, 20).bytes());
    EXPECT_EQ(r.size, 20);
    EXPECT_EQ(r.pcm, std::vector<uint8_t>(64, 0));
    EXPECT_EQ(r.errors, "");

    // Sample sizes 20 and 32 are decoded but not written: one line per frame.
    for (int depth : {20, 32}) {
        auto dd = make_test_decoder(depth, 2);
        auto frame = header(1, false, 0, true).put(0x12345, depth).put(0x54321, depth);
        frame.put(0x12345, depth).put(0x54321, depth);
        r = decode(dd.get(), frame.bytes());
        EXPECT_EQ(r.size, 2 * (depth / 8) * 2);
        EXPECT_EQ(r.pcm, std::vector<uint8_t>(64, 0));
        EXPECT_EQ(r.errors, "FIXME: unimplemented sample size " + std::to_string(depth) + "\n");
    }
    // Any other size writes nothing and says nothing.
    auto d8 = make_test_decoder(8, 2);
    r = decode(d8.get(), header(1, false, 0, true).put(0xABCDEF01, 32).bytes());
    EXPECT_EQ(r.size, 4);
    EXPECT_EQ(r.pcm, std::vector<uint8_t>(64, 0));
    EXPECT_EQ(r.errors, "");
}

TEST(AlacFrame, UnhandledPredictionTypeKeepsTheLastFrameAndStillDecodesTheOtherChannel) {
    auto d = make_test_decoder(16, 4);
    d->rice_initial_history = 255;
    auto verbatim = header(1, false, 0, true);
    for (int v : {1, 5, 2, 6, 3, 7, 4, 8}) verbatim.put(v, 16);
    decode(d.get(), verbatim.bytes());

    auto compressed = header(1, false, 0, false).put(0, 8).put(0, 8);  // no interlacing
    channel_params(&compressed, 1);
    channel_params(&compressed, 0);
    for (int r : {9, 9, 9, 9}) compressed.residual_k1(r, 17);
    for (int r : {10, -3, 0, 2000}) compressed.residual_k1(r, 17);
    auto r = decode(d.get(), compressed.bytes());
    EXPECT_EQ(r.size, 16);
    EXPECT_EQ(first16(r, 8), (std::vector<int16_t>{1, 10, 2, -3, 3, 0, 4, 2000}));
    EXPECT_EQ(r.errors, "FIXME: unhandled predicition type: 1\n");

    // A mono frame of type 2 leaves its slots with the samples of the last frame.
    auto mono = header(0, false, 0, false).put(0, 8).put(0, 8);
    channel_params(&mono, 2);
    for (int v : {-1, -1, -1, -1}) mono.residual_k1(v, 16);
    r = decode(d.get(), mono.bytes());
    EXPECT_EQ(first16(r, 8), (std::vector<int16_t>{1, 0, 2, 0, 3, 0, 4, 0}));
    EXPECT_EQ(r.errors, "FIXME: unhandled predicition type: 2\n");
}

TEST(AlacFrame, CompressedFrameWithWeightAndLowBytes) {
    // 24-bit stereo with one low byte a sample: read size 24 - 8 + 1 = 17, interlacing shift
    // 1, weight 1, low bytes of each sample frame before the residuals.
    auto d = make_test_decoder(24, 2);
    d->rice_initial_history = 255;
    auto frame = header(1, false, 1, false).put(1, 8).put(1, 8);
    channel_params(&frame, 0);
    channel_params(&frame, 0);
    frame.put(0x11, 8).put(0x22, 8).put(0x33, 8).put(0x44, 8);
    for (int r : {100, -7}) frame.residual_k1(r, 17);
    for (int r : {10, 0}) frame.residual_k1(r, 17);
    auto r = decode(d.get(), frame.bytes());
    EXPECT_EQ(r.size, 12);
    // Sample 0: right = 100 - (10 >> 1) = 95, left = 105; sample 1: both -7.
    EXPECT_EQ(
        std::vector<uint8_t>(r.pcm.begin(), r.pcm.begin() + 12),
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
    auto r = decode(d.get(), header(1, false, 0, true).bytes());
    EXPECT_EQ(r.size, 0);
    alac_decoder_free(d.release());
    alac_decoder_free(nullptr);
}

}  // namespace
