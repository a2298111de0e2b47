// Dense kernels against straightforward references, for every policy and complex layout.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

#include "backend/cpu/floating_point_kernels.hpp"
#include "backend/cpu/gemm.hpp"
#include "backend/cpu/gemm_sources.hpp"
#include "runtime/cpu_runtime_context.hpp"
#include "test_support.hpp"

using namespace quillmark;
using namespace quillmark::cpu;
using quillmark::testing::message_of;

namespace {

using u64 = std::uint64_t;
constexpr MatrixLayout kRow = MatrixLayout::row_major, kCol = MatrixLayout::column_major;

template <class P, ComplexLayout L = ComplexLayout::none> struct Cfg {
    using Policy = P;
    static constexpr ComplexLayout layout = L;
};

template <class Cf> struct Tr {
    using P = typename Cf::Policy;
    using K = FloatingKernels<P, Cf::layout>;
    using S = typename P::storage_type;
    using T = typename StorageComponent<S>::type;
    using C = typename P::compute_type;
    static constexpr bool integer = is_integer_policy<P>;
    static constexpr bool complex = is_complex_policy<P>;
    static constexpr bool split = Cf::layout == ComplexLayout::split;
    // Reference values: exact wrapping integers, or double precision.
    using V = std::conditional_t<integer, std::int64_t, std::conditional_t<complex, std::complex<double>, double>>;
    // Unit roundoff of compute and of storage.
    static constexpr double u_compute =
        std::is_same_v<C, double> || std::is_same_v<C, std::complex<double>> ? 0x1p-53 : 0x1p-24;
    static constexpr double u_storage =
        std::is_same_v<T, BFloat16> ? 0x1p-8 : std::is_same_v<T, Float16> ? 0x1p-11 : u_compute;
    static std::int64_t wrap(std::int64_t v) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(v)); }
};

// One operand in its storage form: a vector (cols == 1) or a rows x cols matrix.
template <class Cf> struct Arr {
    using X = Tr<Cf>;
    using V = typename X::V;
    u64 rows, cols;
    MatrixLayout layout;
    std::vector<typename X::S> dense;
    std::vector<typename X::T> re, im;
    explicit Arr(u64 r, u64 c = 1, MatrixLayout l = kRow) : rows(r), cols(c), layout(l) {
        if constexpr (X::split) re.resize(r * c), im.resize(r * c);
        else dense.resize(r * c);
    }
    u64 at(u64 i, u64 j) const { return layout == kCol ? j * rows + i : i * cols + j; }
    void set(u64 i, V v) {
        if constexpr (X::integer) dense[i] = static_cast<std::int32_t>(X::wrap(v));
        else if constexpr (X::split) store_split<typename X::T>(re.data(), im.data(), i, typename X::C(v));
        else store_element<typename X::S>(dense.data(), i, typename X::C(v));
    }
    V get(u64 i) const {
        if constexpr (X::integer) return dense[i];
        else if constexpr (X::split) return V(load_split<typename X::C>(re.data(), im.data(), i));
        else return V(load_element<typename X::C>(dense.data(), i));
    }
    void set(u64 i, u64 j, V v) { set(at(i, j), v); }
    V get(u64 i, u64 j) const { return get(at(i, j)); }
    typename X::K::Vector vec() {
        if constexpr (X::split) return {re.data(), im.data(), rows * cols};
        else return {dense.data(), rows * cols};
    }
    typename X::K::Matrix mat() {
        typename X::K::Matrix m;
        m.rows = rows, m.cols = cols, m.layout = layout;
        if constexpr (X::split) m.re = re.data(), m.im = im.data();
        else m.data = dense.data();
        return m;
    }
};

