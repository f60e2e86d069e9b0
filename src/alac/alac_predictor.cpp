// The adaptive FIR predictor: rebuilds samples from residuals and adapts its coefficients
// toward whatever reduces the next residual (a sign-sign LMS step).
//
// Each sample is predicted from the window b of the n + 1 samples before it (b[0] the oldest)
// as the sum of c[j] × (b[n − j] − b[0]). After it, the coefficients move one step each,
// nearest tap first, until the residual is used up.
#include <algorithm>

#include "alac/alac.h"
#include "alac/alac_internal.h"

namespace {

using alac_arith::add;
using alac_arith::mul;
using alac_arith::sub;

// One adaptation step on tap j, whose difference to the oldest sample is d = b[0] − b[n − j]:
// moves c[j] against the residual e, whose sign is Sign, and returns what is left of e.
// d × s is Sign times the magnitude of d: one multiplication, where a magnitude is three steps.
template <int Sign, typename Coef>
inline int32_t adapt_tap(Coef* c, int j, int n, int q, int32_t d, int32_t e) {
    const int s = Sign * alac_arith::sign_of(d);
    c[j] = static_cast<int16_t>(c[j] - s);
    return sub(e, mul(mul(d, s) >> q, n - j));
}

template <int Sign>
inline bool used_up(int32_t e) {
    return Sign > 0 ? e <= 0 : e >= 0;
}

// Adapts the n coefficients in place against residual e over window b; returns the change
// of their sum.
template <int Sign>
inline uint32_t adapt_in_place(int16_t* c, int n, int q, const int32_t* b, int32_t e) {
    uint32_t change = 0;
    for (int j = n - 1; j >= 0; --j) {
        const int16_t before = c[j];
        e = adapt_tap<Sign>(c, j, n, q, sub(b[0], b[n - j]), e);
        change += static_cast<uint32_t>(int32_t{c[j]} - int32_t{before});
        if (used_up<Sign>(e)) break;
    }
    return change;
}

// The same for the N coefficients of a fixed order, unrolled.
template <int Sign, int N>
inline void adapt_unrolled(int16_t* c, int q, const int32_t* b, int32_t e) {
    const int32_t oldest = b[0];
#pragma GCC unroll 32
    for (int j = N - 1; j >= 0; --j) {
        e = adapt_tap<Sign>(c, j, N, q, sub(oldest, b[N - j]), e);
        if (used_up<Sign>(e)) return;
    }
}

// Samples wrap to the read size (1..32 bits) by an offset and a mask rather than a shift
// pair: the shifts would compete with the quantisation shift for the one shift-count
// register some targets have.
struct sample_wrap {
    uint32_t offset;  // half the range
    uint32_t mask;    // the range, less one
    int32_t operator()(int32_t x) const {
        return static_cast<int32_t>(((static_cast<uint32_t>(x) + offset) & mask) - offset);
    }
};

// The same for a read size known at compile time: the 17 bits of 16-bit stereo, by far the
// commonest stream, wrap by a shift pair of constant count.
template <int Bits>
struct fixed_wrap {
    int32_t operator()(int32_t x) const { return alac_arith::shl(x, 32 - Bits) >> (32 - Bits); }
};

// One sample's adaptation for a short order. The differences are taken from the window again
// rather than kept from the sum: most adaptations end after a tap or two, and the sum then
// keeps fewer values alive.
template <int N>
inline void adapt_short(int16_t* c, int q, const int32_t* b, int32_t e) {
    if (e > 0) {
        adapt_unrolled<1, N>(c, q, b, e);
    } else {
        adapt_unrolled<-1, N>(c, q, b, e);
    }
}

// Samples N + 1 onwards for a short order known at compile time, the sum unrolled.
template <int N, typename Wrap, bool InPlace = false>
void predict_short(const int32_t* r, int32_t* out, int count, Wrap wrap, int16_t* c, int q) {
    const uint32_t rounding = q > 0 ? 1u << (q - 1) : 0u;
    // The newest sample comes from a register: read back from memory, it would add a store's
    // round trip to the chain that runs from each sample to the next.
    int32_t newest = out[N];
    for (int i = N + 1; i < count; ++i) {
        const int32_t* b = out + i - N - 1;
        // In place, the residual is read where its sample goes: one pointer fewer to step.
        const int32_t e = InPlace ? b[N + 1] : r[i];
        uint32_t minus_sum = 0;  // the sum with the differences taken the other way round
#pragma GCC unroll 32
        for (int j = 0; j < N; ++j) {
            const int32_t later = j == 0 ? newest : b[N - j];
            minus_sum += static_cast<uint32_t>(c[j]) * static_cast<uint32_t>(sub(b[0], later));
        }
        const int32_t p = static_cast<int32_t>(rounding - minus_sum) >> q;
        newest = wrap(add(add(p, b[0]), e));
        out[i] = newest;
        if (e != 0) adapt_short<N>(c, q, b, e);
    }
}

inline uint32_t tap(const int16_t* c, int j, const int32_t* b, int n) {
    return static_cast<uint32_t>(int32_t{c[j]}) * static_cast<uint32_t>(b[n - j]);
}

// The sum of c[j] × b[n − j]: all taps in a row for an order N fixed at compile time, else
// four taps a step.
template <int N>
inline uint32_t weighted_sum(const int16_t* c, int n, const int32_t* b) {
    uint32_t sum = 0;
    if constexpr (N > 0) {
#pragma GCC unroll 32
        for (int j = 0; j < N; ++j) sum += tap(c, j, b, N);
    } else {
        int j = 0;
        for (; j + 4 <= n; j += 4) {
            sum +=
                tap(c, j, b, n) + tap(c, j + 1, b, n) + tap(c, j + 2, b, n) + tap(c, j + 3, b, n);
        }
#pragma GCC unroll 1
        for (; j < n; ++j) sum += tap(c, j, b, n);
    }
    return sum;
}

// Samples n + 1 onwards for any order, with the coefficients adapted in place. The sum is taken as
// the sum of c[j] × b[n − j] less b[0] times the sum of the coefficients (the same number in
// wrapping arithmetic, one step fewer a tap); the coefficient sum follows each coefficient the
// adaptation changes. A shift pair by wrap (32 minus the read size) and the mask keep (all ones,
// none for a read size of 0 or less) wrap each sample to the read size. N is the order when it is
// fixed at compile time (the sum then unrolls completely), 0 when it is only known at run time.
template <int N>
void predict_long(const int32_t* r, int32_t* out, int count, int wrap, int32_t keep, int16_t* c,
                  int order, int q) {
    const int n = N > 0 ? N : order;
    uint32_t c_sum = 0;
    for (int j = 0; j < n; ++j) c_sum += static_cast<uint32_t>(int32_t{c[j]});
    const uint32_t rounding = q > 0 ? 1u << (q - 1) : 0u;
    for (int i = n + 1; i < count; ++i) {
        const int32_t* b = out + i - n - 1;
        const int32_t e = r[i];
        const uint32_t sum = weighted_sum<N>(c, n, b) - static_cast<uint32_t>(b[0]) * c_sum;
        const int32_t p = static_cast<int32_t>(sum + rounding) >> q;
        out[i] = (alac_arith::shl(add(add(p, b[0]), e), wrap) >> wrap) & keep;
        if (e > 0) {
            c_sum += adapt_in_place<1>(c, n, q, b, e);
        } else if (e < 0) {
            c_sum += adapt_in_place<-1>(c, n, q, b, e);
        }
    }
}

// predict_short for order n, 1..8.
template <typename Wrap, bool InPlace = false>
void predict_short_order(const int32_t* r, int32_t* out, int count, Wrap wrap, int16_t* c, int n,
                         int q) {
    using short_predictor = void (*)(const int32_t*, int32_t*, int, Wrap, int16_t*, int);
    static constexpr short_predictor kShort[] = {
        predict_short<1, Wrap, InPlace>, predict_short<2, Wrap, InPlace>,
        predict_short<3, Wrap, InPlace>, predict_short<4, Wrap, InPlace>,
        predict_short<5, Wrap, InPlace>, predict_short<6, Wrap, InPlace>,
        predict_short<7, Wrap, InPlace>, predict_short<8, Wrap, InPlace>};
    kShort[n - 1](r, out, count, wrap, c, q);
}

}  // namespace

