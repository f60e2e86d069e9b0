// Bit reader and adaptive Rice (Golomb) decoding of prediction residuals.
#include <algorithm>
#include <bit>

#include "alac/alac.h"
#include "alac/alac_internal.h"

namespace {

// The four bytes at byte pos, first byte highest. Bytes past the end of the frame read as
// zero: a damaged frame may ask for more bits than it holds.
inline uint32_t load32(const uint8_t* data, size_t size, size_t pos) {
    if (size >= 4 && pos <= size - 4) {
        const uint8_t* p = data + pos;
        return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
    }
    uint32_t window = 0;
    for (size_t k = 0; k < 4; ++k) {
        window <<= 8;
        if (pos + k < size) window |= data[pos + k];
    }
    return window;
}

// The three bytes at the read position, first byte highest.
inline uint32_t peek24(const alac_decoder* d) {
    return load32(d->input, d->input_size, d->input_pos) >> 8;
}

inline void advance(alac_decoder* d, int n) {
    const int offset = d->bit_offset + n;
    d->input_pos += static_cast<size_t>(offset >> 3);
    d->bit_offset = offset & 7;
}

}  // namespace

uint32_t bit_reader_get(alac_decoder* d, int n) {
    n = std::clamp(n, 0, 24);
    if (n == 0) return 0;
    const uint32_t value = ((peek24(d) << d->bit_offset) & 0xFFFFFFu) >> (24 - n);
    advance(d, n);
    return value;
}

uint32_t bit_reader_get_long(alac_decoder* d, int n) {
    n = std::clamp(n, 0, 40);
    if (n <= 16) return bit_reader_get(d, n);
    const uint32_t high = bit_reader_get(d, 16) << (n - 16);
    return high | bit_reader_get(d, n - 16);
}

int bit_reader_get_bit(alac_decoder* d) {
    const uint32_t byte = d->input_pos < d->input_size ? d->input[d->input_pos] : 0;
    const int bit = static_cast<int>((byte >> (7 - d->bit_offset)) & 1u);
    advance(d, 1);
    return bit;
}

void bit_reader_rewind(alac_decoder* d, int n) {
    const int64_t bit_pos = static_cast<int64_t>(d->input_pos) * 8 + d->bit_offset - n;
    const int64_t kept = std::max<int64_t>(bit_pos, 0);
    d->input_pos = static_cast<size_t>(kept >> 3);
    d->bit_offset = static_cast<int>(kept & 7);
}

int32_t rice_read_value(alac_decoder* d, int e, int k, uint32_t m) {
    // The prefix is up to nine ones, then (unless there are nine) a terminating zero; the
    // window holds at least 17 bits past the read position, so all nine are in it.
    const uint32_t window = (peek24(d) << d->bit_offset) & 0xFFFFFFu;
    const int x = std::min(std::countl_one(window << 8), 9);
    advance(d, x > 8 ? 9 : x + 1);
    if (x > 8) {
        // Escape: the value follows verbatim in e bits, with no terminating zero before it.
        return static_cast<int32_t>(bit_reader_get_long(d, e) & alac_arith::low_mask(e));
    }
    if (k == 1) return x;
    if (k < 0 || k > 32) k = 0;
    const uint32_t extra = bit_reader_get_long(d, k);
    const uint32_t scaled = static_cast<uint32_t>(x) * (alac_arith::low_mask(k) & m);
    if (static_cast<int32_t>(extra) > 1) return static_cast<int32_t>(scaled + extra - 1);
    // Extra values 0 and 1 are coded in k - 1 bits: the last bit read belongs to the next value.
    bit_reader_rewind(d, 1);
    return static_cast<int32_t>(scaled);
}

namespace {

// Rice parameter of the next residual: floor(log2((history >> 9) + 3)), at most the limit.
inline int residual_parameter(int32_t history, int limit) {
    const uint32_t base = static_cast<uint32_t>((history >> 9) + 3);
    const int t = 31 - limit - std::countl_zero(base);
    return t < 0 ? t + limit : limit;
}

// Zero residual v = 0, 1, 2, 3, 4 ... maps to 0, -1, 1, -2, 2 ...
inline int32_t unfold(int32_t v) {
    const int32_t half = alac_arith::add(v, 1) / 2;
    return (v & 1) ? -half : half;
}

}  // namespace