// A scalar: one element, or for split complex two adjacent components.
template <class Cf> struct Scal {
    using X = Tr<Cf>;
    Arr<Cf> b{2};
    typename X::K::Scalar view() {
        if constexpr (X::split) return {b.re.data()};
        else return {b.dense.data()};
    }
    typename X::V get() const {
        if constexpr (X::split) return typename X::V(load_split<typename X::C>(b.re.data(), b.re.data() + 1, 0));
        else return b.get(0);
    }
};

template <class Cf> typename Tr<Cf>::V random_value(std::mt19937_64& rng, double scale = 1.0) {
    if constexpr (Tr<Cf>::integer) return static_cast<std::int32_t>(static_cast<std::uint32_t>(rng()));
    else {
        std::uniform_real_distribution<double> d(-scale, scale);
        if constexpr (Tr<Cf>::complex) return {d(rng), d(rng)};
        else return d(rng);
    }
}
template <class Cf> void fill(Arr<Cf>& a, std::mt19937_64& rng, double scale = 1.0) {
    for (u64 i = 0; i < a.rows * a.cols; ++i) a.set(i, random_value<Cf>(rng, scale));
}

double magnitude(double v) { return std::fabs(v); }
double magnitude(std::complex<double> v) { return std::abs(v); }
double magnitude(std::int64_t v) { return double(v < 0 ? -v : v); }
template <class V> V conj_if(V v) {
    if constexpr (std::is_same_v<V, std::complex<double>>) return std::conj(v);
    else return v;
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

// `got` against sum_{p<k} term(p), wrapping for integers, within `tol` times the sum of magnitudes.
template <class Cf, class F> void expect_sum(typename Tr<Cf>::V got, u64 k, F term, double tol) {
    typename Tr<Cf>::V want{};
    double bound = 0;
    for (u64 p = 0; p < k; ++p) {
        const auto t = term(p);
        if constexpr (Tr<Cf>::integer)
            want = static_cast<std::int64_t>(static_cast<std::uint64_t>(want) + static_cast<std::uint64_t>(t));
        else want += t;
        bound += magnitude(t);
    }
    expect_near<Cf>(got, want, tol * bound + 1e-300);
}

template <class Cf> class DenseKernels : public ::testing::Test {};
using AllConfigs = ::testing::Types<Cfg<PolicyF32>, Cfg<PolicyF64>, Cfg<PolicyBF16>, Cfg<PolicyF16>,
                                    Cfg<PolicyC32, ComplexLayout::split>, Cfg<PolicyC64, ComplexLayout::split>,
                                    Cfg<PolicyC128, ComplexLayout::split>, Cfg<PolicyC32, ComplexLayout::interleaved>,
                                    Cfg<PolicyC64, ComplexLayout::interleaved>,
                                    Cfg<PolicyC128, ComplexLayout::interleaved>, Cfg<PolicyI32>>;
TYPED_TEST_SUITE(DenseKernels, AllConfigs);

TYPED_TEST(DenseKernels, ElementWiseAndReductionsMatchReference) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    std::mt19937_64 rng(11);
    for (u64 n : {0, 1, 7, 33, 257, 9000}) {
        SCOPED_TRACE(n);
        Arr<TypeParam> x(n), y(n), out(n);
        fill(x, rng);
        fill(y, rng);
        const double grow = 2 * X::u_storage + 4 * double(n + 1) * X::u_compute;
        Scal<TypeParam> r;
        X::K::sum(x.vec(), r.view(), nullptr);
        expect_sum<TypeParam>(r.get(), n, [&](u64 i) { return x.get(i); }, grow);
        X::K::inner(x.vec(), y.vec(), r.view(), nullptr);
        expect_sum<TypeParam>(r.get(), n, [&](u64 i) { return conj_if(x.get(i)) * y.get(i); }, 2 * grow);
        if constexpr (!X::integer) {
            double squares = 0;
            for (u64 i = 0; i < n; ++i) squares += magnitude(x.get(i)) * magnitude(x.get(i));
            std::remove_pointer_t<decltype(typename X::K::RealScalar{}.data)> norm{};
            X::K::norm(x.vec(), {&norm}, nullptr);
            EXPECT_NEAR(double(load_element<decltype(std::real(typename X::C{}))>(&norm, 0)), std::sqrt(squares),
                        grow * std::sqrt(squares) + 1e-300);
        }
        // A negative real: NaN for a real square root, on the branch cut (+0 imaginary) for a complex one.
        if constexpr (!X::integer)
            if (n > 0) x.set(0, V(-4));
        Scal<TypeParam> s;
        const typename X::C sc(random_value<TypeParam>(rng));
        if constexpr (X::split) store_split<typename X::T>(s.b.re.data(), s.b.re.data() + 1, 0, sc);
        else s.b.set(0, V(sc));
        const double tol = 2 * X::u_storage + 8 * X::u_compute;
        // want(i) gives the exact result and its error scale (complex products cancel).
        auto check = [&](auto run, auto want) {
            run();
            for (u64 i = 0; i < n; ++i) {
                const auto [value, scale] = want(x.get(i), y.get(i));
                expect_near<TypeParam>(out.get(i), value, tol * scale + 1e-300);
            }
        };
        using R = std::pair<V, double>;
        const V sv = s.get();
        check([&] { X::K::add(x.vec(), y.vec(), out.vec(), nullptr); },
              [](V a, V b) { return R(a + b, magnitude(a) + magnitude(b)); });
        check([&] { X::K::subtract(x.vec(), y.vec(), out.vec(), nullptr); },
              [](V a, V b) { return R(a - b, magnitude(a) + magnitude(b)); });
        check([&] { X::K::multiply(x.vec(), y.vec(), out.vec(), nullptr); },
              [](V a, V b) { return R(a * b, magnitude(a) * magnitude(b)); });
        check([&] { X::K::scale(x.vec(), s.view(), out.vec(), nullptr); },
              [&](V a, V) { return R(a * sv, magnitude(a) * magnitude(sv)); });
        if constexpr (!X::integer) {
            check([&] { X::K::divide(x.vec(), s.view(), out.vec(), nullptr); },
                  [&](V a, V) { return R(a / sv, 2 * magnitude(a) / magnitude(sv)); });
            check([&] { X::K::sqrt(x.vec(), out.vec(), nullptr); },
                  [](V a, V) { return R(std::sqrt(a), 2 * magnitude(std::sqrt(a))); });
            const Arr<TypeParam> before = x;
            X::K::conjugate(x.vec(), nullptr); // in place
            for (u64 i = 0; i < n; ++i) EXPECT_EQ(x.get(i), conj_if(before.get(i)));
        }
        // The output may be one of the inputs.
        out = x;
        check([&] { X::K::add(out.vec(), y.vec(), out.vec(), nullptr); },
              [](V a, V b) { return R(a + b, magnitude(a) + magnitude(b)); });
    }
    // Low-precision storage is rounded once: a sum whose running total would stall or drift if it
    // were rounded to the storage type at every step comes out as the rounded exact total.
    if constexpr (X::u_storage != X::u_compute) {
        const u64 n = 3000;
        const double one = 1 + 2 * X::u_storage;
        V term(one), total(double(n) * one);
        if constexpr (X::complex) term = V(one, -one), total = V(double(n) * one, -double(n) * one);
        Arr<TypeParam> terms(n), want(1);
        for (u64 i = 0; i < n; ++i) terms.set(i, term);
        want.set(0, total);
        Scal<TypeParam> sum;
        X::K::sum(terms.vec(), sum.view(), nullptr);
        EXPECT_EQ(sum.get(), want.get(0));
    }
}

