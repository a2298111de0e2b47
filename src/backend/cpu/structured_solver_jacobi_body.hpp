#pragma once
// Bodies of the Jacobi kernels over a vector description `V` (lanes, load/store with partial
// forms, mul/add/sub, negate, a lanes x lanes transpose, lane masks and blend), for real and
// complex elements alike. Included first by the translation units that instantiate them: from
// here on products and sums stay separately rounded (x*c - y*s is two rounded products and a
// rounded difference in every variant, scalar remainders included), whatever instruction set
// the unit is built for.
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

// Real elements: one plane.
template <class V> struct Real {
    using vector = typename V::vector;
    static constexpr u64 lanes = V::lanes;
    // Row vectors in flight: below a block, and per pass over the rows above one.
    static constexpr u64 below_vectors = 3;
    static constexpr u64 above_vectors = kJacobiBlockWidth / V::lanes;
    static constexpr bool pair_runs = true;
    struct value {
        vector re;
    };
    struct rotation {
        vector c, s;
    };
    static rotation at(const double* c, const double* s, const double*, u64 i) noexcept {
        return {V::set1(c[i]), V::set1(s[i])};
    }
    static value zero() noexcept { return {V::zero()}; }
    template <bool Conj = false> static value load(const double* p, u64) noexcept { return {V::load(p)}; }
    template <bool Conj = false> static value load_partial(const double* p, u64, int count) noexcept {
        return {V::load_partial(p, count)};
    }
    template <bool Conj = false> static void store(double* p, u64, value v) noexcept { V::store(p, v.re); }
    template <bool Conj = false> static void store_partial(double* p, u64, value v, int count) noexcept {
        V::store_partial(p, v.re, count);
    }
    static void rotate(value& x, value& y, const rotation& r) noexcept { jacobi_body::rotate<V>(x.re, y.re, r.c, r.s); }
    static void transpose(value (&e)[V::lanes]) noexcept {
        vector t[V::lanes];
        for (u64 i = 0; i < V::lanes; ++i) t[i] = e[i].re;
        V::transpose(t);
        for (u64 i = 0; i < V::lanes; ++i) e[i].re = t[i];
    }
    static value blend(value off, value on, typename V::mask m) noexcept { return {V::blend(off.re, on.re, m)}; }
};

// Complex elements: the imaginary parts `plane` values after the real ones. A rotation takes
// (x, y) to (x c - y conj(s), y c + x s), each part formed as the element-wise complex loop forms
// it: products rounded, then summed. Conj loads and stores negate the imaginary part (an exact
// sign flip, as conj is).
template <class V> struct Complex {
    using vector = typename V::vector;
    static constexpr u64 lanes = V::lanes;
    static constexpr u64 below_vectors = 2;
    static constexpr u64 above_vectors = 1;
    static constexpr bool pair_runs = false;
    struct value {
        vector re, im;
    };
    struct rotation {
        vector c, sr, si;
    };
    static rotation at(const double* c, const double* s, const double* s_im, u64 i) noexcept {
        return {V::set1(c[i]), V::set1(s[i]), V::set1(s_im[i])};
    }
    template <bool Conj = false> static vector imag(vector v) noexcept {
        if constexpr (Conj) return V::negate(v);
        else return v;
    }
    static value zero() noexcept { return {V::zero(), V::zero()}; }
    template <bool Conj = false> static value load(const double* p, u64 plane) noexcept {
        return {V::load(p), imag<Conj>(V::load(p + plane))};
    }
    template <bool Conj = false> static value load_partial(const double* p, u64 plane, int count) noexcept {
        return {V::load_partial(p, count), imag<Conj>(V::load_partial(p + plane, count))};
    }
    template <bool Conj = false> static void store(double* p, u64 plane, value v) noexcept {
        V::store(p, v.re);
        V::store(p + plane, imag<Conj>(v.im));
    }
    template <bool Conj = false> static void store_partial(double* p, u64 plane, value v, int count) noexcept {
        V::store_partial(p, v.re, count);
        V::store_partial(p + plane, imag<Conj>(v.im), count);
    }
    static void rotate(value& x, value& y, const rotation& r) noexcept {
        const vector xr = V::sub(V::mul(x.re, r.c), V::add(V::mul(y.re, r.sr), V::mul(y.im, r.si)));
        const vector xi = V::sub(V::mul(x.im, r.c), V::sub(V::mul(y.im, r.sr), V::mul(y.re, r.si)));
        const vector yr = V::add(V::mul(y.re, r.c), V::sub(V::mul(x.re, r.sr), V::mul(x.im, r.si)));
        y.im = V::add(V::mul(y.im, r.c), V::add(V::mul(x.re, r.si), V::mul(x.im, r.sr)));
        y.re = yr;
        x = {xr, xi};
    }
    static void transpose(value (&e)[V::lanes]) noexcept {
        vector re[V::lanes], im[V::lanes];
        for (u64 i = 0; i < V::lanes; ++i) re[i] = e[i].re, im[i] = e[i].im;
        V::transpose(re);
        V::transpose(im);
        for (u64 i = 0; i < V::lanes; ++i) e[i] = {re[i], im[i]};
    }
    static value blend(value off, value on, typename V::mask m) noexcept {
        return {V::blend(off.re, on.re, m), V::blend(off.im, on.im, m)};
    }
};

