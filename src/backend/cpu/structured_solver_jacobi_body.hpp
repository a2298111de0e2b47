#pragma once
// Bodies of the Jacobi kernels over a vector description `V` (lanes, load/store with partial
// forms, mul/add/sub, a lanes x lanes transpose, lane masks and blend). Included first by the
// translation units that instantiate them: from here on products and sums stay separately
// rounded (x*c - y*s is two rounded products and a rounded difference in every variant, scalar
// remainders included), whatever instruction set the unit is built for.
#if defined(__clang__)
#pragma clang fp contract(off)
#else
#pragma GCC optimize("fp-contract=off")
#endif
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
    // G vectors of rows at once: each carries its own chain of dependent rotations. The last
    // rows go through the vector path too (partial loads), never through contractible scalars.
    constexpr u64 G = 3;
    auto rows = [&]<u64 N, bool Full>(u64 k0, int count) {
        auto load = [&](const double* at) { return Full ? V::load(at) : V::load_partial(at, count); };
        auto store = [&](double* at, typename V::vector v) {
            if constexpr (Full) V::store(at, v);
            else V::store_partial(at, v, count);
        };
        typename V::vector xv[N];
        for (u64 g = 0; g < N; ++g) xv[g] = load(x + k0 + g * L);
        for (u64 t = 0; t < b.width; ++t) {
            if (!b.active[t]) continue;
            double* const e = m + (b.q0 + t) * ld + k0;
            for (u64 g = 0; g < N; ++g) {
                typename V::vector ev = load(e + g * L);
                rotate<V>(xv[g], ev, cv[t], sv[t]);
                store(e + g * L, ev);
            }
        }
        for (u64 g = 0; g < N; ++g) store(x + k0 + g * L, xv[g]);
    };
    u64 k = k_begin;
    for (; k + G * L <= k_end; k += G * L) rows.template operator()<G, true>(k, int(L));
    for (; k + L <= k_end; k += L) rows.template operator()<1, true>(k, int(L));
    if (k < k_end) rows.template operator()<1, false>(k, int(k_end - k));
}

// Rows k = row0 ... row0 + NG*lanes - 1 (x[g] holding a(k, p) by vector), rotations (p, q) for
// q in [q_begin, q_end); rows before `first` are left as they are.
template <class V, u64 NG>
inline void rotate_above_tiles(double* m, u64 ld, const JacobiRun& run, u64 row0, u64 first, u64 q_begin,
                               u64 q_end, typename V::vector* xv) noexcept {
    constexpr u64 L = V::lanes;
    using vec = typename V::vector;
    for (u64 q0 = q_begin; q0 < q_end; q0 += L) {
        const int count = static_cast<int>(std::min<u64>(L, q_end - q0));
        bool any = false;
        for (int t = 0; t < count; ++t) any |= run.active[q0 + t] != 0;
        if (!any) continue;
        const bool full = count == int(L);
        vec e[NG][L];
#pragma GCC unroll 8
        for (u64 g = 0; g < NG; ++g) {
#pragma GCC unroll 8
            for (u64 i = 0; i < L; ++i) {
                const double* const at = m + (row0 + g * L + i) * ld + q0;
                e[g][i] = full ? V::load(at) : V::load_partial(at, count);
            }
            V::transpose(e[g]);
        }
#pragma GCC unroll 8
        for (u64 t = 0; t < L; ++t) {
            if (int(t) >= count || !run.active[q0 + t]) continue;
            const vec c = V::set1(run.c[q0 + t]), s = V::set1(run.s[q0 + t]);
#pragma GCC unroll 8
            for (u64 g = 0; g < NG; ++g) rotate<V>(xv[g], e[g][t], c, s);
        }
#pragma GCC unroll 8
        for (u64 g = 0; g < NG; ++g) {
            V::transpose(e[g]);
#pragma GCC unroll 8
            for (u64 i = 0; i < L; ++i) {
                if (row0 + g * L + i < first) continue;
                double* const at = m + (row0 + g * L + i) * ld + q0;
                if (full) V::store(at, e[g][i]);
                else V::store_partial(at, e[g][i], count);
            }
        }
    }
}

