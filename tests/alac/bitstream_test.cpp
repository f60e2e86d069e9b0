// The bit reader and Rice decoding, on hand-made bit strings.
#include <gtest/gtest.h>

#include "alac/alac.h"
#include "alac_test_util.h"

namespace {

TEST(AlacBitReader, ReadsMostSignificantFirstAcrossBytesAndSeesZerosPastTheEnd) {
    auto d = make_test_decoder(16, 352);
    const std::vector<uint8_t> bytes = {0xA5, 0x3C, 0xFF};
    start_reading(d.get(), bytes);
    EXPECT_EQ(bit_reader_get(d.get(), 3), 0b101u);
    EXPECT_EQ(bit_reader_get(d.get(), 0), 0u);  // reads nothing, moves nothing
    EXPECT_EQ(bits_read(d.get()), 3u);
    EXPECT_EQ(bit_reader_get(d.get(), 9), 0b001010011u);  // spans the first byte boundary
    EXPECT_EQ(bit_reader_get_bit(d.get()), 1);
    EXPECT_EQ(bit_reader_get(d.get(), 16),
              0b1001111111100000u);  // the last 5 bits are past the end
    EXPECT_EQ(bit_reader_get_long(d.get(), 32), 0u);
    EXPECT_EQ(bit_reader_get_bit(d.get()), 0);
}

TEST(AlacBitReader, LongReadsAreTwoHalvesAndRewindStepsBackAcrossBytes) {
    auto d = make_test_decoder(16, 352);
    const std::vector<uint8_t> bytes = {0x12, 0x34, 0x56, 0x78, 0x9A};
    start_reading(d.get(), bytes);
    EXPECT_EQ(bit_reader_get_long(d.get(), 32), 0x12345678u);
    EXPECT_EQ(bit_reader_get_long(d.get(), 4), 0x9u);

    start_reading(d.get(), bytes);
    bit_reader_get(d.get(), 8);
    bit_reader_rewind(d.get(), 1);  // bit_offset was 0: back one byte, offset 7
    EXPECT_EQ(d->input_pos, 0u);
    EXPECT_EQ(d->bit_offset, 7);
    EXPECT_EQ(bit_reader_get(d.get(), 9), 0b000110100u);
    bit_reader_rewind(d.get(), 100);  // never before the first bit
    EXPECT_EQ(bits_read(d.get()), 0u);
}

TEST(AlacRice, ReadValueHandlesEscapeKOneAndTheSteppedBackBit) {
    auto d = make_test_decoder(16, 352);
    // Escape: nine ones, then e bits verbatim, with no terminating zero.
    auto escaped = bit_writer().bits("111111111").put(0x1ABCD, 17).put(1, 1).bytes();
    start_reading(d.get(), escaped);
    EXPECT_EQ(rice_read_value(d.get(), 17, 5, 0xFFFFFFFF), 0x1ABCD);
    EXPECT_EQ(bits_read(d.get()), 26u);
    auto escaped32 = bit_writer().bits("111111111").put(0xFFFFFFFE, 32).bytes();
    start_reading(d.get(), escaped32);
    EXPECT_EQ(rice_read_value(d.get(), 32, 5, 0xFFFFFFFF), -2);

    // k = 3: two ones, the zero, extra = 5: 2 * 7 + 5 - 1.
    auto eighteen = bit_writer().bits("110 101").bytes();
    start_reading(d.get(), eighteen);
    EXPECT_EQ(rice_read_value(d.get(), 16, 3, 0xFFFFFFFF), 18);
    EXPECT_EQ(bits_read(d.get()), 6u);
    // k = 3, extra = 1: not above 1, so its last bit is given back.
    auto zero = bit_writer().bits("0 001").bytes();
    start_reading(d.get(), zero);
    EXPECT_EQ(rice_read_value(d.get(), 16, 3, 0xFFFFFFFF), 0);
    EXPECT_EQ(bits_read(d.get()), 3u);
    // The mask limits the multiplier: 2 * (7 & 3) + 5 - 1.
    start_reading(d.get(), eighteen);
    EXPECT_EQ(rice_read_value(d.get(), 16, 3, 3), 10);

    // k = 1: the count of leading ones, nothing after the terminating zero.
    for (int ones = 0; ones <= 8; ++ones) {
        auto unary = bit_writer().put((1u << ones) - 1, ones).bits("0 1111").bytes();
        start_reading(d.get(), unary);
        EXPECT_EQ(rice_read_value(d.get(), 16, 1, 0xFFFFFFFF), ones);
        EXPECT_EQ(bits_read(d.get()), static_cast<size_t>(ones) + 1);
    }

    // Extra bits ending on a byte boundary: the step back crosses into the previous byte.
    auto boundary = bit_writer().bits("1110 0001").bits("1").bytes();
    start_reading(d.get(), boundary);
    EXPECT_EQ(rice_read_value(d.get(), 16, 4, 0xFFFFFFFF), 3 * 15);
    EXPECT_EQ(d->input_pos, 0u);
    EXPECT_EQ(d->bit_offset, 7);
}

TEST(AlacRice, LargeValueClampsTheHistory) {
    auto d = make_test_decoder(16, 352);
    // 0x20000 escaped (v above 0xFFFF): the history becomes 0xFFFF, so the next parameter is
    // log2((0xFFFF >> 9) + 3) = 7 rather than the limit of 14 the raw history would give.
    auto bits = bit_writer()
                    .bits("111111111")
                    .put(0x20000, 18)
                    .bits("10")  // x = 1
                    .put(5, 7)   // extra = 5: 1 * 127 + 5 - 1 = 131
                    .bytes();
    start_reading(d.get(), bits);
    int32_t out[2] = {};
    rice_decode_block(d.get(), out, 2, 18, 10, 14, 40, (1u << 14) - 1);
    EXPECT_EQ(out[0], 0x10000);
    EXPECT_EQ(out[1], -66);
    EXPECT_EQ(bits_read(d.get()), 9u + 18 + 9);
}

TEST(AlacRice, ZeroRunsFillZerosSetTheSignModifierAndStopAtTheBlockEnd) {
    auto d = make_test_decoder(16, 352);
    // History 0 and multiplier 0 keep the history below 128, so a run count (k = 8) follows
    // every value but the last; values themselves are read with k = 1.
    auto with_run = bit_writer()
                        .bits("110")         // v = 2: 1
                        .bits("0 00000100")  // run = 3
                        .bits("10")          // 1 + sign modifier 1 = 2: 1
                        .bytes();
    start_reading(d.get(), with_run);
    int32_t out[6] = {7, 7, 7, 7, 7, 7};
    rice_decode_block(d.get(), out, 5, 16, 0, 14, 0, (1u << 14) - 1);
    EXPECT_EQ(std::vector<int32_t>(out, out + 6), (std::vector<int32_t>{1, 0, 0, 0, 1, 7}));

    // A run of 0 writes nothing but still sets the sign modifier; its count gave back a bit.
    auto empty_run = bit_writer().bits("110").bits("0 0000000").bits("0").bytes();
    start_reading(d.get(), empty_run);
    int32_t two[3] = {7, 7, 7};
    rice_decode_block(d.get(), two, 2, 16, 0, 14, 0, (1u << 14) - 1);
    EXPECT_EQ(std::vector<int32_t>(two, two + 3), (std::vector<int32_t>{1, -1, 7}));

    // A run of 1000 in a block of 3 is cut after two zeros.
    auto long_run = bit_writer().bits("110").bits("1110").put(236, 8).bytes();
    start_reading(d.get(), long_run);
    std::vector<int32_t> three = {7, 7, 7, 7};
    rice_decode_block(d.get(), three.data(), 3, 16, 0, 14, 0, (1u << 14) - 1);
    EXPECT_EQ(three, (std::vector<int32_t>{1, 0, 0, 7}));
}

}  // namespace