template <class E>
void rotate_below(double* m, u64 ld, u64 p, const JacobiBlock& b, u64 k_begin, u64 k_end) noexcept {
    constexpr u64 L = E::lanes;
    using value = typename E::value;
    double* const x = m + p * ld;
    const u64 plane = b.plane;
    typename E::rotation r[kJacobiBlockWidth];
    for (u64 t = 0; t < b.width; ++t) r[t] = E::at(b.c, b.s, b.s_im, t);
    // G vectors of rows at once: each carries its own chain of dependent rotations. The last
    // rows go through the vector path too (partial loads), never through contractible scalars.
    constexpr u64 G = E::below_vectors;
    auto rows = [&]<u64 N, bool Full>(u64 k0, int count) {
        auto load = [&](const double* at) { return Full ? E::load(at, plane) : E::load_partial(at, plane, count); };
        auto store = [&](double* at, value v) {
            if constexpr (Full) E::store(at, plane, v);
            else E::store_partial(at, plane, v, count);
        };
        value xv[N];
        for (u64 g = 0; g < N; ++g) xv[g] = load(x + k0 + g * L);
        for (u64 t = 0; t < b.width; ++t) {
            if (!b.active[t]) continue;
            double* const e = m + (b.q0 + t) * ld + k0;
            for (u64 g = 0; g < N; ++g) {
                value ev = load(e + g * L);
                E::rotate(xv[g], ev, r[t]);
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
// q in [q_begin, q_end). Element {k, q} sits in column k at row q, so a(k, q) is its conjugate.
// With `Clip`, rows before `first` are neither read nor written: one of them is column p itself,
// which other workers update meanwhile.
template <class E, u64 NG, bool Clip>
inline void rotate_above_tiles(double* m, u64 ld, const JacobiRun& run, u64 row0, u64 first, u64 q_begin,
                               u64 q_end, typename E::value* xv) noexcept {
    constexpr u64 L = E::lanes;
    using value = typename E::value;
    const u64 plane = run.plane;
    for (u64 q0 = q_begin; q0 < q_end; q0 += L) {
        const int count = static_cast<int>(std::min<u64>(L, q_end - q0));
        bool any = false;
        for (int t = 0; t < count; ++t) any |= run.active[q0 + t] != 0;
        if (!any) continue;
        const bool full = count == int(L);
        value e[NG][L];
#pragma GCC unroll 8
        for (u64 g = 0; g < NG; ++g) {
#pragma GCC unroll 8
            for (u64 i = 0; i < L; ++i) {
                const double* const at = m + (row0 + g * L + i) * ld + q0;
                if (Clip && row0 + g * L + i < first) e[g][i] = E::zero();
                else if (full) e[g][i] = E::template load<true>(at, plane);
                else e[g][i] = E::template load_partial<true>(at, plane, count);
            }
            E::transpose(e[g]);
        }
#pragma GCC unroll 8
        for (u64 t = 0; t < L; ++t) {
            if (int(t) >= count || !run.active[q0 + t]) continue;
            const typename E::rotation r = E::at(run.c, run.s, run.s_im, q0 + t);
#pragma GCC unroll 8
            for (u64 g = 0; g < NG; ++g) E::rotate(xv[g], e[g][t], r);
        }
#pragma GCC unroll 8
        for (u64 g = 0; g < NG; ++g) {
            E::transpose(e[g]);
#pragma GCC unroll 8
            for (u64 i = 0; i < L; ++i) {
                if (Clip && row0 + g * L + i < first) continue;
                double* const at = m + (row0 + g * L + i) * ld + q0;
                if (full) E::template store<true>(at, plane, e[g][i]);
                else E::template store_partial<true>(at, plane, e[g][i], count);
            }
        }
    }
}

template <class V, class E>
void rotate_above(double* m, u64 ld, u64 p, const JacobiRun& run, u64 k_begin, u64 k_end) noexcept {
    constexpr u64 L = E::lanes;
    constexpr u64 W = kJacobiBlockWidth;
    constexpr u64 NG = E::above_vectors;
    using value = typename E::value;
    double* const x = m + p * ld;
    const u64 n = run.n;
    // Rows of one block-aligned group share where their deferred rotations begin: just past
    // the group, the group's own block having been rotated eagerly. NG row vectors per pass.
    for (u64 K = k_begin / W * W; K < k_end && K + W < n; K += W) {
        const u64 first = std::max(K, k_begin);
        for (u64 r0 = K; r0 < K + W; r0 += NG * L) {
            value xv[NG], x0[NG];
            for (u64 g = 0; g < NG; ++g) x0[g] = xv[g] = E::load(x + r0 + g * L, run.plane);
            if (first > r0) rotate_above_tiles<E, NG, true>(m, ld, run, r0, first, K + W, n, xv);
            else rotate_above_tiles<E, NG, false>(m, ld, run, r0, first, K + W, n, xv);
            for (u64 g = 0; g < NG; ++g)
                E::store(x + r0 + g * L, run.plane,
                         E::blend(xv[g], x0[g], V::lanes_below(std::int64_t(first) - std::int64_t(r0 + g * L))));
        }
    }
}

// Rotation (p, q) of every panel row: x holds the panel's column p.
template <class E>
inline void rotate_panel_column(double* panel, u64 plane, typename E::value (&x)[kJacobiPanelRows / E::lanes],
                                u64 q, const typename E::rotation& r) noexcept {
    double* const y = panel + q * kJacobiPanelRows;
#pragma GCC unroll 16
    for (u64 v = 0; v < kJacobiPanelRows / E::lanes; ++v) {
        typename E::value yv = E::load(y + v * E::lanes, plane);
        E::rotate(x[v], yv, r);
        E::store(y + v * E::lanes, plane, yv);
    }
}

// Runs p and p+1 (every row taking part) in one pass over the panel: column q takes (p, q) and
// then (p+1, q), the order each column sees anyway, and is loaded once for both. Column p+1
// leaves run p at its first rotation and stays in registers for run p+1.
template <class E> void apply_run_pair(double* panel, u64 plane, const JacobiSweepRecord& rec, u64 p) noexcept {
    constexpr u64 L = E::lanes;
    constexpr u64 N = kJacobiPanelRows / L;
    constexpr u64 R = kJacobiPanelRows;
    using value = typename E::value;
    const std::uint32_t* const q = rec.q.data();
    auto rot = [&](u64 i) { return E::at(rec.c.data(), rec.s.data(), rec.s_im.data(), i); };
    u64 i = rec.run_start[p], j = rec.run_start[p + 1];
    const u64 i_end = j, j_end = rec.run_start[p + 2];
    value x0[N], x1[N];
    for (u64 v = 0; v < N; ++v) {
        x0[v] = E::load(panel + p * R + v * L, plane);
        x1[v] = E::load(panel + (p + 1) * R + v * L, plane);
    }
    if (i < i_end && q[i] == p + 1) {
        const typename E::rotation r = rot(i);
        for (u64 v = 0; v < N; ++v) E::rotate(x0[v], x1[v], r);
        ++i;
    }
    while (i < i_end && j < j_end) {
        if (q[i] == q[j]) {
            const typename E::rotation r0 = rot(i), r1 = rot(j);
            double* const y = panel + u64(q[i]) * R;
#pragma GCC unroll 8
            for (u64 v = 0; v < N; ++v) {
                value yv = E::load(y + v * L, plane);
                E::rotate(x0[v], yv, r0);
                E::rotate(x1[v], yv, r1);
                E::store(y + v * L, plane, yv);
            }
            ++i;
            ++j;
        } else if (q[i] < q[j]) {
            rotate_panel_column<E>(panel, plane, x0, q[i], rot(i));
            ++i;
        } else {
            rotate_panel_column<E>(panel, plane, x1, q[j], rot(j));
            ++j;
        }
    }
    for (; i < i_end; ++i) rotate_panel_column<E>(panel, plane, x0, q[i], rot(i));
    for (; j < j_end; ++j) rotate_panel_column<E>(panel, plane, x1, q[j], rot(j));
    for (u64 v = 0; v < N; ++v) {
        E::store(panel + p * R + v * L, plane, x0[v]);
        E::store(panel + (p + 1) * R + v * L, plane, x1[v]);
    }
}

template <class V, class E>
void apply_panel(double* panel, u64 plane, const JacobiSweepRecord& rec, u64 first_run, std::int64_t first_row) noexcept {
    constexpr u64 L = E::lanes;
    constexpr u64 N = kJacobiPanelRows / L;
    using value = typename E::value;
    const u64 runs = rec.run_start.size() - 1;
    for (u64 p = first_run; p < runs; ++p) {
        const u64 begin = rec.run_start[p], end = rec.run_start[p + 1];
        // A pair of runs in which every row takes part goes in one pass.
        if (E::pair_runs && p + 1 < runs &&
            (first_row < 0 || std::int64_t(p) >= first_row + std::int64_t(kJacobiPanelRows))) {
            apply_run_pair<E>(panel, plane, rec, p);
            ++p;
            continue;
        }
        if (begin == end) continue;
        double* const xp = panel + p * kJacobiPanelRows;
        value x[N];
        for (u64 v = 0; v < N; ++v) x[v] = E::load(xp + v * L, plane);
        // Rows at or after the pivot are not in this run yet.
        const std::int64_t live = first_row < 0 ? std::int64_t(kJacobiPanelRows)
                                                : std::int64_t(p) - first_row;
        if (live >= std::int64_t(kJacobiPanelRows)) {
            for (u64 i = begin; i < end; ++i)
                rotate_panel_column<E>(panel, plane, x, rec.q[i], E::at(rec.c.data(), rec.s.data(), rec.s_im.data(), i));
        } else {
            typename V::mask on[N];
            for (u64 v = 0; v < N; ++v) on[v] = V::lanes_below(live - std::int64_t(v * L));
            for (u64 i = begin; i < end; ++i) {
                const typename E::rotation r = E::at(rec.c.data(), rec.s.data(), rec.s_im.data(), i);
                double* const yq = panel + u64(rec.q[i]) * kJacobiPanelRows;
                for (u64 v = 0; v < N; ++v) {
                    value xr = x[v], y = E::load(yq + v * L, plane);
                    const value y0 = y;
                    E::rotate(xr, y, r);
                    x[v] = E::blend(x[v], xr, on[v]);
                    E::store(yq + v * L, plane, E::blend(y0, y, on[v]));
                }
            }
        }
        for (u64 v = 0; v < N; ++v) E::store(xp + v * L, plane, x[v]);
    }
}

template <class V, class E> JacobiKernelSet::Kernels kernels() noexcept {
    return {&rotate_below<E>, &rotate_above<V, E>, &apply_panel<V, E>};
}

template <class V> JacobiKernelSet kernel_set(std::string_view name) noexcept {
    return {name, kernels<V, Real<V>>(), kernels<V, Complex<V>>()};
}

} // namespace quillmark::cpu::jacobi_body
