// AVX-512 streaming vector kernels.
#include <immintrin.h>

#include "backend/cpu/vector_kernels_body.hpp"

namespace quillmark::cpu {
namespace {

// The zero-masked forms (all lanes kept) spare gcc's uninitialised-source warnings.
constexpr __mmask8 kAll = 0xFF;

struct Avx512F64 {
    using scalar = double;
    using vector = __m512d;
    static constexpr std::uint64_t lanes = 8;
    static vector zero() noexcept { return _mm512_setzero_pd(); }
    static vector set1(double v) noexcept { return _mm512_set1_pd(v); }
    static vector load(const double* p) noexcept { return _mm512_loadu_pd(p); }
    static vector widen(const double* p) noexcept { return _mm512_loadu_pd(p); }
    static vector widen(const float* p) noexcept { return _mm512_maskz_cvtps_pd(kAll, _mm256_loadu_ps(p)); }
    static void store(double* p, vector v) noexcept { _mm512_storeu_pd(p, v); }
    static vector add(vector a, vector b) noexcept { return _mm512_add_pd(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm512_sub_pd(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm512_mul_pd(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm512_fmadd_pd(a, b, c); }
    static vector abs(vector a) noexcept { return _mm512_abs_pd(a); }
    static vector max(vector a, vector b) noexcept { return _mm512_maskz_max_pd(kAll, a, b); }
    static double sum(vector v) noexcept {
        const __m256d q = _mm256_add_pd(_mm512_maskz_extractf64x4_pd(0xF, v, 0), _mm512_maskz_extractf64x4_pd(0xF, v, 1));
        const __m128d h = _mm_add_pd(_mm256_castpd256_pd128(q), _mm256_extractf128_pd(q, 1));
        return _mm_cvtsd_f64(_mm_add_sd(h, _mm_unpackhi_pd(h, h)));
    }
    static double max_of(vector v) noexcept {
        const __m256d q = _mm256_max_pd(_mm512_maskz_extractf64x4_pd(0xF, v, 0), _mm512_maskz_extractf64x4_pd(0xF, v, 1));
        const __m128d h = _mm_max_pd(_mm256_castpd256_pd128(q), _mm256_extractf128_pd(q, 1));
        return _mm_cvtsd_f64(_mm_max_sd(h, _mm_unpackhi_pd(h, h)));
    }
};

struct Avx512F32 {
    using scalar = float;
    using vector = __m512;
    static constexpr std::uint64_t lanes = 16;
    static vector zero() noexcept { return _mm512_setzero_ps(); }
    static vector set1(float v) noexcept { return _mm512_set1_ps(v); }
    static vector load(const float* p) noexcept { return _mm512_loadu_ps(p); }
    static void store(float* p, vector v) noexcept { _mm512_storeu_ps(p, v); }
    static vector add(vector a, vector b) noexcept { return _mm512_add_ps(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm512_sub_ps(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm512_mul_ps(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm512_fmadd_ps(a, b, c); }
    static float sum(vector v) noexcept {
        const __m256 q = _mm256_add_ps(_mm256_castpd_ps(_mm512_maskz_extractf64x4_pd(0xF, _mm512_castps_pd(v), 0)),
                                       _mm256_castpd_ps(_mm512_maskz_extractf64x4_pd(0xF, _mm512_castps_pd(v), 1)));
        __m128 h = _mm_add_ps(_mm256_castps256_ps128(q), _mm256_extractf128_ps(q, 1));
        h = _mm_add_ps(h, _mm_movehl_ps(h, h));
        return _mm_cvtss_f32(_mm_add_ss(h, _mm_shuffle_ps(h, h, 1)));
    }
};

} // namespace

VectorKernelSet<double> vector_kernels_f64_avx512() noexcept {
    return vector_body::kernel_set<Avx512F64, Avx512F64>("AVX512");
}
VectorKernelSet<float> vector_kernels_f32_avx512() noexcept {
    return vector_body::kernel_set<Avx512F32, Avx512F64>("AVX512");
}

} // namespace quillmark::cpu
