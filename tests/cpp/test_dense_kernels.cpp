// Dense kernels against straightforward references, for every policy and complex layout.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>
#include <type_traits>
#include <vector>

#include "backend/cpu/floating_point_kernels.hpp"
#include "backend/cpu/gemm.hpp"
#include "backend/cpu/gemm_sources.hpp"
#include "runtime/cpu_runtime_context.hpp"

using namespace quillmark;
using namespace quillmark::cpu;

namespace {

using u64 = std::uint64_t;

template <class P, ComplexLayout L = ComplexLayout::none> struct Cfg {
    using Policy = P;
    static constexpr ComplexLayout layout = L;
};

template <class Cf> struct Tr {
    using P = typename Cf::Policy;
    static constexpr ComplexLayout L = Cf::layout;
    using K = FloatingKernels<P, L>;
    using S = typename P::storage_type;
    using T = typename StorageComponent<S>::type;
    using C = typename P::compute_type;
    static constexpr bool integer = is_integer_policy<P>;
    static constexpr bool complex = is_complex_policy<P>;
    static constexpr bool split = L == ComplexLayout::split;
    // Reference values: exact wrapping integers, or double precision.
    using V = std::conditional_t<integer, std::int64_t, std::conditional_t<complex, std::complex<double>, double>>;
    // Unit roundoff of storage and of compute.
    static constexpr double u_storage() {
        if constexpr (std::is_same_v<T, BFloat16>) return 0x1p-8;
        else if constexpr (std::is_same_v<T, Float16>) return 0x1p-11;
        else return u_compute();
    }
    static constexpr double u_compute() {
        if constexpr (std::is_same_v<C, double> || std::is_same_v<C, std::complex<double>>) return 0x1p-53;
        else return 0x1p-24;
    }
    static std::int64_t wrap(std::int64_t v) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(v)); }
};

// Elements of one operand in its storage form.
template <class Cf> struct Buf {
    using X = Tr<Cf>;
    using V = typename X::V;
    std::vector<typename X::S> dense;
    std::vector<typename X::T> re, im;
    explicit Buf(u64 n) {
        if constexpr (X::split) re.resize(n), im.resize(n);
        else dense.resize(n);
    }
    void set(u64 i, V v) {
        using C = typename X::C;
        if constexpr (X::integer) dense[i] = static_cast<std::int32_t>(X::wrap(v));
        else if constexpr (X::split) store_split<typename X::T>(re.data(), im.data(), i, C(v));
        else store_element<typename X::S>(dense.data(), i, C(v));
    }
    V get(u64 i) const {
        using C = typename X::C;
        if constexpr (X::integer) return dense[i];
        else if constexpr (X::split) return V(load_split<C>(re.data(), im.data(), i));
        else return V(load_element<C>(dense.data(), i));
    }
};

template <class Cf> struct TVec {
    Buf<Cf> b;
    u64 n;
    explicit TVec(u64 size) : b(size), n(size) {}
    typename Tr<Cf>::K::Vector view() {
        if constexpr (Tr<Cf>::split) return {b.re.data(), b.im.data(), n};
        else return {b.dense.data(), n};
    }
    void set(u64 i, typename Tr<Cf>::V v) { b.set(i, v); }
    typename Tr<Cf>::V get(u64 i) const { return b.get(i); }
};

template <class Cf> struct TMat {
    Buf<Cf> b;
    u64 rows, cols;
    MatrixLayout layout;
    TMat(u64 r, u64 c, MatrixLayout l = MatrixLayout::row_major) : b(r * c), rows(r), cols(c), layout(l) {}
    u64 at(u64 i, u64 j) const { return layout == MatrixLayout::column_major ? j * rows + i : i * cols + j; }
    typename Tr<Cf>::K::Matrix view() {
        typename Tr<Cf>::K::Matrix m;
        m.rows = rows;
        m.cols = cols;
        m.layout = layout;
        if constexpr (Tr<Cf>::split) m.re = b.re.data(), m.im = b.im.data();
        else m.data = b.dense.data();
        return m;
    }
    void set(u64 i, u64 j, typename Tr<Cf>::V v) { b.set(at(i, j), v); }
    typename Tr<Cf>::V get(u64 i, u64 j) const { return b.get(at(i, j)); }
};

