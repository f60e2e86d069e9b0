// The adaptive FIR predictor: rebuilds samples from residuals and adapts its coefficients
// toward whatever reduces the next residual (a sign-sign LMS step).
#include <algorithm>

#include "alac/alac.h"
#include "alac/alac_internal.h"

namespace {

// d times its own sign: its magnitude, except that the most negative value stays as it is.
inline int32_t magnitude(int32_t d) {
    return d < 0 ? alac_arith::sub(0, d) : d;
}

// Moves the coefficients against the residual e, whose sign is Sign, until the residual they
// account for has been used up. Written for each sign so that the step is a magnitude.
template <int Sign>
inline void adapt(int16_t* c, int n, int q, const int32_t* b, int32_t e) {
    using namespace alac_arith;
#pragma GCC unroll 8
    for (int j = n - 1; j >= 0; --j) {
        const int32_t d = sub(b[0], b[n - j]);
        c[j] = static_cast<int16_t>(c[j] - Sign * sign_of(d));
        // d times Sign * sign(d): Sign times its magnitude.
        const int32_t step = Sign > 0 ? magnitude(d) : sub(0, magnitude(d));
        e = sub(e, mul(step >> q, n - j));
        if (Sign > 0 ? e <= 0 : e >= 0) return;
    }
}

// The sum of the n coefficients.
inline uint32_t coefficient_sum(const int16_t* c, int n) {
    uint32_t sum = 0;
#pragma GCC unroll 8
    for (int j = 0; j < n; ++j) sum += static_cast<uint32_t>(int32_t{c[j]});
    return sum;
}

// The sum of c[j] × (b[n - j] − b[0]), taken as the sum of c[j] × b[n - j] less b[0] times
// the sum of the coefficients: the same number in wrapping arithmetic, one step fewer a tap.
inline uint32_t weighted_sum(const int16_t* c, int n, const int32_t* b, uint32_t c_sum) {
    uint32_t sum = 0;
#pragma GCC unroll 8
    for (int j = 0; j < n; ++j) {
        sum += static_cast<uint32_t>(int32_t{c[j]}) * static_cast<uint32_t>(b[n - j]);
    }
    return sum - static_cast<uint32_t>(b[0]) * c_sum;
}

// Samples n + 1 onwards. N is the order when it is known at compile time (the loops then
// unroll), 0 when it is only known at run time.
template <int N>
void predict_and_adapt(const int32_t* r, int32_t* out, int count, int read_size, int16_t* c,
                       int order, int q) {
    using alac_arith::add;
    const int n = N > 0 ? N : order;
    // sign_extend to read_size bits as a shift pair and a mask; sizes of 0 and less (only in
    // damaged frames) leave no bits.
    const int wrap = 32 - std::clamp(read_size, 1, 32);
    const int32_t keep = read_size > 0 ? -1 : 0;
    const uint32_t rounding = q > 0 ? 1u << (q - 1) : 0u;
    uint32_t c_sum = coefficient_sum(c, n);
    for (int i = n + 1; i < count; ++i) {
        const int32_t* b = out + i - n - 1;
        const int32_t e = r[i];
        const int32_t p = static_cast<int32_t>(weighted_sum(c, n, b, c_sum) + rounding) >> q;
        out[i] = (alac_arith::shl(add(add(p, b[0]), e), wrap) >> wrap) & keep;
        if (e == 0) continue;
        if (e > 0) {
            adapt<1>(c, n, q, b, e);
        } else {
            adapt<-1>(c, n, q, b, e);
        }
        c_sum = coefficient_sum(c, n);
    }
}

}  // namespace

void fir_adaptive_reconstruct(const int32_t* r, int32_t* out, int count, int read_size, int16_t* c,
                              int n, int q) {
    using alac_arith::add;
    using alac_arith::sign_extend;
    if (count <= 0) return;
    out[0] = r[0];
    if (n == 0) {
        for (int i = 1; i < count; ++i) out[i] = r[i];
        return;
    }
    // Order 31 is no predictor at all but a plain integrator; other orders warm up the same way
    // over their first n samples (cut short by a frame that holds fewer).
    const int warm_up = n == 31 ? count - 1 : std::min(n, count - 1);
    for (int i = 0; i < warm_up; ++i) out[i + 1] = sign_extend(add(out[i], r[i + 1]), read_size);
    if (n == 31) return;

    // The orders encoders use most get loops of fixed length.
    switch (n) {
        case 4: return predict_and_adapt<4>(r, out, count, read_size, c, n, q);
        case 5: return predict_and_adapt<5>(r, out, count, read_size, c, n, q);
        case 6: return predict_and_adapt<6>(r, out, count, read_size, c, n, q);
        case 8: return predict_and_adapt<8>(r, out, count, read_size, c, n, q);
        default: return predict_and_adapt<0>(r, out, count, read_size, c, n, q);
    }
}
