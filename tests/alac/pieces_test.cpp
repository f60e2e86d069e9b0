// The decoder on hand-made input, at the edges real streams rarely reach: the bit reader, Rice
// decoding, the adaptive FIR predictor, the stereo interleaving, and whole frames (verbatim
// and compressed, mono and stereo, stated sizes, and the frames it reports or refuses).
#include <gtest/gtest.h>

#include "alac_test_util.h"

namespace {

using ints = std::vector<int32_t>;
using s16 = std::vector<int16_t>;
using bytes = std::vector<uint8_t>;

// Points the decoder's bit reader at bytes, as alac_frame_decode does at a frame's start.
void start_reading(alac_decoder* d, const bytes& in) {
    d->input = in.data();
    d->input_size = in.size();
    d->input_pos = 0;
    d->bit_offset = 0;
}
size_t bits_read(const alac_decoder* d) { return d->input_pos * 8 + d->bit_offset; }
bit_writer bits(const std::string& text) { return bit_writer().bits(text); }
// Frame header: channel field, 4 + 12 unused bits, has-size, low bytes, not-compressed.
bit_writer header(int channel_field, bool has_size, int low_bytes, bool not_compressed) {
    return bit_writer().put(channel_field, 3).put(0, 16).put(has_size, 1).put(low_bytes, 2).put(
        not_compressed, 1);
}
// A verbatim stereo frame, stating count samples unless count < 0, of `width`-bit fields.
bit_writer verbatim(int64_t count, int width, std::initializer_list<uint32_t> fields) {
    bit_writer w = header(1, count >= 0, 0, true);
    if (count >= 0) w.put(uint64_t(count), 32);
    for (uint32_t f : fields) w.put(f, width);
    return w;
}
// Channel parameters with order 0 and Rice modifier 0: residuals are the samples and, with an
// initial history of 255, every one is coded with k = 1 and no zero runs come up.
bit_writer& channel_params(bit_writer& w, int prediction_type) {
    return w.put(prediction_type, 4).put(0, 12);
}
bytes le16(std::initializer_list<int> samples) {
    bytes out;
    for (int s : samples) out.insert(out.end(), {uint8_t(s), uint8_t(s >> 8)});
    return out;
}

struct decoded {
    bytes pcm;
    int size = -1;
    std::string errors;
};
decoded decode(alac_decoder* d, const bit_writer& frame, size_t capacity = 64) {
    decoded r{bytes(capacity, 0), -1, ""};
    auto in = frame.bytes();
    testing::internal::CaptureStderr();
    alac_frame_decode(d, in.data(), in.size(), r.pcm.data(), capacity, &r.size);
    r.errors = testing::internal::GetCapturedStderr();
    return r;
}

TEST(AlacRice, ValuesEscapesTheSteppedBackBitAndZerosPastTheEnd) {
    auto d = make_test_decoder(16, 352);
    // The value and the bits it took, from the start of w.
    auto rice = [&](const bit_writer& w, int size, int k, uint32_t mask) {
        const bytes in = w.bytes();
        start_reading(d.get(), in);
        return std::pair{rice_read_value(d.get(), size, k, mask), bits_read(d.get())};
    };
    using got = std::pair<int32_t, size_t>;
    // Escape: nine ones, then `size` bits verbatim, with no terminating zero.
    EXPECT_EQ(rice(bits("111111111").put(0x1ABCD, 17).put(1, 1), 17, 5, ~0u), got(0x1ABCD, 26));
    EXPECT_EQ(rice(bits("111111111").put(0xFFFFFFFE, 32), 32, 5, ~0u), got(-2, 41));
    EXPECT_EQ(rice(bits("110 101"), 16, 3, ~0u), got(18, 6));  // 2 * 7 + 5 - 1
    EXPECT_EQ(rice(bits("0 001"), 16, 3, ~0u), got(0, 3));     // extra 1: bit given back
    EXPECT_EQ(rice(bits("110 101"), 16, 3, 3), got(10, 6));    // 2 * (7 & 3) + 5 - 1
    // Extra bits ending on a byte boundary: the step back crosses into the previous byte.
    EXPECT_EQ(rice(bits("1110 0001 1"), 16, 4, ~0u), got(45, 7));
    // The bit reader: bits past the end read as zeros, a rewind stops at the frame's start.
    const bytes in = {0xA5, 0x3C};
    start_reading(d.get(), in);
    EXPECT_EQ(bit_reader_get(d.get(), 0), 0u);
    EXPECT_EQ(bit_reader_get(d.get(), 13), 0b1010010100111u);
    EXPECT_EQ(bit_reader_get_bit(d.get()), 1);
    EXPECT_EQ(bit_reader_get_long(d.get(), 32), 0u);
    bit_reader_rewind(d.get(), 100);
    EXPECT_EQ(bits_read(d.get()), 0u);
}

ints rice_block(const bit_writer& w, size_t n, int size, int history, int mult) {
    auto d = make_test_decoder(16, 352);
    const bytes in = w.bytes();
    start_reading(d.get(), in);
    ints out(n + 1, 7);
    rice_decode_block(d.get(), out.data(), int(n), size, history, 14, mult, (1u << 14) - 1);
    return out;
}

TEST(AlacRice, BlocksClampTheHistoryAndCutZeroRunsAtTheBlockEnd) {
    // 0x20000 escaped (above 0xFFFF): the history becomes 0xFFFF, so the next parameter is
    // log2((0xFFFF >> 9) + 3) = 7 rather than the limit the raw history would give.
    EXPECT_EQ(rice_block(bits("111111111").put(0x20000, 18).bits("10").put(5, 7), 2,
                         18, 10, 40),
              (ints{0x10000, -66, 7}));  // 1 * 127 + 5 - 1 = 131
    // History 0 and multiplier 0 keep the history below 128, so a run count (k = 8) follows
    // every value but the last; values are read with k = 1. After a run the sign modifier is 1.
    EXPECT_EQ(rice_block(bits("110 0 00000100 10"), 5, 16, 0, 0), (ints{1, 0, 0, 0, 1, 7}));
    EXPECT_EQ(rice_block(bits("110 0 0000000 0"), 2, 16, 0, 0), (ints{1, -1, 7}));  // run 0
    EXPECT_EQ(rice_block(bits("110 1110").put(236, 8), 3, 16, 0, 0),  // run of 1000
              (ints{1, 0, 0, 7}));
}

ints fir(const ints& r, int read_size, s16* c, int n, int q) {
    ints out(r.size());  // exactly the frame: the sanitizer sees any overrun
    fir_adaptive_reconstruct(r.data(), out.data(), int(r.size()), read_size, c->data(), n, q);
    return out;
}

// Rounding and warm-up are what every real stream exercises; these are the edges it does not.
TEST(AlacPredictor, WrapsAtTheReadSizeAndAdaptsSixteenBitCoefficients) {
    s16 c(32, 5);
    EXPECT_EQ(fir({3, -4, 7, 0}, 17, &c, 0, 4), (ints{3, -4, 7, 0}));
    EXPECT_EQ(fir({5, 1, 2, 3}, 16, &c, 31, 0), (ints{5, 6, 8, 11}));
    // Each sum wraps to the read size: 32767 + 1 is -32768 in 16 bits, not in 17.
    EXPECT_EQ(fir({32767, 1, 1}, 16, &c, 31, 0), (ints{32767, -32768, -32767}));
    EXPECT_EQ(fir({32767, 1, 1}, 17, &c, 31, 0), (ints{32767, 32768, 32769}));
    EXPECT_EQ(c, s16(32, 5));  // neither order touches the coefficients
    // Taps move against the residual's sign on a rising signal, the nearest first; a residual
    // of 0 or a flat signal adapts nothing; coefficients wrap at 16 bits.
    const struct {
        ints r;
        s16 before, after;
    } adapt[] = {{{0, 10, 5}, {0}, {1}},          {{0, 10, -5}, {0}, {-1}},
                 {{0, 10, 20, 1}, {0, 0}, {0, 1}}, {{0, 10, 0}, {-32768}, {-32768}},
                 {{0, 0, -5}, {-32768}, {-32768}}, {{0, 1, 100000}, {32767}, {-32768}}};
    for (const auto& a : adapt) {
        c = a.before;
        fir(a.r, 17, &c, int(c.size()), 0);
        EXPECT_EQ(c, a.after) << a.r.back();
    }
}

TEST(AlacInterleave, SixteenBitsCutTheSumsAndTwentyFourBitsAppendLowBytes) {
    const ints x = {0x12345, -2}, y = {100, 0x7FFFF}, low_x = {0x1AB, 0}, low_y = {0xCD, 0xEF};
    bytes out(12);
    stereo_interleave_16(x.data(), y.data(), out.data(), 2, 2, 3, 0);
    EXPECT_EQ(bytes(out.begin(), out.begin() + 8), le16({0x2345, 100, -2, -1}));
    stereo_interleave_24(x.data(), y.data(), 1, low_x.data(), low_y.data(), out.data(), 2, 2, 0, 0);
    EXPECT_EQ(out, (bytes{0xAB, 0x45, 0x23, 0xCD, 100, 0, 0x00, 0xFE, 0xFF, 0xEF, 0xFF, 0xFF}));
}

TEST(AlacFrame, VerbatimCompressedSizedRefusedAndUnwrittenFrames) {
    auto mono = header(0, false, 0, true).put(5, 16).put(uint16_t(-6), 16).put(7, 16);
    auto wide = header(1, false, 2, true);  // 24 bits as 16 and 8, whatever low bytes says
    for (uint32_t v : {0x123456u, 0xFEDCBAu, 0x800000u, 0x7FFFFFu}) wide.put(v, 24);
    // 24-bit stereo with one low byte a sample: read size 24 - 8 + 1 = 17, interlacing shift
    // 1, weight 1, low bytes of each sample frame before the residuals.
    auto mixed = header(1, false, 1, false).put(1, 8).put(1, 8);
    channel_params(channel_params(mixed, 0), 0).put(0x11223344, 32);
    for (int v : {100, -7, 10, 0}) mixed.residual_k1(v, 17);
    const std::string fixme = "FIXME: unimplemented sample size ";
    const std::initializer_list<uint32_t> four = {0x12345, 0x54321, 1, 2};
    const struct {
        const char* what;
        int depth, length;
        bit_writer frame;
        size_t capacity;
        int size;
        bytes pcm;  // the start of the output buffer
        std::string errors;
    } cases[] = {
        {"stereo", 16, 3, verbatim(-1, 16, {1, 0xFFFF, 300, 0xFED4, 32767, 0x8000}), 12, 12,
         le16({1, -1, 300, -300, 32767, -32768}), ""},
        {"mono fills the first slot", 16, 3, mono, 12, 12, le16({5, 0, -6, 0, 7, 0}), ""},
        {"24 bits", 24, 2, wide, 12, 12,
         {0x56, 0x34, 0x12, 0xBA, 0xDC, 0xFE, 0x00, 0x00, 0x80, 0xFF, 0xFF, 0x7F}, ""},
        // Sample 0: right = 100 - (10 >> 1) = 95, left = 105; sample 1: both -7.
        {"weight, low bytes", 24, 2, mixed, 64, 12,
         {0x11, 105, 0, 0x22, 95, 0, 0x33, 0xF9, 0xFF, 0x44, 0xF9, 0xFF}, ""},
        {"stated count", 16, 8, verbatim(2, 16, {1, 2, 3, 4}), 64, 8, le16({1, 2, 3, 4, 0}), ""},
        // More samples than the arrays hold, a negative count, or output that would not fit:
        // refused with nothing written.
        {"count 9", 16, 8, verbatim(9, 16, {0x7777}), 64, 0, bytes(64, 0), ""},
        {"count -1", 16, 8, verbatim(0xFFFFFFFFLL, 16, {0x7777}), 64, 0, bytes(64, 0), ""},
        {"no room", 16, 8, verbatim(8, 16, {0x7777}), 31, 0, bytes(31, 0), ""},
        {"24-bit stereo, 16-bit room", 24, 8, verbatim(-1, 16, {}), 32, 0, bytes(32, 0), ""},
        // End of frame: silence. Sizes 20 and 32 are decoded but not written, one line per
        // frame; any other size says nothing.
        {"end element", 16, 5, bit_writer().put(7, 3).put(0xFFFFF, 20), 64, 20, bytes(64, 0), ""},
        {"20 bits", 20, 2, verbatim(-1, 20, four), 64, 8, bytes(64, 0), fixme + "20\n"},
        {"32 bits", 32, 2, verbatim(-1, 32, four), 64, 16, bytes(64, 0), fixme + "32\n"},
        {"8 bits", 8, 2, verbatim(-1, 32, {0xABCDEF01}), 64, 4, bytes(64, 0), ""},
    };
    for (const auto& c : cases) {
        auto d = make_stream_decoder({96, c.length, 0, c.depth, 40, 255, 14, 2, 255, 0, 0, 44100});
        auto r = decode(d.get(), c.frame, c.capacity);
        EXPECT_EQ(r.size, c.size) << c.what;
        EXPECT_EQ(bytes(r.pcm.begin(), r.pcm.begin() + long(c.pcm.size())), c.pcm) << c.what;
        EXPECT_EQ(r.errors, c.errors) << c.what;
    }
}

TEST(AlacFrame, UnhandledPredictionTypeKeepsTheLastFrameAndStillDecodesTheOtherChannel) {
    auto d = make_stream_decoder({96, 4, 0, 16, 40, 255, 14, 2, 255, 0, 0, 44100});
    auto verbatim = header(1, false, 0, true);
    for (int v : {1, 5, 2, 6, 3, 7, 4, 8}) verbatim.put(v, 16);
    decode(d.get(), verbatim);
    auto compressed = header(1, false, 0, false).put(0, 16);  // no interlacing
    channel_params(channel_params(compressed, 1), 0);
    for (int v : {9, 9, 9, 9, 10, -3, 0, 2000}) compressed.residual_k1(v, 17);
    auto r = decode(d.get(), compressed);
    EXPECT_EQ(r.size, 16);
    EXPECT_EQ(bytes(r.pcm.begin(), r.pcm.begin() + 16), le16({1, 10, 2, -3, 3, 0, 4, 2000}));
    EXPECT_EQ(r.errors, "FIXME: unhandled predicition type: 1\n");
    // A mono frame of type 2 leaves its slots with the samples of the last frame.
    auto mono = header(0, false, 0, false).put(0, 16);
    channel_params(mono, 2);
    for (int v : {-1, -1, -1, -1}) mono.residual_k1(v, 16);
    r = decode(d.get(), mono);
    EXPECT_EQ(bytes(r.pcm.begin(), r.pcm.begin() + 16), le16({1, 0, 2, 0, 3, 0, 4, 0}));
    EXPECT_EQ(r.errors, "FIXME: unhandled predicition type: 2\n");
}

TEST(AlacDecoder, CreationAndArraysRefuseWhatCannotBeDecoded) {
    for (auto [bits, channels] : {std::pair{16, 0}, {16, kAlacMaxChannels + 1}, {-16, 2}})
        EXPECT_EQ(alac_decoder_new(bits, channels), nullptr) << bits << " " << channels;
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
