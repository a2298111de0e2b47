// AVX2/FMA micro-kernels of the packed matrix product.
#include <immintrin.h>

#include "backend/cpu/gemm_microkernels.hpp"

namespace quillmark::cpu {
namespace {

template <int MR, int NV>
inline void tile_f64(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                     bool accumulate) noexcept {
    __m256d acc[MR][NV];
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) acc[i][v] = _mm256_setzero_pd();
    for (std::uint64_t p = 0; p < kc; ++p) {
        __m256d bv[NV];
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) bv[v] = _mm256_loadu_pd(b + 4 * v);
#pragma GCC unroll 16
        for (int i = 0; i < MR; ++i) {
            const __m256d ai = _mm256_broadcast_sd(a + i);
#pragma GCC unroll 4
            for (int v = 0; v < NV; ++v) acc[i][v] = _mm256_fmadd_pd(ai, bv[v], acc[i][v]);
        }
        a += MR;
        b += 4 * NV;
    }
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) {
            double* out = c + i * ldc + 4 * v;
            _mm256_storeu_pd(out, accumulate ? _mm256_add_pd(_mm256_loadu_pd(out), acc[i][v]) : acc[i][v]);
        }
}

template <int MR, int NV>
inline void tile_f32(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                     bool accumulate) noexcept {
    __m256 acc[MR][NV];
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) acc[i][v] = _mm256_setzero_ps();
    for (std::uint64_t p = 0; p < kc; ++p) {
        __m256 bv[NV];
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) bv[v] = _mm256_loadu_ps(b + 8 * v);
#pragma GCC unroll 16
        for (int i = 0; i < MR; ++i) {
            const __m256 ai = _mm256_broadcast_ss(a + i);
#pragma GCC unroll 4
            for (int v = 0; v < NV; ++v) acc[i][v] = _mm256_fmadd_ps(ai, bv[v], acc[i][v]);
        }
        a += MR;
        b += 8 * NV;
    }
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) {
            float* out = c + i * ldc + 8 * v;
            _mm256_storeu_ps(out, accumulate ? _mm256_add_ps(_mm256_loadu_ps(out), acc[i][v]) : acc[i][v]);
        }
}

} // namespace

void gemm_microkernel_f64_avx2(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                               bool accumulate) noexcept {
    tile_f64<kAvx2GemmF64Mr, kAvx2GemmF64Nr / 4>(kc, a, b, c, ldc, accumulate);
}

void gemm_microkernel_f32_avx2(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                               bool accumulate) noexcept {
    tile_f32<kAvx2GemmF32Mr, kAvx2GemmF32Nr / 8>(kc, a, b, c, ldc, accumulate);
}

} // namespace quillmark::cpu
