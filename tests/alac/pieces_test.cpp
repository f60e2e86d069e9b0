// The decoder's pieces on hand-made input: the bit reader, Rice decoding, the adaptive FIR
// predictor and the stereo interleaving, at the edges real streams rarely reach.
#include <gtest/gtest.h>

#include "alac_test_util.h"

namespace {

TEST(AlacBitReader, ReadsAcrossBytesSeesZerosPastTheEndAndRewindsNoFurtherThanTheStart) {
    auto d = make_test_decoder(16, 352);
    const std::vector<uint8_t> bytes = {0xA5, 0x3C, 0xFF};
    start_reading(d.get(), bytes);
    EXPECT_EQ(bit_reader_get(d.get(), 3), 0b101u);
    EXPECT_EQ(bit_reader_get(d.get(), 0), 0u);  // reads nothing, moves nothing
    EXPECT_EQ(bits_read(d.get()), 3u);
    EXPECT_EQ(bit_reader_get(d.get(), 9), 0b001010011u);  // spans the first byte boundary
    EXPECT_EQ(bit_reader_get_bit(d.get()), 1);
    EXPECT_EQ(bit_reader_get(d.get(), 16), 0b1001111111100000u);  // 5 bits past the end
    EXPECT_EQ(bit_reader_get_long(d.get(), 32), 0u);
    EXPECT_EQ(bit_reader_get_bit(d.get()), 0);

    const std::vector<uint8_t> longer = {0x12, 0x34, 0x56, 0x78, 0x9A};
    start_reading(d.get(), longer);
    EXPECT_EQ(bit_reader_get_long(d.get(), 32), 0x12345678u);
    EXPECT_EQ(bit_reader_get_long(d.get(), 4), 0x9u);
    start_reading(d.get(), longer);
    bit_reader_get(d.get(), 8);
    bit_reader_rewind(d.get(), 1);  // bit_offset was 0: back one byte, offset 7
    EXPECT_EQ(bits_read(d.get()), 7u);
    EXPECT_EQ(bit_reader_get(d.get(), 9), 0b000110100u);
    bit_reader_rewind(d.get(), 100);
    EXPECT_EQ(bits_read(d.get()), 0u);
}

TEST(AlacRice, ValuesEscapesAndTheSteppedBackBit) {
    auto d = make_test_decoder(16, 352);
    struct Case {
        std::vector<uint8_t> bits;
        int size, k;
        uint32_t mask;
        int32_t value;
        size_t bits_read;
    } cases[] = {
        // Escape: nine ones, then `size` bits verbatim, with no terminating zero.
        {bit_writer().bits("111111111").put(0x1ABCD, 17).put(1, 1).bytes(), 17, 5, ~0u, 0x1ABCD, 26},
        {bit_writer().bits("111111111").put(0xFFFFFFFE, 32).bytes(), 32, 5, ~0u, -2, 41},
        {bit_writer().bits("110 101").bytes(), 16, 3, ~0u, 18, 6},  // 2 * 7 + 5 - 1
        {bit_writer().bits("0 001").bytes(), 16, 3, ~0u, 0, 3},     // extra 1: last bit given back
        {bit_writer().bits("110 101").bytes(), 16, 3, 3, 10, 6},    // 2 * (7 & 3) + 5 - 1
        // Extra bits ending on a byte boundary: the step back crosses into the previous byte.
        {bit_writer().bits("1110 0001 1").bytes(), 16, 4, ~0u, 45, 7},
    };
    for (const Case& c : cases) {
        start_reading(d.get(), c.bits);
        EXPECT_EQ(rice_read_value(d.get(), c.size, c.k, c.mask), c.value) << c.value;
        EXPECT_EQ(bits_read(d.get()), c.bits_read) << c.value;
    }
    for (int ones = 0; ones <= 8; ++ones) {  // k = 1: the count of leading ones
        auto unary = bit_writer().put((1u << ones) - 1, ones).bits("0 1111").bytes();
        start_reading(d.get(), unary);
        EXPECT_EQ(rice_read_value(d.get(), 16, 1, ~0u), ones);
        EXPECT_EQ(bits_read(d.get()), size_t(ones) + 1);
    }
}

std::vector<int32_t> rice_block(const bit_writer& w, size_t n, int size, int history, int mult) {
    auto d = make_test_decoder(16, 352);
    auto bytes = w.bytes();
    start_reading(d.get(), bytes);
    std::vector<int32_t> out(n + 1, 7);
    rice_decode_block(d.get(), out.data(), int(n), size, history, 14, mult, (1u << 14) - 1);
    return out;
}

TEST(AlacRice, BlocksClampTheHistoryAndCutZeroRunsAtTheBlockEnd) {
    // 0x20000 escaped (above 0xFFFF): the history becomes 0xFFFF, so the next parameter is
    // log2((0xFFFF >> 9) + 3) = 7 rather than the limit the raw history would give.
    EXPECT_EQ(rice_block(bit_writer().bits("111111111").put(0x20000, 18).bits("10").put(5, 7), 2,
                         18, 10, 40),
              (std::vector<int32_t>{0x10000, -66, 7}));  // 1 * 127 + 5 - 1 = 131
    // History 0 and multiplier 0 keep the history below 128, so a run count (k = 8) follows
    // every value but the last; values are read with k = 1. After a run the sign modifier is 1.
    EXPECT_EQ(rice_block(bit_writer().bits("110 0 00000100 10"), 5, 16, 0, 0),
              (std::vector<int32_t>{1, 0, 0, 0, 1, 7}));
    EXPECT_EQ(rice_block(bit_writer().bits("110 0 0000000 0"), 2, 16, 0, 0),  // run of 0
              (std::vector<int32_t>{1, -1, 7}));
    EXPECT_EQ(rice_block(bit_writer().bits("110 1110").put(236, 8), 3, 16, 0, 0),  // run of 1000
              (std::vector<int32_t>{1, 0, 0, 7}));
}

std::vector<int32_t> fir(const std::vector<int32_t>& r, int read_size, std::vector<int16_t>* c,
                         int n, int q) {
    std::vector<int32_t> out(r.size());  // exactly the frame: the sanitizer sees any overrun
    fir_adaptive_reconstruct(r.data(), out.data(), int(r.size()), read_size, c->data(), n, q);
    return out;
}

TEST(AlacPredictor, OrdersRoundingAdaptationAndWrap) {
    std::vector<int16_t> c(32, 5);
    EXPECT_EQ(fir({3, -4, 7, 0}, 17, &c, 0, 4), (std::vector<int32_t>{3, -4, 7, 0}));
    EXPECT_EQ(fir({5, 1, 2, 3}, 16, &c, 31, 0), (std::vector<int32_t>{5, 6, 8, 11}));
    // Each sum wraps to the read size: 32767 + 1 is -32768 in 16 bits, not in 17.
    EXPECT_EQ(fir({32767, 1, 1}, 16, &c, 31, 0), (std::vector<int32_t>{32767, -32768, -32767}));
    EXPECT_EQ(fir({32767, 1, 1}, 17, &c, 31, 0), (std::vector<int32_t>{32767, 32768, 32769}));
    EXPECT_EQ(c, std::vector<int16_t>(32, 5));  // neither order touches the coefficients
    // One tap of 2 on a step of 3 predicts 6, scaled by the shift with rounding (not at 0).
    for (int q : {0, 1, 2}) {
        c = {2};
        EXPECT_EQ(fir({10, 3, 0}, 17, &c, 1, q)[2], 10 + ((6 + (q ? 1 << (q - 1) : 0)) >> q)) << q;
    }
    // Taps move against the residual's sign on a rising signal, the nearest first; a residual
    // of 0 or a flat signal adapts nothing; coefficients wrap at 16 bits.
    const struct {
        std::vector<int32_t> r;
        std::vector<int16_t> before, after;
    } adapt[] = {{{0, 10, 5}, {0}, {1}},          {{0, 10, -5}, {0}, {-1}},
                 {{0, 10, 20, 1}, {0, 0}, {0, 1}}, {{0, 10, 0}, {-32768}, {-32768}},
                 {{0, 0, -5}, {-32768}, {-32768}}, {{0, 1, 100000}, {32767}, {-32768}}};
    for (const auto& a : adapt) {
        c = a.before;
        fir(a.r, 17, &c, int(c.size()), 0);
        EXPECT_EQ(c, a.after) << a.r.back();
    }
    c = {0, 0};
    EXPECT_EQ(fir({0, 10, 20, 1}, 17, &c, 2, 0), (std::vector<int32_t>{0, 10, 30, 1}));
    c.assign(8, 1);  // warm-up stops at the end of a short frame
    EXPECT_EQ(fir({1, 2, 3}, 17, &c, 8, 0), (std::vector<int32_t>{1, 3, 6}));
}

TEST(AlacInterleave, WeightUndoesTheMidSideMixAndTwentyFourBitAppendsLowBytes) {
    auto interleave = [](const std::vector<int32_t>& a, const std::vector<int32_t>& b, int shift,
                         int weight) {
        std::vector<uint8_t> out(a.size() * 4);
        stereo_interleave_16(a.data(), b.data(), out.data(), 2, int(a.size()), shift, weight);
        std::vector<int16_t> s(a.size() * 2);
        for (size_t i = 0; i < s.size(); ++i) s[i] = int16_t(out[2 * i] | out[2 * i + 1] << 8);
        return s;
    };
    EXPECT_EQ(interleave({0x12345, -2}, {100, 0x7FFFF}, 3, 0),
              (std::vector<int16_t>{0x2345, 100, -2, -1}));
    EXPECT_EQ(interleave({100}, {10}, 1, 1), (std::vector<int16_t>{105, 95}));  // 100 - (10 >> 1)
    // With any weight, left - right is the difference channel modulo 65536.
    std::vector<int32_t> a, b;
    for (uint32_t i = 0, seed = 12345; i < 200; ++i) {
        a.push_back(int32_t(seed = seed * 1664525 + 1013904223) >> 14);
        b.push_back(int32_t(seed = seed * 1664525 + 1013904223) >> 15);
    }
    for (int weight : {1, 2, 3, 255}) {
        auto out = interleave(a, b, 2, weight);
        for (size_t i = 0; i < a.size(); ++i)
            EXPECT_EQ(uint16_t(out[2 * i] - out[2 * i + 1]), uint16_t(b[i])) << weight;
    }

    const std::vector<int32_t> x = {0x1234, -1}, y = {-2, 0x7FFF}, low_x = {0x1AB, 0}, low_y = {0xCD, 0xEF};
    std::vector<uint8_t> out(12);
    stereo_interleave_24(x.data(), y.data(), 1, low_x.data(), low_y.data(), out.data(), 2, 2, 0, 0);
    EXPECT_EQ(out, (std::vector<uint8_t>{0xAB, 0x34, 0x12, 0xCD, 0xFE, 0xFF,  //
                                         0x00, 0xFF, 0xFF, 0xEF, 0xFF, 0x7F}));
    stereo_interleave_24(x.data(), y.data(), 0, nullptr, nullptr, out.data(), 2, 1, 1, 1);
    // right = 0x1234 - (-2 >> 1) = 0x1235, left = right - 2 = 0x1233
    EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + 6),
              (std::vector<uint8_t>{0x33, 0x12, 0x00, 0x35, 0x12, 0x00}));
}

}  // namespace
