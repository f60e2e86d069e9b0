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

// One predicted sample from the n samples after b[0], relative to b[0].
inline int32_t predict(const int16_t* c, int n, int q, const int32_t* b) {
    const uint32_t base = static_cast<uint32_t>(b[0]);
    uint32_t sum = 0;
#pragma GCC unroll 8
    for (int j = 0; j < n; ++j) {
        sum += static_cast<uint32_t>(int32_t{c[j]}) * (static_cast<uint32_t>(b[n - j]) - base);
    }
    const uint32_t rounding = q > 0 ? 1u << (q - 1) : 0u;
    return static_cast<int32_t>(sum + rounding) >> q;
}

// Samples n + 1 onwards. N is the order when it is known at compile time (the loops then
// unroll), 0 when it is only known at run time.
template <int N>
void predict_and_adapt(const int32_t* r, int32_t* out, int count, int read_size, int16_t* c,
                       int order, int q) {
    using alac_arith::add;
    const int n = N > 0 ? N : order;
    for (int i = n + 1; i < count; ++i) {
        const int32_t* b = out + i - n - 1;
        const int32_t e = r[i];
        const int32_t sample = add(add(predict(c, n, q, b), b[0]), e);
        out[i] = alac_arith::sign_extend(sample, read_size);
        if (e > 0) {
            adapt<1>(c, n, q, b, e);
        } else if (e < 0) {
            adapt<-1>(c, n, q, b, e);
        }
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