namespace {

// The read position of a block of residuals, kept in a register while the block is decoded
// and handed back to the decoder at its end (or for a value the fast path leaves alone).
struct bit_cursor {
    const uint8_t* data;
    size_t size;
    size_t bit;  // bits consumed since data
};

// At least the next 25 bits, left-aligned, zeros below them.
inline uint32_t peek(const bit_cursor& c) {
    return load32(c.data, c.size, c.bit >> 3) << (c.bit & 7);
}

// Escapes and parameters outside 1..16 go through the decoder's own reader.
int32_t read_value_slowly(alac_decoder* d, bit_cursor* c, int e, int k, uint32_t m) {
    d->input_pos = c->bit >> 3;
    d->bit_offset = static_cast<int>(c->bit & 7);
    const int32_t value = rice_read_value(d, e, k, m);
    c->bit = d->input_pos * 8 + static_cast<size_t>(d->bit_offset);
    return value;
}

// rice_read_value from one peek: a prefix of up to 8 ones, its zero and k <= 16 extra bits
// make at most 25 bits.
inline int32_t read_value(alac_decoder* d, bit_cursor* c, int e, int k, uint32_t m) {
    const uint32_t window = peek(*c);
    const int x = std::countl_one(window);
    if (x > 8 || static_cast<unsigned>(k - 1) > 15u) [[unlikely]] {
        return read_value_slowly(d, c, e, k, m);
    }
    // With k = 1 the value is the count of ones. The general case below gives that too
    // (one extra bit, always given back) unless the mask clears bit 0.
    if (k == 1 && (m & 1u) == 0) {
        c->bit += static_cast<size_t>(x) + 1;
        return x;
    }
    const uint32_t extra = (window << (x + 1)) >> (32 - k);
    const uint32_t scaled = static_cast<uint32_t>(x) * (((1u << k) - 1) & m);
    // Extra values 0 and 1 are coded in k - 1 bits: the last bit belongs to the next value.
    const bool full = extra > 1;
    c->bit += static_cast<size_t>(x + k + (full ? 1 : 0));
    return static_cast<int32_t>(full ? scaled + extra - 1 : scaled);
}

}  // namespace

void rice_decode_block(alac_decoder* d, int32_t* out, int count, int e, int initial_history,
                       int limit, int history_mult, uint32_t run_mask) {
    using namespace alac_arith;
    bit_cursor c{d->input, d->input_size, d->input_pos * 8 + static_cast<size_t>(d->bit_offset)};
    int32_t history = initial_history;
    int32_t sign_modifier = 0;
    for (int i = 0; i < count; ++i) {
        const int k = residual_parameter(history, limit);
        const int32_t v = add(read_value(d, &c, e, k, 0xFFFFFFFFu), sign_modifier);
        out[i] = unfold(v);
        sign_modifier = 0;
        history = sub(add(history, mul(v, history_mult)), mul(history, history_mult) >> 9);
        if (v > 0xFFFF) history = 0xFFFF;

        if (history < 128 && i + 1 < count) [[unlikely]] {
            // Quiet passage: a count of zero residuals follows.
            sign_modifier = 1;
            const int run_k =
                std::countl_zero(static_cast<uint32_t>(history)) + (history + 16) / 64 - 24;
            const int32_t run = read_value(d, &c, 16, run_k, run_mask);
            if (run > 0) {
                const int fill = std::min(run, count - i - 1);
                std::fill(out + i + 1, out + i + 1 + fill, 0);
                i += fill;
            }
            if (run > 0xFFFF) sign_modifier = 0;
            history = 0;
        }
    }
    d->input_pos = c.bit >> 3;
    d->bit_offset = static_cast<int>(c.bit & 7);
}
