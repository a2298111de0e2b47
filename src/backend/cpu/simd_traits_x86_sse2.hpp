#pragma once
// Vector traits of the x86-64 baseline (SSE2), on which the portable kernel sets are written:
// the same static interface as the 256- and 512-bit traits, so kernels written once as templates
// serve every instruction set. `fma` is a separately rounded multiply and add here.
#include <emmintrin.h>

#include <cstdint>

namespace quillmark::cpu::simd {

struct Sse2F64 {
    using scalar = double;
    using vector = __m128d;
    static constexpr std::uint64_t lanes = 2;
    static vector zero() noexcept { return _mm_setzero_pd(); }
    static vector set1(double v) noexcept { return _mm_set1_pd(v); }
    static vector load(const double* p) noexcept { return _mm_loadu_pd(p); }
    static vector widen(const double* p) noexcept { return _mm_loadu_pd(p); }
    static vector widen(const float* p) noexcept {
        return _mm_cvtps_pd(_mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(p))));
    }
    static void store(double* p, vector v) noexcept { _mm_storeu_pd(p, v); }
    // Only the first lane can be partial.
    static vector load_partial(const double* p, int) noexcept { return _mm_load_sd(p); }
    static void store_partial(double* p, vector v, int) noexcept { _mm_store_sd(p, v); }
    static vector add(vector a, vector b) noexcept { return _mm_add_pd(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm_sub_pd(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm_mul_pd(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm_add_pd(_mm_mul_pd(a, b), c); }
    static vector abs(vector a) noexcept { return _mm_andnot_pd(_mm_set1_pd(-0.0), a); }
    static vector max(vector a, vector b) noexcept { return _mm_max_pd(a, b); }
    static double sum(vector v) noexcept { return _mm_cvtsd_f64(_mm_add_sd(v, _mm_unpackhi_pd(v, v))); }
    static double max_of(vector v) noexcept { return _mm_cvtsd_f64(_mm_max_sd(v, _mm_unpackhi_pd(v, v))); }
};

struct Sse2F32 {
    using scalar = float;
    using vector = __m128;
    static constexpr std::uint64_t lanes = 4;
    static vector zero() noexcept { return _mm_setzero_ps(); }
    static vector set1(float v) noexcept { return _mm_set1_ps(v); }
    static vector load(const float* p) noexcept { return _mm_loadu_ps(p); }
    static void store(float* p, vector v) noexcept { _mm_storeu_ps(p, v); }
    static vector add(vector a, vector b) noexcept { return _mm_add_ps(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm_sub_ps(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm_mul_ps(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm_add_ps(_mm_mul_ps(a, b), c); }
    static float sum(vector v) noexcept {
        const vector h = _mm_add_ps(v, _mm_movehl_ps(v, v));
        return _mm_cvtss_f32(_mm_add_ss(h, _mm_shuffle_ps(h, h, 1)));
    }
};

} // namespace quillmark::cpu::simd
