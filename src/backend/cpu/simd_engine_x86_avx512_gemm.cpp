// AVX-512 micro-kernels of the packed matrix product.
#include "backend/cpu/gemm_tile.hpp"
#include "backend/cpu/simd_isa_config.hpp"
#include "backend/cpu/simd_traits_x86_avx512.hpp"

namespace quillmark::cpu {

void gemm_microkernel_f64_avx512(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                               bool accumulate) noexcept {
    using V = simd::Avx512F64;
    constexpr GemmBlocking g = isa_avx512::gemm_f64;
    gemm_tile<V, g.mr, g.nr / V::lanes>(kc, a, b, c, ldc, accumulate);
}

void gemm_microkernel_f32_avx512(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                               bool accumulate) noexcept {
    using V = simd::Avx512F32;
    constexpr GemmBlocking g = isa_avx512::gemm_f32;
    gemm_tile<V, g.mr, g.nr / V::lanes>(kc, a, b, c, ldc, accumulate);
}

void gemm_microkernel_c64_avx512(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                               bool accumulate) noexcept {
    constexpr GemmBlocking g = isa_avx512::gemm_c64;
    complex_gemm_tile<simd::Avx512C64, g.mr, g.nr / simd::Avx512F32::lanes>(kc, a, b, c, ldc, accumulate);
}

void gemm_split_microkernel_f64_avx512(std::uint64_t kc, const double* a, const double* b, double* c_re, double* c_im,
                                       std::uint64_t ldc, bool accumulate) noexcept {
    using V = simd::Avx512F64;
    constexpr GemmBlocking g = isa_avx512::gemm_split_f64;
    split_complex_gemm_tile<V, g.mr, g.nr / V::lanes>(kc, a, b, c_re, c_im, ldc, accumulate);
}

void gemm_split_microkernel_f32_avx512(std::uint64_t kc, const float* a, const float* b, float* c_re, float* c_im,
                                       std::uint64_t ldc, bool accumulate) noexcept {
    using V = simd::Avx512F32;
    constexpr GemmBlocking g = isa_avx512::gemm_split_f32;
    split_complex_gemm_tile<V, g.mr, g.nr / V::lanes>(kc, a, b, c_re, c_im, ldc, accumulate);
}

} // namespace quillmark::cpu