// A scalar: one element, or for split complex two adjacent components.
template <class Cf> struct TScal {
    Buf<Cf> b{Tr<Cf>::split ? 2u : 1u};
    typename Tr<Cf>::K::Scalar view() {
        if constexpr (Tr<Cf>::split) return {b.re.data()};
        else return {b.dense.data()};
    }
    typename Tr<Cf>::V get() const {
        if constexpr (Tr<Cf>::split) return typename Tr<Cf>::V(load_split<typename Tr<Cf>::C>(b.re.data(), b.re.data() + 1, 0));
        else return b.get(0);
    }
    void set(typename Tr<Cf>::V v) {
        if constexpr (Tr<Cf>::split) store_split<typename Tr<Cf>::T>(b.re.data(), b.re.data() + 1, 0, typename Tr<Cf>::C(v));
        else b.set(0, v);
    }
};

template <class Cf> typename Tr<Cf>::V random_value(std::mt19937_64& rng, double scale = 1.0) {
    using X = Tr<Cf>;
    if constexpr (X::integer) {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(rng()));
    } else {
        std::uniform_real_distribution<double> d(-scale, scale);
        if constexpr (X::complex) return {d(rng), d(rng)};
        else return d(rng);
    }
}
template <class Cf> void fill(TVec<Cf>& v, std::mt19937_64& rng, double scale = 1.0) {
    for (u64 i = 0; i < v.n; ++i) v.set(i, random_value<Cf>(rng, scale));
}
template <class Cf> void fill(TMat<Cf>& m, std::mt19937_64& rng, double scale = 1.0) {
    for (u64 i = 0; i < m.rows; ++i)
        for (u64 j = 0; j < m.cols; ++j) m.set(i, j, random_value<Cf>(rng, scale));
}

double magnitude(double v) { return std::fabs(v); }
double magnitude(std::complex<double> v) { return std::abs(v); }
double magnitude(std::int64_t v) { return double(v < 0 ? -v : v); }

template <class Cf, class V> V conj_if(V v) {
    if constexpr (std::is_same_v<V, std::complex<double>>) return std::conj(v);
    else return v;
}

// Reference sums of integers wrap (modulo 2^64, hence modulo 2^32) instead of overflowing.
template <class V> void accumulate(V& total, V term) {
    if constexpr (std::is_same_v<V, std::int64_t>)
        total = static_cast<std::int64_t>(static_cast<std::uint64_t>(total) + static_cast<std::uint64_t>(term));
    else total += term;
}

// Integers match exactly after wrapping; floating results within `tolerance`, NaN matching NaN.
template <class Cf> void expect_near(typename Tr<Cf>::V got, typename Tr<Cf>::V want, double tolerance) {
    if constexpr (Tr<Cf>::integer) {
        EXPECT_EQ(got, Tr<Cf>::wrap(want));
    } else {
        if (std::isnan(magnitude(want)) && std::isnan(magnitude(got))) return;
        // Below the normal range of binary16 the rounding error is absolute (half a subnormal step).
        const double floor = std::is_same_v<typename Tr<Cf>::T, Float16> ? 0x1p-25 : 0.0;
        EXPECT_LE(magnitude(got - want), tolerance + floor) << "got " << got << " want " << want;
    }
}

template <class Cf> class DenseKernels : public ::testing::Test {};

using AllConfigs = ::testing::Types<Cfg<PolicyF32>, Cfg<PolicyF64>, Cfg<PolicyBF16>, Cfg<PolicyF16>,
                                    Cfg<PolicyC32, ComplexLayout::split>, Cfg<PolicyC64, ComplexLayout::split>,
                                    Cfg<PolicyC128, ComplexLayout::split>, Cfg<PolicyC32, ComplexLayout::interleaved>,
                                    Cfg<PolicyC64, ComplexLayout::interleaved>,
                                    Cfg<PolicyC128, ComplexLayout::interleaved>, Cfg<PolicyI32>>;
TYPED_TEST_SUITE(DenseKernels, AllConfigs);

constexpr u64 kSizes[] = {1, 7, 33, 257};
constexpr MatrixLayout kRow = MatrixLayout::row_major, kCol = MatrixLayout::column_major;

