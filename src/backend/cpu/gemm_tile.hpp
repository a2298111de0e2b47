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

// Complex tile on interleaved operands, `Z` the complex traits: per complex depth step the packed
// A holds the MR real parts then the MR imaginary parts (a[2p*MR + i], a[(2p+1)*MR + i]) and the
// packed B NV vectors of interleaved B(p, j). Real and imaginary parts of A scale the unsplit B
// row into separate accumulators, so B is packed once as it stands (half the embedding's panel)
// and one swap per output vector at the end forms the cross terms. kc counts reals (2 per step).
template <class Z, std::uint32_t MR, std::uint32_t NV>
inline void complex_gemm_tile(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                              bool accumulate) noexcept {
    using F = typename Z::real;
    typename F::vector re[MR][NV], im[MR][NV];
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (std::uint32_t v = 0; v < NV; ++v) re[i][v] = im[i][v] = F::zero();
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < MR; ++i) __builtin_prefetch(c + i * ldc, 1);
#pragma GCC unroll 2
    for (std::uint64_t p = 0; p < kc; p += 2) {
        typename F::vector bv[NV];
#pragma GCC unroll 4
        for (std::uint32_t v = 0; v < NV; ++v) bv[v] = F::load(b + F::lanes * v);
#pragma GCC unroll 16
        for (std::uint32_t i = 0; i < MR; ++i) {
            const typename F::vector ar = F::broadcast(a + i), ai = F::broadcast(a + MR + i);
#pragma GCC unroll 4
            for (std::uint32_t v = 0; v < NV; ++v) {
                re[i][v] = F::fma(ar, bv[v], re[i][v]);
                im[i][v] = F::fma(ai, bv[v], im[i][v]);
            }
        }
        a += 2 * MR;
        b += F::lanes * NV;
    }
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (std::uint32_t v = 0; v < NV; ++v) {
            // im holds (ai br, ai bi); the product needs (-ai bi, ai br).
            const typename F::vector sum = F::sub(re[i][v], Z::conj(Z::swap_parts(im[i][v])));
            float* out = c + i * ldc + F::lanes * v;
            F::store(out, accumulate ? F::add(F::load(out), sum) : sum);
        }
}

} // namespace quillmark::cpu