TYPED_TEST(DenseKernels, MatmulAllLayoutsAndEdges) {
    using X = Tr<TypeParam>;
    std::mt19937_64 rng(13);
    // m, k, n and whether to try all eight layout combinations.
    for (const auto sh : {std::array<u64, 4>{1, 1, 1, 1}, {7, 7, 7, 1}, {3, 0, 4, 0}, {33, 33, 33, 0}, {70, 130, 90, 1},
                          {257, 257, 257, 0}})
        for (int code = 0; code < (sh[3] ? 8 : 1); ++code) {
            const u64 m = sh[0], k = sh[1], n = sh[2];
            SCOPED_TRACE(::testing::Message() << m << "x" << k << "x" << n << " layouts " << code);
            Arr<TypeParam> a(m, k, code & 1 ? kCol : kRow), b(k, n, code & 2 ? kCol : kRow),
                c(m, n, code & 4 ? kCol : kRow);
            fill(a, rng);
            fill(b, rng);
            fill(c, rng); // stale contents must be overwritten
            X::K::matmul(a.mat(), b.mat(), c.mat(), nullptr);
            const double tol = 2 * X::u_storage + 8 * double(k + 1) * X::u_compute;
            for (u64 q = 0; q < m * n; ++q)
                expect_sum<TypeParam>(
                    c.get(q / n, q % n), k, [&](u64 p) { return a.get(q / n, p) * b.get(p, q % n); }, tol);
        }
}

