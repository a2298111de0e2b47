#pragma once
// Bodies of the streaming vector kernels over an instruction-set description: `V` holds the
// vectors of the element type, `D` the double vectors the sums of squares are formed in. Only
// the translation unit that defines `V` and `D` includes this, with that instruction set.
#include <cstdint>
#include <type_traits>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

#include "backend/cpu/vector_kernels.hpp"

namespace quillmark::cpu::vector_body {
// Internal linkage: each instruction set's translation unit keeps its own copies, so the linker
// cannot merge, say, an AVX512 build of a shared template into the AVX2 set.
namespace {

using u64 = std::uint64_t;

// The compiler may fuse a vector product into a following add (its intrinsics are plain vector
// arithmetic); passing the product through an empty asm keeps it rounded on its own.
template <class T> inline T rounded(T v) noexcept {
    __asm__("" : "+v"(v));
    return v;
}

// ROWS rows at once share the loads of x; per row two accumulators, then one, then scalars.
template <class V, int ROWS>
inline void gemv_block(u64 n, const typename V::scalar* a, u64 lda, const typename V::scalar* x,
                       typename V::scalar* y) noexcept {
    using S = typename V::scalar;
    constexpr u64 L = V::lanes;
    typename V::vector acc0[ROWS], acc1[ROWS];
#pragma GCC unroll 4
    for (int r = 0; r < ROWS; ++r) acc0[r] = acc1[r] = V::zero();
    u64 j = 0;
    for (; j + 2 * L <= n; j += 2 * L) {
        const typename V::vector x0 = V::load(x + j), x1 = V::load(x + j + L);
#pragma GCC unroll 4
        for (int r = 0; r < ROWS; ++r) {
            acc0[r] = V::fma(V::load(a + r * lda + j), x0, acc0[r]);
            acc1[r] = V::fma(V::load(a + r * lda + j + L), x1, acc1[r]);
        }
    }
    for (; j + L <= n; j += L) {
        const typename V::vector x0 = V::load(x + j);
#pragma GCC unroll 4
        for (int r = 0; r < ROWS; ++r) acc0[r] = V::fma(V::load(a + r * lda + j), x0, acc0[r]);
    }
#pragma GCC unroll 4
    for (int r = 0; r < ROWS; ++r) {
        S tail = 0;
        for (u64 t = j; t < n; ++t) tail += a[r * lda + t] * x[t];
        y[r] = V::sum(V::add(acc0[r], acc1[r])) + tail;
    }
}

template <class V>
void gemv_rows(u64 rows, u64 n, const typename V::scalar* a, u64 lda, const typename V::scalar* x,
               typename V::scalar* y) noexcept {
    u64 i = 0;
    for (; i + 4 <= rows; i += 4) gemv_block<V, 4>(n, a + i * lda, lda, x, y + i);
    for (; i < rows; ++i) gemv_block<V, 1>(n, a + i * lda, lda, x, y + i);
}

template <class D, class S> void squares_and_max(const S* x, u64 n, double* squares, double* max) noexcept {
    constexpr u64 L = D::lanes;
    typename D::vector s0 = D::zero(), s1 = D::zero(), s2 = D::zero(), s3 = D::zero();
    typename D::vector m0 = D::zero(), m1 = D::zero();
    u64 i = 0;
    for (; i + 4 * L <= n; i += 4 * L) {
        const typename D::vector v0 = D::widen(x + i), v1 = D::widen(x + i + L), v2 = D::widen(x + i + 2 * L),
                                 v3 = D::widen(x + i + 3 * L);
        s0 = D::fma(v0, v0, s0);
        s1 = D::fma(v1, v1, s1);
        s2 = D::fma(v2, v2, s2);
        s3 = D::fma(v3, v3, s3);
        m0 = D::max(D::max(D::abs(v0), D::abs(v1)), m0);
        m1 = D::max(D::max(D::abs(v2), D::abs(v3)), m1);
    }
    for (; i + L <= n; i += L) {
        const typename D::vector v0 = D::widen(x + i);
        s0 = D::fma(v0, v0, s0);
        m0 = D::max(D::abs(v0), m0);
    }
    double sum = D::sum(D::add(D::add(s0, s1), D::add(s2, s3)));
    double top = D::max_of(D::max(m0, m1));
    for (; i < n; ++i) {
        const double v = static_cast<double>(x[i]);
        sum += v * v;
        const double m = v < 0 ? -v : v;
        top = m > top ? m : top;
    }
    *squares = sum;
    *max = top;
}

template <class V>
void rotate(typename V::scalar* x, typename V::scalar* y, u64 n, typename V::scalar c,
            typename V::scalar s) noexcept {
    constexpr u64 L = V::lanes;
    const typename V::vector cv = V::set1(c), sv = V::set1(s);
    u64 i = 0;
    for (; i + L <= n; i += L) {
        const typename V::vector a = V::load(x + i), b = V::load(y + i);
        V::store(x + i, V::sub(rounded(V::mul(a, cv)), rounded(V::mul(b, sv))));
        V::store(y + i, V::add(rounded(V::mul(b, cv)), rounded(V::mul(a, sv))));
    }
    if (i == n) return;
    // The tail goes through the vector path too: scalar code here could be contracted to FMA.
    alignas(64) typename V::scalar ta[L] = {}, tb[L] = {};
    for (u64 t = i; t < n; ++t) {
        ta[t - i] = x[t];
        tb[t - i] = y[t];
    }
    const typename V::vector a = V::load(ta), b = V::load(tb);
    V::store(ta, V::sub(rounded(V::mul(a, cv)), rounded(V::mul(b, sv))));
    V::store(tb, V::add(rounded(V::mul(b, cv)), rounded(V::mul(a, sv))));
    for (u64 t = i; t < n; ++t) {
        x[t] = ta[t - i];
        y[t] = tb[t - i];
    }
}

// The last `count` < 8 terms of split_dot_rows go through the vector arithmetic too (scalar code
// could be contracted to FMA), on zero-padded copies whose extra lanes are then ignored.
template <class V>
inline void split_dot_tail(u64 count, const typename V::scalar* ar, const typename V::scalar* ai,
                           const typename V::scalar* xr, const typename V::scalar* xi, typename V::scalar* sr,
                           typename V::scalar* si) noexcept {
    using S = typename V::scalar;
    constexpr u64 L = V::lanes;
    alignas(64) S a[8] = {}, b[8] = {}, c[8] = {}, d[8] = {}, tr[8], ti[8];
    for (u64 t = 0; t < count; ++t) {
        a[t] = ar[t];
        b[t] = ai[t];
        c[t] = xr[t];
        d[t] = xi[t];
    }
    for (u64 k = 0; k < 8; k += L) {
        const typename V::vector va = V::load(a + k), vb = V::load(b + k), vc = V::load(c + k), vd = V::load(d + k);
        V::store(tr + k, V::sub(rounded(V::mul(va, vc)), rounded(V::mul(vb, vd))));
        V::store(ti + k, V::add(rounded(V::mul(va, vd)), rounded(V::mul(vb, vc))));
    }
    for (u64 t = 0; t < count; ++t) {
        sr[t] += tr[t];
        si[t] += ti[t];
    }
}

template <class V>
void split_dot_rows(u64 rows, u64 n, const typename V::scalar* ar, const typename V::scalar* ai, u64 lda,
                    const typename V::scalar* xr, const typename V::scalar* xi, typename V::scalar* yr,
                    typename V::scalar* yi) noexcept {
    using S = typename V::scalar;
    constexpr u64 L = V::lanes;
    static_assert(8 % L == 0, "eight lanes make whole vectors");
    constexpr u64 K = 8 / L;
    for (u64 r = 0; r < rows; ++r) {
        const S* pr = ar + r * lda;
        const S* pi = ai + r * lda;
        typename V::vector vr[K], vi[K];
        for (u64 k = 0; k < K; ++k) vr[k] = vi[k] = V::zero();
        u64 j = 0;
        for (; j + 8 <= n; j += 8)
#pragma GCC unroll 8
            for (u64 k = 0; k < K; ++k) {
                const u64 o = j + k * L;
                // Each operand is used twice: kept in a register rather than folded into both
                // products as a second load.
                const typename V::vector a = rounded(V::load(pr + o)), b = rounded(V::load(pi + o)),
                                         c = rounded(V::load(xr + o)), d = rounded(V::load(xi + o));
                vr[k] = V::add(vr[k], V::sub(rounded(V::mul(a, c)), rounded(V::mul(b, d))));
                vi[k] = V::add(vi[k], V::add(rounded(V::mul(a, d)), rounded(V::mul(b, c))));
            }
        alignas(64) S sr[8], si[8];
        for (u64 k = 0; k < K; ++k) {
            V::store(sr + k * L, vr[k]);
            V::store(si + k * L, vi[k]);
        }
        if (j < n) split_dot_tail<V>(n - j, pr + j, pi + j, xr + j, xi + j, sr, si);
        yr[r] = ((sr[0] + sr[1]) + (sr[2] + sr[3])) + ((sr[4] + sr[5]) + (sr[6] + sr[7]));
        yi[r] = ((si[0] + si[1]) + (si[2] + si[3])) + ((si[4] + si[5]) + (si[6] + si[7]));
    }
}

template <class V>
void add_planes(u64 n, const typename V::scalar* x, const typename V::scalar* y, typename V::scalar* out) noexcept {
    constexpr u64 L = V::lanes;
    u64 i = 0;
    for (; i + L <= n; i += L) V::store(out + i, V::add(V::load(x + i), V::load(y + i)));
    for (; i < n; ++i) out[i] = x[i] + y[i];
}

template <class V>
void subtract_planes(u64 n, const typename V::scalar* x, const typename V::scalar* y,
                     typename V::scalar* out) noexcept {
    constexpr u64 L = V::lanes;
    u64 i = 0;
    for (; i + L <= n; i += L) V::store(out + i, V::sub(V::load(x + i), V::load(y + i)));
    for (; i < n; ++i) out[i] = x[i] - y[i];
}

// (xr + i xi)(yr + i yi) with each product rounded on its own; the tail runs on padded copies.
template <class V>
void multiply_split(u64 n, const typename V::scalar* xr, const typename V::scalar* xi, const typename V::scalar* yr,
                    const typename V::scalar* yi, typename V::scalar* outr, typename V::scalar* outi) noexcept {
    using S = typename V::scalar;
    constexpr u64 L = V::lanes;
    auto step = [](const S* a, const S* b, const S* c, const S* d, S* re, S* im) {
        const typename V::vector va = rounded(V::load(a)), vb = rounded(V::load(b)), vc = rounded(V::load(c)),
                                 vd = rounded(V::load(d));
        V::store(re, V::sub(rounded(V::mul(va, vc)), rounded(V::mul(vb, vd))));
        V::store(im, V::add(rounded(V::mul(va, vd)), rounded(V::mul(vb, vc))));
    };
    u64 i = 0;
    for (; i + L <= n; i += L) step(xr + i, xi + i, yr + i, yi + i, outr + i, outi + i);
    if (i == n) return;
    alignas(64) S a[L] = {}, b[L] = {}, c[L] = {}, d[L] = {}, re[L], im[L];
    for (u64 t = i; t < n; ++t) {
        a[t - i] = xr[t];
        b[t - i] = xi[t];
        c[t - i] = yr[t];
        d[t - i] = yi[t];
    }
    step(a, b, c, d, re, im);
    for (u64 t = i; t < n; ++t) {
        outr[t] = re[t - i];
        outi[t] = im[t - i];
    }
}

#if defined(__AVX2__)
// Interleaved complex data to split planes and back: exact copies, 256 bits at a time. Baseline
// builds leave these to the layout adaptation's own 128-bit loops.
template <class S> void to_split(u64 n, const S* interleaved, S* re, S* im) noexcept {
    u64 i = 0;
    if constexpr (std::is_same_v<S, double>) {
        for (; i + 4 <= n; i += 4) {
            const __m256d a = _mm256_loadu_pd(interleaved + 2 * i), b = _mm256_loadu_pd(interleaved + 2 * i + 4);
            const __m256d first = _mm256_permute2f128_pd(a, b, 0x20), second = _mm256_permute2f128_pd(a, b, 0x31);
            _mm256_storeu_pd(re + i, _mm256_unpacklo_pd(first, second));
            _mm256_storeu_pd(im + i, _mm256_unpackhi_pd(first, second));
        }
    } else {
        for (; i + 8 <= n; i += 8) {
            const __m256 a = _mm256_loadu_ps(interleaved + 2 * i), b = _mm256_loadu_ps(interleaved + 2 * i + 8);
            const __m256 first = _mm256_permute2f128_ps(a, b, 0x20), second = _mm256_permute2f128_ps(a, b, 0x31);
            _mm256_storeu_ps(re + i, _mm256_shuffle_ps(first, second, _MM_SHUFFLE(2, 0, 2, 0)));
            _mm256_storeu_ps(im + i, _mm256_shuffle_ps(first, second, _MM_SHUFFLE(3, 1, 3, 1)));
        }
    }
    for (; i < n; ++i) {
        re[i] = interleaved[2 * i];
        im[i] = interleaved[2 * i + 1];
    }
}

// Each block of eight pairs is split by in-lane unpacks alone, which leave the terms in the
// order 0, 2, 1, 3 (then 4, 6, 5, 7); x is stored in that order once, and the lanes are put back
// in place before they are combined. The tail after the last block keeps x in natural order.
constexpr int kPackedLane[8] = {0, 2, 1, 3, 4, 6, 5, 7};

inline void pack_dot_x(u64 n, const double* x, double* packed) noexcept {
    const u64 full = n / 8 * 8, count = n - full;
    for (u64 j = 0; j < full; j += 8)
        for (int k = 0; k < 8; ++k) {
            packed[2 * j + k] = x[2 * (j + kPackedLane[k])];
            packed[2 * j + 8 + k] = x[2 * (j + kPackedLane[k]) + 1];
        }
    for (u64 t = 0; t < count; ++t) {
        packed[2 * full + t] = x[2 * (full + t)];
        packed[2 * full + count + t] = x[2 * (full + t) + 1];
    }
}

template <class V>
void interleaved_dot_rows(u64 rows, u64 n, const double* a, u64 lda, const double* packed, double* y) noexcept {
    const u64 full = n / 8 * 8, count = n - full;
    const double* tail_xr = packed + 2 * full;
    const double* tail_xi = tail_xr + count;
    for (u64 r = 0; r < rows; ++r) {
        const double* p = a + 2 * r * lda;
        __m256d vr0 = _mm256_setzero_pd(), vr1 = vr0, vi0 = vr0, vi1 = vr0;
        for (u64 j = 0; j < full; j += 8) {
            const double* q = p + 2 * j;
            const double* x = packed + 2 * j;
            const __m256d c0 = _mm256_loadu_pd(q), c1 = _mm256_loadu_pd(q + 4), c2 = _mm256_loadu_pd(q + 8),
                          c3 = _mm256_loadu_pd(q + 12);
            const __m256d a0 = _mm256_unpacklo_pd(c0, c1), b0 = _mm256_unpackhi_pd(c0, c1);
            const __m256d a1 = _mm256_unpacklo_pd(c2, c3), b1 = _mm256_unpackhi_pd(c2, c3);
            const __m256d xr0 = rounded(_mm256_loadu_pd(x)), xr1 = rounded(_mm256_loadu_pd(x + 4)),
                          xi0 = rounded(_mm256_loadu_pd(x + 8)), xi1 = rounded(_mm256_loadu_pd(x + 12));
            vr0 = V::add(vr0, V::sub(rounded(V::mul(a0, xr0)), rounded(V::mul(b0, xi0))));
            vi0 = V::add(vi0, V::add(rounded(V::mul(a0, xi0)), rounded(V::mul(b0, xr0))));
            vr1 = V::add(vr1, V::sub(rounded(V::mul(a1, xr1)), rounded(V::mul(b1, xi1))));
            vi1 = V::add(vi1, V::add(rounded(V::mul(a1, xi1)), rounded(V::mul(b1, xr1))));
        }
        alignas(32) double pr[8], pi[8], sr[8], si[8];
        _mm256_store_pd(pr, vr0);
        _mm256_store_pd(pr + 4, vr1);
        _mm256_store_pd(pi, vi0);
        _mm256_store_pd(pi + 4, vi1);
        for (int k = 0; k < 8; ++k) {
            sr[kPackedLane[k]] = pr[k];
            si[kPackedLane[k]] = pi[k];
        }
        if (count != 0) {
            double ar[8], ai[8];
            for (u64 t = 0; t < count; ++t) {
                ar[t] = p[2 * (full + t)];
                ai[t] = p[2 * (full + t) + 1];
            }
            split_dot_tail<V>(count, ar, ai, tail_xr, tail_xi, sr, si);
        }
        y[2 * r] = ((sr[0] + sr[1]) + (sr[2] + sr[3])) + ((sr[4] + sr[5]) + (sr[6] + sr[7]));
        y[2 * r + 1] = ((si[0] + si[1]) + (si[2] + si[3])) + ((si[4] + si[5]) + (si[6] + si[7]));
    }
}

template <class S> void to_interleaved(u64 n, const S* re, const S* im, S* interleaved) noexcept {
    u64 i = 0;
    if constexpr (std::is_same_v<S, double>) {
        for (; i + 4 <= n; i += 4) {
            const __m256d r = _mm256_loadu_pd(re + i), m = _mm256_loadu_pd(im + i);
            const __m256d low = _mm256_unpacklo_pd(r, m), high = _mm256_unpackhi_pd(r, m);
            _mm256_storeu_pd(interleaved + 2 * i, _mm256_permute2f128_pd(low, high, 0x20));
            _mm256_storeu_pd(interleaved + 2 * i + 4, _mm256_permute2f128_pd(low, high, 0x31));
        }
    } else {
        for (; i + 8 <= n; i += 8) {
            const __m256 r = _mm256_loadu_ps(re + i), m = _mm256_loadu_ps(im + i);
            const __m256 low = _mm256_unpacklo_ps(r, m), high = _mm256_unpackhi_ps(r, m);
            _mm256_storeu_ps(interleaved + 2 * i, _mm256_permute2f128_ps(low, high, 0x20));
            _mm256_storeu_ps(interleaved + 2 * i + 8, _mm256_permute2f128_ps(low, high, 0x31));
        }
    }
    for (; i < n; ++i) {
        interleaved[2 * i] = re[i];
        interleaved[2 * i + 1] = im[i];
    }
}
#endif

template <class V, class D> VectorKernelSet<typename V::scalar> kernel_set(std::string_view name) noexcept {
    using S = typename V::scalar;
    VectorKernelSet<S> k;
    k.name = name;
    k.gemv_rows = &gemv_rows<V>;
    k.squares_and_max = &squares_and_max<D, S>;
    k.rotate = &rotate<V>;
    // Eight lanes as whole vectors; wider vectors (sixteen floats) leave it to a narrower set.
    if constexpr (8 % V::lanes == 0) k.split_dot_rows = &split_dot_rows<V>;
    k.add_planes = &add_planes<V>;
    k.subtract_planes = &subtract_planes<V>;
    k.multiply_split = &multiply_split<V>;
#if defined(__AVX2__)
    k.to_split = &to_split<S>;
    k.to_interleaved = &to_interleaved<S>;
    if constexpr (std::is_same_v<S, double> && V::lanes == 4) {
        k.pack_dot_x = &pack_dot_x;
        k.interleaved_dot_rows = &interleaved_dot_rows<V>;
    }
#endif
    return k;
}

} // namespace
} // namespace quillmark::cpu::vector_body
