// The adaptive FIR predictor: rebuilds samples from residuals and adapts its coefficients
// toward whatever reduces the next residual (a sign-sign LMS step).
#include <algorithm>

#include "alac/alac.h"
#include "alac/alac_internal.h"

namespace {

// Moves the coefficients against the sign of the residual e, nearest taps first, until the
// residual they account for has been used up.
void adapt(int16_t* c, int n, int q, const int32_t* b, int32_t e) {
    using namespace alac_arith;
    const int direction = e > 0 ? 1 : -1;
    for (int j = n - 1; j >= 0 && sign_of(e) == direction; --j) {
        const int32_t d = sub(b[0], b[n - j]);
        const int s = sign_of(d) * direction;
        c[j] = static_cast<int16_t>(c[j] - s);
        e = sub(e, mul(mul(d, s) >> q, n - j));
    }
}

// One predicted sample from the n samples after b[0], relative to b[0].
inline int32_t predict(const int16_t* c, int n, int q, const int32_t* b) {
    const uint32_t base = static_cast<uint32_t>(b[0]);
    uint32_t sum = 0;
    for (int j = 0; j < n; ++j) {
        sum += static_cast<uint32_t>(int32_t{c[j]}) * (static_cast<uint32_t>(b[n - j]) - base);
    }
    const uint32_t rounding = q > 0 ? 1u << (q - 1) : 0u;
    return static_cast<int32_t>(sum + rounding) >> q;
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

    for (int i = n + 1; i < count; ++i) {
        const int32_t* b = out + i - n - 1;
        const int32_t e = r[i];
        out[i] = sign_extend(add(add(predict(c, n, q, b), b[0]), e), read_size);
        if (e != 0) adapt(c, n, q, b, e);
    }
}
