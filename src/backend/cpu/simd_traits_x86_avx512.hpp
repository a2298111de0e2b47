#pragma once
// Vector traits of the 512-bit engine (AVX-512 F/DQ/CD/BW/VL): the same static interface as
// simd_traits_x86_avx256.hpp, so every kernel template runs unchanged on either. Include only
// from translation units built with the AVX-512 flags.
#include <immintrin.h>

#include <bit>
#include <complex>
#include <cstdint>

namespace quillmark::cpu::simd {

namespace avx512_detail {
// The zero-masked forms (all lanes kept) spare gcc's uninitialised-source warnings.
constexpr __mmask8 kAll8 = 0xFF;
inline __mmask16 first16(int count) noexcept { return static_cast<__mmask16>((1u << count) - 1u); }
inline __mmask8 first8(int count) noexcept { return static_cast<__mmask8>((1u << count) - 1u); }
inline __m256d low_half(__m512d v) noexcept { return _mm512_maskz_extractf64x4_pd(0xF, v, 0); }
inline __m256d high_half(__m512d v) noexcept { return _mm512_maskz_extractf64x4_pd(0xF, v, 1); }
inline __m256 low_half(__m512 v) noexcept { return _mm256_castpd_ps(low_half(_mm512_castps_pd(v))); }
inline __m256 high_half(__m512 v) noexcept { return _mm256_castpd_ps(high_half(_mm512_castps_pd(v))); }
inline float hsum(__m256 q) noexcept {
    __m128 h = _mm_add_ps(_mm256_castps256_ps128(q), _mm256_extractf128_ps(q, 1));
    h = _mm_add_ps(h, _mm_movehl_ps(h, h));
    return _mm_cvtss_f32(_mm_add_ss(h, _mm_shuffle_ps(h, h, 1)));
}
inline double hsum(__m256d q) noexcept {
    const __m128d h = _mm_add_pd(_mm256_castpd256_pd128(q), _mm256_extractf128_pd(q, 1));
    return _mm_cvtsd_f64(_mm_add_sd(h, _mm_unpackhi_pd(h, h)));
}
} // namespace avx512_detail

struct Avx512F32 {
    using scalar = float;
    using vector = __m512;
    static constexpr int lanes = 16;
    static constexpr const char* engine = "AVX512";
    static vector zero() noexcept { return _mm512_setzero_ps(); }
    static vector set1(float v) noexcept { return _mm512_set1_ps(v); }
    static vector broadcast(const float* p) noexcept { return _mm512_set1_ps(*p); }
    static vector load(const float* p) noexcept { return _mm512_loadu_ps(p); }
    static void store(float* p, vector v) noexcept { _mm512_storeu_ps(p, v); }
    static vector load_partial(const float* p, int count) noexcept {
        return _mm512_maskz_loadu_ps(avx512_detail::first16(count), p);
    }
    static void store_partial(float* p, vector v, int count) noexcept {
        _mm512_mask_storeu_ps(p, avx512_detail::first16(count), v);
    }
    static vector add(vector a, vector b) noexcept { return _mm512_add_ps(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm512_sub_ps(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm512_mul_ps(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm512_fmadd_ps(a, b, c); }
    static vector fnma(vector a, vector b, vector c) noexcept { return _mm512_fnmadd_ps(a, b, c); }
    static vector abs(vector a) noexcept { return _mm512_abs_ps(a); }
    static vector max(vector a, vector b) noexcept { return _mm512_maskz_max_ps(0xFFFF, a, b); }
    static float sum(vector v) noexcept {
        return avx512_detail::hsum(_mm256_add_ps(avx512_detail::low_half(v), avx512_detail::high_half(v)));
    }
    static float max_of(vector v) noexcept {
        const __m256 q = _mm256_max_ps(avx512_detail::low_half(v), avx512_detail::high_half(v));
        __m128 h = _mm_max_ps(_mm256_castps256_ps128(q), _mm256_extractf128_ps(q, 1));
        h = _mm_max_ps(h, _mm_movehl_ps(h, h));
        return _mm_cvtss_f32(_mm_max_ss(h, _mm_shuffle_ps(h, h, 1)));
    }
};

struct Avx512F64 {
    using scalar = double;
    using vector = __m512d;
    static constexpr int lanes = 8;
    static constexpr const char* engine = "AVX512";
    static vector zero() noexcept { return _mm512_setzero_pd(); }
    static vector set1(double v) noexcept { return _mm512_set1_pd(v); }
    static vector broadcast(const double* p) noexcept { return _mm512_set1_pd(*p); }
    static vector load(const double* p) noexcept { return _mm512_loadu_pd(p); }
    static void store(double* p, vector v) noexcept { _mm512_storeu_pd(p, v); }
    static vector load_partial(const double* p, int count) noexcept {
        return _mm512_maskz_loadu_pd(avx512_detail::first8(count), p);
    }
    static void store_partial(double* p, vector v, int count) noexcept {
        _mm512_mask_storeu_pd(p, avx512_detail::first8(count), v);
    }
    static vector widen(const double* p) noexcept { return _mm512_loadu_pd(p); }
    static vector widen(const float* p) noexcept {
        return _mm512_maskz_cvtps_pd(avx512_detail::kAll8, _mm256_loadu_ps(p));
    }
    static vector add(vector a, vector b) noexcept { return _mm512_add_pd(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm512_sub_pd(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm512_mul_pd(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm512_fmadd_pd(a, b, c); }
    static vector fnma(vector a, vector b, vector c) noexcept { return _mm512_fnmadd_pd(a, b, c); }
    static vector abs(vector a) noexcept { return _mm512_abs_pd(a); }
    static vector max(vector a, vector b) noexcept { return _mm512_maskz_max_pd(avx512_detail::kAll8, a, b); }
    static double sum(vector v) noexcept {
        return avx512_detail::hsum(_mm256_add_pd(avx512_detail::low_half(v), avx512_detail::high_half(v)));
    }
    static double max_of(vector v) noexcept {
        const __m256d q = _mm256_max_pd(avx512_detail::low_half(v), avx512_detail::high_half(v));
        const __m128d h = _mm_max_pd(_mm256_castpd256_pd128(q), _mm256_extractf128_pd(q, 1));
        return _mm_cvtsd_f64(_mm_max_sd(h, _mm_unpackhi_pd(h, h)));
    }
};

// Interleaved complex<float>: (re, im) pairs in the float lanes.
struct Avx512C64 {
    using real = Avx512F32;
    using scalar = std::complex<float>;
    using vector = __m512;
    static constexpr int lanes = 8; // complex numbers per vector
    static constexpr const char* engine = "AVX512";
    static const float* f(const scalar* p) noexcept { return reinterpret_cast<const float*>(p); }
    static float* f(scalar* p) noexcept { return reinterpret_cast<float*>(p); }

    static vector zero() noexcept { return _mm512_setzero_ps(); }
    static vector set1(scalar z) noexcept {
        return _mm512_castpd_ps(_mm512_set1_pd(std::bit_cast<double>(z)));
    }
    static vector load(const scalar* p) noexcept { return _mm512_loadu_ps(f(p)); }
    static void store(scalar* p, vector v) noexcept { _mm512_storeu_ps(f(p), v); }
    static vector load_partial(const scalar* p, int count) noexcept { return real::load_partial(f(p), 2 * count); }
    static void store_partial(scalar* p, vector v, int count) noexcept { real::store_partial(f(p), v, 2 * count); }
    static vector add(vector a, vector b) noexcept { return _mm512_add_ps(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm512_sub_ps(a, b); }
    static vector swap_parts(vector a) noexcept { return _mm512_maskz_permute_ps(0xFFFF, a, 0xB1); }
    static vector real_parts(vector a) noexcept { return _mm512_maskz_moveldup_ps(0xFFFF, a); }
    static vector imag_parts(vector a) noexcept { return _mm512_maskz_movehdup_ps(0xFFFF, a); }
    static vector conj(vector a) noexcept {
        return _mm512_castsi512_ps(
            _mm512_xor_si512(_mm512_castps_si512(a), _mm512_set1_epi64(std::int64_t(0x8000000000000000ull))));
    }
    static vector negate(vector a) noexcept {
        return _mm512_castsi512_ps(_mm512_xor_si512(_mm512_castps_si512(a), _mm512_set1_epi32(std::int32_t(0x80000000u))));
    }
    static vector mul(vector a, vector b) noexcept {
        return _mm512_fmaddsub_ps(a, real_parts(b), _mm512_mul_ps(swap_parts(a), imag_parts(b)));
    }
    static vector fma(vector a, vector b_re, vector b_im, vector c) noexcept {
        return _mm512_add_ps(c, _mm512_fmaddsub_ps(a, b_re, _mm512_mul_ps(swap_parts(a), b_im)));
    }
    static vector fma(vector a, vector b, vector c) noexcept { return fma(a, real_parts(b), imag_parts(b), c); }
    static vector fnma(vector a, vector b_re, vector b_im, vector c) noexcept {
        return _mm512_sub_ps(c, _mm512_fmaddsub_ps(a, b_re, _mm512_mul_ps(swap_parts(a), b_im)));
    }
    static scalar sum(vector v) noexcept {
        const __m256 q = _mm256_add_ps(avx512_detail::low_half(v), avx512_detail::high_half(v));
        __m128 h = _mm_add_ps(_mm256_castps256_ps128(q), _mm256_extractf128_ps(q, 1));
        h = _mm_add_ps(h, _mm_movehl_ps(h, h));
        return {_mm_cvtss_f32(h), _mm_cvtss_f32(_mm_shuffle_ps(h, h, 1))};
    }
    static double squared_norm(vector v) noexcept {
        const __m512d lo = _mm512_maskz_cvtps_pd(avx512_detail::kAll8, avx512_detail::low_half(v));
        const __m512d hi = _mm512_maskz_cvtps_pd(avx512_detail::kAll8, avx512_detail::high_half(v));
        return Avx512F64::sum(_mm512_fmadd_pd(lo, lo, _mm512_mul_pd(hi, hi)));
    }
    // dst[j*ldd + i] = src[i*lds + j] for a lanes x lanes block, in three rounds of pair,
    // 128-bit and 256-bit interleaving.
    static void transpose_block(const scalar* src, std::uint64_t lds, scalar* dst, std::uint64_t ldd,
                                bool conjugate) noexcept {
        __m512d r[8], t[8], u[8];
        for (int i = 0; i < 8; ++i) r[i] = _mm512_loadu_pd(reinterpret_cast<const double*>(src + i * lds));
        for (int i = 0; i < 8; i += 2) {
            t[i] = _mm512_maskz_unpacklo_pd(avx512_detail::kAll8, r[i], r[i + 1]);
            t[i + 1] = _mm512_maskz_unpackhi_pd(avx512_detail::kAll8, r[i], r[i + 1]);
        }
        for (int h = 0; h < 8; h += 4)
            for (int k = 0; k < 2; ++k) {
                u[h + k] = _mm512_maskz_shuffle_f64x2(avx512_detail::kAll8, t[h + k], t[h + k + 2], 0x88);
                u[h + k + 2] = _mm512_maskz_shuffle_f64x2(avx512_detail::kAll8, t[h + k], t[h + k + 2], 0xDD);
            }
        for (int k = 0; k < 4; ++k) {
            const vector lo = _mm512_castpd_ps(_mm512_maskz_shuffle_f64x2(avx512_detail::kAll8, u[k], u[k + 4], 0x88));
            const vector hi = _mm512_castpd_ps(_mm512_maskz_shuffle_f64x2(avx512_detail::kAll8, u[k], u[k + 4], 0xDD));
            store(dst + k * ldd, conjugate ? conj(lo) : lo);
            store(dst + (k + 4) * ldd, conjugate ? conj(hi) : hi);
        }
    }
};

} // namespace quillmark::cpu::simd