TYPED_TEST(DenseKernels, MatvecKronOuterTransposeTraceEye) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    std::mt19937_64 rng(14);
    const double tol = 2 * X::u_storage + 64 * X::u_compute;
    for (MatrixLayout layout : {kRow, kCol}) {
        SCOPED_TRACE(static_cast<int>(layout));
        Arr<TypeParam> a(37, 29, layout), x(29), y(37), out(37);
        fill(a, rng);
        fill(x, rng);
        fill(y, rng);
        X::K::matvec(a.mat(), x.vec(), out.vec(), nullptr);
        for (u64 i = 0; i < 37; ++i)
            expect_sum<TypeParam>(out.get(i), 29, [&](u64 j) { return a.get(i, j) * x.get(j); }, tol);

        Arr<TypeParam> t(29, 37, layout == kRow ? kCol : kRow);
        X::K::transpose(a.mat(), t.mat(), nullptr);
        for (u64 i = 0; i < 37 * 29; ++i) EXPECT_EQ(t.get(i % 29, i / 29), a.get(i / 29, i % 29));
        if constexpr (!X::integer) {
            X::K::adjoint(a.mat(), t.mat(), nullptr);
            for (u64 i = 0; i < 37 * 29; ++i) EXPECT_EQ(t.get(i % 29, i / 29), conj_if(a.get(i / 29, i % 29)));
        }

        Arr<TypeParam> b(3, 2, layout), k(37 * 3, 29 * 2, layout), o(37, 29, layout);
        fill(b, rng);
        X::K::kron(a.mat(), b.mat(), k.mat(), nullptr);
        X::K::outer(y.vec(), x.vec(), o.mat(), nullptr); // lengths differ; no conjugation
        for (u64 i = 0; i < 37 * 3; ++i)
            for (u64 j = 0; j < 29 * 2; ++j)
                expect_sum<TypeParam>(
                    k.get(i, j), 1, [&](u64) { return a.get(i / 3, j / 2) * b.get(i % 3, j % 2); }, tol);
        for (u64 i = 0; i < 37 * 29; ++i)
            expect_sum<TypeParam>(o.get(i / 29, i % 29), 1, [&](u64) { return y.get(i / 29) * x.get(i % 29); }, tol);

        Scal<TypeParam> tr;
        X::K::trace(a.mat(), tr.view(), nullptr); // rectangular: the 29 available diagonal entries
        expect_sum<TypeParam>(tr.get(), 29, [&](u64 i) { return a.get(i, i); }, tol);

        Arr<TypeParam> e(5, 5, layout);
        fill(e, rng);
        X::K::eye(e.mat(), nullptr);
        for (u64 i = 0; i < 25; ++i) EXPECT_EQ(e.get(i / 5, i % 5), V(i / 5 == i % 5 ? 1 : 0));
    }
}

