// Helpers shared by the decoder's units: 32-bit two's-complement arithmetic and PCM output.
// The stream's arithmetic wraps on overflow, which signed C++ arithmetic does not promise, so
// sums and products go through uint32_t and come back; the compiler emits the same
// instructions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "alac/alac.h"

namespace alac_arith {

inline int32_t add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

inline int32_t sub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

inline int32_t mul(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

inline int32_t shl(int32_t a, int s) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) << s);
}

// Bit b - 1 of x becomes the sign. Widths of 32 and more keep x; widths of 0 and less shift
// every bit out, as the ARM target's register shifts do.
inline int32_t sign_extend(int32_t x, int b) {
    if (b >= 32) return x;
    if (b <= 0) return 0;
    return shl(x, 32 - b) >> (32 - b);
}

// The low n bits set: 0 for n <= 0, all 32 for n >= 32.
inline uint32_t low_mask(int n) {
    if (n <= 0) return 0;
    if (n >= 32) return 0xFFFFFFFFu;
    return (1u << n) - 1;
}

inline int sign_of(int32_t v) {
    return (v > 0) - (v < 0);
}

// A sample widened by its low_bytes (1..3) uncoded low bytes.
inline int32_t widen(int32_t v, int low_bytes, int32_t low) {
    const int bits = 8 * low_bytes;
    const uint32_t mask = ~(0xFFFFFFFFu << bits);
    return static_cast<int32_t>((static_cast<uint32_t>(v) << bits) |
                                (static_cast<uint32_t>(low) & mask));
}

// Little-endian PCM slots, written bytewise: the output buffer has no alignment.
inline void put16(uint8_t* p, int32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

inline void put24(uint8_t* p, int32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
}

}  // namespace alac_arith

// The bit reader's fast lane: a read position kept in registers while a run of values is read,
// and handed back to the decoder when the run ends.
namespace alac_bits {

// Bits are handled a machine word at a time: 64 on 64-bit hosts, 32 on the box's ARMv7 (where
// a wider shift costs several instructions).
using word = std::conditional_t<(sizeof(void*) >= 8), uint64_t, uint32_t>;
inline constexpr int kWordBits = static_cast<int>(sizeof(word)) * 8;
// Bits a peek always holds: a word loaded at a byte, less the up to 7 already consumed there.
inline constexpr int kPeekBits = kWordBits - 7;

// The word at p, first byte highest. Spelled out byte by byte, which compilers turn into one
// load (and a byte swap where the host is little-endian); the buffer has no alignment.
inline word load_big_endian(const uint8_t* p) {
    if constexpr (sizeof(word) == 8) {
        return (word{p[0]} << 56) | (word{p[1]} << 48) | (word{p[2]} << 40) | (word{p[3]} << 32) |
               (word{p[4]} << 24) | (word{p[5]} << 16) | (word{p[6]} << 8) | word{p[7]};
    } else {
        return (word{p[0]} << 24) | (word{p[1]} << 16) | (word{p[2]} << 8) | word{p[3]};
    }
}

// The word at byte pos of a frame of size bytes. Bytes past the end read as zero: a damaged
// frame may ask for more bits than it holds.
inline word load_word(const uint8_t* data, size_t size, size_t pos) {
    if (size >= sizeof(word) && pos <= size - sizeof(word)) return load_big_endian(data + pos);
    word window = 0;
    for (size_t k = 0; k < sizeof(word); ++k) {
        window <<= 8;
        if (pos + k < size) window |= data[pos + k];
    }
    return window;
}

struct cursor {
    const uint8_t* data;
    size_t size;
    size_t whole_words;  // byte positions below this have a whole word of the frame to load
    size_t bit;          // bits consumed since data
};

inline cursor cursor_of(const alac_decoder* d) {
    const size_t whole_words = d->input_size >= sizeof(word) ? d->input_size - sizeof(word) + 1 : 0;
    return {d->input, d->input_size, whole_words,
            d->input_pos * 8 + static_cast<size_t>(d->bit_offset)};
}

inline void hand_back(alac_decoder* d, const cursor& c) {
    d->input_pos = c.bit >> 3;
    d->bit_offset = static_cast<int>(c.bit & 7);
}

// At least the next kPeekBits bits, left-aligned, zeros below them.
inline word peek(const cursor& c) {
    const size_t pos = c.bit >> 3;
    if (pos < c.whole_words) [[likely]] return load_big_endian(c.data + pos) << (c.bit & 7);
    return load_word(c.data, c.size, pos) << (c.bit & 7);
}

// The next n bits, 1 <= n <= min(kPeekBits, 32): at least 25 on every host.
inline uint32_t take(cursor* c, int n) {
    const uint32_t value = static_cast<uint32_t>(peek(*c) >> (kWordBits - n));
    c->bit += static_cast<size_t>(n);
    return value;
}

}  // namespace alac_bits
