#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <complex>
#include <cstring>
#include <functional>
#include <limits>
#include <numeric>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "backend/cpu/structured_solver.hpp"
#include "backend/cpu/structured_solver_jacobi.hpp"
#include "core/errors.hpp"
#include "test_support.hpp"

using namespace quillmark;
using namespace quillmark::cpu;
using quillmark::testing::capture;
using quillmark::testing::message_of;
using quillmark::testing::same_bits;

namespace {

using u64 = std::uint64_t;
using Z = std::complex<double>;
constexpr MatrixLayout kRow = MatrixLayout::row_major, kCol = MatrixLayout::column_major;
constexpr MatrixLayout kLayouts[] = {kRow, kCol};

template <class C> C make(double re, double im = 0) {
    if constexpr (std::is_same_v<C, RealOf<C>>) return static_cast<C>(re);
    else return C(static_cast<RealOf<C>>(re), static_cast<RealOf<C>>(im));
}

template <class C> struct Matrix {
    MatrixGeometry g;
    std::vector<C> data;
    C* p() { return data.data(); }
    C& operator()(u64 i, u64 j) { return data[g.index(i, j)]; }
    C operator()(u64 i, u64 j) const { return data[g.index(i, j)]; }
};

template <class C> Matrix<C> build(u64 n, MatrixLayout layout, const std::function<C(u64, u64)>& f) {
    Matrix<C> m{{n, n, layout}, std::vector<C>(n * n)};
    for (u64 i = 0; i < n * n; ++i) m(i / n, i % n) = f(i / n, i % n);
    return m;
}

template <class C> Matrix<C> rows(MatrixLayout layout, std::initializer_list<std::initializer_list<double>> values) {
    return build<C>(values.size(), layout,
                    [&](u64 i, u64 j) { return make<C>((values.begin() + i)->begin()[j]); });
}

template <class C> Matrix<C> random_matrix(u64 n, MatrixLayout layout, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> dist(-1, 1);
    return build<C>(n, layout, [&](u64, u64) { return make<C>(dist(gen), dist(gen)); });
}

// Positive definite (Hermitian) matrix B B^H + n I.
template <class C> Matrix<C> random_hpd(u64 n, MatrixLayout layout, unsigned seed) {
    const Matrix<C> b = random_matrix<C>(n, layout, seed);
    return build<C>(n, layout, [&](u64 i, u64 j) {
        Z s = i == j ? double(n) : 0.0;
        for (u64 k = 0; k < n; ++k) s += Z(b(i, k)) * std::conj(Z(b(j, k)));
        return make<C>(s.real(), s.imag());
    });
}

template <class C> double eps_of() { return std::numeric_limits<RealOf<C>>::epsilon(); }

template <class C> std::int64_t factor(Matrix<C>& a, std::vector<std::int64_t>& pivots) {
    pivots.assign(a.g.rows, -1);
    return lu_factor(a.p(), a.g, pivots.data());
}

} // namespace

template <class C> class StructuredTyped : public ::testing::Test {};
using ComputeTypes = ::testing::Types<float, double, std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(StructuredTyped, ComputeTypes);

