// Helpers shared by the decoder's units: 32-bit two's-complement arithmetic and PCM output.
// The stream's arithmetic wraps on overflow, which signed C++ arithmetic does not promise, so
// sums and products go through uint32_t and come back; the compiler emits the same
// instructions.
#pragma once

#include <cstdint>

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
