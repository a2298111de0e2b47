// AVX-512 micro-kernels of the packed matrix product.
#include <immintrin.h>

#include "backend/cpu/gemm_microkernels.hpp"
#include "backend/cpu/gemm_tile.hpp"

namespace quillmark::cpu {
namespace {

struct Avx512F64 {
    using scalar = double;
    using vector = __m512d;
    static constexpr int lanes = 8;
    static vector zero() noexcept { return _mm512_setzero_pd(); }
    static vector load(const double* p) noexcept { return _mm512_loadu_pd(p); }
    static vector broadcast(const double* p) noexcept { return _mm512_set1_pd(*p); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm512_fmadd_pd(a, b, c); }
    static vector add(vector a, vector b) noexcept { return _mm512_add_pd(a, b); }
    static void store(double* p, vector v) noexcept { _mm512_storeu_pd(p, v); }
};

struct Avx512F32 {
    using scalar = float;
    using vector = __m512;
    static constexpr int lanes = 16;
    static vector zero() noexcept { return _mm512_setzero_ps(); }
    static vector load(const float* p) noexcept { return _mm512_loadu_ps(p); }
    static vector broadcast(const float* p) noexcept { return _mm512_set1_ps(*p); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm512_fmadd_ps(a, b, c); }
    static vector add(vector a, vector b) noexcept { return _mm512_add_ps(a, b); }
    static void store(float* p, vector v) noexcept { _mm512_storeu_ps(p, v); }
};

} // namespace

void gemm_microkernel_f64_avx512(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                                 bool accumulate) noexcept {
    gemm_tile<Avx512F64, kAvx512GemmF64Mr, kAvx512GemmF64Nr / Avx512F64::lanes>(kc, a, b, c, ldc, accumulate);
}

void gemm_microkernel_f32_avx512(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                                 bool accumulate) noexcept {
    gemm_tile<Avx512F32, kAvx512GemmF32Mr, kAvx512GemmF32Nr / Avx512F32::lanes>(kc, a, b, c, ldc, accumulate);
}

} // namespace quillmark::cpu