TYPED_TEST(StructuredTyped, SolveAndLogdetMatchReferencesInBothLayouts) {
    using C = TypeParam;
    const u64 n = 9;
    for (MatrixLayout layout : kLayouts) {
        const Matrix<C> a = random_matrix<C>(n, layout, 7);
        Matrix<C> lu = a;
        std::vector<std::int64_t> pivots;
        const std::int64_t swaps = factor(lu, pivots);
        std::vector<C> b(n), block(2 * n);
        for (u64 i = 0; i < n; ++i) b[i] = block[2 * i + 1] = make<C>(double(i) - 3.5, 0.25 * double(i));
        std::vector<C> x = b;
        lu_solve(lu.p(), lu.g, pivots.data(), x.data());
        double residual = 0, scale = 0;
        for (u64 i = 0; i < n; ++i) {
            Z s = -Z(b[i]);
            for (u64 j = 0; j < n; ++j) s += Z(a(i, j)) * Z(x[j]), scale += std::abs(Z(a(i, j))) * std::abs(Z(x[j]));
            residual = std::max(residual, std::abs(s));
        }
        EXPECT_LT(residual, 50 * n * eps_of<C>() * scale) << "layout " << int(layout);
        // A strided right-hand side (one column of a row-major n x 2 block) gives the same answer.
        lu_solve(lu.p(), lu.g, pivots.data(), block.data() + 1, 2);
        for (u64 i = 0; i < n; ++i) EXPECT_EQ(block[2 * i + 1], x[i]);

        const auto reference = slogdet(a.data.data(), a.g);
        const auto ld = lu_logdet(lu.p(), lu.g, swaps);
        EXPECT_NEAR(ld.real(), reference.log_magnitude, 100 * eps_of<C>());
        EXPECT_NEAR(std::abs(std::polar(1.0, double(ld.imag())) - Z(reference.sign)), 0, 100 * eps_of<C>());
        EXPECT_GT(ld.imag(), -std::numbers::pi_v<RealOf<C>>);
        EXPECT_LE(ld.imag(), std::numbers::pi_v<RealOf<C>>);
    }
}

// Ties and swaps are pinned bit for bit against the reference elimination elsewhere; here the
// public entry points meet singular and empty input in every type.
TYPED_TEST(StructuredTyped, SingularAndEmptyMatrices) {
    using C = TypeParam;
    std::vector<std::int64_t> pivots;
    for (MatrixLayout layout : kLayouts) {
        Matrix<C> zero_column = rows<C>(layout, {{1, 0, 2}, {3, 0, 4}, {5, 0, 7}});
        EXPECT_EQ(message_of<SolverError>([&] { factor(zero_column, pivots); }),
                  "LU factorisation - singular matrix at pivot 1");
    }
    const Matrix<C> singular = rows<C>(kRow, {{1, 2, 3}, {2, 4, 6}, {0, 1, 1}});
    const auto s = slogdet(singular.data.data(), singular.g);
    EXPECT_EQ(s.sign, make<C>(0));
    EXPECT_EQ(s.log_magnitude, -std::numeric_limits<RealOf<C>>::infinity());
    const MatrixGeometry empty{0, 0, kCol};
    const auto e = slogdet<C>(nullptr, empty);
    EXPECT_EQ(e.sign, make<C>(1));
    EXPECT_EQ(e.log_magnitude, 0);
    EXPECT_EQ(logdet_positive_definite<C>(nullptr, empty), 0);
    eigvalsh<C>(nullptr, empty, nullptr);
}

TYPED_TEST(StructuredTyped, CholeskyLogdetAndCompensatedPivotThreshold) {
    using C = TypeParam;
    for (MatrixLayout layout : kLayouts) {
        Matrix<C> a = random_hpd<C>(7, layout, 5);
        const auto reference = slogdet(a.p(), a.g);
        EXPECT_NEAR(logdet_positive_definite(a.p(), a.g), reference.log_magnitude,
                    100 * eps_of<C>() * std::fabs(reference.log_magnitude));
    }
    // Second pivot is exactly delta; the threshold is |a11| * eps * 5 in the compute type's eps,
    // even though single precision accumulates in double.
    const double eps = eps_of<C>();
    Matrix<C> refused = rows<C>(kRow, {{1, 1}, {1, 1 + 4 * eps}}), accepted = rows<C>(kRow, {{1, 1}, {1, 1 + 8 * eps}});
    EXPECT_EQ(message_of<SolverError>([&] { logdet_positive_definite(refused.p(), refused.g); }),
              "logdet_positive_definite - matrix is not positive definite at pivot 1");
    EXPECT_NEAR(logdet_positive_definite(accepted.p(), accepted.g), std::log(8 * eps), 20 * eps);
}

