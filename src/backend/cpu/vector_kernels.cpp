#include "backend/cpu/vector_kernels.hpp"

#include <emmintrin.h>

#include "backend/cpu/vector_kernels_body.hpp"
#include "backend/cpu/kernel_variants.hpp"
#include "runtime/simd_selection.hpp"

namespace quillmark::cpu {
namespace {

// SSE2 is the x86-64 baseline, so the portable set is written on it.
struct Sse2F64 {
    using scalar = double;
    using vector = __m128d;
    static constexpr std::uint64_t lanes = 2;
    static vector zero() noexcept { return _mm_setzero_pd(); }
    static vector set1(double v) noexcept { return _mm_set1_pd(v); }
    static vector load(const double* p) noexcept { return _mm_loadu_pd(p); }
    static vector widen(const double* p) noexcept { return _mm_loadu_pd(p); }
    static vector widen(const float* p) noexcept {
        return _mm_cvtps_pd(_mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(p))));
    }
    static void store(double* p, vector v) noexcept { _mm_storeu_pd(p, v); }
    static vector add(vector a, vector b) noexcept { return _mm_add_pd(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm_sub_pd(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm_mul_pd(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm_add_pd(_mm_mul_pd(a, b), c); }
    static vector abs(vector a) noexcept { return _mm_andnot_pd(_mm_set1_pd(-0.0), a); }
    static vector max(vector a, vector b) noexcept { return _mm_max_pd(a, b); }
    static double sum(vector v) noexcept { return _mm_cvtsd_f64(_mm_add_sd(v, _mm_unpackhi_pd(v, v))); }
    static double max_of(vector v) noexcept { return _mm_cvtsd_f64(_mm_max_sd(v, _mm_unpackhi_pd(v, v))); }
};

struct Sse2F32 {
    using scalar = float;
    using vector = __m128;
    static constexpr std::uint64_t lanes = 4;
    static vector zero() noexcept { return _mm_setzero_ps(); }
    static vector set1(float v) noexcept { return _mm_set1_ps(v); }
    static vector load(const float* p) noexcept { return _mm_loadu_ps(p); }
    static void store(float* p, vector v) noexcept { _mm_storeu_ps(p, v); }
    static vector add(vector a, vector b) noexcept { return _mm_add_ps(a, b); }
    static vector sub(vector a, vector b) noexcept { return _mm_sub_ps(a, b); }
    static vector mul(vector a, vector b) noexcept { return _mm_mul_ps(a, b); }
    static vector fma(vector a, vector b, vector c) noexcept { return _mm_add_ps(_mm_mul_ps(a, b), c); }
    static float sum(vector v) noexcept {
        const vector h = _mm_add_ps(v, _mm_movehl_ps(v, v));
        return _mm_cvtss_f32(_mm_add_ss(h, _mm_shuffle_ps(h, h, 1)));
    }
};

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
