// AVX-512 micro-kernels of the packed matrix product.
#include "backend/cpu/simd_engine_gemm_body.hpp"
#include "backend/cpu/simd_traits_x86_avx512.hpp"

namespace quillmark::cpu {

GemmMicroKernels gemm_microkernels_avx512() noexcept {
    return gemm_microkernels<isa_avx512, simd::Avx512F64, simd::Avx512F32, simd::Avx512C64>();
}

} // namespace quillmark::cpu