TEST(StructuredLu, OverflowingModulusStillRanks) {
    std::vector<std::int64_t> pivots;
    // |(1.5e308, 1.5e308)| overflows: the candidate is ranked on the halved modulus and still wins.
    Matrix<Z> c{{2, 2, kRow}, {Z(1.7e308, 0), Z(1, 0), Z(1.5e308, 1.5e308), Z(0, 1)}};
    EXPECT_EQ(factor(c, pivots), 1);
    EXPECT_EQ(pivots[0], 2);
    EXPECT_TRUE(std::isfinite(lu_logdet(c.p(), c.g, 1).real()));
}

// Rejected input: the exact message, from the exception type callers map it by.
TEST(StructuredErrors, RejectedInputs) {
    std::vector<std::int64_t> pivots;
    std::vector<double> w(2);
    auto nan_pivot = rows<double>(kRow, {{1, 2}, {NAN, 3}}), asym = rows<double>(kRow, {{1, 2}, {2.001, 1}}),
         nan_diagonal = rows<double>(kCol, {{1, 0}, {0, NAN}}),
         huge = rows<double>(kRow, {{1.5e308, 1.5e308}, {1.5e308, 1.5e308}});
    // 2^127 * 2^38 overflows the single-precision range.
    std::vector<float> f{std::ldexp(1.0f, 127), std::ldexp(1.0f, -140), 0, 1}, before = f;
    using Invalid = std::invalid_argument;
    const std::pair<std::string, std::string> cases[] = {
        {message_of<Invalid>([&] { factor(nan_pivot, pivots); }), "LU factorisation - non-finite pivot"},
        {message_of<Invalid>([&] { eigvalsh(asym.p(), asym.g, w.data()); }),
         "quillmark.eigvalsh - input must be symmetric/Hermitian at (1, 0)"},
        {message_of<Invalid>([&] { logdet_positive_definite(nan_diagonal.p(), nan_diagonal.g); }),
         "quillmark.logdet_positive_definite - input must contain only finite entries"},
        {message_of<std::runtime_error>([&] { eigvalsh(huge.p(), huge.g, w.data()); }),
         "eigh/eigvalsh - eigenvalue overflow"},
        {message_of<SolverError>([&] { normalise_determinant(f.data(), 2, "op"); }),
         "op - subnormal factorisation range cannot be preserved"},
    };
    for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
    EXPECT_EQ(f, before);

    auto inf_pivot = rows<double>(kRow, {{1, INFINITY}, {2, 1}});
    try {
        slogdet(inf_pivot.p(), inf_pivot.g);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& err) { // a plain error, not a SolverError
        EXPECT_STREQ(err.what(), "slogdet - non-finite LU pivot");
        EXPECT_EQ(dynamic_cast<const ErrorContext*>(&err), nullptr);
    }
    // An invalid pivot leaves the right-hand side untouched.
    auto a = rows<double>(kRow, {{4, 1, 0}, {1, 3, 1}, {0, 1, 2}});
    for (std::int64_t bad : {0, 4, -1}) {
        std::vector<std::int64_t> bad_pivots{2, 3, bad};
        std::vector<double> x{1, 2, 3};
        EXPECT_EQ(message_of<Invalid>([&] { lu_solve(a.p(), a.g, bad_pivots.data(), x.data()); }),
                  "solve - invalid LU pivot");
        EXPECT_EQ(x, (std::vector<double>{1, 2, 3}));
    }
}

