// AVX-512 streaming vector kernels.
#include "backend/cpu/simd_traits_x86_avx512.hpp"
#include "backend/cpu/vector_kernels_body.hpp"

namespace quillmark::cpu {

VectorKernelSet<double> vector_kernels_f64_avx512() noexcept {
    return vector_body::kernel_set<simd::Avx512F64, simd::Avx512F64>(simd::Avx512F64::engine);
}
VectorKernelSet<float> vector_kernels_f32_avx512() noexcept {
    return vector_body::kernel_set<simd::Avx512F32, simd::Avx512F64>(simd::Avx512F32::engine);
}

} // namespace quillmark::cpu