TYPED_TEST(DenseKernels, VectorEqualRules) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    std::mt19937_64 rng(15);
    Arr<TypeParam> x(33), y(33), shorter(32), e0(0), e1(0);
    fill(x, rng);
    y = x;
    std::int32_t flag = -1;
    auto equal = [&](Arr<TypeParam>& a, Arr<TypeParam>& b) {
        X::K::vector_equal(a.vec(), b.vec(), {&flag}, nullptr);
        return flag;
    };
    EXPECT_EQ(equal(x, y), 1);
    EXPECT_EQ(equal(x, shorter), 0);
    EXPECT_EQ(equal(e0, e1), 1);
    y.set(20, x.get(20) * V(2) + V(1));
    EXPECT_EQ(equal(x, y), 0);
    if constexpr (!X::integer) {
        const double inf = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
        for (const auto [a, b, want] : {std::array<double, 3>{inf, inf, 1}, {-inf, -inf, 1}, {inf, -inf, 0},
                                        {1.0, inf, 0}, {nan, nan, 0}, {nan, 1.0, 0}, {0.0, -0.0, 1}})
            for (bool imag : {false, X::complex}) { // the imaginary component alone decides too
                auto value = [&](double v) {
                    if constexpr (X::complex) return imag ? V(0.5, v) : V(v, 0);
                    else return V(v);
                };
                y = x;
                x.set(5, value(a));
                y.set(5, value(b));
                EXPECT_EQ(equal(x, y), int(want)) << a << " vs " << b << (imag ? " (imaginary)" : "");
            }
        if constexpr (X::u_storage == X::u_compute) { // a last place of the compute type is tolerated
            y = x;
            y.set(3, x.get(3) * V(1 + 2 * X::u_compute));
            EXPECT_EQ(equal(x, y), 1);
        }
    }
}