TEST(StructuredLu, LogdetSignBitsAndComplexPhases) {
    auto a = rows<double>(kRow, {{-2, 5}, {0, -0.0}}); // -0.0 on the diagonal counts as negative
    const auto ld = lu_logdet(a.p(), a.g, 1);
    EXPECT_EQ(ld.real(), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(ld.imag(), std::numbers::pi);
    // arg(2i * 0.5i * (-1)^1) = arg(1) = 0; without the swap the product is -1 and gives +pi.
    Matrix<Z> b{{2, 2, kCol}, {Z(0, 2), Z(0), Z(7), Z(0, 0.5)}};
    EXPECT_NEAR(lu_logdet(b.p(), b.g, 1).imag(), 0, 1e-15);
    const auto neg = lu_logdet(b.p(), b.g, 0);
    EXPECT_EQ(neg.imag(), std::numbers::pi);
    EXPECT_NEAR(neg.real(), 0, 1e-15);
}

TEST(StructuredSlogdet, SubnormalOffDiagonalMatrixIsRescaledButDiagonalIsNot) {
    // Entries of order 2^-1060 keep 14 bits. The determinant of the stored entries, exact in units
    // of 2^-1074, comes out to full precision only when the elimination runs rescaled.
    const double x[2][2] = {{1.2345, 0.6789}, {-0.4321, 2.1098}};
    const auto truth = [](const auto& a, int unit) {
        const auto m = [&](u64 i, u64 j) { return std::ldexp(double(a(i, j)), unit); };
        return std::log(m(0, 0) * m(1, 1) - m(0, 1) * m(1, 0)) - 2 * unit * std::numbers::ln2;
    };
    for (MatrixLayout layout : kLayouts) {
        auto a = build<double>(2, layout, [&](u64 i, u64 j) { return std::ldexp(x[i][j], -1060); });
        const auto s = slogdet(a.p(), a.g);
        EXPECT_EQ(s.sign, 1);
        EXPECT_NEAR(s.log_magnitude, truth(a, 1074), 1e-12 * std::fabs(truth(a, 1074)));
        // Its symmetric part is positive definite: the Cholesky route is rescaled as well.
        auto h = build<double>(2, layout,
                               [&](u64 i, u64 j) { return std::ldexp(x[std::min(i, j)][std::max(i, j)], -1060); });
        EXPECT_NEAR(logdet_positive_definite(h.p(), h.g), truth(h, 1074), 1e-12 * std::fabs(truth(h, 1074)));
    }
    // The single-precision instance widens, so float subnormals give the true value too.
    auto f = build<float>(2, kRow, [&](u64 i, u64 j) { return std::ldexp(float(x[i][j]), -135); });
    EXPECT_NEAR(slogdet(f.p(), f.g).log_magnitude, truth(f, 149), 1e-5);

    std::vector<double> d{1e-310, 0, 0, 3e-312}, copy = d;
    EXPECT_EQ(normalise_determinant(copy.data(), 2, "quillmark.slogdet"), 0);
    EXPECT_EQ(copy, d);
    EXPECT_EQ(slogdet(d.data(), MatrixGeometry{2, 2, kRow}).log_magnitude, std::log(1e-310) + std::log(3e-312));
}

TEST(StructuredHermitian, SymmetryTolerance) {
    auto asym = rows<double>(kRow, {{1, 2}, {2.001, 1}});
    auto check = [](auto m, bool symmetry = true) {
        return message_of<std::invalid_argument>(
            [&] { validate_hermitian_input(m.p(), m.g, symmetry, "quillmark.eigh"); });
    };
    const std::string at10 = "quillmark.eigh - input must be symmetric/Hermitian at (1, 0)";
    EXPECT_EQ(check(asym, false), "");
    // A relative difference of 2^-23 is inside 2 * float eps but outside 2 * double eps.
    const double off = 1 + std::ldexp(1.0, -23);
    EXPECT_EQ(check(rows<float>(kRow, {{1, 1}, {off, 1}})), "");
    EXPECT_EQ(check(rows<double>(kRow, {{1, 1}, {off, 1}})), at10);
    // Complex entries are compared with the conjugate of their mirror; the diagonal must be real.
    EXPECT_EQ(check(Matrix<Z>{{2, 2, kRow}, {Z(1), Z(1, 2), Z(1, -2), Z(3)}}), "");
    EXPECT_EQ(check(Matrix<Z>{{2, 2, kRow}, {Z(1), Z(1, 2), Z(1, 2), Z(3)}}), at10);
    EXPECT_EQ(check(Matrix<Z>{{2, 2, kRow}, {Z(1), Z(0), Z(0), Z(3, 1)}}),
              "quillmark.eigh - input must be symmetric/Hermitian at (1, 1)");
}

// Each solver failure's context, once per code path.
TEST(StructuredErrors, SolverFailuresCarryTheirContext) {
    struct Case {
        Matrix<double> a;
        std::function<void(Matrix<double>&)> run;
        const char *what, *detail, *operation;
        ErrorReason reason;
        int status;
    };
    std::vector<std::int64_t> pivots;
    const auto lu = [&](Matrix<double>& a) { factor(a, pivots); };
    Case cases[] = {
        {rows<double>(kRow, {{1, 0, 2}, {3, 0, 4}, {5, 0, 7}}), lu, "LU factorisation - singular matrix at pivot 1",
         "zero LU pivot", "quillmark.lu_factor", ErrorReason::singular, 1},
        {rows<double>(kCol, {{1e300, 1}, {1e-300, 1}}), lu, "LU multiplier range cannot be preserved",
         "LU multiplier underflow", "quillmark.lu_factor", ErrorReason::solver_failure, -1},
        {rows<double>(kCol, {{1, 2}, {2, 1}}), [](Matrix<double>& a) { logdet_positive_definite(a.p(), a.g); },
         "logdet_positive_definite - matrix is not positive definite at pivot 1", "non-positive Cholesky pivot",
         "quillmark.logdet_positive_definite", ErrorReason::solver_failure, 2},
        {rows<double>(kRow, {{1e308, 1e-310}, {0, 1}}), [](Matrix<double>& a) { slogdet(a.p(), a.g); },
         "quillmark.slogdet - subnormal factorisation range cannot be preserved", "determinant scaling would overflow",
         "quillmark.slogdet", ErrorReason::solver_failure, -1},
    };
    for (Case& c : cases) {
        const auto e = capture<SolverError>([&] { c.run(c.a); });
        EXPECT_STREQ(e.what(), c.what);
        EXPECT_EQ(e.detail(), c.detail) << c.what;
        EXPECT_EQ(e.operation(), c.operation) << c.what;
        EXPECT_EQ(e.reason(), c.reason) << c.what;
        EXPECT_EQ(e.native_status(), c.status) << c.what;
        EXPECT_EQ(e.library(), "CPU") << c.what;
    }
}

namespace {

// The element-wise cyclic Jacobi loop on a full Hermitian matrix: every rotation updates rows
// and columns p and q of A and columns p and q of V one element at a time.
template <class T> std::vector<double> textbook_jacobi(std::vector<T> a, u64 n, std::vector<T>* v, double tol) {
    auto at = [&](u64 i, u64 j) -> T& { return a[i * n + j]; };
    auto conj = [](T x) {
        if constexpr (std::is_same_v<T, double>) return x;
        else return std::conj(x);
    };
    auto re = [](T x) { return std::real(x); };
    if (v) {
        v->assign(n * n, T(0));
        for (u64 i = 0; i < n; ++i) (*v)[i * n + i] = T(1);
    }
    auto negligible = [&](T apq, double app, double aqq) {
        if (apq == T(0)) return true;
        const double dp = std::sqrt(std::fabs(app)), dq = std::sqrt(std::fabs(aqq));
        if (dp == 0 || dq == 0) return false;
        return std::abs(apq) / std::max(dp, dq) / std::min(dp, dq) <= tol;
    };
    auto rotate = [&](T& x, T& y, double c, T s) {
        const T xn = x * c - y * conj(s);
        y = y * c + x * s;
        x = xn;
    };
    for (int sweep = 0;; ++sweep) {
        bool converged = true;
        for (u64 p = 0; p + 1 < n; ++p)
            for (u64 q = p + 1; q < n; ++q)
                converged = converged && negligible(at(p, q), re(at(p, p)), re(at(q, q)));
        if (converged) break;
        if (sweep == 64) throw std::logic_error("reference did not converge");
        for (u64 p = 0; p + 1 < n; ++p)
            for (u64 q = p + 1; q < n; ++q) {
                const T apq = at(p, q);
                const double app = re(at(p, p)), aqq = re(at(q, q));
                if (negligible(apq, app, aqq)) continue;
                const double scale = std::max({std::abs(apq), std::fabs(app), std::fabs(aqq)});
                const T g = apq / scale;
                const double ga = std::abs(g);
                if (ga == 0) {
                    at(p, q) = at(q, p) = T(0);
                    continue;
                }
                const double theta = (aqq / scale) * 0.5 - (app / scale) * 0.5;
                const double t = std::copysign(ga / (std::hypot(theta, ga) + std::fabs(theta)), theta);
                const double c = 1 / std::hypot(1.0, t), delta = scale * t * ga;
                const T s = (c * t) * (g / ga);
                at(p, p) = T(app - delta);
                at(q, q) = T(aqq + delta);
                at(p, q) = at(q, p) = T(0);
                for (u64 k = 0; k < n; ++k) {
                    if (k == p || k == q) continue;
                    rotate(at(k, p), at(k, q), c, s);
                    at(p, k) = conj(at(k, p));
                    at(q, k) = conj(at(k, q));
                }
                if (v)
                    for (u64 k = 0; k < n; ++k) rotate((*v)[k * n + p], (*v)[k * n + q], c, s);
            }
    }
    std::vector<double> d(n);
    for (u64 i = 0; i < n; ++i) d[i] = re(at(i, i));
    return d;
}

std::vector<double> symmetric(u64 n, unsigned seed, const std::function<double(u64, u64, double)>& shape) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> dist(-1, 1);
    std::vector<double> a(n * n);
    for (u64 i = 0; i < n; ++i)
        for (u64 j = 0; j <= i; ++j) a[i * n + j] = a[j * n + i] = shape(i, j, dist(gen));
    return a;
}

// The Hermitian counterpart of a real symmetric matrix: off-diagonal {i, j} becomes
// a(i, j) * (1 + 0.75i) below the diagonal and its conjugate above.
std::vector<Z> hermitian_of(const std::vector<double>& a, u64 n) {
    std::vector<Z> h(n * n);
    for (u64 i = 0; i < n; ++i)
        for (u64 j = 0; j < n; ++j)
            h[i * n + j] = i == j ? Z(a[i * n + j]) : (i > j ? a[i * n + j] * Z(1, 0.75) : a[i * n + j] * Z(1, -0.75));
    return h;
}

} // namespace

