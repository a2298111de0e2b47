// AVX2/FMA streaming vector kernels.
#include <immintrin.h>

#include "backend/cpu/vector_kernels_body.hpp"

namespace quillmark::cpu {
namespace {

struct Avx2F64 {
    using scalar = double;
    using vector = __m256d;
    static constexpr std::uint64_t lanes = 4;
    static vector zero() noexcept { return _mm256_setzero_pd(); }
    static vector set1(double v) noexcept { return _mm256_set1_pd(v); }
    static vector load(const double* p) noexcept { return _mm256_loadu_pd(p); }
    static vector widen(const double* p) noexcept { return _mm256_loadu_pd(p); }
    static vector widen(const float* p) noexcept { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }
    static void store(double* p, vector v) noexcept { _mm256_storeu_pd(p, v); }
    static vector add(vector a, vector b) noexcept { return _mm256_add_pd(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm256_sub_pd(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm256_mul_pd(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm256_fmadd_pd(a, b, c); }
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

struct Avx2F32 {
    using scalar = float;
    using vector = __m256;
    static constexpr std::uint64_t lanes = 8;
    static vector zero() noexcept { return _mm256_setzero_ps(); }
    static vector set1(float v) noexcept { return _mm256_set1_ps(v); }
    static vector load(const float* p) noexcept { return _mm256_loadu_ps(p); }
    static void store(float* p, vector v) noexcept { _mm256_storeu_ps(p, v); }
    static vector add(vector a, vector b) noexcept { return _mm256_add_ps(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm256_sub_ps(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm256_mul_ps(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm256_fmadd_ps(a, b, c); }
    static float sum(vector v) noexcept {
        __m128 h = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
        h = _mm_add_ps(h, _mm_movehl_ps(h, h));
        return _mm_cvtss_f32(_mm_add_ss(h, _mm_shuffle_ps(h, h, 1)));
    }
};

} // namespace

VectorKernelSet<double> vector_kernels_f64_avx2() noexcept { return vector_body::kernel_set<Avx2F64, Avx2F64>("AVX2"); }
VectorKernelSet<float> vector_kernels_f32_avx2() noexcept { return vector_body::kernel_set<Avx2F32, Avx2F64>("AVX2"); }

} // namespace quillmark::cpu
