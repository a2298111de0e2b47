// AVX2 plane rotation of two interleaved complex double rows for the shifted QR sweeps. Every
// product is rounded on its own (no contraction to FMA), so the bits match the scalar loop.
#include <immintrin.h>

#include "backend/cpu/fallback_complex_eigen_solver.hpp"

namespace quillmark::cpu {
namespace {

// An empty asm keeps the compiler from fusing the product into the following add.
inline __m256d kept(__m256d v) noexcept {
    __asm__("" : "+x"(v));
    return v;
}
inline __m128d kept(__m128d v) noexcept {
    __asm__("" : "+x"(v));
    return v;
}

} // namespace

void complex_rotate_avx2(double* x, double* y, std::uint64_t n, double c, const double* s1, const double* s2) noexcept {
    const __m256d cv = _mm256_set1_pd(c);
    const __m256d s1r = _mm256_set1_pd(s1[0]), s1i = _mm256_set1_pd(s1[1]);
    const __m256d s2r = _mm256_set1_pd(s2[0]), s2i = _mm256_set1_pd(s2[1]);
    std::uint64_t i = 0;
    for (; i + 2 <= n; i += 2) {
        const __m256d a = _mm256_loadu_pd(x + 2 * i), b = _mm256_loadu_pd(y + 2 * i);
        const __m256d z1 = _mm256_addsub_pd(kept(_mm256_mul_pd(s1r, b)), kept(_mm256_mul_pd(s1i, _mm256_permute_pd(b, 0b0101))));
        const __m256d z2 = _mm256_addsub_pd(kept(_mm256_mul_pd(s2r, a)), kept(_mm256_mul_pd(s2i, _mm256_permute_pd(a, 0b0101))));
        _mm256_storeu_pd(x + 2 * i, _mm256_add_pd(kept(_mm256_mul_pd(cv, a)), z1));
        _mm256_storeu_pd(y + 2 * i, _mm256_sub_pd(kept(_mm256_mul_pd(cv, b)), z2));
    }
    if (i < n) {
        const __m128d c1 = _mm_set1_pd(c);
        const __m128d a = _mm_loadu_pd(x + 2 * i), b = _mm_loadu_pd(y + 2 * i);
        const __m128d z1 = _mm_addsub_pd(kept(_mm_mul_pd(_mm_set1_pd(s1[0]), b)),
                                         kept(_mm_mul_pd(_mm_set1_pd(s1[1]), _mm_permute_pd(b, 0b01))));
        const __m128d z2 = _mm_addsub_pd(kept(_mm_mul_pd(_mm_set1_pd(s2[0]), a)),
                                         kept(_mm_mul_pd(_mm_set1_pd(s2[1]), _mm_permute_pd(a, 0b01))));
        _mm_storeu_pd(x + 2 * i, _mm_add_pd(kept(_mm_mul_pd(c1, a)), z1));
        _mm_storeu_pd(y + 2 * i, _mm_sub_pd(kept(_mm_mul_pd(c1, b)), z2));
    }
}

} // namespace quillmark::cpu