// Sizes straddle the column blocks, vector widths and 16-row panels; the shapes add skipped
// (negligible) pairs, zero diagonals and a pair whose scaled value underflows to zero, each also
// as a complex Hermitian matrix. Runs with eigenvectors share their rows among three workers,
// the values-only runs stay serial.
TEST(StructuredJacobi, EveryKernelSetMatchesTheElementWiseLoopBitForBit) {
    const CpuRuntimeContext workers(quillmark::testing::machine_options(4));
    using Shape = std::function<double(u64, u64, double)>;
    const std::vector<std::pair<const char*, Shape>> shapes = {
        {"random", [](u64, u64, double r) { return r; }},
        {"graded", [](u64 i, u64 j, double r) { return std::ldexp(r, -int(i + j)); }},
        {"sparse, zero diagonal",
         [](u64 i, u64 j, double r) { return (i == j && i % 3 == 0) || std::fabs(r) < 0.5 ? 0.0 : r; }},
        {"underflowing pair", [](u64 i, u64 j, double r) {
             if (i == j) return i == 0 ? 1e300 : (i == 1 ? 0.0 : r);
             return (i == 1 && j == 0) ? 1e-320 : 1e-3 * r;
         }},
    };
    auto check = [&]<class T>(const std::vector<T>& a, u64 n, const JacobiKernelSet& kernels, const std::string& where) {
        std::vector<T> v_ref, vt, v_rows(n * n);
        const double tol = hermitian_tolerance<double>(n);
        const std::vector<double> d_ref = textbook_jacobi(a, n, &v_ref, tol);
        const std::vector<double> d = jacobi_hermitian(a, n, tol, &vt, kernels, &workers);
        EXPECT_TRUE(same_bits(d, d_ref)) << where;
        for (u64 k = 0; k < n; ++k)
            for (u64 p = 0; p < n; ++p) v_rows[k * n + p] = vt[p * n + k];
        EXPECT_TRUE(same_bits(v_rows, v_ref)) << where;
        EXPECT_TRUE(same_bits(jacobi_hermitian<T>(a, n, tol, nullptr, kernels), d)) << where;
    };
    for (const JacobiKernelSet& kernels : available_jacobi_kernels())
        for (const u64 n : {u64(1), u64(2), u64(5), u64(9), u64(17), u64(38), u64(70)})
            for (const auto& [name, shape] : shapes) {
                const std::vector<double> a = symmetric(n, unsigned(n), shape);
                const std::string where = std::string(kernels.name) + " n=" + std::to_string(n) + " " + name;
                check(a, n, kernels, where);
                check(hermitian_of(a, n), n, kernels, where + " (complex)");
            }
}