template <class V>
void rotate_above(double* m, u64 ld, u64 p, const JacobiRun& run, u64 k_begin, u64 k_end) noexcept {
    constexpr u64 L = V::lanes;
    constexpr u64 W = kJacobiBlockWidth;
    constexpr u64 G = W / L;
    using vec = typename V::vector;
    double* const x = m + p * ld;
    const u64 n = run.n;
    // Rows of one block-aligned group share where their deferred rotations begin: just past
    // the group, the group's own block having been rotated eagerly.
    for (u64 K = k_begin / W * W; K < k_end && K + W < n; K += W) {
        const u64 first = std::max(K, k_begin);
        vec xv[G], x0[G];
        for (u64 g = 0; g < G; ++g) x0[g] = xv[g] = V::load(x + K + g * L);
        rotate_above_tiles<V, G>(m, ld, run, K, first, K + W, n, xv);
        for (u64 g = 0; g < G; ++g)
            V::store(x + K + g * L,
                     V::blend(xv[g], x0[g], V::lanes_below(std::int64_t(first) - std::int64_t(K + g * L))));
    }
}

// Rotation (p, q) of every panel row: x holds the panel's column p.
template <class V>
inline void rotate_panel_column(double* panel, typename V::vector (&x)[kJacobiPanelRows / V::lanes], u64 q, double c,
                                double s) noexcept {
    const typename V::vector cv = V::set1(c), sv = V::set1(s);
    double* const y = panel + q * kJacobiPanelRows;
#pragma GCC unroll 16
    for (u64 v = 0; v < kJacobiPanelRows / V::lanes; ++v) {
        typename V::vector yv = V::load(y + v * V::lanes);
        rotate<V>(x[v], yv, cv, sv);
        V::store(y + v * V::lanes, yv);
    }
}

// Runs p and p+1 (every row taking part) in one pass over the panel: column q takes (p, q) and
// then (p+1, q), the order each column sees anyway, and is loaded once for both. Column p+1
// leaves run p at its first rotation and stays in registers for run p+1.
template <class V> void apply_run_pair(double* panel, const JacobiSweepRecord& rec, u64 p) noexcept {
    constexpr u64 L = V::lanes;
    constexpr u64 N = kJacobiPanelRows / L;
    constexpr u64 R = kJacobiPanelRows;
    const std::uint32_t* const q = rec.q.data();
    const double* const c = rec.c.data();
    const double* const s = rec.s.data();
    u64 i = rec.run_start[p], j = rec.run_start[p + 1];
    const u64 i_end = j, j_end = rec.run_start[p + 2];
    typename V::vector x0[N], x1[N];
    for (u64 v = 0; v < N; ++v) {
        x0[v] = V::load(panel + p * R + v * L);
        x1[v] = V::load(panel + (p + 1) * R + v * L);
    }
    if (i < i_end && q[i] == p + 1) {
        const typename V::vector cv = V::set1(c[i]), sv = V::set1(s[i]);
        for (u64 v = 0; v < N; ++v) rotate<V>(x0[v], x1[v], cv, sv);
        ++i;
    }
    while (i < i_end && j < j_end) {
        if (q[i] == q[j]) {
            const typename V::vector c0 = V::set1(c[i]), s0 = V::set1(s[i]);
            const typename V::vector c1 = V::set1(c[j]), s1 = V::set1(s[j]);
            double* const y = panel + u64(q[i]) * R;
#pragma GCC unroll 8
            for (u64 v = 0; v < N; ++v) {
                typename V::vector yv = V::load(y + v * L);
                rotate<V>(x0[v], yv, c0, s0);
                rotate<V>(x1[v], yv, c1, s1);
                V::store(y + v * L, yv);
            }
            ++i;
            ++j;
        } else if (q[i] < q[j]) {
            rotate_panel_column<V>(panel, x0, q[i], c[i], s[i]);
            ++i;
        } else {
            rotate_panel_column<V>(panel, x1, q[j], c[j], s[j]);
            ++j;
        }
    }
    for (; i < i_end; ++i) rotate_panel_column<V>(panel, x0, q[i], c[i], s[i]);
    for (; j < j_end; ++j) rotate_panel_column<V>(panel, x1, q[j], c[j], s[j]);
    for (u64 v = 0; v < N; ++v) {
        V::store(panel + p * R + v * L, x0[v]);
        V::store(panel + (p + 1) * R + v * L, x1[v]);
    }
}

