#pragma once
// The register-blocked tiles shared by the SIMD micro-kernels. `V`/`F` supply the vector type and
// its operations for one dtype and instruction set; the translation unit that defines them is the
// only one built with that instruction set.
#include <cstdint>

namespace quillmark::cpu {

namespace tile_detail {

// Steps before the end of a tile at which its C rows are fetched into L1. The A and B streams
// of a whole tile are larger than L1, so C fetched at the start would be evicted before it is
// read: it is fetched into L2 at the start and into L1 this late.
inline constexpr std::uint64_t kLateFetch = 32;

template <int Locality, std::uint32_t Rows, class T> inline void fetch_rows(T* c, std::uint64_t ldc) noexcept {
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < Rows; ++i) __builtin_prefetch(c + i * ldc, 1, Locality);
}

// Runs `steps` depth steps of a tile whose C rows `fetch<Locality>()` prefetches.
template <class Step, class Fetch> inline void run_steps(std::uint64_t steps, Step&& step, Fetch&& fetch) noexcept {
    const std::uint64_t early = steps > kLateFetch ? steps - kLateFetch : 0;
    fetch.template operator()<2>();
#pragma GCC unroll 2
    for (std::uint64_t p = 0; p < early; ++p) step();
    fetch.template operator()<3>();
#pragma GCC unroll 2
    for (std::uint64_t p = early; p < steps; ++p) step();
}

template <class V, std::uint32_t MR, std::uint32_t NV> inline void clear(typename V::vector (&acc)[MR][NV]) noexcept {
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (std::uint32_t v = 0; v < NV; ++v) acc[i][v] = V::zero();
}

} // namespace tile_detail

// c[i*ldc + j] (+)= sum_p a[p*MR + i] * b[p*NR + j] for an MR x (NV * V::lanes) tile.
template <class V, std::uint32_t MR, std::uint32_t NV>
inline void gemm_tile(std::uint64_t kc, const typename V::scalar* a, const typename V::scalar* b,
                      typename V::scalar* c, std::uint64_t ldc, bool accumulate) noexcept {
    typename V::vector acc[MR][NV];
    tile_detail::clear<V>(acc);
    auto step = [&]() __attribute__((always_inline)) {
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
    };
    tile_detail::run_steps(kc, step, [&]<int L>() { tile_detail::fetch_rows<L, MR>(c, ldc); });
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
    tile_detail::clear<F>(re);
    tile_detail::clear<F>(im);
    auto step = [&]() __attribute__((always_inline)) {
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
    };
    tile_detail::run_steps(kc / 2, step, [&]<int L>() { tile_detail::fetch_rows<L, MR>(c, ldc); });
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

// Split-complex tile (SplitGemmMicroKernel): MR rows by NV vectors of complex columns, one
// accumulator per part. Each accumulator takes its two products per step in the embedding's
// order; with 2 * MR * NV accumulators the two-FMA chains stay shorter than a step.
template <class F, std::uint32_t MR, std::uint32_t NV>
inline void split_complex_gemm_tile(std::uint64_t kc, const typename F::scalar* a, const typename F::scalar* b,
                                    typename F::scalar* c_re, typename F::scalar* c_im, std::uint64_t ldc,
                                    bool accumulate) noexcept {
    constexpr std::uint32_t NR = NV * F::lanes;
    typename F::vector re[MR][NV], im[MR][NV];
    tile_detail::clear<F>(re);
    tile_detail::clear<F>(im);
    auto step = [&]() __attribute__((always_inline)) {
        typename F::vector br[NV], bi[NV];
#pragma GCC unroll 4
        for (std::uint32_t v = 0; v < NV; ++v) {
            br[v] = F::load(b + F::lanes * v);
            bi[v] = F::load(b + NR + F::lanes * v);
        }
#pragma GCC unroll 16
        for (std::uint32_t i = 0; i < MR; ++i) {
            const typename F::vector ar = F::broadcast(a + i);
#pragma GCC unroll 4
            for (std::uint32_t v = 0; v < NV; ++v) {
                re[i][v] = F::fma(ar, br[v], re[i][v]);
                im[i][v] = F::fma(ar, bi[v], im[i][v]);
            }
        }
#pragma GCC unroll 16
        for (std::uint32_t i = 0; i < MR; ++i) {
            const typename F::vector ai = F::broadcast(a + MR + i);
#pragma GCC unroll 4
            for (std::uint32_t v = 0; v < NV; ++v) {
                re[i][v] = F::fnma(ai, bi[v], re[i][v]);
                im[i][v] = F::fma(ai, br[v], im[i][v]);
            }
        }
        a += 2 * MR;
        b += 2 * NR;
    };
    tile_detail::run_steps(kc / 2, step, [&]<int L>() {
        tile_detail::fetch_rows<L, MR>(c_re, ldc);
        tile_detail::fetch_rows<L, MR>(c_im, ldc);
    });
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < MR; ++i)
#pragma GCC unroll 4
        for (std::uint32_t v = 0; v < NV; ++v) {
            typename F::scalar* r = c_re + i * ldc + F::lanes * v;
            typename F::scalar* m = c_im + i * ldc + F::lanes * v;
            F::store(r, accumulate ? F::add(F::load(r), re[i][v]) : re[i][v]);
            F::store(m, accumulate ? F::add(F::load(m), im[i][v]) : im[i][v]);
        }
}

} // namespace quillmark::cpu