TYPED_TEST(DenseKernels, ElementWiseMatchRoundedReference) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    std::mt19937_64 rng(11);
    for (u64 n : kSizes) {
        SCOPED_TRACE(n);
        TVec<TypeParam> x(n), y(n), out(n);
        fill(x, rng);
        fill(y, rng);
        TScal<TypeParam> s;
        s.set(random_value<TypeParam>(rng));
        const double tol_scale = 2 * X::u_storage() + 8 * X::u_compute();
        // op(i) gives the exact result and its error scale (complex products cancel).
        auto check = [&](auto op, auto run) {
            run();
            for (u64 i = 0; i < n; ++i) {
                const auto [want, scale] = op(i);
                expect_near<TypeParam>(out.get(i), want, tol_scale * scale + 1e-300);
            }
        };
        auto mag = [](V v) { return magnitude(v); };
        auto result = [](V v, double scale) { return std::pair<V, double>(v, scale); };
        check([&](u64 i) { return result(x.get(i) + y.get(i), mag(x.get(i)) + mag(y.get(i))); },
              [&] { X::K::add(x.view(), y.view(), out.view(), nullptr); });
        check([&](u64 i) { return result(x.get(i) - y.get(i), mag(x.get(i)) + mag(y.get(i))); },
              [&] { X::K::subtract(x.view(), y.view(), out.view(), nullptr); });
        check([&](u64 i) { return result(x.get(i) * y.get(i), mag(x.get(i)) * mag(y.get(i))); },
              [&] { X::K::multiply(x.view(), y.view(), out.view(), nullptr); });
        check([&](u64 i) { return result(x.get(i) * s.get(), mag(x.get(i)) * mag(s.get())); },
              [&] { X::K::scale(x.view(), s.view(), out.view(), nullptr); });
        if constexpr (!X::integer) {
            check([&](u64 i) { return result(x.get(i) / s.get(), 2 * mag(x.get(i)) / mag(s.get())); },
                  [&] { X::K::divide(x.view(), s.view(), out.view(), nullptr); });
            check([&](u64 i) { return result(std::sqrt(x.get(i)), 2 * mag(std::sqrt(x.get(i)))); },
                  [&] { X::K::sqrt(x.view(), out.view(), nullptr); });
            // In place: the output is the input.
            const TVec<TypeParam> before = x;
            X::K::conjugate(x.view(), nullptr);
            for (u64 i = 0; i < n; ++i) EXPECT_EQ(x.get(i), conj_if<TypeParam>(before.get(i)));
        }
        // The output may be one of the inputs.
        const TVec<TypeParam> before = x;
        X::K::add(x.view(), y.view(), x.view(), nullptr);
        for (u64 i = 0; i < n; ++i)
            expect_near<TypeParam>(x.get(i), before.get(i) + y.get(i),
                                   tol_scale * (magnitude(before.get(i)) + magnitude(y.get(i))) + 1e-300);
    }
}

TYPED_TEST(DenseKernels, ReductionsMatchReference) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    std::mt19937_64 rng(12);
    for (u64 n : {u64{0}, u64{1}, u64{7}, u64{33}, u64{257}, u64{9000}}) {
        SCOPED_TRACE(n);
        TVec<TypeParam> x(n), y(n);
        fill(x, rng);
        fill(y, rng);
        V sum{}, dot{};
        double abs_sum = 0, abs_dot = 0, squares = 0;
        for (u64 i = 0; i < n; ++i) {
            accumulate(sum, x.get(i));
            accumulate(dot, conj_if<TypeParam>(x.get(i)) * y.get(i));
            abs_sum += magnitude(x.get(i));
            abs_dot += magnitude(x.get(i)) * magnitude(y.get(i));
            squares += magnitude(x.get(i)) * magnitude(x.get(i));
        }
        const double grow = 2 * X::u_storage() + 4 * double(n + 1) * X::u_compute();
        TScal<TypeParam> out;
        X::K::sum(x.view(), out.view(), nullptr);
        expect_near<TypeParam>(out.get(), sum, grow * abs_sum + 1e-300);
        X::K::inner(x.view(), y.view(), out.view(), nullptr);
        expect_near<TypeParam>(out.get(), dot, 2 * grow * abs_dot + 1e-300);
        if constexpr (!X::integer) {
            using Rs = std::remove_pointer_t<decltype(typename X::K::RealScalar{}.data)>;
            using R = decltype(std::real(typename X::C{}));
            Rs r{};
            X::K::norm(x.view(), {&r}, nullptr);
            EXPECT_NEAR(double(load_element<R>(&r, 0)), std::sqrt(squares), grow * std::sqrt(squares) + 1e-300);
        }
    }
}

