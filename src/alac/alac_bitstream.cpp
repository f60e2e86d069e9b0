// Bit reader and adaptive Rice (Golomb) decoding of prediction residuals.
#include <algorithm>
#include <array>
#include <bit>

#include "alac/alac.h"
#include "alac/alac_internal.h"

namespace {

// The three bytes at the read position, first byte highest.
inline uint32_t peek24(const alac_decoder* d) {
    using alac_bits::kWordBits;
    const alac_bits::word w = alac_bits::load_word(d->input, d->input_size, d->input_pos);
    return static_cast<uint32_t>(w >> (kWordBits - 24));
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

using alac_bits::kWordBits;
using alac_bits::word;

// Rice parameter of the next residual: floor(log2((history >> 9) + 3)), at most the limit.
// (A damaged frame can drive history negative; a base of 0 or 1 then gives 0, which reads
// the same as the -1 that counting the leading zeros of 0 would give.)
inline int residual_parameter(int32_t history, int limit) {
    const uint32_t base = static_cast<uint32_t>(alac_arith::add(history >> 9, 3));
    return std::min(31 ^ std::countl_zero(base | 1u), limit);  // 31 - clz, as one bit scan
}

// The limit, returned from out of line so that the test before the call stays a branch: a
// conditional move would put the comparison on the chain from one value to the next, and only
// loud passages reach the limit.
[[gnu::noinline]] int at_most(int limit) {
    return limit;
}

// The same where history is known not to be negative, so that the base is at least 3 (one bit
// scan, without a test for zero).
inline int residual_parameter_from_zero(int32_t history, int limit) {
    const uint32_t base = (static_cast<uint32_t>(history) >> 9) + 3;
    const int k = 31 ^ std::countl_zero(base);
    if (k > limit) [[unlikely]] return at_most(limit);
    return k;
}

// Zero residual v = 0, 1, 2, 3, 4 ... maps to 0, -1, 1, -2, 2 ...
inline int32_t unfold(int32_t v) {
    const int32_t half = alac_arith::add(v, 1) / 2;
    return (v & 1) ? -half : half;
}

// The same for 0 <= v < 2^31 - 1, where it is a shift and a conditional complement.
inline int32_t unfold_small(uint32_t v) {
    return static_cast<int32_t>((v >> 1) ^ (0u - (v & 1u)));
}

// The bits ahead of the read position while a block is read. Each value is decoded from `bits`,
// which is ready as soon as the last value's length is known: where a word holds the bits of
// two values (64-bit hosts), the next `bits` is the word loaded at this value's start shifted
// past it, so the load runs beside the decoding rather than after it, off the chain from one
// value to the next. A 32-bit word holds one value, and is loaded at each value's start.
struct window {
    alac_bits::cursor c;
    word bits;  // the bits at c.bit, left-aligned; at least 25 of them are the frame's
};

constexpr word kNineOnes = ~(~word{0} >> 9);

inline window window_at(alac_bits::cursor c) {
    return {c, alac_bits::peek(c)};
}

// Past a value of `used` bits, at most 25 (eight ones, their zero and 16 extra bits).
inline void advance(window* w, int used) {
    if constexpr (alac_bits::kPeekBits >= 25 + 25) {
        const word ahead = alac_bits::peek(w->c);
        w->c.bit += static_cast<unsigned>(used);
        w->bits = ahead << used;
    } else {
        w->c.bit += static_cast<unsigned>(used);
        w->bits = alac_bits::peek(w->c);
    }
}

// rice_read_value from the window, for the common cases: a prefix of at most 8 ones with
// 1 <= k <= 16, or an escape of at most 25 bits. Returns false, having read nothing, for any
// other value. KInRange says the caller knows k to be in 1..16; AllOnes that m is all ones.
template <bool KInRange, bool AllOnes>
inline bool read_value_fast(window* w, int e, int k, uint32_t m, uint32_t* value) {
    const word bits = w->bits;
    if (bits >= kNineOnes) {
        // Nine ones: the value follows verbatim in e bits, with no terminating zero before it.
        if (static_cast<unsigned>(e - 1) > 24u) return false;
        w->c.bit += 9;
        *value = alac_bits::take(&w->c, e);
        w->bits = alac_bits::peek(w->c);
        return true;
    }
    if (!KInRange && static_cast<unsigned>(k - 1) > 15u) return false;
    // With k = 1 the value is the count of ones whatever the mask; below, the mask scales it.
    if (!AllOnes && k == 1 && (m & 1u) == 0) return false;
    const int ones = std::countl_zero(static_cast<word>(~bits));  // 0..8
    // The k extra bits follow the terminating zero.
    const uint32_t extra = static_cast<uint32_t>((bits << (ones + 1)) >> (kWordBits - k));
    // ones × the mask: where the mask is all of the k bits, a shift and a subtraction.
    const uint32_t mask = ~(~0u << k);
    const uint32_t count = static_cast<uint32_t>(ones);
    const uint32_t scaled = AllOnes ? (count << k) - count : count * (mask & m);
    // Extra values 0 and 1 are coded in k - 1 bits: the last bit belongs to the next value.
    *value = scaled + extra - (extra != 0);
    advance(w, ones + k + (extra > 1));
    return true;
}

// Escapes of more than 25 bits and parameters outside 1..16 (damaged or unusual streams) go
// through the decoder's own reader. Out of line, and by value both ways, so that the calling
// loop keeps its window in registers.
struct read_result {
    uint32_t value;
    size_t bit;  // where the reader stands after the value
};

[[gnu::noinline]] read_result read_value_slowly(alac_decoder* d, alac_bits::cursor c, int e, int k,
                                                uint32_t m) {
    alac_bits::hand_back(d, c);
    const int32_t value = rice_read_value(d, e, k, m);
    return {static_cast<uint32_t>(value), alac_bits::cursor_of(d).bit};
}

inline uint32_t read_slowly(alac_decoder* d, window* w, int e, int k, uint32_t m) {
    const read_result r = read_value_slowly(d, w->c, e, k, m);
    *w = window_at({w->c.data, w->c.size, w->c.whole_words, r.bit});
    return r.value;
}

// The count of a run of zero residuals, read after history fell below 128.
inline int32_t read_run(alac_decoder* d, window* w, int32_t history, uint32_t run_mask) {
    const int k = std::countl_zero(static_cast<uint32_t>(history)) + (history + 16) / 64 - 24;
    uint32_t value;
    if (read_value_fast<false, false>(w, 16, k, run_mask, &value)) {
        return static_cast<int32_t>(value);
    }
    return static_cast<int32_t>(read_slowly(d, w, 16, k, run_mask));
}

// rice_decode_block; KInRange when the limit is 1..16 and the initial history not negative.
template <bool KInRange>
void decode_block(alac_decoder* d, int32_t* out, int count, int e, int initial_history, int limit,
                  int history_mult, uint32_t run_mask) {
    using namespace alac_arith;
    window w = window_at(alac_bits::cursor_of(d));
    int32_t history = initial_history;
    // Residual *o; modifier is 1 for the value after a run shorter than 65536, else 0.
    const auto residual = [&](int32_t* o, uint32_t modifier) {
        const int k = KInRange ? residual_parameter_from_zero(history, limit)
                               : residual_parameter(history, limit);
        uint32_t value;
        int32_t v;
        if (read_value_fast<KInRange, true>(&w, e, k, 0xFFFFFFFFu, &value)) [[likely]] {
            v = static_cast<int32_t>(value + modifier);  // below 2^25 + 1
            *o = unfold_small(static_cast<uint32_t>(v));
        } else {
            v = add(static_cast<int32_t>(read_slowly(d, &w, e, k, 0xFFFFFFFFu)),
                    static_cast<int32_t>(modifier));
            *o = unfold(v);
        }
        history = sub(add(history, mul(v, history_mult)), mul(history, history_mult) >> 9);
        if (v > 0xFFFF) history = 0xFFFF;
    };
    int32_t* const end = out + std::max(count, 0);
    for (int32_t* o = out; o < end; ++o) {
        residual(o, 0);
        while (history < 128 && end - o > 1) [[unlikely]] {
            // Quiet passage: a count of zero residuals follows.
            const int32_t run = read_run(d, &w, history, run_mask);
            if (run > 0) {
                const int32_t* last = o + std::min<ptrdiff_t>(run, end - o - 1);
                for (; o < last;) *++o = 0;
            }
            history = 0;
            if (run > 0xFFFF || end - o < 2) break;
            ++o;
            residual(o, 1);
        }
    }
    alac_bits::hand_back(d, w.c);
}

}  // namespace

void rice_decode_block(alac_decoder* d, int32_t* out, int count, int e, int initial_history,
                       int limit, int history_mult, uint32_t run_mask) {
    // History starts every value at 0 or above: whatever takes it below 128 is followed by a
    // run, which sets it to 0, or ends the block. The parameter is then at least
    // floor(log2(3)) = 1, and a limit of 1..16 keeps it within what the fast lane reads.
    if (limit >= 1 && limit <= 16 && initial_history >= 0) {
        decode_block<true>(d, out, count, e, initial_history, limit, history_mult, run_mask);
    } else {
        decode_block<false>(d, out, count, e, initial_history, limit, history_mult, run_mask);
    }
}
