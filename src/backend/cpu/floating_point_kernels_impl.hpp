#pragma once
// Bodies of the dense kernels, included only by the translation units that instantiate them.
// One body serves every layout: element access goes through small accessors chosen at compile
// time from the view type (dense or split planes) and matrix strides taken from the geometry.
#include <emmintrin.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cfloat>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "backend/cpu/floating_point_kernels.hpp"
#include "backend/cpu/gemm.hpp"
#include "backend/cpu/gemm_sources.hpp"
#include "backend/cpu/vector_kernels.hpp"
#include "runtime/cpu_runtime_context.hpp"

namespace quillmark::cpu {
namespace detail {

using u64 = std::uint64_t;

[[noreturn]] inline void shape_mismatch() {
    throw std::invalid_argument("CPU floating kernel - operand shape mismatch");
}
inline void require(bool ok) {
    if (!ok) shape_mismatch();
}

template <class C> struct ComplexTraits {
    static constexpr bool complex = false;
    using real = C;
};
template <class R> struct ComplexTraits<std::complex<R>> {
    static constexpr bool complex = true;
    using real = R;
};
template <class C> inline constexpr bool is_complex_v = ComplexTraits<C>::complex;
template <class C> using RealOf = typename ComplexTraits<C>::real;

// int32 arithmetic runs in uint32_t so that overflow wraps instead of being undefined.
template <class P>
using Compute = std::conditional_t<is_integer_policy<P>, std::uint32_t, typename P::compute_type>;

// The naive product, as BLAS and NumPy form it (no Annex G recovery of infinities).
template <class C> inline C mul(const C& a, const C& b) noexcept {
    if constexpr (is_complex_v<C>)
        return C(a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real());
    else return a * b;
}
template <class C> inline C conj_of(const C& a) noexcept {
    if constexpr (is_complex_v<C>) return C(a.real(), -a.imag());
    else return a;
}

// ---- element accessors ----------------------------------------------------------------------

template <class S, class C> struct DenseAcc {
    S* p;
    C load(u64 i) const noexcept {
        if constexpr (std::is_same_v<S, std::int32_t>) return static_cast<C>(p[i]);
        else return load_element<C>(p, i);
    }
    void store(u64 i, const C& v) const noexcept {
        if constexpr (std::is_same_v<S, std::int32_t>) p[i] = static_cast<std::int32_t>(v);
        else store_element<S>(p, i, v);
    }
};

template <class T, class C> struct SplitAcc {
    T* re;
    T* im;
    C load(u64 i) const noexcept { return load_split<C>(re, im, i); }
    void store(u64 i, const C& v) const noexcept { store_split<T>(re, im, i, v); }
};

template <class C, class S> DenseAcc<S, C> acc_of(const DenseVectorView<S>& v) { return {v.data}; }
template <class C, class T> SplitAcc<T, C> acc_of(const SplitVectorView<T>& v) { return {v.re, v.im}; }
template <class C, class S> DenseAcc<S, C> acc_of(const ScalarView<S>& v) { return {v.data}; }
template <class C, class T> SplitAcc<T, C> acc_of(const SplitScalarView<T>& v) { return {v.data, v.data + 1}; }

struct Strides {
    u64 rs;
    u64 cs;
};
inline Strides strides_of(const MatrixGeometry& g) noexcept {
    return g.layout == MatrixLayout::column_major ? Strides{1, g.rows} : Strides{g.cols, 1};
}

template <class A> struct MatAcc {
    A a;
    u64 rs;
    u64 cs;
    auto load(u64 i, u64 j) const noexcept { return a.load(i * rs + j * cs); }
    template <class C> void store(u64 i, u64 j, const C& v) const noexcept { a.store(i * rs + j * cs, v); }
};

template <class C, class S> MatAcc<DenseAcc<S, C>> mat_of(const DenseMatrixView<S>& m) {
    const Strides s = strides_of(m);
    return {{m.data}, s.rs, s.cs};
}
template <class C, class T> MatAcc<SplitAcc<T, C>> mat_of(const SplitMatrixView<T>& m) {
    const Strides s = strides_of(m);
    return {{m.re, m.im}, s.rs, s.cs};
}

// ---- overlap handling -----------------------------------------------------------------------

inline bool ranges_overlap(const void* a, u64 abytes, const void* b, u64 bbytes) noexcept {
    if (abytes == 0 || bbytes == 0 || a == nullptr || b == nullptr) return false;
    const auto x = reinterpret_cast<std::uintptr_t>(a), y = reinterpret_cast<std::uintptr_t>(b);
    return x < y + bbytes && y < x + abytes;
}

template <class S> u64 count_of(const DenseVectorView<S>& v) { return v.size; }
template <class S> u64 count_of(const DenseMatrixView<S>& m) { return m.count(); }
template <class T> u64 count_of(const SplitVectorView<T>& v) { return v.size; }
template <class T> u64 count_of(const SplitMatrixView<T>& m) { return m.count(); }

template <class V> auto planes_of(const V& v) {
    if constexpr (requires { v.re; }) return std::array<const void*, 2>{v.re, v.im};
    else return std::array<const void*, 2>{v.data, nullptr};
}
template <class V> constexpr u64 plane_element_size() {
    if constexpr (requires(V v) { v.re; }) return sizeof(std::remove_pointer_t<decltype(V{}.re)>);
    else return sizeof(std::remove_pointer_t<decltype(V{}.data)>);
}

template <class V, class W> bool views_overlap(const V& a, const W& b) {
    const u64 ab = count_of(a) * plane_element_size<V>(), bb = count_of(b) * plane_element_size<W>();
    for (const void* pa : planes_of(a))
        for (const void* pb : planes_of(b))
            if (ranges_overlap(pa, ab, pb, bb)) return true;
    return false;
}

// A private copy of an input view, taken only when the output overlaps it.
template <class V> class InputGuard {
public:
    template <class Out> InputGuard(const V& in, const Out& out) : view_(in) {
        if (!views_overlap(in, out)) return;
        const u64 n = count_of(in);
        if constexpr (requires { in.re; }) {
            using T = std::remove_pointer_t<decltype(in.re)>;
            copy_.resize((2 * n * sizeof(T) + sizeof(Word) - 1) / sizeof(Word));
            T* re = reinterpret_cast<T*>(copy_.data());
            std::memcpy(re, in.re, n * sizeof(T));
            std::memcpy(re + n, in.im, n * sizeof(T));
            view_.re = re;
            view_.im = re + n;
        } else {
            using S = std::remove_pointer_t<decltype(in.data)>;
            copy_.resize((n * sizeof(S) + sizeof(Word) - 1) / sizeof(Word));
            view_.data = reinterpret_cast<S*>(copy_.data());
            std::memcpy(view_.data, in.data, n * sizeof(S));
        }
    }
    const V& view() const noexcept { return view_; }

private:
    using Word = std::max_align_t;
    V view_;
    std::vector<Word> copy_;
};

// ---- parallel loops and reductions ----------------------------------------------------------

template <class F> void run_chunks(const CpuRuntimeContext* ctx, u64 n, u64 work, F&& body) {
    if (n == 0) return;
    if (ctx == nullptr || n < 2) {
        body(u64{0}, n);
        return;
    }
    auto& b = body;
    ctx->parallel_for_chunks(0, n, work, ChunkBody([&b](u64 first, u64 last) { b(first, last); }));
}

// Fixed blocks keep the grouping of a reduction, and so its result, independent of threads.
inline constexpr u64 kReduceBlock = 4096;

template <class A> A combine_pairwise(std::vector<A>& parts, auto&& combine) {
    u64 n = parts.size();
    while (n > 1) {
        const u64 half = (n + 1) / 2;
        for (u64 i = 0; i + half < n; ++i) parts[i] = combine(parts[i], parts[i + half]);
        n = half;
    }
    return parts[0];
}

// partial(first, last) reduces one block; blocks are combined pairwise.
template <class A, class Partial, class Combine>
A blocked_reduce(const CpuRuntimeContext* ctx, u64 n, u64 work_per_element, A identity, Partial&& partial,
                 Combine&& combine) {
    if (n == 0) return identity;
    const u64 blocks = (n + kReduceBlock - 1) / kReduceBlock;
    std::vector<A> parts(blocks, identity);
    run_chunks(ctx, blocks, n * work_per_element, [&](u64 first, u64 last) {
        for (u64 b = first; b < last; ++b)
            parts[b] = partial(b * kReduceBlock, std::min(n, (b + 1) * kReduceBlock));
    });
    return combine_pairwise(parts, combine);
}

// Sum of term(i) over [first, last) with eight independent lanes.
template <class C, class Term> C lane_sum(u64 first, u64 last, Term&& term) {
    C acc[8] = {};
    u64 i = first;
    for (; i + 8 <= last; i += 8)
        for (int l = 0; l < 8; ++l) acc[l] += term(i + l);
    for (; i < last; ++i) acc[i & 7] += term(i);
    return ((acc[0] + acc[1]) + (acc[2] + acc[3])) + ((acc[4] + acc[5]) + (acc[6] + acc[7]));
}

// The split-plane row products of the selected vector kernels, or of the portable set where the
// selected vectors are wider than the eight lanes the sums are grouped in.
template <class R> auto split_dot_rows_kernel() {
    static const auto kernel = [] {
        auto k = default_vector_kernels<R>().split_dot_rows;
        return k ? k : available_vector_kernels<R>().front().split_dot_rows;
    }();
    return kernel;
}

// Split complex data stored in its compute type: plane kernels apply without conversions.
template <class P, ComplexLayout L>
inline constexpr bool split_native = L == ComplexLayout::split && is_complex_v<typename P::compute_type> &&
                                     std::is_same_v<typename P::storage_type, typename P::compute_type>;

// ---- products -------------------------------------------------------------------------------

// Loader of an operand for the product: element (line, depth) at line * ls + depth * ds.
template <class R, class S> auto loader_of(const DenseMatrixView<S>& m, u64 ls, u64 ds) {
    if constexpr (!std::is_same_v<typename StorageComponent<S>::type, S>)
        return InterleavedComplexLoader<S, R>{m.data, ls, ds};
    else return RealPanelSource<S, R>{m.data, ls, ds};
}
template <class R, class T> auto loader_of(const SplitMatrixView<T>& m, u64 ls, u64 ds) {
    return SplitComplexLoader<T, R>{m.re, m.im, ls, ds};
}

// c (row-major, ldc) = L R, with L given by lines i and R by lines j, both along depth p < k.
// Complex operands run through the real embedding and leave c interleaved (2n reals a row).
template <class C, class LL, class RL>
void product_lines(u64 m, u64 n, u64 k, const LL& left, bool conj_left, const RL& right, RealOf<C>* c, u64 ldc,
                   const CpuRuntimeContext* ctx) {
    using R = RealOf<C>;
    if constexpr (is_complex_v<C>) {
        const ComplexLeftSource<LL, R> l{left, conj_left};
        const ComplexRightSource<RL, R> r{right};
        gemm<R>(m, 2 * n, 2 * k, l.packer(), r.packer(), c, ldc, ctx);
    } else {
        gemm<R>(m, n, k, left.packer(), right.packer(), c, ldc, ctx);
    }
}

// c = op(A) B into a row-major compute buffer (complex interleaved), op = identity or adjoint.
template <class C, class VA, class VB>
void product_to_buffer(const VA& a, bool adjoint_a, const VB& b, C* c, const CpuRuntimeContext* ctx) {
    using R = RealOf<C>;
    const Strides sa = strides_of(a), sb = strides_of(b);
    const u64 m = adjoint_a ? a.cols : a.rows, k = adjoint_a ? a.rows : a.cols, n = b.cols;
    const auto left = adjoint_a ? loader_of<R>(a, sa.cs, sa.rs) : loader_of<R>(a, sa.rs, sa.cs);
    const auto right = loader_of<R>(b, sb.cs, sb.rs);
    product_lines<C>(m, n, k, left, adjoint_a, right, reinterpret_cast<R*>(c), n * (is_complex_v<C> ? 2 : 1), ctx);
}

template <class C> u64 reals_per(u64 n) { return is_complex_v<C> ? 2 * n : n; }

template <class C> std::vector<C> identity_buffer(u64 n) {
    std::vector<C> e(n * n, C{});
    for (u64 i = 0; i < n; ++i) e[i * n + i] = C(1);
    return e;
}

// Machine epsilon of the precision values are stored in.
template <class S> constexpr double storage_epsilon() {
    using T = typename StorageComponent<S>::type;
    if constexpr (std::is_same_v<T, BFloat16>) return 0x1p-7;
    else if constexpr (std::is_same_v<T, Float16>) return 0x1p-10;
    else return std::numeric_limits<T>::epsilon();
}

} // namespace detail

// ---- element-wise -------------------------------------------------------------------------------

#define QM_KERNEL(ret) template <class P, ComplexLayout L> ret FloatingKernels<P, L>
#define QM_FLOATING requires(!is_integer_policy<P>)

namespace detail {
template <class C, class V, class F> void map_unary(const V& in, const V& out, const CpuRuntimeContext* ctx, F f) {
    require(in.size == out.size);
    const auto x = acc_of<C>(in);
    const auto o = acc_of<C>(out);
    run_chunks(ctx, in.size, in.size, [&](u64 first, u64 last) {
        for (u64 i = first; i < last; ++i) o.store(i, f(x.load(i)));
    });
}
template <class C, class V, class F>
void map_binary(const V& a, const V& b, const V& out, const CpuRuntimeContext* ctx, F f) {
    require(a.size == b.size && out.size == a.size);
    const auto x = acc_of<C>(a);
    const auto y = acc_of<C>(b);
    const auto o = acc_of<C>(out);
    run_chunks(ctx, a.size, a.size, [&](u64 first, u64 last) {
        for (u64 i = first; i < last; ++i) o.store(i, f(x.load(i), y.load(i)));
    });
}

// std::sqrt on a scalar keeps the errno branch and defeats vectorisation; SSE2 does not.
inline void sqrt_span(const float* in, float* out, u64 n) {
    u64 i = 0;
    for (; i + 4 <= n; i += 4) _mm_storeu_ps(out + i, _mm_sqrt_ps(_mm_loadu_ps(in + i)));
    for (; i < n; ++i) out[i] = _mm_cvtss_f32(_mm_sqrt_ss(_mm_set_ss(in[i])));
}
inline void sqrt_span(const double* in, double* out, u64 n) {
    u64 i = 0;
    for (; i + 2 <= n; i += 2) _mm_storeu_pd(out + i, _mm_sqrt_pd(_mm_loadu_pd(in + i)));
    for (; i < n; ++i) out[i] = _mm_cvtsd_f64(_mm_sqrt_sd(_mm_setzero_pd(), _mm_set_sd(in[i])));
}
inline float sqrt_real(float v) { return _mm_cvtss_f32(_mm_sqrt_ss(_mm_set_ss(v))); }
inline double sqrt_real(double v) { return _mm_cvtsd_f64(_mm_sqrt_sd(_mm_setzero_pd(), _mm_set_sd(v))); }
} // namespace detail

QM_KERNEL(void)::sqrt(const Vector& in, const Vector& out, Ctx ctx) QM_FLOATING {
    using C = detail::Compute<P>;
    using S = typename P::storage_type;
    if constexpr (L == ComplexLayout::none && std::is_same_v<S, C>) {
        detail::require(in.size == out.size);
        detail::run_chunks(ctx, in.size, in.size, [&](detail::u64 first, detail::u64 last) {
            detail::sqrt_span(in.data + first, out.data + first, last - first);
        });
    } else if constexpr (detail::is_complex_v<C>) {
        detail::map_unary<C>(in, out, ctx, [](const C& v) { return std::sqrt(v); });
    } else {
        detail::map_unary<C>(in, out, ctx, [](const C& v) { return detail::sqrt_real(v); });
    }
}

QM_KERNEL(void)::conjugate(const Vector& inout, Ctx ctx) QM_FLOATING {
    using C = detail::Compute<P>;
    (void)ctx;
    if constexpr (detail::is_complex_v<C>)
        detail::map_unary<C>(inout, inout, ctx, [](const C& v) { return detail::conj_of(v); });
}

QM_KERNEL(void)::multiply(const Vector& x, const Vector& y, const Vector& out, Ctx ctx) {
    using C = detail::Compute<P>;
    if constexpr (detail::split_native<P, L>) {
        detail::require(x.size == y.size && out.size == x.size);
        const auto multiply = default_vector_kernels<detail::RealOf<C>>().multiply_split;
        detail::run_chunks(ctx, x.size, x.size, [&](detail::u64 f, detail::u64 l) {
            multiply(l - f, x.re + f, x.im + f, y.re + f, y.im + f, out.re + f, out.im + f);
        });
    } else {
        detail::map_binary<C>(x, y, out, ctx, [](const C& a, const C& b) { return detail::mul(a, b); });
    }
}

namespace detail {
// Sums and differences of split data are those of its planes.
template <class V, class K> void plane_wise(const V& x, const V& y, const V& out, const CpuRuntimeContext* ctx, K kernel) {
    require(x.size == y.size && out.size == x.size);
    run_chunks(ctx, x.size, x.size, [&](u64 f, u64 l) {
        kernel(l - f, x.re + f, y.re + f, out.re + f);
        kernel(l - f, x.im + f, y.im + f, out.im + f);
    });
}
} // namespace detail

QM_KERNEL(void)::add(const Vector& x, const Vector& y, const Vector& out, Ctx ctx) {
    using C = detail::Compute<P>;
    if constexpr (detail::split_native<P, L>)
        detail::plane_wise(x, y, out, ctx, default_vector_kernels<detail::RealOf<C>>().add_planes);
    else detail::map_binary<C>(x, y, out, ctx, [](const C& a, const C& b) { return a + b; });
}

QM_KERNEL(void)::subtract(const Vector& x, const Vector& y, const Vector& out, Ctx ctx) {
    using C = detail::Compute<P>;
    if constexpr (detail::split_native<P, L>)
        detail::plane_wise(x, y, out, ctx, default_vector_kernels<detail::RealOf<C>>().subtract_planes);
    else detail::map_binary<C>(x, y, out, ctx, [](const C& a, const C& b) { return a - b; });
}

QM_KERNEL(void)::scale(const Vector& x, const Scalar& s, const Vector& out, Ctx ctx) {
    using C = detail::Compute<P>;
    const C factor = detail::acc_of<C>(s).load(0);
    detail::map_unary<C>(x, out, ctx, [factor](const C& a) { return detail::mul(a, factor); });
}

QM_KERNEL(void)::divide(const Vector& x, const Scalar& s, const Vector& out, Ctx ctx) QM_FLOATING {
    using C = detail::Compute<P>;
    const C divisor = detail::acc_of<C>(s).load(0);
    detail::map_unary<C>(x, out, ctx, [divisor](const C& a) { return a / divisor; });
}

// ---- reductions ---------------------------------------------------------------------------------

QM_KERNEL(void)::sum(const Vector& x, const Scalar& out, Ctx ctx) {
    using C = detail::Compute<P>;
    const auto a = detail::acc_of<C>(x);
    const C total = detail::blocked_reduce(
        ctx, x.size, 1, C{},
        [&](detail::u64 first, detail::u64 last) {
            return detail::lane_sum<C>(first, last, [&](detail::u64 i) { return a.load(i); });
        },
        [](const C& u, const C& v) { return u + v; });
    detail::acc_of<C>(out).store(0, total);
}

namespace detail {
// Scaled sum of squares in three ranges (small, medium, big) with the thresholds and scale
// factors of Blue's algorithm for binary64: no intermediate can overflow or lose everything
// to underflow.
struct BlueSums {
    double small = 0, medium = 0, big = 0;
};
inline constexpr double kBlueSmall = 0x1p-511, kBlueBig = 0x1p486, kBlueScaleSmall = 0x1p537,
                        kBlueScaleBig = 0x1p-538;
inline void blue_add(BlueSums& s, double v) noexcept {
    const double a = std::fabs(v);
    if (a > kBlueBig) {
        const double t = a * kBlueScaleBig;
        s.big += t * t;
    } else if (a < kBlueSmall) {
        const double t = a * kBlueScaleSmall;
        s.small += t * t;
    } else {
        s.medium += a * a;
    }
}
inline double blue_result(const BlueSums& s) noexcept {
    if (std::isnan(s.small) || std::isnan(s.medium) || std::isnan(s.big)) return std::numeric_limits<double>::quiet_NaN();
    if (s.big > 0) return std::sqrt(s.big + (s.medium * kBlueScaleBig) * kBlueScaleBig) / kBlueScaleBig;
    if (s.small > 0) {
        if (s.medium > 0) {
            const double med = std::sqrt(s.medium), sml = std::sqrt(s.small) / kBlueScaleSmall;
            const double hi = std::max(med, sml), lo = std::min(med, sml);
            const double r = lo / hi;
            return hi * std::sqrt(1 + r * r);
        }
        return std::sqrt(s.small) / kBlueScaleSmall;
    }
    return std::sqrt(s.medium);
}
struct SquaresAndMax {
    double squares = 0;
    double max = 0;
};
} // namespace detail

QM_KERNEL(void)::norm(const Vector& x, const RealScalar& out, Ctx ctx) QM_FLOATING {
    using C = detail::Compute<P>;
    using R = detail::RealOf<C>;
    using detail::u64;
    const auto a = detail::acc_of<C>(x);
    constexpr u64 parts = detail::is_complex_v<C> ? 2 : 1;
    auto component = [&](u64 i) -> R {
        if constexpr (detail::is_complex_v<C>) {
            const C v = a.load(i >> 1);
            return (i & 1) ? v.imag() : v.real();
        } else {
            return a.load(i);
        }
    };
    const u64 n = x.size * parts;
    // Real float and double data goes straight to the vector kernel; other policies load
    // element by element.
    constexpr bool direct = std::is_same_v<typename P::storage_type, C> && !detail::is_complex_v<C>;
    auto squares_and_max = [&](u64 first, u64 last) {
        detail::SquaresAndMax s;
        if constexpr (direct) {
            default_vector_kernels<C>().squares_and_max(x.data + first, last - first, &s.squares, &s.max);
        } else {
            s.squares = detail::lane_sum<double>(first, last, [&](u64 i) {
                const double v = component(i);
                return v * v;
            });
            for (u64 i = first; i < last; ++i) s.max = std::max(s.max, std::fabs(double(component(i))));
        }
        return s;
    };
    double result;
    if constexpr (std::is_same_v<R, float> && direct) {
        // Squares of binary32 values neither overflow nor underflow in binary64.
        const double squares = detail::blocked_reduce(
            ctx, n, 2, 0.0, [&](u64 first, u64 last) { return squares_and_max(first, last).squares; },
            [](double u, double v) { return u + v; });
        result = std::sqrt(squares);
    } else if constexpr (std::is_same_v<R, float>) {
        // Squares of binary32 values neither overflow nor underflow in binary64.
        const double squares = detail::blocked_reduce(
            ctx, n, 2, 0.0,
            [&](u64 first, u64 last) {
                return detail::lane_sum<double>(first, last, [&](u64 i) {
                    const double v = component(i);
                    return v * v;
                });
            },
            [](double u, double v) { return u + v; });
        result = std::sqrt(squares);
    } else {
        // Plain squares when every magnitude lies where squaring is safe; Blue's scaled sums
        // only for vectors with huge, tiny or non-finite entries.
        const auto plain = detail::blocked_reduce(
            ctx, n, 2, detail::SquaresAndMax{}, squares_and_max,
            [](const detail::SquaresAndMax& u, const detail::SquaresAndMax& v) {
                return detail::SquaresAndMax{u.squares + v.squares, std::max(u.max, v.max)};
            });
        if (std::isnan(plain.squares) || plain.max == 0 || (plain.max >= 0x1p-460 && plain.max <= detail::kBlueBig)) {
            result = std::sqrt(plain.squares);
        } else {
            const auto sums = detail::blocked_reduce(
                ctx, n, 4, detail::BlueSums{},
                [&](u64 first, u64 last) {
                    detail::BlueSums s;
                    for (u64 i = first; i < last; ++i) detail::blue_add(s, component(i));
                    return s;
                },
                [](const detail::BlueSums& u, const detail::BlueSums& v) {
                    return detail::BlueSums{u.small + v.small, u.medium + v.medium, u.big + v.big};
                });
            result = detail::blue_result(sums);
        }
    }
    detail::acc_of<R>(out).store(0, static_cast<R>(result));
}

QM_KERNEL(void)::inner(const Vector& x, const Vector& y, const Scalar& out, Ctx ctx) {
    using C = detail::Compute<P>;
    detail::require(x.size == y.size);
    const auto a = detail::acc_of<C>(x);
    const auto b = detail::acc_of<C>(y);
    const C total = detail::blocked_reduce(
        ctx, x.size, 2, C{},
        [&](detail::u64 first, detail::u64 last) {
            return detail::lane_sum<C>(first, last,
                                       [&](detail::u64 i) { return detail::mul(detail::conj_of(a.load(i)), b.load(i)); });
        },
        [](const C& u, const C& v) { return u + v; });
    detail::acc_of<C>(out).store(0, total);
}

QM_KERNEL(void)::trace(const Matrix& a, const Scalar& out, Ctx ctx) {
    using C = detail::Compute<P>;
    const auto m = detail::mat_of<C>(a);
    const detail::u64 diagonal = std::min(a.rows, a.cols);
    const C total = detail::blocked_reduce(
        ctx, diagonal, 1, C{},
        [&](detail::u64 first, detail::u64 last) {
            return detail::lane_sum<C>(first, last, [&](detail::u64 i) { return m.load(i, i); });
        },
        [](const C& u, const C& v) { return u + v; });
    detail::acc_of<C>(out).store(0, total);
}

namespace detail {
// Exact equality first; a finite pair may then differ by a few units in the last place of the
// compute type, relative to the larger magnitude. Infinities and NaN only compare exactly.
template <class R> bool component_equal(R a, R b) noexcept {
    if (a == b) return true;
    if constexpr (std::is_integral_v<R>) {
        return false;
    } else {
        if (!std::isfinite(a) || !std::isfinite(b)) return false;
        constexpr R tolerance = 4 * std::numeric_limits<R>::epsilon();
        return std::fabs(a - b) <= tolerance * std::max(std::fabs(a), std::fabs(b));
    }
}
} // namespace detail

QM_KERNEL(void)::vector_equal(const Vector& x, const Vector& y, const FlagView& out, Ctx ctx) {
    using C = detail::Compute<P>;
    bool equal = x.size == y.size;
    if (equal) {
        const auto a = detail::acc_of<C>(x);
        const auto b = detail::acc_of<C>(y);
        equal = detail::blocked_reduce(
            ctx, x.size, 1, std::uint8_t{1},
            [&](detail::u64 first, detail::u64 last) {
                for (detail::u64 i = first; i < last; ++i) {
                    const C u = a.load(i), v = b.load(i);
                    if constexpr (detail::is_complex_v<C>) {
                        if (!detail::component_equal(u.real(), v.real()) || !detail::component_equal(u.imag(), v.imag()))
                            return std::uint8_t{0};
                    } else if (!detail::component_equal(u, v)) {
                        return std::uint8_t{0};
                    }
                }
                return std::uint8_t{1};
            },
            [](std::uint8_t u, std::uint8_t v) { return std::uint8_t(u & v); }) != 0;
    }
    out.data[0] = equal ? 1 : 0;
}

QM_KERNEL(void)::is_unitary(const Matrix& a, const FlagView& out, Ctx ctx) QM_FLOATING {
    using C = detail::Compute<P>;
    using R = detail::RealOf<C>;
    if (a.rows != a.cols) {
        out.data[0] = 0;
        return;
    }
    const detail::u64 n = a.rows;
    std::vector<C> gram(n * n);
    detail::product_to_buffer(a, true, a, gram.data(), ctx);
    // A^H A of a matrix whose columns are orthonormal up to rounding in its storage precision
    // departs from I by about n units of that precision.
    const double tolerance = 4.0 * double(std::max<detail::u64>(n, 1)) * detail::storage_epsilon<typename P::storage_type>();
    bool unitary = true;
    for (detail::u64 i = 0; i < n && unitary; ++i)
        for (detail::u64 j = 0; j < n; ++j) {
            const C d = gram[i * n + j] - (i == j ? C(1) : C(0));
            double err;
            if constexpr (detail::is_complex_v<C>) err = std::hypot(double(d.real()), double(d.imag()));
            else err = std::fabs(double(R(d)));
            if (!(err <= tolerance)) {
                unitary = false;
                break;
            }
        }
    out.data[0] = unitary ? 1 : 0;
}

// ---- matrix results -----------------------------------------------------------------------------

namespace detail {
template <class C, class M, class F> void transpose_map(const M& in_view, const M& out_view, const CpuRuntimeContext* ctx, F f) {
    require(out_view.rows == in_view.cols && out_view.cols == in_view.rows);
    const InputGuard<M> guard(in_view, out_view);
    const auto in = mat_of<C>(guard.view());
    const auto out = mat_of<C>(out_view);
    constexpr u64 tile = 32;
    const u64 rows = in_view.rows, cols = in_view.cols;
    const u64 row_tiles = (rows + tile - 1) / tile;
    run_chunks(ctx, row_tiles, rows * cols, [&](u64 first, u64 last) {
        for (u64 it = first; it < last; ++it) {
            const u64 i0 = it * tile, i1 = std::min(rows, i0 + tile);
            for (u64 j0 = 0; j0 < cols; j0 += tile) {
                const u64 j1 = std::min(cols, j0 + tile);
                for (u64 i = i0; i < i1; ++i)
                    for (u64 j = j0; j < j1; ++j) out.store(j, i, f(C(in.load(i, j))));
            }
        }
    });
}
} // namespace detail

QM_KERNEL(void)::transpose(const Matrix& a, const Matrix& out, Ctx ctx) {
    using C = detail::Compute<P>;
    detail::transpose_map<C>(a, out, ctx, [](const C& v) { return v; });
}

QM_KERNEL(void)::adjoint(const Matrix& a, const Matrix& out, Ctx ctx) QM_FLOATING {
    using C = detail::Compute<P>;
    detail::transpose_map<C>(a, out, ctx, [](const C& v) { return detail::conj_of(v); });
}

QM_KERNEL(void)::matmul(const Matrix& a, const Matrix& b, const Matrix& out, Ctx ctx) {
    using C = detail::Compute<P>;
    using R = detail::RealOf<C>;
    using S = typename P::storage_type;
    using detail::u64;
    detail::require(a.cols == b.rows && out.rows == a.rows && out.cols == b.cols);
    const u64 m = a.rows, n = b.cols, k = a.cols;
    const detail::Strides sa = detail::strides_of(a), sb = detail::strides_of(b);
    const auto a_lines = detail::loader_of<R>(a, sa.rs, sa.cs); // line i, depth p
    const auto b_lines = detail::loader_of<R>(b, sb.cs, sb.rs); // line j, depth p
    // Storage that is the compute type receives the product directly; column-major output is
    // the row-major transpose, computed as B^T A^T.
    constexpr bool direct_type = L != ComplexLayout::split &&
                                 (std::is_same_v<S, C> || (std::is_same_v<S, std::int32_t> && std::is_same_v<C, std::uint32_t>));
    // Split planes of the compute type take the product straight into their planes.
    if constexpr (L == ComplexLayout::split && std::is_same_v<typename P::storage_type, C>) {
        if (!detail::views_overlap(out, a) && !detail::views_overlap(out, b)) {
            if (out.layout == MatrixLayout::column_major)
                split_product<R>(n, m, k, b_lines, a_lines, out.re, out.im, m, ctx);
            else split_product<R>(m, n, k, a_lines, b_lines, out.re, out.im, n, ctx);
            return;
        }
    }
    if constexpr (direct_type) {
        if (!detail::views_overlap(out, a) && !detail::views_overlap(out, b)) {
            R* c = reinterpret_cast<R*>(out.data);
            if (out.layout == MatrixLayout::column_major)
                detail::product_lines<C>(n, m, k, b_lines, false, a_lines, c, detail::reals_per<C>(m), ctx);
            else detail::product_lines<C>(m, n, k, a_lines, false, b_lines, c, detail::reals_per<C>(n), ctx);
            return;
        }
    }
    std::vector<C> work(m * n);
    detail::product_lines<C>(m, n, k, a_lines, false, b_lines, reinterpret_cast<R*>(work.data()),
                             detail::reals_per<C>(n), ctx);
    const auto o = detail::mat_of<C>(out);
    detail::run_chunks(ctx, m, m * n, [&](u64 first, u64 last) {
        for (u64 i = first; i < last; ++i)
            for (u64 j = 0; j < n; ++j) o.store(i, j, work[i * n + j]);
    });
}

QM_KERNEL(void)::matvec(const Matrix& a, const Vector& x, const Vector& out, Ctx ctx) {
    using C = detail::Compute<P>;
    using detail::u64;
    detail::require(x.size == a.cols && out.size == a.rows);
    const u64 m = a.rows, n = a.cols;
    if constexpr (std::is_same_v<typename P::storage_type, C> && (std::is_same_v<C, float> || std::is_same_v<C, double>)) {
        if (a.layout == MatrixLayout::row_major || n <= 1) {
            const auto& kernels = default_vector_kernels<C>();
            const bool in_place = !detail::views_overlap(out, a) && !detail::views_overlap(out, x);
            std::vector<C> buffer(in_place ? 0 : m);
            C* y = in_place ? out.data : buffer.data();
            detail::run_chunks(ctx, m, 2 * m * n, [&](u64 first, u64 last) {
                kernels.gemv_rows(last - first, n, a.data + first * n, n, x.data, y + first);
            });
            if (!in_place) std::copy(buffer.begin(), buffer.end(), out.data);
            return;
        }
    }
    if constexpr (detail::split_native<P, L>) {
        if (a.layout == MatrixLayout::row_major) {
            // Rows stay in their planes: each lane's sum is formed from real operands, which
            // vectorises, in the order and grouping of lane_sum over complex terms.
            using R = detail::RealOf<C>;
            const auto dot = detail::split_dot_rows_kernel<R>();
            const bool direct = !detail::views_overlap(out, a) && !detail::views_overlap(out, x);
            std::vector<R> ys(direct ? 0 : 2 * m);
            R* yr = direct ? out.re : ys.data();
            R* yi = direct ? out.im : ys.data() + m;
            detail::run_chunks(ctx, m, 2 * m * n, [&](u64 first, u64 last) {
                dot(last - first, n, a.re + first * n, a.im + first * n, n, x.re, x.im, yr + first, yi + first);
            });
            if (!direct) {
                std::copy(ys.begin(), ys.begin() + m, out.re);
                std::copy(ys.begin() + m, ys.end(), out.im);
            }
            return;
        }
    }
    std::vector<C> xs(n), ys(m);
    const auto xa = detail::acc_of<C>(x);
    for (u64 j = 0; j < n; ++j) xs[j] = xa.load(j);
    const auto ma = detail::mat_of<C>(a);
    if (a.layout == MatrixLayout::row_major || n <= 1) {
        const u64 rs = detail::strides_of(a).rs;
        detail::run_chunks(ctx, m, 2 * m * n, [&](u64 first, u64 last) {
            for (u64 i = first; i < last; ++i)
                ys[i] = detail::lane_sum<C>(0, n, [&](u64 j) { return detail::mul(C(ma.a.load(i * rs + j)), xs[j]); });
        });
    } else {
        // Column-major: accumulate columns into row blocks, each block owned by one chunk.
        constexpr u64 block = 256;
        const u64 blocks = (m + block - 1) / block;
        detail::run_chunks(ctx, blocks, 2 * m * n, [&](u64 first, u64 last) {
            for (u64 blk = first; blk < last; ++blk) {
                const u64 i0 = blk * block, i1 = std::min(m, i0 + block);
                for (u64 j = 0; j < n; ++j) {
                    const C xj = xs[j];
                    const u64 col = j * m;
                    for (u64 i = i0; i < i1; ++i) ys[i] += detail::mul(C(ma.a.load(col + i)), xj);
                }
            }
        });
    }
    const auto oa = detail::acc_of<C>(out);
    for (u64 i = 0; i < m; ++i) oa.store(i, ys[i]);
}

QM_KERNEL(void)::kron(const Matrix& a, const Matrix& b, const Matrix& out, Ctx ctx) {
    using C = detail::Compute<P>;
    using detail::u64;
    const u64 p = b.rows, q = b.cols;
    detail::require(out.rows == a.rows * p && out.cols == a.cols * q &&
                    (p == 0 || out.rows / p == a.rows) && (q == 0 || out.cols / q == a.cols));
    const detail::InputGuard<Matrix> ga(a, out), gb(b, out);
    const auto x = detail::mat_of<C>(ga.view());
    const auto y = detail::mat_of<C>(gb.view());
    const auto o = detail::mat_of<C>(out);
    std::vector<C> ys(p * q);
    for (u64 k = 0; k < p; ++k)
        for (u64 l = 0; l < q; ++l) ys[k * q + l] = y.load(k, l);
    detail::run_chunks(ctx, a.rows, out.count(), [&](u64 first, u64 last) {
        for (u64 i = first; i < last; ++i)
            for (u64 j = 0; j < a.cols; ++j) {
                const C aij = x.load(i, j);
                for (u64 k = 0; k < p; ++k)
                    for (u64 l = 0; l < q; ++l) o.store(i * p + k, j * q + l, detail::mul(aij, ys[k * q + l]));
            }
    });
}

QM_KERNEL(void)::outer(const Vector& x, const Vector& y, const Matrix& out, Ctx ctx) {
    using C = detail::Compute<P>;
    using detail::u64;
    detail::require(out.rows == x.size && out.cols == y.size);
    const u64 m = x.size, n = y.size;
    std::vector<C> xs(m), ys(n);
    const auto xa = detail::acc_of<C>(x);
    const auto ya = detail::acc_of<C>(y);
    for (u64 i = 0; i < m; ++i) xs[i] = xa.load(i);
    for (u64 j = 0; j < n; ++j) ys[j] = ya.load(j);
    const auto o = detail::mat_of<C>(out);
    detail::run_chunks(ctx, m, m * n, [&](u64 first, u64 last) {
        for (u64 i = first; i < last; ++i)
            for (u64 j = 0; j < n; ++j) o.store(i, j, detail::mul(xs[i], ys[j]));
    });
}

namespace detail {
// out(i, j) = sum over k < q of A(row(k, i), row(k, j)) for the index map of each side.
template <class C, class M, class Index>
void partial_trace(const M& a, const M& out, const CpuRuntimeContext* ctx, Index index) {
    require(a.rows == a.cols && out.rows == out.cols && out.rows != 0 && a.rows % out.rows == 0);
    const u64 d = out.rows, q = a.rows / d;
    const InputGuard<M> guard(a, out);
    const auto in = mat_of<C>(guard.view());
    const auto o = mat_of<C>(out);
    run_chunks(ctx, d, d * d * q, [&](u64 first, u64 last) {
        for (u64 i = first; i < last; ++i)
            for (u64 j = 0; j < d; ++j) {
                C total{};
                for (u64 k = 0; k < q; ++k) total += in.load(index(k, i, d, q), index(k, j, d, q));
                o.store(i, j, total);
            }
    });
}
} // namespace detail

QM_KERNEL(void)::partial_trace_left(const Matrix& a, const Matrix& out, Ctx ctx) QM_FLOATING {
    using C = detail::Compute<P>;
    using detail::u64;
    detail::partial_trace<C>(a, out, ctx, [](u64 k, u64 i, u64 d, u64) { return k * d + i; });
}

QM_KERNEL(void)::partial_trace_right(const Matrix& a, const Matrix& out, Ctx ctx) QM_FLOATING {
    using C = detail::Compute<P>;
    using detail::u64;
    detail::partial_trace<C>(a, out, ctx, [](u64 k, u64 i, u64, u64 q) { return i * q + k; });
}

QM_KERNEL(void)::matrix_power(const Matrix& a, const ExponentView& exponent, const Matrix& out, Ctx ctx) QM_FLOATING {
    using C = detail::Compute<P>;
    using detail::u64;
    std::int32_t e = exponent.data[0];
    if (e < 0) throw std::invalid_argument("matrix_power - exponent must be non-negative");
    detail::require(a.rows == a.cols && out.rows == a.rows && out.cols == a.cols);
    const u64 n = a.rows;
    // Intermediates stay in the compute type; only the final store rounds.
    std::vector<C> result;
    if (e == 0) {
        result = detail::identity_buffer<C>(n);
    } else {
        std::vector<C> base(n * n), scratch(n * n);
        const auto in = detail::mat_of<C>(a);
        for (u64 i = 0; i < n; ++i)
            for (u64 j = 0; j < n; ++j) base[i * n + j] = in.load(i, j);
        auto multiply = [&](const std::vector<C>& x, const std::vector<C>& y, std::vector<C>& z) {
            DenseMatrixView<C> xv, yv;
            xv.rows = xv.cols = yv.rows = yv.cols = n;
            xv.data = const_cast<C*>(x.data());
            yv.data = const_cast<C*>(y.data());
            detail::product_to_buffer(xv, false, yv, z.data(), ctx);
        };
        bool have = false;
        for (;;) {
            if (e & 1) {
                if (!have) {
                    result = base;
                    have = true;
                } else {
                    multiply(result, base, scratch);
                    result.swap(scratch);
                }
            }
            e >>= 1;
            if (e == 0) break;
            multiply(base, base, scratch);
            base.swap(scratch);
        }
    }
    const auto o = detail::mat_of<C>(out);
    for (u64 i = 0; i < n; ++i)
        for (u64 j = 0; j < n; ++j) o.store(i, j, result[i * n + j]);
}

QM_KERNEL(void)::eye(const Matrix& inout, Ctx ctx) {
    using C = detail::Compute<P>;
    using detail::u64;
    const auto o = detail::mat_of<C>(inout);
    detail::run_chunks(ctx, inout.rows, inout.count(), [&](u64 first, u64 last) {
        for (u64 i = first; i < last; ++i)
            for (u64 j = 0; j < inout.cols; ++j) o.store(i, j, i == j ? C(1) : C(0));
    });
}

#undef QM_KERNEL
#undef QM_FLOATING

} // namespace quillmark::cpu