TYPED_TEST(DenseKernels, MatmulAllLayoutsAndEdges) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    struct Shape {
        u64 m, k, n;
        bool all_layouts;
    };
    const Shape shapes[] = {{1, 1, 1, true}, {7, 7, 7, true}, {3, 0, 4, false}, {33, 33, 33, false},
                            {70, 130, 90, true}, {257, 257, 257, false}};
    std::mt19937_64 rng(13);
    for (const Shape& sh : shapes)
        for (int code = 0; code < (sh.all_layouts ? 8 : 1); ++code) {
            const MatrixLayout la = code & 1 ? kCol : kRow, lb = code & 2 ? kCol : kRow, lc = code & 4 ? kCol : kRow;
            SCOPED_TRACE(testing::Message() << sh.m << "x" << sh.k << "x" << sh.n << " layouts " << code);
            TMat<TypeParam> a(sh.m, sh.k, la), b(sh.k, sh.n, lb), c(sh.m, sh.n, lc);
            fill(a, rng);
            fill(b, rng);
            fill(c, rng); // stale contents must be overwritten
            X::K::matmul(a.view(), b.view(), c.view(), nullptr);
            const double per_term = 2 * X::u_storage() + 8 * double(sh.k + 1) * X::u_compute();
            for (u64 i = 0; i < sh.m; ++i)
                for (u64 j = 0; j < sh.n; ++j) {
                    V want{};
                    double bound = 0;
                    for (u64 p = 0; p < sh.k; ++p) {
                        accumulate(want, a.get(i, p) * b.get(p, j));
                        bound += magnitude(a.get(i, p)) * magnitude(b.get(p, j));
                    }
                    expect_near<TypeParam>(c.get(i, j), want, per_term * bound + 1e-300);
                }
        }
}

TYPED_TEST(DenseKernels, MatvecKronOuterTransposeTraceEye) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    std::mt19937_64 rng(14);
    const double tol = 2 * X::u_storage() + 64 * X::u_compute();
    for (MatrixLayout layout : {kRow, kCol}) {
        SCOPED_TRACE(static_cast<int>(layout));
        TMat<TypeParam> a(37, 29, layout);
        fill(a, rng);
        TVec<TypeParam> x(29), y(37), out(37);
        fill(x, rng);
        fill(y, rng);
        X::K::matvec(a.view(), x.view(), out.view(), nullptr);
        for (u64 i = 0; i < 37; ++i) {
            V want{};
            double bound = 0;
            for (u64 j = 0; j < 29; ++j)
                accumulate(want, a.get(i, j) * x.get(j)), bound += magnitude(a.get(i, j)) * magnitude(x.get(j));
            expect_near<TypeParam>(out.get(i), want, tol * bound + 1e-300);
        }

        TMat<TypeParam> t(29, 37, layout == kRow ? kCol : kRow);
        X::K::transpose(a.view(), t.view(), nullptr);
        for (u64 i = 0; i < 37; ++i)
            for (u64 j = 0; j < 29; ++j) EXPECT_EQ(t.get(j, i), a.get(i, j));
        if constexpr (!X::integer) {
            X::K::adjoint(a.view(), t.view(), nullptr);
            for (u64 i = 0; i < 37; ++i)
                for (u64 j = 0; j < 29; ++j) EXPECT_EQ(t.get(j, i), conj_if<TypeParam>(a.get(i, j)));
        }

        TMat<TypeParam> b(3, 2, layout), k(37 * 3, 29 * 2, layout);
        fill(b, rng);
        X::K::kron(a.view(), b.view(), k.view(), nullptr);
        for (u64 i = 0; i < 37 * 3; ++i)
            for (u64 j = 0; j < 29 * 2; ++j) {
                const V want = a.get(i / 3, j / 2) * b.get(i % 3, j % 2);
                expect_near<TypeParam>(k.get(i, j), want,
                                       tol * magnitude(a.get(i / 3, j / 2)) * magnitude(b.get(i % 3, j % 2)) + 1e-300);
            }

        TMat<TypeParam> o(37, 29, layout);
        X::K::outer(y.view(), x.view(), o.view(), nullptr); // lengths differ; no conjugation
        for (u64 i = 0; i < 37; ++i)
            for (u64 j = 0; j < 29; ++j) {
                const V want = y.get(i) * x.get(j);
                expect_near<TypeParam>(o.get(i, j), want, tol * magnitude(y.get(i)) * magnitude(x.get(j)) + 1e-300);
            }

        TScal<TypeParam> tr;
        X::K::trace(a.view(), tr.view(), nullptr); // rectangular: the 29 available diagonal entries
        V want{};
        double bound = 0;
        for (u64 i = 0; i < 29; ++i) accumulate(want, a.get(i, i)), bound += magnitude(a.get(i, i));
        expect_near<TypeParam>(tr.get(), want, tol * bound + 1e-300);

        TMat<TypeParam> e(5, 5, layout);
        fill(e, rng);
        X::K::eye(e.view(), nullptr);
        for (u64 i = 0; i < 5; ++i)
            for (u64 j = 0; j < 5; ++j) EXPECT_EQ(e.get(i, j), V(i == j ? 1 : 0));
    }
}

