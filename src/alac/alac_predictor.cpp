// The adaptive FIR predictor: rebuilds samples from residuals and adapts its coefficients
// toward whatever reduces the next residual (a sign-sign LMS step).
//
// Each sample is predicted from the window b of the n + 1 samples before it (b[0] the oldest)
// as the sum of c[j] × (b[n − j] − b[0]). After it, the coefficients move one step each,
// nearest tap first, until the residual is used up.
//
// Each sample waits for the one before, so the loops arrange their arithmetic to keep that
// wait short (this file is built without reassociation, which would undo the arrangement):
// - The sum is taken as the sum of c[j] × b[n − j] less b[0] times the sum of the coefficients
//   (the same number in wrapping arithmetic), the newest sample's product added last: all the
//   rest is ready before the newest sample is.
// - Where the read size and the quantisation shift q fit 32 bits together, b[0] and the
//   residual join the sum before the shift, shifted up by q: the sample then differs from the
//   stated one by a multiple of 2^(32 − q), which the wrap to the read size removes.
// - Samples rarely leave the read size, so they are tested rather than wrapped, by a branch
//   that is almost never taken.
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
    c[j] = static_cast<Coef>(c[j] - s);
    return sub(e, mul(mul(d, s) >> q, n - j));
}

template <int Sign>
inline bool used_up(int32_t e) {
    return Sign > 0 ? e <= 0 : e >= 0;
}

// Adapts the n 16-bit coefficients in place against residual e over window b; returns the
// change of their sum (a coefficient that wraps changes it by more than one).
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

// Samples wrap to the read size (1..32 bits) by an offset and a mask.
struct sample_wrap {
    uint32_t offset;  // half the range
    uint32_t mask;    // the range, less one
    bool fits(int32_t x) const { return static_cast<uint32_t>(x) + offset <= mask; }
    int32_t operator()(int32_t x) const {
        return static_cast<int32_t>(((static_cast<uint32_t>(x) + offset) & mask) - offset);
    }
};

// The same for the 17 bits of 16-bit stereo, by far the commonest stream.
struct wrap17 {
    bool fits(int32_t x) const { return static_cast<uint32_t>(x) + 0x10000u <= 0x1FFFFu; }
    int32_t operator()(int32_t x) const { return alac_arith::shl(x, 15) >> 15; }
};

// Out of line, so that the test before the call stays a branch: a conditional move would wait
// for the wrap.
template <typename Wrap>
[[gnu::noinline]] int32_t wrap_slowly(Wrap wrap, int32_t x) {
    return wrap(x);
}

template <typename Wrap>
inline int32_t wrapped(Wrap wrap, int32_t x) {
    if (!wrap.fits(x)) [[unlikely]] return wrap_slowly(wrap, x);
    return x;
}

// The sum of c[j] × b[n − j] for First <= j <= Last, added as a balanced tree: a running sum
// would chain every addition to the one before.
template <int First, int Last, int N>
inline uint32_t tap_tree(const int32_t* c, const int32_t* b) {
    if constexpr (First == Last) {
        return static_cast<uint32_t>(c[First]) * static_cast<uint32_t>(b[N - First]);
    } else {
        constexpr int kMid = (First + Last) / 2;
        return tap_tree<First, kMid, N>(c, b) + tap_tree<kMid + 1, Last, N>(c, b);
    }
}

// The terms of a folded sum that do not wait for the newest sample: the rounding, the residual
// e shifted up by q, and b[0] times m, which is 2^q less the sum of the coefficients.
inline uint32_t folded_base(uint32_t rounding, int32_t e, int q, int32_t oldest, uint32_t m) {
    return rounding + (static_cast<uint32_t>(e) << q) + static_cast<uint32_t>(oldest) * m;
}

// One sample's adaptation for a short order N, with the coefficients in registers; m is 2^q
// less their sum.
template <int Sign, int N>
inline void adapt_short(int32_t* c, uint32_t* m, int q, const int32_t* b, int32_t e) {
#pragma GCC unroll 32
    for (int j = N - 1; j >= 0; --j) {
        const int32_t d = sub(b[0], b[N - j]);
        *m += static_cast<uint32_t>(Sign * alac_arith::sign_of(d));  // c[j] falls by as much
        e = adapt_tap<Sign>(c, j, N, q, d, e);
        if (used_up<Sign>(e)) break;
    }
}

// Samples N + 1 onwards for a short order N (1..8) known at compile time, with folded sums and
// the coefficients in registers; the coefficients must stay within 16 bits for the whole frame,
// so that a step changes their sum by exactly one. The newest sample comes from a register too,
// not back from memory. In place (InPlace), the residual is read where its sample goes: one
// pointer fewer.
template <int N, typename Wrap, bool InPlace>
void predict_short(const int32_t* r, int32_t* out, int count, Wrap wrap, int16_t* coefs, int q) {
    int32_t c[N];
    uint32_t m = 1u << q;
    for (int j = 0; j < N; ++j) m -= static_cast<uint32_t>(c[j] = coefs[j]);
    const uint32_t rounding = q > 0 ? 1u << (q - 1) : 0u;
    int32_t newest = out[N];
    // b is the window of the sample at b + N + 1.
    const int32_t* const last = out + count - N - 1;
    for (const int32_t* b = out; b < last; ++b) {
        const int32_t e = InPlace ? b[N + 1] : r[b - out + N + 1];
        uint32_t sum = folded_base(rounding, e, q, b[0], m);
        if constexpr (N > 1) sum += tap_tree<1, N - 1, N>(c, b);
        sum += static_cast<uint32_t>(c[0]) * static_cast<uint32_t>(newest);
        const int32_t sample = wrapped(wrap, static_cast<int32_t>(sum) >> q);
        out[b - out + N + 1] = sample;
        if (e != 0) [[unlikely]] {
            if (e > 0) {
                adapt_short<1, N>(c, &m, q, b, e);
            } else {
                adapt_short<-1, N>(c, &m, q, b, e);
            }
        }
        newest = sample;
    }
    for (int j = 0; j < N; ++j) coefs[j] = static_cast<int16_t>(c[j]);
}

