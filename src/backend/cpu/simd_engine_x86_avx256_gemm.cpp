// AVX2/FMA micro-kernels of the packed matrix product.
#include <immintrin.h>

#include "backend/cpu/gemm_microkernels.hpp"
#include "backend/cpu/gemm_tile.hpp"

namespace quillmark::cpu {
namespace {

struct Avx2F64 {
    using scalar = double;
    using vector = __m256d;
    static constexpr int lanes = 4;
    static vector zero() noexcept { return _mm256_setzero_pd(); }
    static vector load(const double* p) noexcept { return _mm256_loadu_pd(p); }
    static vector broadcast(const double* p) noexcept { return _mm256_broadcast_sd(p); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm256_fmadd_pd(a, b, c); }
    static vector add(vector a, vector b) noexcept { return _mm256_add_pd(a, b); }
    static void store(double* p, vector v) noexcept { _mm256_storeu_pd(p, v); }
};

struct Avx2F32 {
    using scalar = float;
    using vector = __m256;
    static constexpr int lanes = 8;
    static vector zero() noexcept { return _mm256_setzero_ps(); }
    static vector load(const float* p) noexcept { return _mm256_loadu_ps(p); }
    static vector broadcast(const float* p) noexcept { return _mm256_broadcast_ss(p); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm256_fmadd_ps(a, b, c); }
    static vector add(vector a, vector b) noexcept { return _mm256_add_ps(a, b); }
    static void store(float* p, vector v) noexcept { _mm256_storeu_ps(p, v); }
};

} // namespace

void gemm_microkernel_f64_avx2(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                               bool accumulate) noexcept {
    gemm_tile<Avx2F64, kAvx2GemmF64Mr, kAvx2GemmF64Nr / Avx2F64::lanes>(kc, a, b, c, ldc, accumulate);
}

void gemm_microkernel_f32_avx2(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                               bool accumulate) noexcept {
    gemm_tile<Avx2F32, kAvx2GemmF32Mr, kAvx2GemmF32Nr / Avx2F32::lanes>(kc, a, b, c, ldc, accumulate);
}

} // namespace quillmark::cpu
