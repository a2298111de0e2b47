// AVX2/FMA micro-kernels of the packed matrix product.
#include "backend/cpu/simd_engine_gemm_body.hpp"
#include "backend/cpu/simd_traits_x86_avx256.hpp"

namespace quillmark::cpu {

GemmMicroKernels gemm_microkernels_avx2() noexcept {
    return gemm_microkernels<isa_avx256, simd::Avx256F64, simd::Avx256F32, simd::Avx256C64>();
}

} // namespace quillmark::cpu
