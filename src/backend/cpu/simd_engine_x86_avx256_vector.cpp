// AVX2/FMA streaming vector kernels.
#include "backend/cpu/simd_traits_x86_avx256.hpp"
#include "backend/cpu/vector_kernels_body.hpp"

namespace quillmark::cpu {

VectorKernelSet<double> vector_kernels_f64_avx2() noexcept {
    return vector_body::kernel_set<simd::Avx256F64, simd::Avx256F64>(simd::Avx256F64::engine);
}
VectorKernelSet<float> vector_kernels_f32_avx2() noexcept {
    return vector_body::kernel_set<simd::Avx256F32, simd::Avx256F64>(simd::Avx256F32::engine);
}

} // namespace quillmark::cpu