// The sum of c[j] × b[n − j] for 1 <= j < n, added to sum in four running sums so that the
// additions do not all wait for one another. N is n when it is known at compile time (the loop
// then unrolls completely), 0 when it is not.
template <int N>
inline uint32_t add_taps(uint32_t sum, const int16_t* c, int n, const int32_t* b) {
    uint32_t part[4] = {sum, 0, 0, 0};
    const auto tap = [&](int j) {
        return static_cast<uint32_t>(int32_t{c[j]}) * static_cast<uint32_t>(b[n - j]);
    };
    if constexpr (N > 0) {
#pragma GCC unroll 32
        for (int j = N - 1; j > 0; --j) part[j % 4] += tap(j);
    } else {
        int j = n - 1;
        for (; j >= 4; j -= 4) {
            part[0] += tap(j);
            part[1] += tap(j - 1);
            part[2] += tap(j - 2);
            part[3] += tap(j - 3);
        }
#pragma GCC unroll 1
        for (; j > 0; --j) part[0] += tap(j);
    }
    return part[0] + part[1] + part[2] + part[3];
}

// Samples n + 1 onwards for any order, with the 16-bit coefficients adapted in place (a
// coefficient may wrap). N is the order when it is fixed at compile time, 0 when it is only
// known at run time. Folded sums need read_size + q <= 32 and wrap with fold_wrap; the other
// form works for any read size: a shift pair by wrap (32 minus the read size) and the mask keep
// (all ones, none for a read size of 0 or less) wrap each sample.
template <int N, bool Folded>
void predict_long(const int32_t* r, int32_t* out, int count, sample_wrap fold_wrap, int wrap,
                  int32_t keep, int16_t* c, int order, int q) {
    const int n = N > 0 ? N : order;
    uint32_t c_sum = 0;
    for (int j = 0; j < n; ++j) c_sum += static_cast<uint32_t>(int32_t{c[j]});
    const uint32_t rounding = q > 0 ? 1u << (q - 1) : 0u;
    int32_t newest = out[n];
    for (int i = n + 1; i < count; ++i) {
        const int32_t* b = out + i - n - 1;
        const int32_t e = r[i];
        const int32_t oldest = b[0];
        uint32_t sum = Folded ? folded_base(rounding, e, q, oldest, (1u << q) - c_sum)
                              : rounding - c_sum * static_cast<uint32_t>(oldest);
        sum = add_taps<N>(sum, c, n, b);
        sum += static_cast<uint32_t>(int32_t{c[0]}) * static_cast<uint32_t>(newest);
        if constexpr (Folded) {
            newest = wrapped(fold_wrap, static_cast<int32_t>(sum) >> q);
        } else {
            const int32_t p = static_cast<int32_t>(sum) >> q;
            newest = (alac_arith::shl(add(p, add(oldest, e)), wrap) >> wrap) & keep;
        }
        out[i] = newest;
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

// Whether no coefficient can reach the end of 16 bits in count samples, each of which moves it
// by at most one.
bool coefficients_stay_in_range(const int16_t* c, int n, int count) {
    const int room = 32767 - count;
    return std::all_of(c, c + n, [room](int16_t v) { return v >= -room && v <= room; });
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

    const int bits = std::clamp(read_size, 0, 32);
    const sample_wrap wrap_bits{bits > 0 ? 1u << (bits - 1) : 0u, alac_arith::low_mask(bits)};
    if (bits > 0 && bits + q <= 32) {
        // The short orders encoders use most get loops of their own, the longest predictor
        // there is (31 stands for none) an unrolled sum. Coefficients that could wrap in this
        // frame, which only damaged streams have, take the general path.
        if (n <= 8 && coefficients_stay_in_range(c, n, count)) {
            // The decoder's own path: 16-bit stereo, rebuilt in place.
            if (bits == 17 && r == out) {
                return predict_short_order<wrap17, true>(r, out, count, {}, c, n, q);
            }
            return predict_short_order(r, out, count, wrap_bits, c, n, q);
        }
        if (n == 30) return predict_long<30, true>(r, out, count, wrap_bits, 0, -1, c, n, q);
    }
    // Read sizes of 0 or less come only from damaged frames: every sample wraps to nothing.
    const int wrap = 32 - std::max(bits, 1);
    predict_long<0, false>(r, out, count, wrap_bits, wrap, bits > 0 ? -1 : 0, c, n, q);
}
