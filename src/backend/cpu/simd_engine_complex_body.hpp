#pragma once
// Complex single-precision kernels written once over the vector traits: `Z` is the interleaved
// complex traits of one instruction set (Avx256C64, Avx512C64) and `Z::real` its float traits.
// Only engine translation units include this, with their instruction set enabled.
#include <algorithm>
#include <cstdint>

#include "backend/cpu/simd_engine.hpp"

namespace quillmark::cpu::complex_body {

using u64 = std::uint64_t;

// ROWS rows share the loads of x. Per row, `direct` gathers (ar xr, ai xi) and `swapped`
// (ar xi, ai xr): the real part is the alternating sum of `direct`, the imaginary part the sum
// of `swapped`; the tail is read with masked loads, so it adds zeros.
template <class Z, int ROWS>
inline void gemv_block(u64 n, const c64* a, u64 lda, const c64* x, c64* y) noexcept {
    using F = typename Z::real;
    constexpr u64 L = Z::lanes;
    typename Z::vector direct[ROWS], swapped[ROWS];
#pragma GCC unroll 4
    for (int r = 0; r < ROWS; ++r) direct[r] = swapped[r] = Z::zero();
    u64 j = 0;
    for (; j + L <= n; j += L) {
        const typename Z::vector xv = Z::load(x + j), xs = Z::swap_parts(xv);
#pragma GCC unroll 4
        for (int r = 0; r < ROWS; ++r) {
            const typename Z::vector av = Z::load(a + r * lda + j);
            direct[r] = F::fma(av, xv, direct[r]);
            swapped[r] = F::fma(av, xs, swapped[r]);
        }
    }
    if (j < n) {
        const int rest = static_cast<int>(n - j);
        const typename Z::vector xv = Z::load_partial(x + j, rest), xs = Z::swap_parts(xv);
#pragma GCC unroll 4
        for (int r = 0; r < ROWS; ++r) {
            const typename Z::vector av = Z::load_partial(a + r * lda + j, rest);
            direct[r] = F::fma(av, xv, direct[r]);
            swapped[r] = F::fma(av, xs, swapped[r]);
        }
    }
#pragma GCC unroll 4
    for (int r = 0; r < ROWS; ++r) y[r] = c64(F::sum(Z::conj(direct[r])), F::sum(swapped[r]));
}

template <class Z> void gemv_rows(u64 rows, u64 n, const c64* a, u64 lda, const c64* x, c64* y) noexcept {
    u64 i = 0;
    for (; i + 4 <= rows; i += 4) gemv_block<Z, 4>(n, a + i * lda, lda, x, y + i);
    for (; i < rows; ++i) gemv_block<Z, 1>(n, a + i * lda, lda, x, y + i);
}

// Applies f(vector) -> vector over y[0..n), reading x alongside when given.
template <class Z, class F> inline void each_vector(u64 n, const c64* x, c64* y, F f) noexcept {
    constexpr u64 L = Z::lanes;
    u64 i = 0;
    for (; i + L <= n; i += L) Z::store(y + i, f(x ? Z::load(x + i) : Z::zero(), Z::load(y + i)));
    if (i < n) {
        const int rest = static_cast<int>(n - i);
        Z::store_partial(y + i, f(x ? Z::load_partial(x + i, rest) : Z::zero(), Z::load_partial(y + i, rest)), rest);
    }
}

template <class Z> void axpy(u64 n, c64 alpha, const c64* x, c64* y) noexcept {
    const typename Z::vector re = Z::set1(c64(alpha.real(), alpha.real()));
    const typename Z::vector im = Z::set1(c64(alpha.imag(), alpha.imag()));
    // x * alpha with alpha's parts pre-split: the complex fma of the traits.
    each_vector<Z>(n, x, y, [&](auto xv, auto yv) { return Z::fma(xv, re, im, yv); });
}

template <class Z> void accumulate(u64 n, const c64* x, c64* y) noexcept {
    each_vector<Z>(n, x, y, [](auto xv, auto yv) { return Z::add(xv, yv); });
}

template <class Z> void scale(u64 n, c64 alpha, c64* x) noexcept {
    const typename Z::vector a = Z::set1(alpha);
    each_vector<Z>(n, nullptr, x, [&](auto, auto xv) { return Z::mul(xv, a); });
}

template <class Z> double squared_norm(u64 n, const c64* x) noexcept {
    constexpr u64 L = Z::lanes;
    double total = 0;
    u64 i = 0;
    for (; i + L <= n; i += L) total += Z::squared_norm(Z::load(x + i));
    if (i < n) total += Z::squared_norm(Z::load_partial(x + i, static_cast<int>(n - i)));
    return total;
}

// lanes x lanes register blocks inside cache tiles; the ragged edges go element by element.
template <class Z>
void transpose(u64 rows, u64 cols, const c64* src, u64 lds, c64* dst, u64 ldd, bool conjugate) noexcept {
    constexpr u64 L = Z::lanes, tile = 32;
    for (u64 ib = 0; ib < rows; ib += tile) {
        const u64 ie = std::min(rows, ib + tile);
        for (u64 jb = 0; jb < cols; jb += tile) {
            const u64 je = std::min(cols, jb + tile);
            u64 i = ib;
            for (; i + L <= ie; i += L) {
                u64 j = jb;
                for (; j + L <= je; j += L) Z::transpose_block(src + i * lds + j, lds, dst + j * ldd + i, ldd, conjugate);
                for (; j < je; ++j)
                    for (u64 r = i; r < i + L; ++r) dst[j * ldd + r] = conjugate ? std::conj(src[r * lds + j]) : src[r * lds + j];
            }
            for (; i < ie; ++i)
                for (u64 j = jb; j < je; ++j) dst[j * ldd + i] = conjugate ? std::conj(src[i * lds + j]) : src[i * lds + j];
        }
    }
}

template <class Z> ComplexEngine engine() noexcept {
    ComplexEngine e;
    e.name = Z::engine;
    e.gemv_rows = &gemv_rows<Z>;
    e.axpy = &axpy<Z>;
    e.accumulate = &accumulate<Z>;
    e.scale = &scale<Z>;
    e.squared_norm = &squared_norm<Z>;
    e.transpose = &transpose<Z>;
    return e;
}

} // namespace quillmark::cpu::complex_body
