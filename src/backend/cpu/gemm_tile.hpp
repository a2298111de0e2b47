#pragma once
// The register-blocked tile shared by the SIMD micro-kernels. `V` supplies the vector type and
// its operations for one dtype and instruction set; the translation unit that defines `V` is the
// only one built with that instruction set.
#include <cstdint>

namespace quillmark::cpu {

// c[i*ldc + j] (+)= sum_p a[p*MR + i] * b[p*NR + j] for an MR x (NV * V::lanes) tile.
template <class V, std::uint32_t MR, std::uint32_t NV>
inline void gemm_tile(std::uint64_t kc, const typename V::scalar* a, const typename V::scalar* b,
                      typename V::scalar* c, std::uint64_t ldc, bool accumulate) noexcept {
    typename V::vector acc[MR][NV];
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (std::uint32_t v = 0; v < NV; ++v) acc[i][v] = V::zero();
    // The C tile is written once at the end: fetch it while the products run.
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < MR; ++i) __builtin_prefetch(c + i * ldc, 1);
#pragma GCC unroll 4
    for (std::uint64_t p = 0; p < kc; ++p) {
        __builtin_prefetch(b + 8 * V::lanes * NV);
        __builtin_prefetch(a + 16 * MR);
        typename V::vector bv[NV];
#pragma GCC unroll 4
        for (std::uint32_t v = 0; v < NV; ++v) bv[v] = V::load(b + V::lanes * v);
#pragma GCC unroll 16
        for (std::uint32_t i = 0; i < MR; ++i) {
            const typename V::vector ai = V::broadcast(a + i);
#pragma GCC unroll 4
            for (std::uint32_t v = 0; v < NV; ++v) acc[i][v] = V::fma(ai, bv[v], acc[i][v]);
        }
        a += MR;
        b += V::lanes * NV;
    }
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (std::uint32_t v = 0; v < NV; ++v) {
            typename V::scalar* out = c + i * ldc + V::lanes * v;
            V::store(out, accumulate ? V::add(V::load(out), acc[i][v]) : acc[i][v]);
        }
}

} // namespace quillmark::cpu