TYPED_TEST(DenseKernels, PartialTracesMatrixPowerAndUnitarity) {
    using X = Tr<TypeParam>;
    using V = typename X::V;
    if constexpr (!X::integer) {
        std::mt19937_64 rng(16);
        for (MatrixLayout layout : {kRow, kCol}) {
            Arr<TypeParam> a(3, 3, layout), b(4, 4, layout), k(12, 12, layout), left(4, 4, layout), right(3, 3, layout);
            fill(a, rng);
            fill(b, rng);
            X::K::kron(a.mat(), b.mat(), k.mat(), nullptr);
            X::K::partial_trace_left(k.mat(), left.mat(), nullptr);
            X::K::partial_trace_right(k.mat(), right.mat(), nullptr);
            const V ta = a.get(0, 0) + a.get(1, 1) + a.get(2, 2),
                    tb = b.get(0, 0) + b.get(1, 1) + b.get(2, 2) + b.get(3, 3);
            const double tol = 16 * X::u_storage + 128 * X::u_compute;
            for (u64 i = 0; i < 16; ++i) expect_near<TypeParam>(left.get(i / 4, i % 4), ta * b.get(i / 4, i % 4), tol);
            for (u64 i = 0; i < 9; ++i) expect_near<TypeParam>(right.get(i / 3, i % 3), tb * a.get(i / 3, i % 3), tol);
        }

        for (u64 n : {1, 7, 33})
            for (std::int32_t e : {0, 5}) {
                SCOPED_TRACE(::testing::Message() << "n=" << n << " e=" << e);
                Arr<TypeParam> a(n, n, kCol), out(n, n);
                fill(a, rng, 1.0 / double(n));
                X::K::matrix_power(a.mat(), {&e}, out.mat(), nullptr);
                // Reference A^e and the entry-wise bound |A|^e of its rounding errors.
                std::vector<V> ref(n * n);
                std::vector<double> bound(n * n);
                for (u64 i = 0; i < n; ++i) ref[i * n + i] = V(1), bound[i * n + i] = 1;
                for (std::int32_t s = 0; s < e; ++s) {
                    const std::vector<V> r0 = std::exchange(ref, std::vector<V>(n * n));
                    const std::vector<double> b0 = std::exchange(bound, std::vector<double>(n * n));
                    for (u64 q = 0; q < n * n; ++q)
                        for (u64 p = 0; p < n; ++p)
                            ref[q] += r0[q / n * n + p] * a.get(p, q % n),
                                bound[q] += b0[q / n * n + p] * magnitude(a.get(p, q % n));
                }
                // Intermediates in the compute type: only one storage rounding is allowed for.
                const double tol = 2 * X::u_storage + 16 * double(e * n + 1) * X::u_compute;
                for (u64 q = 0; q < n * n; ++q)
                    expect_near<TypeParam>(out.get(q / n, q % n), ref[q], tol * bound[q] + 1e-300);
            }
        Arr<TypeParam> a(3, 3), out(3, 3);
        for (u64 i = 0; i < 9; ++i) out.set(i, V(7));
        std::int32_t negative = -1;
        EXPECT_EQ(message_of<std::invalid_argument>(
                      [&] { X::K::matrix_power(a.mat(), {&negative}, out.mat(), nullptr); }),
                  "matrix_power - exponent must be non-negative");
        EXPECT_EQ(out.get(1, 2), V(7));

        std::int32_t flag = -1;
        const double c = std::cos(0.7), s = std::sin(0.7);
        V ph(1);
        if constexpr (X::complex) ph = std::polar(1.0, 0.3);
        for (double factor : {1.0, 1.25}) {
            Arr<TypeParam> q(2, 2, kCol);
            q.set(0, 0, factor * c), q.set(0, 1, -factor * s * ph);
            q.set(1, 0, factor * s * conj_if(ph)), q.set(1, 1, factor * c);
            X::K::is_unitary(q.mat(), {&flag}, nullptr);
            EXPECT_EQ(flag, factor == 1.0 ? 1 : 0);
        }
        Arr<TypeParam> wide(2, 3);
        X::K::eye(wide.mat(), nullptr);
        X::K::is_unitary(wide.mat(), {&flag}, nullptr);
        EXPECT_EQ(flag, 0);
    }
}

TYPED_TEST(DenseKernels, OverlappingOutputsAndShapeChecks) {
    using X = Tr<TypeParam>;
    std::mt19937_64 rng(18);
    Arr<TypeParam> a(9, 9), copy(9, 9), want(9, 9);
    fill(a, rng);
    copy = a;
    X::K::transpose(copy.mat(), want.mat(), nullptr);
    auto same = [](const Arr<TypeParam>& p, const Arr<TypeParam>& q) {
        return p.dense == q.dense && p.re == q.re && p.im == q.im;
    };
    X::K::transpose(a.mat(), a.mat(), nullptr);
    EXPECT_TRUE(same(a, want));
    a = copy;
    X::K::matmul(copy.mat(), copy.mat(), want.mat(), nullptr);
    X::K::matmul(a.mat(), a.mat(), a.mat(), nullptr);
    EXPECT_TRUE(same(a, want));

    Arr<TypeParam> b(4, 5), v3(3), v4(4);
    for (auto run : std::vector<std::function<void()>>{
             [&] { X::K::matmul(a.mat(), b.mat(), want.mat(), nullptr); },
             [&] { X::K::add(v3.vec(), v4.vec(), v3.vec(), nullptr); },
             [&] { X::K::matvec(b.mat(), v4.vec(), v4.vec(), nullptr); }})
        EXPECT_EQ(message_of<std::invalid_argument>(run), "CPU floating kernel - operand shape mismatch");
}

