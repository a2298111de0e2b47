#pragma once
// Bodies of the Jacobi kernels over a vector description `V` (lanes, load/store with partial
// forms, mul/add/sub, a lanes x lanes transpose, lane masks and blend). Included only by
// translation units compiled with -ffp-contract=off semantics, so that x*c - y*s stays two
// rounded products and a rounded difference in the scalar remainders as in the vector lanes.
#include <algorithm>
#include <cstdint>

#include "backend/cpu/structured_solver_jacobi.hpp"

namespace quillmark::cpu::jacobi_body {

using u64 = std::uint64_t;

// (x, y) <- (x c - y s, y c + x s).
template <class V> inline void rotate(typename V::vector& x, typename V::vector& y, typename V::vector c,
                                      typename V::vector s) noexcept {
    const typename V::vector xn = V::sub(V::mul(x, c), V::mul(y, s));
    y = V::add(V::mul(y, c), V::mul(x, s));
    x = xn;
}

inline void rotate_scalar(double& x, double& y, double c, double s) noexcept {
    const double xn = x * c - y * s;
    y = y * c + x * s;
    x = xn;
}

template <class V>
void rotate_below(double* m, u64 ld, u64 p, const JacobiBlock& b, u64 k_begin, u64 k_end) noexcept {
    constexpr u64 L = V::lanes;
    double* const x = m + p * ld;
    typename V::vector cv[kJacobiBlockWidth], sv[kJacobiBlockWidth];
    for (u64 t = 0; t < b.width; ++t) {
        cv[t] = V::set1(b.c[t]);
        sv[t] = V::set1(b.s[t]);
    }
    u64 k = k_begin;
    for (; k + L <= k_end; k += L) {
        typename V::vector xv = V::load(x + k);
        for (u64 t = 0; t < b.width; ++t) {
            if (!b.active[t]) continue;
            double* const e = m + (b.q0 + t) * ld + k;
            typename V::vector ev = V::load(e);
            rotate<V>(xv, ev, cv[t], sv[t]);
            V::store(e, ev);
        }
        V::store(x + k, xv);
    }
    if (k == k_end) return;
    const int count = static_cast<int>(k_end - k);
    typename V::vector xv = V::load_partial(x + k, count);
    for (u64 t = 0; t < b.width; ++t) {
        if (!b.active[t]) continue;
        double* const e = m + (b.q0 + t) * ld + k;
        typename V::vector ev = V::load_partial(e, count);
        rotate<V>(xv, ev, cv[t], sv[t]);
        V::store_partial(e, ev, count);
    }
    V::store_partial(x + k, xv, count);
}

template <class V>
void rotate_above(double* m, u64 ld, u64 p, const JacobiBlock& b, u64 k_begin, u64 k_end) noexcept {
    constexpr u64 L = V::lanes;
    double* const x = m + p * ld;
    u64 k = k_begin;
    // lanes columns at once: their rows q0 ... are transposed into one vector per q.
    for (; k + L <= k_end; k += L) {
        typename V::vector xv = V::load(x + k);
        for (u64 t0 = 0; t0 < b.width; t0 += L) {
            const int count = static_cast<int>(std::min<u64>(L, b.width - t0));
            bool any = false;
            for (int t = 0; t < count; ++t) any |= b.active[t0 + t] != 0;
            if (!any) continue;
            typename V::vector e[L];
            const bool full = count == int(L);
            for (u64 i = 0; i < L; ++i) {
                const double* const at = m + (k + i) * ld + b.q0 + t0;
                e[i] = full ? V::load(at) : V::load_partial(at, count);
            }
            V::transpose(e);
            for (int t = 0; t < count; ++t)
                if (b.active[t0 + t]) rotate<V>(xv, e[t], V::set1(b.c[t0 + t]), V::set1(b.s[t0 + t]));
            V::transpose(e);
            for (u64 i = 0; i < L; ++i) {
                double* const at = m + (k + i) * ld + b.q0 + t0;
                if (full) V::store(at, e[i]);
                else V::store_partial(at, e[i], count);
            }
        }
        V::store(x + k, xv);
    }
    for (; k < k_end; ++k) {
        double xk = x[k];
        double* const e = m + k * ld + b.q0;
        for (u64 t = 0; t < b.width; ++t)
            if (b.active[t]) rotate_scalar(xk, e[t], b.c[t], b.s[t]);
        x[k] = xk;
    }
}

template <class V>
void apply_panel(double* panel, const JacobiSweepRecord& rec, u64 first_run, std::int64_t first_row) noexcept {
    constexpr u64 L = V::lanes;
    constexpr u64 N = kJacobiPanelRows / L;
    const u64 runs = rec.run_start.size() - 1;
    for (u64 p = first_run; p < runs; ++p) {
        const u64 begin = rec.run_start[p], end = rec.run_start[p + 1];
        if (begin == end) continue;
        double* const xp = panel + p * kJacobiPanelRows;
        typename V::vector x[N];
        for (u64 v = 0; v < N; ++v) x[v] = V::load(xp + v * L);
        // Rows at or after the pivot are not in this run yet.
        const std::int64_t live = first_row < 0 ? std::int64_t(kJacobiPanelRows)
                                                : std::int64_t(p) - first_row;
        if (live >= std::int64_t(kJacobiPanelRows)) {
            for (u64 i = begin; i < end; ++i) {
                const typename V::vector c = V::set1(rec.c[i]), s = V::set1(rec.s[i]);
                double* const yq = panel + u64(rec.q[i]) * kJacobiPanelRows;
#pragma GCC unroll 16
                for (u64 v = 0; v < N; ++v) {
                    typename V::vector y = V::load(yq + v * L);
                    rotate<V>(x[v], y, c, s);
                    V::store(yq + v * L, y);
                }
            }
        } else {
            typename V::mask on[N];
            for (u64 v = 0; v < N; ++v) on[v] = V::lanes_below(live - std::int64_t(v * L));
            for (u64 i = begin; i < end; ++i) {
                const typename V::vector c = V::set1(rec.c[i]), s = V::set1(rec.s[i]);
                double* const yq = panel + u64(rec.q[i]) * kJacobiPanelRows;
                for (u64 v = 0; v < N; ++v) {
                    typename V::vector xr = x[v], y = V::load(yq + v * L);
                    const typename V::vector y0 = y;
                    rotate<V>(xr, y, c, s);
                    x[v] = V::blend(x[v], xr, on[v]);
                    V::store(yq + v * L, V::blend(y0, y, on[v]));
                }
            }
        }
        for (u64 v = 0; v < N; ++v) V::store(xp + v * L, x[v]);
    }
}

template <class V> JacobiKernelSet kernel_set(std::string_view name) noexcept {
    JacobiKernelSet k;
    k.name = name;
    k.rotate_below = &rotate_below<V>;
    k.rotate_above = &rotate_above<V>;
    k.apply_panel = &apply_panel<V>;
    return k;
}

} // namespace quillmark::cpu::jacobi_body