TYPED_TEST(DenseKernels, VectorEqualRules) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    std::mt19937_64 rng(15);
    TVec<TypeParam> x(33), y(33), shorter(32);
    fill(x, rng);
    y = x;
    std::int32_t flag = -1;
    auto equal = [&](TVec<TypeParam>& a, TVec<TypeParam>& b) {
        X::K::vector_equal(a.view(), b.view(), {&flag}, nullptr);
        return flag;
    };
    EXPECT_EQ(equal(x, y), 1);
    EXPECT_EQ(equal(x, shorter), 0);
    TVec<TypeParam> e0(0), e1(0);
    EXPECT_EQ(equal(e0, e1), 1);
    y.set(20, x.get(20) * V(2) + V(1));
    EXPECT_EQ(equal(x, y), 0);
    if constexpr (!X::integer) {
        const double inf = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
        struct Case {
            double a, b;
            int equal;
        };
        for (const Case& c : {Case{inf, inf, 1}, Case{-inf, -inf, 1}, Case{inf, -inf, 0}, Case{1.0, inf, 0},
                              Case{nan, nan, 0}, Case{nan, 1.0, 0}, Case{0.0, -0.0, 1}}) {
            SCOPED_TRACE(testing::Message() << c.a << " vs " << c.b);
            y = x;
            x.set(5, V(c.a));
            y.set(5, V(c.b));
            EXPECT_EQ(equal(x, y), c.equal);
            if constexpr (X::complex) { // the imaginary component alone decides too
                y = x;
                x.set(5, V(std::complex<double>(0.5, c.a)));
                y.set(5, V(std::complex<double>(0.5, c.b)));
                EXPECT_EQ(equal(x, y), c.equal);
            }
        }
        if constexpr (X::u_storage() == X::u_compute()) {
            // A last-place difference of the compute type is within tolerance.
            y = x;
            y.set(3, x.get(3) * V(1 + 2 * X::u_compute()));
            EXPECT_EQ(equal(x, y), 1);
        }
    }
}

TYPED_TEST(DenseKernels, PartialTracesOfKronecker) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    if constexpr (!X::integer) {
        std::mt19937_64 rng(16);
        for (MatrixLayout layout : {kRow, kCol}) {
            TMat<TypeParam> a(3, 3, layout), b(4, 4, layout), k(12, 12, layout), left(4, 4, layout), right(3, 3, layout);
            fill(a, rng);
            fill(b, rng);
            X::K::kron(a.view(), b.view(), k.view(), nullptr);
            X::K::partial_trace_left(k.view(), left.view(), nullptr);
            X::K::partial_trace_right(k.view(), right.view(), nullptr);
            const V ta = a.get(0, 0) + a.get(1, 1) + a.get(2, 2);
            const V tb = b.get(0, 0) + b.get(1, 1) + b.get(2, 2) + b.get(3, 3);
            const double tol = 4 * X::u_storage() + 32 * X::u_compute();
            for (u64 i = 0; i < 4; ++i)
                for (u64 j = 0; j < 4; ++j) expect_near<TypeParam>(left.get(i, j), ta * b.get(i, j), tol * 4);
            for (u64 i = 0; i < 3; ++i)
                for (u64 j = 0; j < 3; ++j) expect_near<TypeParam>(right.get(i, j), tb * a.get(i, j), tol * 4);
        }
    }
}