TEST(DenseKernelsNorm, ScaledAgainstOverflowAndUnderflow) {
    const double inf = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
    // NaN wins over infinity.
    for (const auto [a, b, want] : {std::array<double, 3>{1e300, 1e300, std::sqrt(2.0) * 1e300},
                                    {1e-300, 1e-300, std::sqrt(2.0) * 1e-300}, {1e300, 1e-300, 1e300},
                                    {-inf, 0.0, inf}, {inf, nan, nan}}) {
        double v[2] = {a, b}, r = 0;
        FloatingKernels<PolicyF64>::norm({v, 2}, {&r}, nullptr);
        EXPECT_TRUE(r == want || (std::isnan(r) && std::isnan(want)) || std::fabs(r - want) <= want * 1e-15)
            << a << ", " << b << " gave " << r;
    }
    float f[2] = {1e38f, 1e38f}, fr = 0;
    FloatingKernels<PolicyF32>::norm({f, 2}, {&fr}, nullptr);
    EXPECT_FLOAT_EQ(fr, 1.41421356e38f);
    std::complex<double> z[1] = {{1e300, -1e300}};
    double r = 0;
    FloatingKernels<PolicyC128, ComplexLayout::interleaved>::norm({z, 1}, {&r}, nullptr);
    EXPECT_NEAR(r, std::sqrt(2.0) * 1e300, 1e285);
}

// Every usable micro-kernel over shapes that cross tile, cache-block and panel edges.
template <class R> class GemmMicroKernels : public ::testing::Test {};
using MicroKernelTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(GemmMicroKernels, MicroKernelTypes);

TYPED_TEST(GemmMicroKernels, AgreeWithReference) {
    using R = TypeParam;
    std::mt19937_64 rng(19);
    std::uniform_real_distribution<R> d(-1, 1);
    for (const auto& kernel : available_gemm_kernels<R>())
        for (const auto [m, n, k] :
             {std::array<u64, 3>{1, 1, 1}, {7, 9, 5}, {33, 257, 70}, {257, 33, 600}, {5, 4100, 3}, {200, 50, 1100}}) {
            SCOPED_TRACE(::testing::Message() << kernel.name << " " << m << "x" << n << "x" << k);
            std::vector<R> a(m * k), b(k * n), c(m * n, R(99));
            for (auto& v : a) v = d(rng);
            for (auto& v : b) v = d(rng);
            // A column-major, B row-major.
            const RealPanelSource<R, R> left{a.data(), 1, m}, right{b.data(), 1, n};
            gemm<R>(kernel, m, n, k, left.packer(), right.packer(), c.data(), n, nullptr);
            u64 bad = 0;
            for (u64 q = 0; q < m * n; ++q) {
                double want = 0, bound = 0;
                for (u64 p = 0; p < k; ++p) {
                    const double t = double(a[p * m + q / n]) * double(b[p * n + q % n]);
                    want += t, bound += std::fabs(t);
                }
                const double tol = 2.0 * double(k) * std::numeric_limits<R>::epsilon() * bound + 1e-30;
                bad += std::fabs(double(c[q]) - want) <= tol ? 0 : 1;
            }
            EXPECT_EQ(bad, 0u);
        }
}

} // namespace

// The parallel paths must give the serial answers: reductions by their fixed blocking, products
// element by element.
TEST(DenseKernelsParallel, WorkerPoolMatchesSerial) {
    const CpuRuntimeContext runtime(quillmark::testing::machine_options(5)); // four workers
    const u64 n = 203, len = 100000;
    std::vector<double> a(n * n), b(n * n), serial(n * n), parallel(n * n), x(len);
    for (u64 i = 0; i < n * n; ++i) a[i] = std::sin(0.37 * double(i)), b[i] = std::cos(0.11 * double(i));
    for (u64 i = 0; i < len; ++i) x[i] = 1.0 / double(i + 1);
    auto view = [&](std::vector<double>& v) {
        DenseMatrixView<double> m;
        m.rows = m.cols = n;
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
