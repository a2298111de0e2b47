#pragma once
// Fused multiply-subtract kernels of the blocked LU over a vector-traits struct V (the engine
// traits' scalar, vector, lanes, load, store, broadcast, set1, fnma(a, b, c) = c - a*b rounded
// once, plus alternate(even, odd) and swap_pairs for interleaved complex). Included
// only by the translation units built with V's instruction set; V lives in their anonymous
// namespace, so nothing instantiated here is shared with baseline code.
#include <cstdint>

namespace quillmark::cpu::lu_tile {

// Scalar fma at the element's own precision (the generic builtin would round twice for float).
// Internal linkage: every instruction-set unit gets its own copy.
static inline float fused(float a, float b, float c) noexcept { return __builtin_fmaf(a, b, c); }
static inline double fused(double a, double b, double c) noexcept { return __builtin_fma(a, b, c); }

template <class V> void axpy(std::uint64_t n, const typename V::scalar* x, typename V::scalar u, typename V::scalar* y) noexcept {
    const typename V::vector uv = V::set1(u);
    std::uint64_t i = 0;
    for (; i + 2 * V::lanes <= n; i += 2 * V::lanes) {
        V::store(y + i, V::fnma(V::load(x + i), uv, V::load(y + i)));
        V::store(y + i + V::lanes, V::fnma(V::load(x + i + V::lanes), uv, V::load(y + i + V::lanes)));
    }
    for (; i + V::lanes <= n; i += V::lanes) V::store(y + i, V::fnma(V::load(x + i), uv, V::load(y + i)));
    for (; i < n; ++i) y[i] = fused(-x[i], u, y[i]);
}

// y -= x * u on interleaved pairs: re first takes -x.re*u.re then +x.im*u.im; im first
// -x.im*u.re then -x.re*u.im. Vectorised as y -= x*ur (both parts), then y -= swap(x)*(-ui, ui).
template <class V>
void complex_axpy(std::uint64_t n, const typename V::scalar* x, typename V::scalar ur, typename V::scalar ui,
                  typename V::scalar* y) noexcept {
    using S = typename V::scalar;
    const std::uint64_t m = 2 * n;
    const typename V::vector rv = V::set1(ur);
    const typename V::vector iv = V::alternate(-ui, ui);
    std::uint64_t i = 0;
    for (; i + V::lanes <= m; i += V::lanes) {
        const typename V::vector xv = V::load(x + i);
        const typename V::vector t = V::fnma(xv, rv, V::load(y + i));
        V::store(y + i, V::fnma(V::swap_pairs(xv), iv, t));
    }
    for (; i < m; i += 2) {
        const S xr = x[i], xi = x[i + 1];
        y[i] = fused(xi, ui, fused(-xr, ur, y[i]));
        y[i + 1] = fused(-xr, ui, fused(-xi, ur, y[i + 1]));
    }
}

template <class V>
void lower_solve(std::uint64_t m, std::uint64_t cols, const typename V::scalar* l, std::uint64_t ld,
                 typename V::scalar* b) noexcept {
    for (std::uint64_t j = 0; j < cols; ++j) {
        typename V::scalar* col = b + j * ld;
        for (std::uint64_t k = 0; k + 1 < m; ++k) axpy<V>(m - k - 1, l + k * ld + k + 1, col[k], col + k + 1);
    }
}

template <class V>
void complex_lower_solve(std::uint64_t m, std::uint64_t cols, const typename V::scalar* l, std::uint64_t ld,
                         typename V::scalar* b) noexcept {
    for (std::uint64_t j = 0; j < cols; ++j) {
        typename V::scalar* col = b + 2 * j * ld;
        for (std::uint64_t k = 0; k + 1 < m; ++k)
            complex_axpy<V>(m - k - 1, l + 2 * (k * ld + k + 1), col[2 * k], col[2 * k + 1], col + 2 * (k + 1));
    }
}

// MR x (NV * lanes) tile: c = c - sum_p a[p*MR + r] * b[p*NR + s], one fused update per p.
template <class V, int MR, int NV>
void tile(std::uint64_t kc, const typename V::scalar* a, const typename V::scalar* b, typename V::scalar* c,
          std::uint64_t ldc) noexcept {
    typename V::vector acc[MR][NV];
#pragma GCC unroll 16
    for (int r = 0; r < MR; ++r)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) acc[r][v] = V::load(c + r * ldc + V::lanes * v);
    for (std::uint64_t p = 0; p < kc; ++p) {
        typename V::vector bv[NV];
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) bv[v] = V::load(b + V::lanes * v);
#pragma GCC unroll 16
        for (int r = 0; r < MR; ++r) {
            const typename V::vector ar = V::broadcast(a + r);
#pragma GCC unroll 4
            for (int v = 0; v < NV; ++v) acc[r][v] = V::fnma(ar, bv[v], acc[r][v]);
        }
        a += MR;
        b += V::lanes * NV;
    }
#pragma GCC unroll 16
    for (int r = 0; r < MR; ++r)
#pragma GCC unroll 4
        for (int v = 0; v < NV; ++v) V::store(c + r * ldc + V::lanes * v, acc[r][v]);
}

} // namespace quillmark::cpu::lu_tile