TYPED_TEST(DenseKernels, MatrixPowerAndUnitarity) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    if constexpr (!X::integer) {
        std::mt19937_64 rng(17);
        for (u64 n : {u64{1}, u64{7}, u64{33}}) {
            TMat<TypeParam> a(n, n, kCol), out(n, n);
            fill(a, rng, 1.0 / double(n));
            for (std::int32_t e : {0, 1, 5}) {
                SCOPED_TRACE(testing::Message() << "n=" << n << " e=" << e);
                X::K::matrix_power(a.view(), {&e}, out.view(), nullptr);
                // Reference A^e and the entry-wise bound |A|^e of its rounding errors.
                std::vector<V> ref(n * n), bound(n * n);
                for (u64 i = 0; i < n; ++i) ref[i * n + i] = V(1), bound[i * n + i] = 1;
                for (std::int32_t s = 0; s < e; ++s) {
                    std::vector<V> next(n * n);
                    std::vector<double> nb(n * n);
                    for (u64 i = 0; i < n; ++i)
                        for (u64 j = 0; j < n; ++j)
                            for (u64 p = 0; p < n; ++p) {
                                next[i * n + j] += ref[i * n + p] * a.get(p, j);
                                nb[i * n + j] += magnitude(bound[i * n + p]) * magnitude(a.get(p, j));
                            }
                    ref = next;
                    for (u64 q = 0; q < n * n; ++q) bound[q] = nb[q];
                }
                // Intermediates in the compute type: only one storage rounding is allowed for.
                const double tol = 2 * X::u_storage() + 16 * double(e * n + 1) * X::u_compute();
                for (u64 i = 0; i < n; ++i)
                    for (u64 j = 0; j < n; ++j)
                        expect_near<TypeParam>(out.get(i, j), ref[i * n + j], tol * magnitude(bound[i * n + j]) + 1e-300);
            }
        }
        TMat<TypeParam> a(3, 3), out(3, 3);
        for (u64 i = 0; i < 9; ++i) out.b.set(i, V(7));
        std::int32_t negative = -1;
        try {
            X::K::matrix_power(a.view(), {&negative}, out.view(), nullptr);
            ADD_FAILURE() << "negative exponent accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), "matrix_power - exponent must be non-negative");
        }
        EXPECT_EQ(out.get(1, 2), V(7));

        std::int32_t flag = -1;
        const double c = std::cos(0.7), s = std::sin(0.7);
        for (double factor : {1.0, 1.25}) {
            TMat<TypeParam> q(2, 2, kCol);
            if constexpr (X::complex) {
                const std::complex<double> ph(std::cos(0.3), std::sin(0.3));
                q.set(0, 0, factor * c), q.set(0, 1, -factor * s * ph);
                q.set(1, 0, factor * s * std::conj(ph)), q.set(1, 1, factor * c);
            } else {
                q.set(0, 0, factor * c), q.set(0, 1, -factor * s), q.set(1, 0, factor * s), q.set(1, 1, factor * c);
            }
            X::K::is_unitary(q.view(), {&flag}, nullptr);
            EXPECT_EQ(flag, factor == 1.0 ? 1 : 0);
        }
        TMat<TypeParam> id(33, 33), wide(2, 3);
        X::K::eye(id.view(), nullptr);
        X::K::is_unitary(id.view(), {&flag}, nullptr);
        EXPECT_EQ(flag, 1);
        X::K::eye(wide.view(), nullptr);
        X::K::is_unitary(wide.view(), {&flag}, nullptr);
        EXPECT_EQ(flag, 0);
    }
}

TYPED_TEST(DenseKernels, OverlappingOutputsAndShapeChecks) {
    using X = Tr<TypeParam>;
    std::mt19937_64 rng(18);
    TMat<TypeParam> a(9, 9), copy(9, 9), t(9, 9), prod(9, 9);
    fill(a, rng);
    copy = a;
    X::K::transpose(copy.view(), t.view(), nullptr);
    X::K::transpose(a.view(), a.view(), nullptr);
    for (u64 i = 0; i < 81; ++i) EXPECT_EQ(a.b.get(i), t.b.get(i));
    a = copy;
    X::K::matmul(copy.view(), copy.view(), prod.view(), nullptr);
    X::K::matmul(a.view(), a.view(), a.view(), nullptr);
    for (u64 i = 0; i < 81; ++i) EXPECT_EQ(a.b.get(i), prod.b.get(i));

    TMat<TypeParam> b(4, 5);
    TVec<TypeParam> v3(3), v4(4);
    EXPECT_THROW(X::K::matmul(a.view(), b.view(), prod.view(), nullptr), std::invalid_argument);
    EXPECT_THROW(X::K::add(v3.view(), v4.view(), v3.view(), nullptr), std::invalid_argument);
    EXPECT_THROW(X::K::matvec(b.view(), v4.view(), v4.view(), nullptr), std::invalid_argument);
}

