// AVX2 kernels of the general eigen solver: chains of plane rotations over interleaved complex
// double lines for the shifted QR sweeps, row products for the Hessenberg panels and complex dot
// products for the back substitution. Products are fused into their sums and sums run lane-wise,
// so results may differ from the portable loops in the last bits.
#include <immintrin.h>

#include "backend/cpu/fallback_complex_eigen_solver.hpp"

namespace quillmark::cpu {
namespace {

// Two complex elements `step` doubles apart (step 2: adjacent).
inline __m256d load2(const double* p, std::uint64_t step) noexcept {
    return step == 2 ? _mm256_loadu_pd(p) : _mm256_loadu2_m128d(p + step, p);
}
inline void store2(double* p, std::uint64_t step, __m256d v) noexcept {
    if (step == 2)
        _mm256_storeu_pd(p, v);
    else
        _mm256_storeu2_m128d(p + step, p, v);
}

struct Coefficients {
    __m256d c, sr, si, nsi;
    Coefficients(double cos, const double* s) noexcept
        : c(_mm256_set1_pd(cos)), sr(_mm256_set1_pd(s[0])), si(_mm256_set1_pd(s[1])), nsi(_mm256_set1_pd(-s[1])) {}
};

// (x, y) <- (c x + s y, c y - conj(s) x); returns the new x, leaves the new y in y.
inline __m256d rotate(const Coefficients& k, __m256d x, __m256d& y) noexcept {
    const __m256d sy = _mm256_fmaddsub_pd(k.sr, y, _mm256_mul_pd(k.si, _mm256_permute_pd(y, 0b0101)));
    const __m256d sx = _mm256_fmaddsub_pd(k.sr, x, _mm256_mul_pd(k.nsi, _mm256_permute_pd(x, 0b0101)));
    const __m256d nx = _mm256_fmadd_pd(k.c, x, sy);
    y = _mm256_fmsub_pd(k.c, y, sx);
    return nx;
}

// G groups of two elements side by side: independent chains hide the latency of each step.
template <int G>
inline void chain(double* p, std::uint64_t line, std::uint64_t step, std::uint64_t count, const double* c,
                  const double* s) noexcept {
    __m256d x[G];
    for (int g = 0; g < G; ++g)
        x[g] = load2(p + 2 * g * step, step);
    for (std::uint64_t k = 0; k < count; ++k) {
        const Coefficients q(c[k], s + 2 * k);
        double* next = p + (k + 1) * line;
        for (int g = 0; g < G; ++g) {
            __m256d y = load2(next + 2 * g * step, step);
            store2(p + k * line + 2 * g * step, step, rotate(q, x[g], y));
            x[g] = y;
        }
    }
    for (int g = 0; g < G; ++g)
        store2(p + count * line + 2 * g * step, step, x[g]);
}

void chain_single(double* p, std::uint64_t line, std::uint64_t count, const double* c, const double* s) noexcept {
    __m128d x = _mm_loadu_pd(p);
    for (std::uint64_t k = 0; k < count; ++k) {
        const __m128d cv = _mm_set1_pd(c[k]), sr = _mm_set1_pd(s[2 * k]);
        const __m128d si = _mm_set1_pd(s[2 * k + 1]), nsi = _mm_set1_pd(-s[2 * k + 1]);
        const __m128d y = _mm_loadu_pd(p + (k + 1) * line);
        const __m128d sy = _mm_fmaddsub_pd(sr, y, _mm_mul_pd(si, _mm_permute_pd(y, 0b01)));
        const __m128d sx = _mm_fmaddsub_pd(sr, x, _mm_mul_pd(nsi, _mm_permute_pd(x, 0b01)));
        _mm_storeu_pd(p + k * line, _mm_fmadd_pd(cv, x, sy));
        x = _mm_fmsub_pd(cv, y, sx);
    }
    _mm_storeu_pd(p + count * line, x);
}

} // namespace

void complex_rotate_chain_avx2(double* base, std::uint64_t line_stride, std::uint64_t element_stride,
                               std::uint64_t length, std::uint64_t count, const double* c, const double* s) noexcept {
    const std::uint64_t line = 2 * line_stride, step = 2 * element_stride;
    std::uint64_t e = 0;
    // Wider groups pay off on contiguous elements only; gathered ones would spread over more sets.
    if (element_stride == 1)
        for (; e + 16 <= length; e += 16)
            chain<8>(base + e * step, line, step, count, c, s);
    for (; e + 8 <= length; e += 8)
        chain<4>(base + e * step, line, step, count, c, s);
    for (; e + 2 <= length; e += 2)
        chain<1>(base + e * step, line, step, count, c, s);
    if (e < length)
        chain_single(base + e * step, line, count, c, s);
}

void rows_times_vector_avx2(const double* rows, std::uint64_t ld, std::uint64_t count, std::uint64_t m,
                            const double* x, double* out) noexcept {
    std::uint64_t r = 0;
    for (; r + 4 <= count; r += 4) {
        const double* p = rows + r * ld;
        __m256d s0 = _mm256_setzero_pd(), s1 = s0, s2 = s0, s3 = s0;
        std::uint64_t i = 0;
        for (; i + 4 <= m; i += 4) {
            const __m256d v = _mm256_loadu_pd(x + i);
            s0 = _mm256_fmadd_pd(_mm256_loadu_pd(p + i), v, s0);
            s1 = _mm256_fmadd_pd(_mm256_loadu_pd(p + ld + i), v, s1);
            s2 = _mm256_fmadd_pd(_mm256_loadu_pd(p + 2 * ld + i), v, s2);
            s3 = _mm256_fmadd_pd(_mm256_loadu_pd(p + 3 * ld + i), v, s3);
        }
        // Lane sums of the four rows side by side: (s0, s1, s2, s3) horizontal.
        const __m256d h01 = _mm256_hadd_pd(s0, s1), h23 = _mm256_hadd_pd(s2, s3);
        __m256d total = _mm256_add_pd(_mm256_permute2f128_pd(h01, h23, 0x20), _mm256_permute2f128_pd(h01, h23, 0x31));
        alignas(32) double lane[4];
        _mm256_store_pd(lane, total);
        for (; i < m; ++i)
            for (int q = 0; q < 4; ++q)
                lane[q] += p[q * ld + i] * x[i];
        for (int q = 0; q < 4; ++q)
            out[r + q] = lane[q];
    }
    for (; r < count; ++r) {
        const double* p = rows + r * ld;
        __m256d s0 = _mm256_setzero_pd();
        std::uint64_t i = 0;
        for (; i + 4 <= m; i += 4)
            s0 = _mm256_fmadd_pd(_mm256_loadu_pd(p + i), _mm256_loadu_pd(x + i), s0);
        alignas(32) double lane[4];
        _mm256_store_pd(lane, s0);
        double sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
        for (; i < m; ++i)
            sum += p[i] * x[i];
        out[r] = sum;
    }
}

void complex_dot_avx2(const double* a, const double* b, std::uint64_t m, double* result) noexcept {
    // p collects (ar br, ai bi) and q (ar bi, ai br) per element; re = sum(p0 - p1), im = sum(q).
    __m256d p0 = _mm256_setzero_pd(), p1 = p0, q0 = p0, q1 = p0;
    std::uint64_t i = 0;
    for (; i + 4 <= m; i += 4) {
        const __m256d a0 = _mm256_loadu_pd(a + 2 * i), a1 = _mm256_loadu_pd(a + 2 * i + 4);
        const __m256d b0 = _mm256_loadu_pd(b + 2 * i), b1 = _mm256_loadu_pd(b + 2 * i + 4);
        p0 = _mm256_fmadd_pd(a0, b0, p0);
        p1 = _mm256_fmadd_pd(a1, b1, p1);
        q0 = _mm256_fmadd_pd(a0, _mm256_permute_pd(b0, 0b0101), q0);
        q1 = _mm256_fmadd_pd(a1, _mm256_permute_pd(b1, 0b0101), q1);
    }
    alignas(32) double p[4], q[4];
    _mm256_store_pd(p, _mm256_add_pd(p0, p1));
    _mm256_store_pd(q, _mm256_add_pd(q0, q1));
    double re = (p[0] - p[1]) + (p[2] - p[3]);
    double im = (q[0] + q[1]) + (q[2] + q[3]);
    for (; i < m; ++i) {
        re += a[2 * i] * b[2 * i] - a[2 * i + 1] * b[2 * i + 1];
        im += a[2 * i] * b[2 * i + 1] + a[2 * i + 1] * b[2 * i];
    }
    result[0] = re;
    result[1] = im;
}

} // namespace quillmark::cpu
