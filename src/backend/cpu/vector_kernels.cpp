#include "backend/cpu/vector_kernels.hpp"

#include "backend/cpu/vector_kernels_body.hpp"
#include "backend/cpu/kernel_variants.hpp"
#include "backend/cpu/simd_traits_x86_sse2.hpp"
#include "runtime/simd_selection.hpp"

namespace quillmark::cpu {
namespace {

using simd::Sse2F32;
using simd::Sse2F64;

template <class R> VectorKernelSet<R> portable_set() noexcept {
    if constexpr (sizeof(R) == 8) return vector_body::kernel_set<Sse2F64, Sse2F64>("portable");
    else return vector_body::kernel_set<Sse2F32, Sse2F64>("portable");
}

template <class R> std::vector<VectorKernelSet<R>> simd_sets(bool avx2, bool avx512) {
    std::vector<VectorKernelSet<R>> out;
    if constexpr (sizeof(R) == 8) {
        if (avx2) out.push_back(vector_kernels_f64_avx2());
        if (avx512) out.push_back(vector_kernels_f64_avx512());
    } else {
        if (avx2) out.push_back(vector_kernels_f32_avx2());
        if (avx512) out.push_back(vector_kernels_f32_avx512());
    }
    return out;
}

} // namespace

template <class R> std::vector<VectorKernelSet<R>> available_vector_kernels() {
    return available_variants<VectorKernelSet<R>>(portable_set<R>, simd_sets<R>);
}

template <class R> const VectorKernelSet<R>& default_vector_kernels() {
    static const VectorKernelSet<R> chosen = selected_variant<VectorKernelSet<R>>(portable_set<R>, simd_sets<R>);
    return chosen;
}

template std::vector<VectorKernelSet<float>> available_vector_kernels<float>();
template std::vector<VectorKernelSet<double>> available_vector_kernels<double>();
template const VectorKernelSet<float>& default_vector_kernels<float>();
template const VectorKernelSet<double>& default_vector_kernels<double>();

} // namespace quillmark::cpu
