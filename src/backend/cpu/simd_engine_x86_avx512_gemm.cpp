// AVX-512 micro-kernels of the packed matrix product.
#include <immintrin.h>

#include "backend/cpu/gemm_microkernels.hpp"

namespace quillmark::cpu {
namespace {

template <int MR, int NV>
inline void tile_f64(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                     bool accumulate) noexcept {
    __m512d acc[MR][NV];
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) acc[i][v] = _mm512_setzero_pd();
    for (std::uint64_t p = 0; p < kc; ++p) {
        __m512d bv[NV];
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) bv[v] = _mm512_loadu_pd(b + 8 * v);
#pragma GCC unroll 16
        for (int i = 0; i < MR; ++i) {
            const __m512d ai = _mm512_set1_pd(a[i]);
#pragma GCC unroll 4
            for (int v = 0; v < NV; ++v) acc[i][v] = _mm512_fmadd_pd(ai, bv[v], acc[i][v]);
        }
        a += MR;
        b += 8 * NV;
    }
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) {
            double* out = c + i * ldc + 8 * v;
            _mm512_storeu_pd(out, accumulate ? _mm512_add_pd(_mm512_loadu_pd(out), acc[i][v]) : acc[i][v]);
        }
}

template <int MR, int NV>
inline void tile_f32(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                     bool accumulate) noexcept {
    __m512 acc[MR][NV];
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) acc[i][v] = _mm512_setzero_ps();
    for (std::uint64_t p = 0; p < kc; ++p) {
        __m512 bv[NV];
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) bv[v] = _mm512_loadu_ps(b + 16 * v);
#pragma GCC unroll 16
        for (int i = 0; i < MR; ++i) {
            const __m512 ai = _mm512_set1_ps(a[i]);
#pragma GCC unroll 4
            for (int v = 0; v < NV; ++v) acc[i][v] = _mm512_fmadd_ps(ai, bv[v], acc[i][v]);
        }
        a += MR;
        b += 16 * NV;
    }
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) {
            float* out = c + i * ldc + 16 * v;
            _mm512_storeu_ps(out, accumulate ? _mm512_add_ps(_mm512_loadu_ps(out), acc[i][v]) : acc[i][v]);
        }
}

} // namespace

void gemm_microkernel_f64_avx512(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                                 bool accumulate) noexcept {
    tile_f64<kAvx512GemmF64Mr, kAvx512GemmF64Nr / 8>(kc, a, b, c, ldc, accumulate);
}

void gemm_microkernel_f32_avx512(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                                 bool accumulate) noexcept {
    tile_f32<kAvx512GemmF32Mr, kAvx512GemmF32Nr / 16>(kc, a, b, c, ldc, accumulate);
}

} // namespace quillmark::cpu