template <class V>
void apply_panel(double* panel, const JacobiSweepRecord& rec, u64 first_run, std::int64_t first_row) noexcept {
    constexpr u64 L = V::lanes;
    constexpr u64 N = kJacobiPanelRows / L;
    const u64 runs = rec.run_start.size() - 1;
    for (u64 p = first_run; p < runs; ++p) {
        const u64 begin = rec.run_start[p], end = rec.run_start[p + 1];
        // A pair of runs in which every row takes part goes in one pass.
        if (p + 1 < runs && (first_row < 0 || std::int64_t(p) >= first_row + std::int64_t(kJacobiPanelRows))) {
            apply_run_pair<V>(panel, rec, p);
            ++p;
            continue;
        }
        if (begin == end) continue;
        double* const xp = panel + p * kJacobiPanelRows;
        typename V::vector x[N];
        for (u64 v = 0; v < N; ++v) x[v] = V::load(xp + v * L);
        // Rows at or after the pivot are not in this run yet.
        const std::int64_t live = first_row < 0 ? std::int64_t(kJacobiPanelRows)
                                                : std::int64_t(p) - first_row;
        if (live >= std::int64_t(kJacobiPanelRows)) {
            for (u64 i = begin; i < end; ++i) rotate_panel_column<V>(panel, x, rec.q[i], rec.c[i], rec.s[i]);
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

// (x, y) <- (x c - y conj(s), y c + x s) on split planes, each part formed as the textbook
// complex loop forms it: products rounded, then summed.
template <class V>
inline void rotate_complex(typename V::vector& xr, typename V::vector& xi, typename V::vector& yr,
                           typename V::vector& yi, typename V::vector c, typename V::vector sr,
                           typename V::vector si) noexcept {
    const typename V::vector xr2 = V::sub(V::mul(xr, c), V::add(V::mul(yr, sr), V::mul(yi, si)));
    const typename V::vector xi2 = V::sub(V::mul(xi, c), V::sub(V::mul(yi, sr), V::mul(yr, si)));
    const typename V::vector yr2 = V::add(V::mul(yr, c), V::sub(V::mul(xr, sr), V::mul(xi, si)));
    yi = V::add(V::mul(yi, c), V::add(V::mul(xr, si), V::mul(xi, sr)));
    yr = yr2;
    xr = xr2;
    xi = xi2;
}

template <class V> void apply_complex_panel(double* re, double* im, const JacobiComplexRecord& rec) noexcept {
    constexpr u64 L = V::lanes;
    constexpr u64 N = kJacobiPanelRows / L;
    constexpr u64 R = kJacobiPanelRows;
    using vec = typename V::vector;
    const u64 runs = rec.run_start.size() - 1;
    for (u64 p = 0; p < runs; ++p) {
        const u64 begin = rec.run_start[p], end = rec.run_start[p + 1];
        if (begin == end) continue;
        vec xr[N], xi[N];
        for (u64 v = 0; v < N; ++v) {
            xr[v] = V::load(re + p * R + v * L);
            xi[v] = V::load(im + p * R + v * L);
        }
        for (u64 i = begin; i < end; ++i) {
            const vec c = V::set1(rec.c[i]), sr = V::set1(rec.s_re[i]), si = V::set1(rec.s_im[i]);
            double* const yr = re + u64(rec.q[i]) * R;
            double* const yi = im + u64(rec.q[i]) * R;
#pragma GCC unroll 8
            for (u64 v = 0; v < N; ++v) {
                vec a = V::load(yr + v * L), b = V::load(yi + v * L);
                rotate_complex<V>(xr[v], xi[v], a, b, c, sr, si);
                V::store(yr + v * L, a);
                V::store(yi + v * L, b);
            }
        }
        for (u64 v = 0; v < N; ++v) {
            V::store(re + p * R + v * L, xr[v]);
            V::store(im + p * R + v * L, xi[v]);
        }
    }
}

template <class V> JacobiKernelSet kernel_set(std::string_view name) noexcept {
    JacobiKernelSet k;
    k.name = name;
    k.rotate_below = &rotate_below<V>;
    k.rotate_above = &rotate_above<V>;
    k.apply_panel = &apply_panel<V>;
    k.apply_complex_panel = &apply_complex_panel<V>;
    return k;
}

} // namespace quillmark::cpu::jacobi_body