void fir_adaptive_reconstruct(const int32_t* r, int32_t* out, int count, int read_size, int16_t* c,
                              int n, int q) {
    using alac_arith::sign_extend;
    if (count <= 0) return;
    out[0] = r[0];
    if (n == 0) {
        if (r != out) std::copy(r + 1, r + count, out + 1);
        return;
    }
    // Order 31 is no predictor at all but a plain integrator; other orders warm up the same way
    // over their first n samples (cut short by a frame that holds fewer).
    const int warm_up = n == 31 ? count - 1 : std::min(n, count - 1);
    for (int i = 0; i < warm_up; ++i) out[i + 1] = sign_extend(add(out[i], r[i + 1]), read_size);
    if (n == 31 || count <= n + 1) return;

    if (read_size <= 0) {
        // Only damaged frames get here: every sample wraps to nothing.
        return predict_long<0>(r, out, count, 31, 0, c, n, q);
    }
    const int wrap = 32 - std::min(read_size, 32);
    // The short orders encoders use most get loops of their own, the longest predictor there
    // is (31 stands for none) an unrolled sum.
    if (n > 0 && n <= 8) {
        // The decoder's own path: 16-bit stereo, rebuilt in place.
        if (read_size == 17 && r == out) {
            return predict_short_order<fixed_wrap<17>, true>(r, out, count, {}, c, n, q);
        }
        const int bits = std::min(read_size, 32);
        const sample_wrap wrap_bits{1u << (bits - 1), alac_arith::low_mask(bits)};
        return predict_short_order(r, out, count, wrap_bits, c, n, q);
    }
    if (n == 30) return predict_long<30>(r, out, count, wrap, -1, c, n, q);
    predict_long<0>(r, out, count, wrap, -1, c, n, q);
}
