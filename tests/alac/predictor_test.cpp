// The adaptive FIR predictor and the stereo interleaving.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "alac/alac.h"

namespace {

std::vector<int32_t> reconstruct(const std::vector<int32_t>& r, int read_size,
                                 std::vector<int16_t>* c, int n, int q) {
    std::vector<int32_t> out(r.size());
    fir_adaptive_reconstruct(r.data(), out.data(), static_cast<int>(r.size()), read_size, c->data(),
                             n, q);
    return out;
}

TEST(AlacPredictor, OrderZeroCopiesAndOrderThirtyOneIntegratesWithWrap) {
    std::vector<int16_t> c(32, 5);
    EXPECT_EQ(reconstruct({3, -4, 7, 0}, 17, &c, 0, 4), (std::vector<int32_t>{3, -4, 7, 0}));
    EXPECT_EQ(reconstruct({5, 1, 2, 3}, 16, &c, 31, 0), (std::vector<int32_t>{5, 6, 8, 11}));
    // Each sum wraps to the read size: 32767 + 1 is -32768 in 16 bits, not in 17.
    EXPECT_EQ(reconstruct({32767, 1, 1}, 16, &c, 31, 0),
              (std::vector<int32_t>{32767, -32768, -32767}));
    EXPECT_EQ(reconstruct({32767, 1, 1}, 17, &c, 31, 0),
              (std::vector<int32_t>{32767, 32768, 32769}));
    EXPECT_EQ(c, std::vector<int16_t>(32, 5));  // neither order touches the coefficients
}

TEST(AlacPredictor, QuantisationShiftRoundsExceptAtZero) {
    // One tap of 2 on a step of 3 above the base sample predicts 6, scaled by the shift.
    const std::vector<int32_t> r = {10, 3, 0};
    std::vector<int16_t> c = {2};
    EXPECT_EQ(reconstruct(r, 17, &c, 1, 0)[2], 10 + 6);  // q = 0: no rounding term
    c = {2};
    EXPECT_EQ(reconstruct(r, 17, &c, 1, 1)[2], 10 + ((6 + 1) >> 1));
    c = {2};
    EXPECT_EQ(reconstruct(r, 17, &c, 1, 2)[2], 10 + ((6 + 2) >> 2));
}

TEST(AlacPredictor, CoefficientsMoveAgainstTheResidualNearestTapFirst) {
    // A rising signal (b[0] < b[1]) with a positive residual raises the tap, a negative one
    // lowers it.
    std::vector<int16_t> c = {0};
    EXPECT_EQ(reconstruct({0, 10, 5}, 17, &c, 1, 0), (std::vector<int32_t>{0, 10, 5}));
    EXPECT_EQ(c[0], 1);
    c = {0};
    reconstruct({0, 10, -5}, 17, &c, 1, 0);
    EXPECT_EQ(c[0], -1);
    // Two taps: the nearest (j = 1) takes the whole residual of 1, so the other stays.
    c = {0, 0};
    EXPECT_EQ(reconstruct({0, 10, 20, 1}, 17, &c, 2, 0), (std::vector<int32_t>{0, 10, 30, 1}));
    EXPECT_EQ(c, (std::vector<int16_t>{0, 1}));
    // A residual of 0 adapts nothing; coefficients wrap at 16 bits.
    c = {-32768};
    reconstruct({0, 10, 0}, 17, &c, 1, 0);
    EXPECT_EQ(c[0], -32768);
    reconstruct({0, 0, -5}, 17, &c, 1, 0);  // flat signal: sign 0, no change
    EXPECT_EQ(c[0], -32768);
    c = {32767};
    reconstruct({0, 1, 100000}, 17, &c, 1, 0);
    EXPECT_EQ(c[0], -32768);
}

TEST(AlacPredictor, WarmUpStopsAtTheEndOfAShortFrame) {
    std::vector<int16_t> c(8, 1);
    std::vector<int32_t> r = {1, 2, 3};
    std::vector<int32_t> out(3);  // exactly the frame: the sanitizer sees any overrun
    fir_adaptive_reconstruct(r.data(), out.data(), 3, 17, c.data(), 8, 0);
    EXPECT_EQ(out, (std::vector<int32_t>{1, 3, 6}));
}

std::vector<uint8_t> interleave16(const std::vector<int32_t>& a, const std::vector<int32_t>& b,
                                  int shift, int weight) {
    std::vector<uint8_t> out(a.size() * 4);
    stereo_interleave_16(a.data(), b.data(), out.data(), 2, static_cast<int>(a.size()), shift,
                         weight);
    return out;
}

int16_t slot16(const std::vector<uint8_t>& out, size_t slot) {
    return static_cast<int16_t>(out[slot * 2] | (out[slot * 2 + 1] << 8));
}

TEST(AlacInterleave, WeightUndoesTheMidSideMixAndZeroWeightPassesThrough) {
    auto plain = interleave16({0x12345, -2}, {100, 0x7FFFF}, 3, 0);
    EXPECT_EQ(plain, (std::vector<uint8_t>{0x45, 0x23, 100, 0, 0xFE, 0xFF, 0xFF, 0xFF}));

    auto mixed = interleave16({100}, {10}, 1, 1);
    EXPECT_EQ(slot16(mixed, 0), 105);  // left
    EXPECT_EQ(slot16(mixed, 1), 95);   // right = 100 - (10 >> 1)

    // With any weight, left - right is the difference channel modulo 65536.
    std::vector<int32_t> a;
    std::vector<int32_t> b;
    uint32_t seed = 12345;
    for (int i = 0; i < 200; ++i) {
        seed = seed * 1664525 + 1013904223;
        a.push_back(static_cast<int32_t>(seed) >> 14);
        seed = seed * 1664525 + 1013904223;
        b.push_back(static_cast<int32_t>(seed) >> 15);
    }
    for (int weight : {1, 2, 3, 255}) {
        auto out = interleave16(a, b, 2, weight);
        for (size_t i = 0; i < a.size(); ++i) {
            EXPECT_EQ(static_cast<uint16_t>(slot16(out, 2 * i) - slot16(out, 2 * i + 1)),
                      static_cast<uint16_t>(b[i]));
        }
    }
}

TEST(AlacInterleave, TwentyFourBitAppendsLowBytes) {
    const std::vector<int32_t> a = {0x1234, -1};
    const std::vector<int32_t> b = {-2, 0x7FFF};
    const std::vector<int32_t> low_a = {0x1AB, 0x00};
    const std::vector<int32_t> low_b = {0xCD, 0xEF};
    std::vector<uint8_t> out(12);
    stereo_interleave_24(a.data(), b.data(), 1, low_a.data(), low_b.data(), out.data(), 2, 2, 0, 0);
    EXPECT_EQ(out, (std::vector<uint8_t>{0xAB, 0x34, 0x12, 0xCD, 0xFE, 0xFF,  //
                                         0x00, 0xFF, 0xFF, 0xEF, 0xFF, 0x7F}));
    stereo_interleave_24(a.data(), b.data(), 0, nullptr, nullptr, out.data(), 2, 1, 1, 1);
    // right = 0x1234 - (-2 >> 1) = 0x1235, left = right - 2 = 0x1233
    EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + 6),
              (std::vector<uint8_t>{0x33, 0x12, 0x00, 0x35, 0x12, 0x00}));
}

}  // namespace