// The public entry points: single precision runs the same loop widened, with its own tolerance;
// values come out ascending (ties in index order) and vector i is column i in either layout.
// Eigenvector panels are shared among three workers. Besides random input, a diagonal one with
// ties needs no rotation at all. The upper triangle passed in is a last place off: only the lower
// one may be read.
TYPED_TEST(StructuredTyped, EighIsTheSortedLoopResultInBothLayouts) {
    using C = TypeParam;
    using W = std::conditional_t<std::is_same_v<C, RealOf<C>>, double, Z>;
    const CpuRuntimeContext workers(quillmark::testing::machine_options(4));
    using Shape = std::function<double(u64, u64, double)>;
    const Shape random = [](u64, u64, double r) { return r; };
    const Shape tied_diagonal = [](u64 i, u64 j, double) { return i == j ? double(i * 7 % 3) : 0.0; };
    const std::pair<u64, Shape> inputs[] = {{1, random}, {23, random}, {40, random}, {5, tied_diagonal}};
    for (const auto& [n, shape] : inputs) {
        const std::vector<Z> h = hermitian_of(symmetric(n, unsigned(n), shape), n);
        std::vector<C> narrow(n * n);
        for (u64 i = 0; i < n * n; ++i) narrow[i] = make<C>(h[i].real(), h[i].imag());
        std::vector<W> wide(narrow.begin(), narrow.end()), v_ref;
        const std::vector<double> d_ref = textbook_jacobi(wide, n, &v_ref, hermitian_tolerance<C>(n));
        // The loop itself: W V = V diag(d) and V^H V = I.
        for (u64 k = 0; k < n; ++k)
            for (u64 i = 0; i < n; ++i) {
                Z av = -d_ref[k] * Z(v_ref[i * n + k]), dot = 0;
                for (u64 j = 0; j < n; ++j) {
                    av += Z(wide[i * n + j]) * Z(v_ref[j * n + k]);
                    dot += std::conj(Z(v_ref[j * n + k])) * Z(v_ref[j * n + i]);
                }
                EXPECT_LT(std::abs(av), 100 * n * eps_of<C>());
                EXPECT_LT(std::abs(dot - (k == i ? 1.0 : 0.0)), 100 * n * eps_of<C>());
            }
        std::vector<u64> order(n);
        std::iota(order.begin(), order.end(), u64(0));
        std::stable_sort(order.begin(), order.end(), [&](u64 x, u64 y) { return d_ref[x] < d_ref[y]; });
        for (MatrixLayout layout : kLayouts) {
            const Matrix<C> a = build<C>(n, layout, [&](u64 i, u64 j) {
                const C x = narrow[i * n + j];
                return i >= j || x == C(0) ? x : x + make<C>(std::real(x) * eps_of<C>());
            });
            std::vector<RealOf<C>> w(n), w_only(n);
            Matrix<C> v{{n, n, layout}, std::vector<C>(n * n)};
            eigh(a.data.data(), a.g, w.data(), v.p(), v.g, &workers);
            eigvalsh(a.data.data(), a.g, w_only.data());
            bool same = w == w_only;
            for (u64 i = 0; i < n; ++i) {
                same = same && w[i] == static_cast<RealOf<C>>(d_ref[order[i]]);
                for (u64 k = 0; k < n; ++k) same = same && v(k, i) == static_cast<C>(v_ref[k * n + order[i]]);
            }
            EXPECT_TRUE(same) << "n=" << n;
        }
    }
}
