// AVX2 kernels of the real Jacobi sweep.
#include "backend/cpu/structured_solver_jacobi_body.hpp"

#include <immintrin.h>

#include "backend/cpu/simd_traits_x86_avx256.hpp"

namespace quillmark::cpu {
namespace {

struct JacobiAvx2 : simd::Avx256F64 {
    using mask = __m256d;
    static void transpose(vector (&r)[4]) noexcept {
        const vector t0 = _mm256_unpacklo_pd(r[0], r[1]), t1 = _mm256_unpackhi_pd(r[0], r[1]);
        const vector t2 = _mm256_unpacklo_pd(r[2], r[3]), t3 = _mm256_unpackhi_pd(r[2], r[3]);
        r[0] = _mm256_permute2f128_pd(t0, t2, 0x20);
        r[1] = _mm256_permute2f128_pd(t1, t3, 0x20);
        r[2] = _mm256_permute2f128_pd(t0, t2, 0x31);
        r[3] = _mm256_permute2f128_pd(t1, t3, 0x31);
    }
    // Lanes i < count set (count may be negative or exceed the width).
    static mask lanes_below(std::int64_t count) noexcept {
        return _mm256_castsi256_pd(
            _mm256_cmpgt_epi64(_mm256_set1_epi64x(count), _mm256_setr_epi64x(0, 1, 2, 3)));
    }
    static vector blend(vector off, vector on, mask m) noexcept { return _mm256_blendv_pd(off, on, m); }
    static vector negate(vector v) noexcept { return _mm256_xor_pd(v, _mm256_set1_pd(-0.0)); }
};

} // namespace

JacobiKernelSet jacobi_kernels_avx2() noexcept { return jacobi_body::kernel_set<JacobiAvx2>("AVX2"); }

} // namespace quillmark::cpu
