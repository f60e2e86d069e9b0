// Stereo decorrelation undone and PCM written little-endian into the caller's buffer.
#include <algorithm>
#include <bit>
#include <cstring>

#include "alac/alac.h"
#include "alac/alac_internal.h"

using alac_arith::put16;
using alac_arith::put24;
using alac_arith::widen;

namespace {

// Left and right of sample i. With a weight, a carries the weighted mid value and b the
// difference left - right; without one they are left and right as they are.
inline void unmix(int32_t a, int32_t b, int shift, int weight, int32_t* left, int32_t* right) {
    using namespace alac_arith;
    if (weight == 0) {
        *left = a;
        *right = b;
        return;
    }
    *right = sub(a, mul(b, weight) >> std::clamp(shift, 0, 31));
    *left = add(*right, b);
}

// A left and a right 16-bit slot, as one 32-bit store where the host is little-endian.
inline void put_pair16(uint8_t* slot, int32_t left, int32_t right) {
    if constexpr (std::endian::native == std::endian::little) {
        const uint32_t pair =
            (static_cast<uint32_t>(left) & 0xFFFFu) | (static_cast<uint32_t>(right) << 16);
        std::memcpy(slot, &pair, sizeof pair);
    } else {
        put16(slot, left);
        put16(slot + 2, right);
    }
}

// A left and a right 24-bit slot, as one 6-byte copy where the host is little-endian.
inline void put_pair24(uint8_t* slot, int32_t left, int32_t right) {
    if constexpr (std::endian::native == std::endian::little) {
        const uint64_t pair =
            (static_cast<uint64_t>(static_cast<uint32_t>(left)) & 0xFFFFFFu) |
            (static_cast<uint64_t>(static_cast<uint32_t>(right) & 0xFFFFFFu) << 24);
        std::memcpy(slot, &pair, 6);
    } else {
        put24(slot, left);
        put24(slot + 3, right);
    }
}

}  // namespace

namespace {

// The loops of stereo_interleave_16 for a slot stride known at compile time (Stride > 0, in
// 16-bit slots) or not (0): with the stride of a two-channel buffer, the compiler turns them
// into vector code where the target has it.
template <int Stride>
void interleave_16(const int32_t* a, const int32_t* b, uint8_t* out, int channels, int count,
                   int shift, int weight) {
    using alac_arith::add;
    using alac_arith::sub;
    const size_t stride = (Stride > 0 ? Stride : static_cast<size_t>(channels)) * 2;
    // One loop for each case, so that the per-sample work has no branch.
    if (weight == 0) {
        for (int i = 0; i < count; ++i) {
            put_pair16(out + static_cast<size_t>(i) * stride, a[i], b[i]);
        }
        return;
    }
    const int bits = std::clamp(shift, 0, 31);
    for (int i = 0; i < count; ++i) {
        const int32_t right = sub(a[i], alac_arith::mul(b[i], weight) >> bits);
        put_pair16(out + static_cast<size_t>(i) * stride, add(right, b[i]), right);
    }
}

}  // namespace

void stereo_interleave_16(const int32_t* a, const int32_t* b, uint8_t* out, int channels, int count,
                          int shift, int weight) {
    if (channels == 2) return interleave_16<2>(a, b, out, channels, count, shift, weight);
    interleave_16<0>(a, b, out, channels, count, shift, weight);
}

void stereo_interleave_24(const int32_t* a, const int32_t* b, int low_bytes, const int32_t* low_a,
                          const int32_t* low_b, uint8_t* out, int channels, int count, int shift,
                          int weight) {
    const size_t stride = static_cast<size_t>(channels) * 3;
    for (int i = 0; i < count; ++i) {
        int32_t left;
        int32_t right;
        unmix(a[i], b[i], shift, weight, &left, &right);
        if (low_bytes != 0) {
            left = widen(left, low_bytes, low_a[i]);
            right = widen(right, low_bytes, low_b[i]);
        }
        put_pair24(out + static_cast<size_t>(i) * stride, left, right);
    }
}
