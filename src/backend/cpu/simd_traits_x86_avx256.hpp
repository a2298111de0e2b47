#pragma once
// Vector traits of the 256-bit engine (AVX2 + FMA): one struct per element type, all with the
// same static interface so that kernels written once as templates serve every instruction set.
// Include only from translation units built with -mavx2 -mfma.
//
// Real traits (Avx256F32, Avx256F64): zero, set1, broadcast(const*), load, store, partial
// load/store of the first `count` lanes (the rest read as zero, are left untouched on store),
// add, sub, mul, fma (a*b + c), fnma (c - a*b), abs, max, sum, max_of.
// Complex traits (Avx256C64): interleaved std::complex<float> in the float vector, `lanes`
// complex numbers per vector, with complex multiply and multiply-add, conjugation and sums.
#include <immintrin.h>

#include <complex>
#include <cstdint>

namespace quillmark::cpu::simd {

namespace avx256_detail {
// Lane masks for maskload/maskstore: the first `count` 32-bit lanes set.
inline __m256i first_lanes32(int count) noexcept {
    const __m256i index = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    return _mm256_cmpgt_epi32(_mm256_set1_epi32(count), index);
}
inline __m256i first_lanes64(int count) noexcept {
    const __m256i index = _mm256_setr_epi64x(0, 1, 2, 3);
    return _mm256_cmpgt_epi64(_mm256_set1_epi64x(count), index);
}
} // namespace avx256_detail

struct Avx256F32 {
    using scalar = float;
    using vector = __m256;
    static constexpr int lanes = 8;
    static constexpr const char* engine = "AVX2";
    static vector zero() noexcept { return _mm256_setzero_ps(); }
    static vector set1(float v) noexcept { return _mm256_set1_ps(v); }
    static vector broadcast(const float* p) noexcept { return _mm256_broadcast_ss(p); }
    static vector load(const float* p) noexcept { return _mm256_loadu_ps(p); }
    static void store(float* p, vector v) noexcept { _mm256_storeu_ps(p, v); }
    static vector load_partial(const float* p, int count) noexcept {
        return _mm256_maskload_ps(p, avx256_detail::first_lanes32(count));
    }
    static void store_partial(float* p, vector v, int count) noexcept {
        _mm256_maskstore_ps(p, avx256_detail::first_lanes32(count), v);
    }
    static vector add(vector a, vector b) noexcept { return _mm256_add_ps(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm256_sub_ps(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm256_mul_ps(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm256_fmadd_ps(a, b, c); }
    static vector fnma(vector a, vector b, vector c) noexcept { return _mm256_fnmadd_ps(a, b, c); }
    static vector abs(vector a) noexcept { return _mm256_andnot_ps(_mm256_set1_ps(-0.0f), a); }
    static vector max(vector a, vector b) noexcept { return _mm256_max_ps(a, b); }
    static float sum(vector v) noexcept {
        __m128 h = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
        h = _mm_add_ps(h, _mm_movehl_ps(h, h));
        return _mm_cvtss_f32(_mm_add_ss(h, _mm_shuffle_ps(h, h, 1)));
    }
    static float max_of(vector v) noexcept {
        __m128 h = _mm_max_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
        h = _mm_max_ps(h, _mm_movehl_ps(h, h));
        return _mm_cvtss_f32(_mm_max_ss(h, _mm_shuffle_ps(h, h, 1)));
    }
};

struct Avx256F64 {
    using scalar = double;
    using vector = __m256d;
    static constexpr int lanes = 4;
    static constexpr const char* engine = "AVX2";
    static vector zero() noexcept { return _mm256_setzero_pd(); }
    static vector set1(double v) noexcept { return _mm256_set1_pd(v); }
    static vector broadcast(const double* p) noexcept { return _mm256_broadcast_sd(p); }
    static vector load(const double* p) noexcept { return _mm256_loadu_pd(p); }
    static void store(double* p, vector v) noexcept { _mm256_storeu_pd(p, v); }
    static vector load_partial(const double* p, int count) noexcept {
        return _mm256_maskload_pd(p, avx256_detail::first_lanes64(count));
    }
    static void store_partial(double* p, vector v, int count) noexcept {
        _mm256_maskstore_pd(p, avx256_detail::first_lanes64(count), v);
    }
    // `lanes` elements widened to double.
    static vector widen(const double* p) noexcept { return _mm256_loadu_pd(p); }
    static vector widen(const float* p) noexcept { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }
    static vector add(vector a, vector b) noexcept { return _mm256_add_pd(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm256_sub_pd(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm256_mul_pd(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm256_fmadd_pd(a, b, c); }
    static vector fnma(vector a, vector b, vector c) noexcept { return _mm256_fnmadd_pd(a, b, c); }
    static vector abs(vector a) noexcept { return _mm256_andnot_pd(_mm256_set1_pd(-0.0), a); }
    static vector max(vector a, vector b) noexcept { return _mm256_max_pd(a, b); }
    static double sum(vector v) noexcept {
        const __m128d h = _mm_add_pd(_mm256_castpd256_pd128(v), _mm256_extractf128_pd(v, 1));
        return _mm_cvtsd_f64(_mm_add_sd(h, _mm_unpackhi_pd(h, h)));
    }
    static double max_of(vector v) noexcept {
        const __m128d h = _mm_max_pd(_mm256_castpd256_pd128(v), _mm256_extractf128_pd(v, 1));
        return _mm_cvtsd_f64(_mm_max_sd(h, _mm_unpackhi_pd(h, h)));
    }
};

// Interleaved complex<float>: (re, im) pairs in the float lanes.
struct Avx256C64 {
    using real = Avx256F32;
    using scalar = std::complex<float>;
    using vector = __m256;
    static constexpr int lanes = 4; // complex numbers per vector
    static constexpr const char* engine = "AVX2";
    static const float* f(const scalar* p) noexcept { return reinterpret_cast<const float*>(p); }
    static float* f(scalar* p) noexcept { return reinterpret_cast<float*>(p); }

    static vector zero() noexcept { return _mm256_setzero_ps(); }
    static vector set1(scalar z) noexcept { return _mm256_setr_ps(z.real(), z.imag(), z.real(), z.imag(), z.real(), z.imag(), z.real(), z.imag()); }
    static vector load(const scalar* p) noexcept { return _mm256_loadu_ps(f(p)); }
    static void store(scalar* p, vector v) noexcept { _mm256_storeu_ps(f(p), v); }
    static vector load_partial(const scalar* p, int count) noexcept { return real::load_partial(f(p), 2 * count); }
    static void store_partial(scalar* p, vector v, int count) noexcept { real::store_partial(f(p), v, 2 * count); }
    static vector add(vector a, vector b) noexcept { return _mm256_add_ps(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm256_sub_ps(a, b); }
    // (re, im) -> (im, re)
    static vector swap_parts(vector a) noexcept { return _mm256_permute_ps(a, 0xB1); }
    static vector real_parts(vector a) noexcept { return _mm256_moveldup_ps(a); }
    static vector imag_parts(vector a) noexcept { return _mm256_movehdup_ps(a); }
    static vector conj(vector a) noexcept {
        return _mm256_xor_ps(a, _mm256_setr_ps(0.f, -0.f, 0.f, -0.f, 0.f, -0.f, 0.f, -0.f));
    }
    static vector negate(vector a) noexcept { return _mm256_xor_ps(a, _mm256_set1_ps(-0.0f)); }
    // a * b, lane by lane as complex numbers.
    static vector mul(vector a, vector b) noexcept {
        return _mm256_fmaddsub_ps(a, real_parts(b), _mm256_mul_ps(swap_parts(a), imag_parts(b)));
    }
    // a * b + c. `b_re`/`b_im` are real_parts(b)/imag_parts(b), so a loop over one b pays the
    // duplication once.
    static vector fma(vector a, vector b_re, vector b_im, vector c) noexcept {
        return _mm256_add_ps(c, _mm256_fmaddsub_ps(a, b_re, _mm256_mul_ps(swap_parts(a), b_im)));
    }
    static vector fma(vector a, vector b, vector c) noexcept { return fma(a, real_parts(b), imag_parts(b), c); }
    // c - a * b
    static vector fnma(vector a, vector b_re, vector b_im, vector c) noexcept {
        return _mm256_sub_ps(c, _mm256_fmaddsub_ps(a, b_re, _mm256_mul_ps(swap_parts(a), b_im)));
    }
    static scalar sum(vector v) noexcept {
        __m128 h = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
        h = _mm_add_ps(h, _mm_movehl_ps(h, h));
        return {_mm_cvtss_f32(h), _mm_cvtss_f32(_mm_shuffle_ps(h, h, 1))};
    }
    // Sum of |re|^2 + |im|^2 over the lanes, widened to double.
    static double squared_norm(vector v) noexcept {
        const __m256d lo = _mm256_cvtps_pd(_mm256_castps256_ps128(v));
        const __m256d hi = _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1));
        return Avx256F64::sum(_mm256_fmadd_pd(lo, lo, _mm256_mul_pd(hi, hi)));
    }
    // dst[j*ldd + i] = src[i*lds + j] for a lanes x lanes block; each complex number moves as one
    // 64-bit lane.
    static void transpose_block(const scalar* src, std::uint64_t lds, scalar* dst, std::uint64_t ldd,
                                bool conjugate) noexcept {
        auto row = [&](std::uint64_t i) { return _mm256_loadu_pd(reinterpret_cast<const double*>(src + i * lds)); };
        const __m256d r0 = row(0), r1 = row(1), r2 = row(2), r3 = row(3);
        const __m256d t0 = _mm256_unpacklo_pd(r0, r1), t1 = _mm256_unpackhi_pd(r0, r1);
        const __m256d t2 = _mm256_unpacklo_pd(r2, r3), t3 = _mm256_unpackhi_pd(r2, r3);
        const __m256d out[4] = {_mm256_permute2f128_pd(t0, t2, 0x20), _mm256_permute2f128_pd(t1, t3, 0x20),
                                _mm256_permute2f128_pd(t0, t2, 0x31), _mm256_permute2f128_pd(t1, t3, 0x31)};
        for (int j = 0; j < 4; ++j) {
            const vector v = _mm256_castpd_ps(out[j]);
            store(dst + j * ldd, conjugate ? conj(v) : v);
        }
    }
};

} // namespace quillmark::cpu::simd