// Low-precision storage is rounded once: a sum whose running total would stall or drift if it
// were rounded to the storage type at every step comes out as the rounded exact total.
TEST(DenseKernelsLowPrecision, SumRoundsOnce) {
    const u64 n = 3000;
    std::vector<BFloat16> b(n, BFloat16(1.0f + 0x1p-7f));
    BFloat16 bsum;
    FloatingKernels<PolicyBF16>::sum({b.data(), n}, {&bsum}, nullptr);
    EXPECT_EQ(bsum, BFloat16(float(n) * (1.0f + 0x1p-7f)));

    std::vector<Float16> h(n, Float16(1.0f + 0x1p-10f));
    Float16 hsum;
    FloatingKernels<PolicyF16>::sum({h.data(), n}, {&hsum}, nullptr);
    EXPECT_EQ(hsum, Float16(float(n) * (1.0f + 0x1p-10f)));

    std::vector<Float16> re(n, Float16(1.0f + 0x1p-10f)), im(n, Float16(-1.0f - 0x1p-10f));
    Float16 csum[2];
    FloatingKernels<PolicyC32, ComplexLayout::split>::sum({re.data(), im.data(), n}, {csum}, nullptr);
    EXPECT_EQ(csum[0], Float16(float(n) * (1.0f + 0x1p-10f)));
    EXPECT_EQ(csum[1], Float16(-float(n) * (1.0f + 0x1p-10f)));
}

TEST(DenseKernelsNorm, ScaledAgainstOverflowAndUnderflow) {
    struct Case {
        double a, b, want;
    };
    const double inf = std::numeric_limits<double>::infinity();
    for (const Case& c : {Case{1e300, 1e300, std::sqrt(2.0) * 1e300}, Case{1e-300, 1e-300, std::sqrt(2.0) * 1e-300},
                          Case{1e300, 1e-300, 1e300}, Case{3.0, 4.0, 5.0}, Case{inf, 1.0, inf}, Case{-inf, 0.0, inf}}) {
        double v[2] = {c.a, c.b}, r = 0;
        FloatingKernels<PolicyF64>::norm({v, 2}, {&r}, nullptr);
        if (std::isinf(c.want)) EXPECT_EQ(r, c.want);
        else EXPECT_NEAR(r, c.want, c.want * 1e-15) << c.a << ", " << c.b;
    }
    double nan_in[3] = {inf, std::numeric_limits<double>::quiet_NaN(), 1.0}, r = 0;
    FloatingKernels<PolicyF64>::norm({nan_in, 3}, {&r}, nullptr);
    EXPECT_TRUE(std::isnan(r));

    float f[2] = {1e38f, 1e38f}, fr = 0;
    FloatingKernels<PolicyF32>::norm({f, 2}, {&fr}, nullptr);
    EXPECT_FLOAT_EQ(fr, 1.41421356e38f);
    std::complex<double> z[1] = {{1e300, -1e300}};
    FloatingKernels<PolicyC128, ComplexLayout::interleaved>::norm({z, 1}, {&r}, nullptr);
    EXPECT_NEAR(r, std::sqrt(2.0) * 1e300, 1e285);
}

TEST(DenseKernelsInt32, ArithmeticWraps) {
    using K = FloatingKernels<PolicyI32>;
    const std::int32_t max = std::numeric_limits<std::int32_t>::max(), min = std::numeric_limits<std::int32_t>::min();
    std::int32_t x[3] = {max, min, 65536}, y[3] = {1, -1, 65536}, out[3];
    K::add({x, 3}, {y, 3}, {out, 3}, nullptr);
    EXPECT_EQ(out[0], min);
    EXPECT_EQ(out[1], max);
    K::multiply({x, 3}, {y, 3}, {out, 3}, nullptr);
    EXPECT_EQ(out[2], 0);
    std::int32_t s = 0;
    std::int32_t two_max[2] = {max, max};
    K::sum({two_max, 2}, {&s}, nullptr);
    EXPECT_EQ(s, -2);
}

TEST(DenseKernelsSqrt, NegativeRealIsNanAndComplexIsPrincipal) {
    float x[2] = {-4.0f, 9.0f}, r[2];
    FloatingKernels<PolicyF32>::sqrt({x, 2}, {r, 2}, nullptr);
    EXPECT_TRUE(std::isnan(r[0]));
    EXPECT_EQ(r[1], 3.0f);
    double re[2] = {-4.0, 0.0}, im[2] = {0.0, -2.0}, ore[2], oim[2];
    FloatingKernels<PolicyC128, ComplexLayout::split>::sqrt({re, im, 2}, {ore, oim, 2}, nullptr);
    EXPECT_NEAR(ore[0], 0.0, 1e-15);
    EXPECT_NEAR(oim[0], 2.0, 1e-15);
    EXPECT_NEAR(ore[1], 1.0, 1e-15);
    EXPECT_NEAR(oim[1], -1.0, 1e-15);
}

// Every usable micro-kernel over shapes that cross tile, cache-block and panel edges.
template <class R> void check_micro_kernels() {
    struct Shape {
        u64 m, n, k;
    };
    std::mt19937_64 rng(19);
    std::uniform_real_distribution<R> d(-1, 1);
    for (const auto& kernel : available_gemm_kernels<R>())
        for (const Shape& s : {Shape{1, 1, 1}, Shape{7, 9, 5}, Shape{33, 257, 70}, Shape{257, 33, 600},
                               Shape{5, 4100, 3}, Shape{200, 50, 1100}}) {
            SCOPED_TRACE(testing::Message() << kernel.name << " " << s.m << "x" << s.n << "x" << s.k);
            std::vector<R> a(s.m * s.k), b(s.k * s.n), c(s.m * s.n, R(99));
            for (auto& v : a) v = d(rng);
            for (auto& v : b) v = d(rng);
            // A column-major, B row-major.
            const RealPanelSource<R, R> left{a.data(), 1, s.m}, right{b.data(), 1, s.n};
            gemm<R>(kernel, s.m, s.n, s.k, left.packer(), right.packer(), c.data(), s.n, nullptr);
            u64 bad = 0;
            for (u64 i = 0; i < s.m; ++i)
                for (u64 j = 0; j < s.n; ++j) {
                    double want = 0, bound = 0;
                    for (u64 p = 0; p < s.k; ++p) {
                        want += double(a[p * s.m + i]) * double(b[p * s.n + j]);
                        bound += std::fabs(double(a[p * s.m + i]) * double(b[p * s.n + j]));
                    }
                    const double tol = 2.0 * double(s.k) * std::numeric_limits<R>::epsilon() * bound + 1e-30;
                    bad += std::fabs(double(c[i * s.n + j]) - want) <= tol ? 0 : 1;
                }
            EXPECT_EQ(bad, 0u);
        }
}

TEST(GemmMicroKernels, DoubleKernelsAgreeWithReference) { check_micro_kernels<double>(); }
TEST(GemmMicroKernels, FloatKernelsAgreeWithReference) { check_micro_kernels<float>(); }

} // namespace

// The parallel paths must give the serial answers: reductions by their fixed blocking, products
// element by element.
TEST(DenseKernelsParallel, WorkerPoolMatchesSerial) {
    CpuRuntimeOptions options;
    options.hardware_concurrency_override = 5; // four workers
    options.min_parallel_work = 1;
    const CpuRuntimeContext runtime(std::move(options));
    const u64 n = 203, len = 100000;
    std::vector<double> a(n * n), b(n * n), serial(n * n), parallel(n * n), x(len);
    for (u64 i = 0; i < n * n; ++i) {
        a[i] = std::sin(0.37 * double(i));
        b[i] = std::cos(0.11 * double(i));
    }
    for (u64 i = 0; i < len; ++i) x[i] = 1.0 / double(i + 1);
    auto view = [&](std::vector<double>& v) {
        DenseMatrixView<double> m;
        m.rows = n;
        m.cols = n;
        m.data = v.data();
        return m;
    };
    FloatingKernels<PolicyF64>::matmul(view(a), view(b), view(serial), nullptr);
    FloatingKernels<PolicyF64>::matmul(view(a), view(b), view(parallel), &runtime);
    EXPECT_EQ(serial, parallel);
    double s1 = 0, s2 = 0;
    FloatingKernels<PolicyF64>::sum({x.data(), len}, {&s1}, nullptr);
    FloatingKernels<PolicyF64>::sum({x.data(), len}, {&s2}, &runtime);
    EXPECT_EQ(s1, s2);
}
