#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "backend/cpu/structured_solver.hpp"
#include "core/errors.hpp"

using namespace quillmark;
using namespace quillmark::cpu;

namespace {

template <class T> struct IsComplexT : std::false_type {};
template <class R> struct IsComplexT<std::complex<R>> : std::true_type {};

template <class C> C make(double re, double im = 0) {
    if constexpr (IsComplexT<C>::value)
        return C(static_cast<RealOf<C>>(re), static_cast<RealOf<C>>(im));
    else
        return static_cast<C>(re);
}

template <class C> struct Matrix {
    MatrixGeometry geometry;
    std::vector<C> data;
    C& operator()(std::uint64_t i, std::uint64_t j) { return data[geometry.index(i, j)]; }
    C operator()(std::uint64_t i, std::uint64_t j) const { return data[geometry.index(i, j)]; }
};

template <class C>
Matrix<C> build(std::uint64_t n, MatrixLayout layout,
                const std::function<C(std::uint64_t, std::uint64_t)>& f) {
    Matrix<C> m{{n, n, layout}, std::vector<C>(n * n)};
    for (std::uint64_t i = 0; i < n; ++i)
        for (std::uint64_t j = 0; j < n; ++j)
            m(i, j) = f(i, j);
    return m;
}

template <class C>
Matrix<C> rows(MatrixLayout layout, std::initializer_list<std::initializer_list<double>> values) {
    const std::uint64_t n = values.size();
    Matrix<C> m{{n, n, layout}, std::vector<C>(n * n)};
    std::uint64_t i = 0;
    for (const auto& row : values) {
        std::uint64_t j = 0;
        for (double v : row)
            m(i, j++) = make<C>(v);
        ++i;
    }
    return m;
}

template <class C> Matrix<C> random_matrix(std::uint64_t n, MatrixLayout layout, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> dist(-1, 1);
    return build<C>(n, layout, [&](std::uint64_t, std::uint64_t) { return make<C>(dist(gen), dist(gen)); });
}

// Positive definite (Hermitian) matrix B B^H + n I.
template <class C> Matrix<C> random_hpd(std::uint64_t n, MatrixLayout layout, unsigned seed) {
    const Matrix<C> b = random_matrix<C>(n, layout, seed);
    return build<C>(n, layout, [&](std::uint64_t i, std::uint64_t j) {
        std::complex<double> s = i == j ? double(n) : 0.0;
        for (std::uint64_t k = 0; k < n; ++k)
            s += std::complex<double>(b(i, k)) * std::conj(std::complex<double>(b(j, k)));
        return make<C>(s.real(), IsComplexT<C>::value ? s.imag() : 0.0);
    });
}

template <class C> double eps_of() {
    return std::numeric_limits<RealOf<C>>::epsilon();
}

template <class E, class F> E capture(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e;
    }
    throw std::logic_error("expected exception was not thrown");
}

template <class F> std::string invalid_argument_message(F&& f) {
    try {
        f();
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "<no exception>";
}

constexpr MatrixLayout kLayouts[] = {MatrixLayout::row_major, MatrixLayout::column_major};

} // namespace

// --- typed cases: four compute types ---

template <class C> class StructuredTyped : public ::testing::Test {};
using ComputeTypes = ::testing::Types<float, double, std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(StructuredTyped, ComputeTypes);

TYPED_TEST(StructuredTyped, SolveMatchesReferenceResidualInBothLayouts) {
    using C = TypeParam;
    const std::uint64_t n = 9;
    for (MatrixLayout layout : kLayouts) {
        const Matrix<C> a = random_matrix<C>(n, layout, 7);
        Matrix<C> lu = a;
        std::vector<std::int64_t> pivots(n);
        lu_factor(lu.data.data(), lu.geometry, pivots.data());
        std::vector<C> b(n);
        for (std::uint64_t i = 0; i < n; ++i)
            b[i] = make<C>(double(i) - 3.5, 0.25 * double(i));
        std::vector<C> x = b;
        lu_solve(lu.data.data(), lu.geometry, pivots.data(), x.data());
        double residual = 0;
        double scale = 0;
        for (std::uint64_t i = 0; i < n; ++i) {
            std::complex<double> s = -std::complex<double>(b[i]);
            for (std::uint64_t j = 0; j < n; ++j) {
                s += std::complex<double>(a(i, j)) * std::complex<double>(x[j]);
                scale += std::abs(std::complex<double>(a(i, j))) * std::abs(std::complex<double>(x[j]));
            }
            residual = std::max(residual, std::abs(s));
        }
        EXPECT_LT(residual, 50 * n * eps_of<C>() * scale) << "layout " << int(layout);

        // A strided right-hand side (one column of a row-major n x 2 block) gives the same answer.
        std::vector<C> block(2 * n);
        for (std::uint64_t i = 0; i < n; ++i)
            block[2 * i + 1] = b[i];
        lu_solve(lu.data.data(), lu.geometry, pivots.data(), block.data() + 1, 2);
        for (std::uint64_t i = 0; i < n; ++i)
            EXPECT_EQ(block[2 * i + 1], x[i]);
    }
}

TYPED_TEST(StructuredTyped, LogdetAgreesWithSlogdet) {
    using C = TypeParam;
    for (MatrixLayout layout : kLayouts) {
        for (unsigned seed : {1u, 2u, 3u}) {
            const Matrix<C> a = random_matrix<C>(6, layout, seed);
            const auto reference = slogdet(a.data.data(), a.geometry);
            Matrix<C> lu = a;
            std::vector<std::int64_t> pivots(6);
            const std::int64_t swaps = lu_factor(lu.data.data(), lu.geometry, pivots.data());
            const auto ld = lu_logdet(lu.data.data(), lu.geometry, swaps);
            EXPECT_NEAR(ld.real(), reference.log_magnitude, 100 * eps_of<C>());
            const std::complex<double> phase = std::polar(1.0, double(ld.imag()));
            EXPECT_NEAR(std::abs(phase - std::complex<double>(reference.sign)), 0, 100 * eps_of<C>());
            EXPECT_GT(ld.imag(), -std::numbers::pi_v<RealOf<C>>);
            EXPECT_LE(ld.imag(), std::numbers::pi_v<RealOf<C>>);
        }
    }
}

TYPED_TEST(StructuredTyped, PermutationMatrixFactorsWithOneSwapAndLogdetPi) {
    using C = TypeParam;
    for (MatrixLayout layout : kLayouts) {
        Matrix<C> a = rows<C>(layout, {{0, 1}, {1, 0}});
        std::vector<std::int64_t> pivots(2);
        const std::int64_t swaps = lu_factor(a.data.data(), a.geometry, pivots.data());
        EXPECT_EQ(pivots, (std::vector<std::int64_t>{2, 2}));
        EXPECT_EQ(swaps, 1);
        const auto ld = lu_logdet(a.data.data(), a.geometry, swaps);
        EXPECT_EQ(ld.real(), 0);
        EXPECT_EQ(ld.imag(), std::numbers::pi_v<RealOf<C>>);
    }
}

TYPED_TEST(StructuredTyped, EqualMagnitudeCandidatesKeepTheUpperRow) {
    using C = TypeParam;
    for (MatrixLayout layout : kLayouts) {
        Matrix<C> a = rows<C>(layout, {{2, 1}, {-2, 3}});
        std::vector<std::int64_t> pivots(2);
        EXPECT_EQ(lu_factor(a.data.data(), a.geometry, pivots.data()), 0);
        EXPECT_EQ(pivots, (std::vector<std::int64_t>{1, 2}));
        EXPECT_EQ(a(1, 0), make<C>(-1));
        EXPECT_EQ(a(1, 1), make<C>(4));
    }
}

TYPED_TEST(StructuredTyped, ZeroColumnIsSingularAtItsPivot) {
    using C = TypeParam;
    for (MatrixLayout layout : kLayouts) {
        Matrix<C> a = rows<C>(layout, {{1, 0, 2}, {3, 0, 4}, {5, 0, 7}});
        std::vector<std::int64_t> pivots(3);
        const auto e = capture<SolverError>([&] { lu_factor(a.data.data(), a.geometry, pivots.data()); });
        EXPECT_STREQ(e.what(), "LU factorisation - singular matrix at pivot 1");
        EXPECT_EQ(e.reason(), ErrorReason::singular);
        EXPECT_EQ(e.native_status(), 1);
        EXPECT_EQ(e.detail(), "zero LU pivot");
        EXPECT_EQ(e.operation(), "quillmark.lu_factor");
        EXPECT_EQ(e.library(), "CPU");
    }
}

TYPED_TEST(StructuredTyped, SlogdetOfSingularAndEmptyMatrices) {
    using C = TypeParam;
    const Matrix<C> singular = rows<C>(MatrixLayout::row_major, {{1, 2, 3}, {2, 4, 6}, {0, 1, 1}});
    const auto s = slogdet(singular.data.data(), singular.geometry);
    EXPECT_EQ(s.sign, make<C>(0));
    EXPECT_EQ(s.log_magnitude, -std::numeric_limits<RealOf<C>>::infinity());
    const auto e = slogdet<C>(nullptr, MatrixGeometry{0, 0, MatrixLayout::column_major});
    EXPECT_EQ(e.sign, make<C>(1));
    EXPECT_EQ(e.log_magnitude, 0);
}

TYPED_TEST(StructuredTyped, HermitianEigenPairsAreOrthonormalAndAscending) {
    using C = TypeParam;
    const std::uint64_t n = 8;
    for (MatrixLayout layout : kLayouts) {
        const Matrix<C> a = random_hpd<C>(n, layout, 11);
        // Shift so the spectrum has both signs.
        Matrix<C> h = a;
        for (std::uint64_t i = 0; i < n; ++i)
            h(i, i) -= make<C>(double(n) + 1);
        std::vector<RealOf<C>> w(n);
        Matrix<C> v{{n, n, layout}, std::vector<C>(n * n)};
        eigh(h.data.data(), h.geometry, w.data(), v.data.data(), v.geometry);
        std::vector<RealOf<C>> w_only(n);
        eigvalsh(h.data.data(), h.geometry, w_only.data());
        EXPECT_EQ(w, w_only);
        const double tol = 200 * n * eps_of<C>();
        double norm = 0;
        for (std::uint64_t i = 0; i < n; ++i)
            for (std::uint64_t j = 0; j < n; ++j)
                norm = std::max(norm, std::abs(std::complex<double>(h(i, j))));
        for (std::uint64_t k = 0; k < n; ++k) {
            if (k > 0) {
                EXPECT_LE(w[k - 1], w[k]);
            }
            for (std::uint64_t i = 0; i < n; ++i) {
                std::complex<double> s = -double(w[k]) * std::complex<double>(v(i, k));
                for (std::uint64_t j = 0; j < n; ++j)
                    s += std::complex<double>(h(i, j)) * std::complex<double>(v(j, k));
                EXPECT_LT(std::abs(s), tol * n * norm);
            }
            for (std::uint64_t l = 0; l < n; ++l) {
                std::complex<double> dot = 0;
                for (std::uint64_t i = 0; i < n; ++i)
                    dot += std::conj(std::complex<double>(v(i, k))) * std::complex<double>(v(i, l));
                EXPECT_NEAR(std::abs(dot - (k == l ? 1.0 : 0.0)), 0, tol);
            }
        }
    }
}

TYPED_TEST(StructuredTyped, CholeskyLogdetMatchesSlogdet) {
    using C = TypeParam;
    for (MatrixLayout layout : kLayouts) {
        const Matrix<C> a = random_hpd<C>(7, layout, 5);
        const auto reference = slogdet(a.data.data(), a.geometry);
        EXPECT_NEAR(logdet_positive_definite(a.data.data(), a.geometry), reference.log_magnitude,
                    100 * eps_of<C>() * std::fabs(reference.log_magnitude));
    }
}

TYPED_TEST(StructuredTyped, CholeskyRefusesPivotsBelowTheCompensatedThreshold) {
    using C = TypeParam;
    // Second pivot is exactly delta; the threshold is |a11| * eps * 5 in the compute type's eps,
    // even though single precision accumulates in double.
    const double eps = eps_of<C>();
    for (double delta : {4 * eps, 8 * eps}) {
        Matrix<C> a = rows<C>(MatrixLayout::row_major, {{1, 1}, {1, 1 + delta}});
        if (delta < 5 * eps) {
            const auto e = capture<SolverError>([&] { logdet_positive_definite(a.data.data(), a.geometry); });
            EXPECT_STREQ(e.what(), "logdet_positive_definite - matrix is not positive definite at pivot 1");
            EXPECT_EQ(e.native_status(), 2);
        } else {
            EXPECT_NEAR(logdet_positive_definite(a.data.data(), a.geometry), std::log(delta), 20 * eps);
        }
    }
}

// --- fixed cases ---

TEST(StructuredLu, NonFinitePivotAndMultiplierUnderflow) {
    auto a = rows<double>(MatrixLayout::row_major, {{1, 2}, {NAN, 3}});
    std::vector<std::int64_t> pivots(2);
    EXPECT_EQ(invalid_argument_message([&] { lu_factor(a.data.data(), a.geometry, pivots.data()); }),
              "LU factorisation - non-finite pivot");

    auto b = rows<double>(MatrixLayout::column_major, {{1e300, 1}, {1e-300, 1}});
    const auto e = capture<SolverError>([&] { lu_factor(b.data.data(), b.geometry, pivots.data()); });
    EXPECT_STREQ(e.what(), "LU multiplier range cannot be preserved");
    EXPECT_EQ(e.detail(), "LU multiplier underflow");
    EXPECT_EQ(e.reason(), ErrorReason::solver_failure);
    EXPECT_EQ(e.native_status(), -1);
}

TEST(StructuredLu, ComplexPivotRanksOverflowingModulusFirst) {
    // |(1e308, 1e308)| overflows: the candidate is ranked on the halved modulus and still wins.
    using C = std::complex<double>;
    Matrix<C> a{{2, 2, MatrixLayout::row_major}, {C(1.7e308, 0), C(1, 0), C(1.5e308, 1.5e308), C(0, 1)}};
    std::vector<std::int64_t> pivots(2);
    EXPECT_EQ(lu_factor(a.data.data(), a.geometry, pivots.data()), 1);
    EXPECT_EQ(pivots[0], 2);
    const auto ld = lu_logdet(a.data.data(), a.geometry, 1);
    EXPECT_TRUE(std::isfinite(ld.real()));
}

TEST(StructuredLu, InvalidPivotLeavesTheRightHandSideUntouched) {
    auto a = rows<double>(MatrixLayout::row_major, {{4, 1, 0}, {1, 3, 1}, {0, 1, 2}});
    for (std::int64_t bad : {0, 4, -1}) {
        std::vector<std::int64_t> pivots{2, 3, bad};
        std::vector<double> x{1, 2, 3};
        EXPECT_EQ(
            invalid_argument_message([&] { lu_solve(a.data.data(), a.geometry, pivots.data(), x.data()); }),
            "solve - invalid LU pivot");
        EXPECT_EQ(x, (std::vector<double>{1, 2, 3}));
    }
}

TEST(StructuredLu, LogdetSignBitsAndComplexPhase) {
    // -0.0 on the diagonal counts as negative.
    auto a = rows<double>(MatrixLayout::row_major, {{-2, 5}, {0, -0.0}});
    const auto ld = lu_logdet(a.data.data(), a.geometry, 1);
    EXPECT_EQ(ld.real(), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(ld.imag(), std::numbers::pi);
    // Complex: arg(i * i * (-1)^1) = arg(1) = 0; a real negative product gives +pi.
    using C = std::complex<double>;
    Matrix<C> b{{2, 2, MatrixLayout::column_major}, {C(0, 2), C(0), C(7), C(0, 0.5)}};
    EXPECT_NEAR(lu_logdet(b.data.data(), b.geometry, 1).imag(), 0, 1e-15);
    const auto neg = lu_logdet(b.data.data(), b.geometry, 0);
    EXPECT_EQ(neg.imag(), std::numbers::pi);
    EXPECT_NEAR(neg.real(), 0, 1e-15);
}

TEST(StructuredSlogdet, SubnormalOffDiagonalMatrixIsRescaledExactly) {
    // Entries x * 2^-1060 with x of order one: the determinant is det(x) * 2^-2120.
    const double x[2][2] = {{1.5, 0.75}, {-0.5, 2.25}};
    const double truth = std::log(1.5 * 2.25 + 0.75 * 0.5) - 2120 * std::numbers::ln2;
    for (MatrixLayout layout : kLayouts) {
        auto a = build<double>(2, layout,
                               [&](std::uint64_t i, std::uint64_t j) { return std::ldexp(x[i][j], -1060); });
        const auto s = slogdet(a.data.data(), a.geometry);
        EXPECT_EQ(s.sign, 1);
        EXPECT_NEAR(s.log_magnitude, truth, 1e-12 * std::fabs(truth));

        std::vector<double> copy = a.data;
        const double c = normalise_determinant(copy.data(), 2, "quillmark.slogdet");
        const long exponent = std::lround(c / (2 * std::numbers::ln2));
        EXPECT_NEAR(c / (2 * std::numbers::ln2), double(exponent), 1e-9);
        EXPECT_EQ(exponent % 2, 0);
        for (std::size_t i = 0; i < 4; ++i)
            EXPECT_EQ(copy[i], std::ldexp(a.data[i], static_cast<int>(exponent)));
    }
    // The single-precision instance widens, so float subnormals give the true value too.
    const float xf[2][2] = {{1.5f, 0.75f}, {-0.5f, 2.25f}};
    auto f = build<float>(2, MatrixLayout::row_major,
                          [&](std::uint64_t i, std::uint64_t j) { return std::ldexp(xf[i][j], -135); });
    const auto sf = slogdet(f.data.data(), f.geometry);
    EXPECT_NEAR(sf.log_magnitude, std::log(1.5 * 2.25 + 0.75 * 0.5) - 270 * std::numbers::ln2, 1e-4);
}

TEST(StructuredSlogdet, DiagonalSubnormalMatrixIsNotRescaled) {
    std::vector<double> d{1e-310, 0, 0, 3e-312};
    std::vector<double> copy = d;
    EXPECT_EQ(normalise_determinant(copy.data(), 2, "quillmark.slogdet"), 0);
    EXPECT_EQ(copy, d);
    const auto s = slogdet(d.data(), MatrixGeometry{2, 2, MatrixLayout::row_major});
    EXPECT_EQ(s.log_magnitude, std::log(1e-310) + std::log(3e-312));
}

TEST(StructuredSlogdet, SinglePrecisionNormalisationConstants) {
    // Smallest entry 2^-140: lifted to 2^-102 (s = 38), largest entry 1.
    std::vector<float> a{1, std::ldexp(1.0f, -140), std::ldexp(1.0f, -140), 1};
    EXPECT_FLOAT_EQ(normalise_determinant(a.data(), 2, "quillmark.slogdet"),
                    38 * 2 * std::numbers::ln2_v<float>);
    EXPECT_EQ(a[1], std::ldexp(1.0f, -102));
    // s = 39 is rounded up to 40.
    std::vector<float> b{1, std::ldexp(1.0f, -141), 0, 1};
    EXPECT_FLOAT_EQ(normalise_determinant(b.data(), 2, "op"), 40 * 2 * std::numbers::ln2_v<float>);
    // 2^127 * 2^38 overflows the single-precision range.
    std::vector<float> c{std::ldexp(1.0f, 127), std::ldexp(1.0f, -140), 0, 1};
    const auto e = capture<SolverError>([&] { normalise_determinant(c.data(), 2, "quillmark.slogdet"); });
    EXPECT_STREQ(e.what(), "quillmark.slogdet - subnormal factorisation range cannot be preserved");
    EXPECT_EQ(e.detail(), "determinant scaling would overflow");
    EXPECT_EQ(c[0], std::ldexp(1.0f, 127));
}

TEST(StructuredSlogdet, DoubleRangeOverflowAndNonFinitePivot) {
    auto a = rows<double>(MatrixLayout::row_major, {{1e308, 1e-310}, {0, 1}});
    const auto e = capture<SolverError>([&] { slogdet(a.data.data(), a.geometry); });
    EXPECT_STREQ(e.what(), "quillmark.slogdet - subnormal factorisation range cannot be preserved");
    EXPECT_EQ(e.operation(), "quillmark.slogdet");
    EXPECT_EQ(e.reason(), ErrorReason::solver_failure);

    auto b = rows<double>(MatrixLayout::row_major, {{1, INFINITY}, {2, 1}});
    try {
        slogdet(b.data.data(), b.geometry);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& err) {
        EXPECT_STREQ(err.what(), "slogdet - non-finite LU pivot");
        EXPECT_EQ(dynamic_cast<const ErrorContext*>(&err), nullptr);
    }
}

TEST(StructuredSlogdet, ComplexSignIsTheUnitPhase) {
    using C = std::complex<double>;
    Matrix<C> a{{2, 2, MatrixLayout::row_major}, {C(0, 3), C(1, 1), C(0), C(2, 0)}};
    const auto s = slogdet(a.data.data(), a.geometry);
    EXPECT_NEAR(std::abs(s.sign - C(0, 1)), 0, 1e-15);
    EXPECT_NEAR(s.log_magnitude, std::log(6.0), 1e-15);
}

TEST(StructuredHermitian, ValidationMessagesAndTolerance) {
    auto asym = rows<double>(MatrixLayout::row_major, {{1, 2}, {2.001, 1}});
    std::vector<double> w(2);
    EXPECT_EQ(invalid_argument_message([&] { eigvalsh(asym.data.data(), asym.geometry, w.data()); }),
              "quillmark.eigvalsh - input must be symmetric/Hermitian at (1, 0)");
    auto bad = rows<double>(MatrixLayout::column_major, {{1, 0}, {0, NAN}});
    EXPECT_EQ(invalid_argument_message([&] { logdet_positive_definite(bad.data.data(), bad.geometry); }),
              "quillmark.logdet_positive_definite - input must contain only finite entries");
    EXPECT_EQ(invalid_argument_message([&] {
                  validate_hermitian_input(asym.data.data(), asym.geometry, false, "quillmark.eigh");
              }),
              "<no exception>");

    // A relative difference of 2^-23 is inside 2 * float eps but outside 2 * double eps.
    const double off = 1 + std::ldexp(1.0, -23);
    auto f = rows<float>(MatrixLayout::row_major, {{1, 1}, {off, 1}});
    auto d = rows<double>(MatrixLayout::row_major, {{1, 1}, {off, 1}});
    EXPECT_EQ(invalid_argument_message(
                  [&] { validate_hermitian_input(f.data.data(), f.geometry, true, "quillmark.eigh"); }),
              "<no exception>");
    EXPECT_EQ(invalid_argument_message(
                  [&] { validate_hermitian_input(d.data.data(), d.geometry, true, "quillmark.eigh"); }),
              "quillmark.eigh - input must be symmetric/Hermitian at (1, 0)");
    EXPECT_EQ(hermitian_tolerance<std::complex<float>>(3), double(3.0f * 1.1920929e-07f));
    EXPECT_EQ(hermitian_tolerance<double>(3), 3 * 2.220446049250313e-16);

    // Complex entries are compared with the conjugate of their mirror; the diagonal must be real.
    using C = std::complex<double>;
    Matrix<C> ok{{2, 2, MatrixLayout::row_major}, {C(1), C(1, 2), C(1, -2), C(3)}};
    Matrix<C> transposed{{2, 2, MatrixLayout::row_major}, {C(1), C(1, 2), C(1, 2), C(3)}};
    Matrix<C> imaginary_diagonal{{2, 2, MatrixLayout::row_major}, {C(1), C(0), C(0), C(3, 1)}};
    EXPECT_EQ(invalid_argument_message(
                  [&] { validate_hermitian_input(ok.data.data(), ok.geometry, true, "quillmark.eigh"); }),
              "<no exception>");
    EXPECT_EQ(invalid_argument_message([&] {
                  validate_hermitian_input(transposed.data.data(), transposed.geometry, true,
                                           "quillmark.eigh");
              }),
              "quillmark.eigh - input must be symmetric/Hermitian at (1, 0)");
    EXPECT_EQ(invalid_argument_message([&] {
                  validate_hermitian_input(imaginary_diagonal.data.data(), imaginary_diagonal.geometry, true,
                                           "quillmark.eigh");
              }),
              "quillmark.eigh - input must be symmetric/Hermitian at (1, 1)");
}

TEST(StructuredHermitian, DiagonalInputsNeedNoRotationAndTiesKeepIndexOrder) {
    struct Case {
        std::vector<double> diagonal;
        std::vector<double> values;
        std::vector<std::uint64_t> source; // column i of V is e_source[i]
    };
    for (const Case& c : {Case{{3, 1, 2}, {1, 2, 3}, {1, 2, 0}}, Case{{2, 1, 2}, {1, 2, 2}, {1, 0, 2}}}) {
        for (MatrixLayout layout : kLayouts) {
            auto a = build<double>(
                3, layout, [&](std::uint64_t i, std::uint64_t j) { return i == j ? c.diagonal[i] : 0.0; });
            std::vector<double> w(3);
            Matrix<double> v{{3, 3, layout}, std::vector<double>(9, -7)};
            eigh(a.data.data(), a.geometry, w.data(), v.data.data(), v.geometry);
            EXPECT_EQ(w, c.values);
            for (std::uint64_t i = 0; i < 3; ++i)
                for (std::uint64_t k = 0; k < 3; ++k)
                    EXPECT_EQ(v(k, i), k == c.source[i] ? 1.0 : 0.0);
        }
    }
}

TEST(StructuredHermitian, EmptyAndScalarMatrices) {
    std::vector<float> w;
    eigvalsh<float>(nullptr, MatrixGeometry{0, 0, MatrixLayout::row_major}, w.data());
    using C = std::complex<float>;
    C one_by_one{-2.5f, 0};
    float value = 0;
    C vector{9, 9};
    const MatrixGeometry g{1, 1, MatrixLayout::column_major};
    eigh(&one_by_one, g, &value, &vector, g);
    EXPECT_EQ(value, -2.5f);
    EXPECT_EQ(vector, C(1));
    EXPECT_EQ(logdet_positive_definite<double>(nullptr, MatrixGeometry{0, 0, MatrixLayout::row_major}), 0);
}

TEST(StructuredHermitian, ComplexJacobiUsesTheLowerTriangle) {
    // [[2, -i], [i, 2]] has eigenvalues 1 and 3; the upper triangle carries a harmless perturbation.
    using C = std::complex<double>;
    Matrix<C> a{{2, 2, MatrixLayout::row_major}, {C(2), C(0, -1 + 1e-16), C(0, 1), C(2)}};
    std::vector<double> w(2);
    Matrix<C> v{{2, 2, MatrixLayout::row_major}, std::vector<C>(4)};
    eigh(a.data.data(), a.geometry, w.data(), v.data.data(), v.geometry);
    EXPECT_NEAR(w[0], 1, 1e-15);
    EXPECT_NEAR(w[1], 3, 1e-15);
    // A v = 3 v for the second column, with the exact lower-triangle matrix.
    const C x = v(0, 1);
    const C y = v(1, 1);
    EXPECT_NEAR(std::abs(C(2) * x + C(0, -1) * y - 3.0 * x), 0, 1e-15);
    EXPECT_NEAR(std::abs(C(0, 1) * x + C(2) * y - 3.0 * y), 0, 1e-15);
}

TEST(StructuredCholesky, IndefiniteAndIdentity) {
    auto a = rows<double>(MatrixLayout::column_major, {{1, 2}, {2, 1}});
    const auto e = capture<SolverError>([&] { logdet_positive_definite(a.data.data(), a.geometry); });
    EXPECT_STREQ(e.what(), "logdet_positive_definite - matrix is not positive definite at pivot 1");
    EXPECT_EQ(e.native_status(), 2);
    EXPECT_EQ(e.detail(), "non-positive Cholesky pivot");
    EXPECT_EQ(e.operation(), "quillmark.logdet_positive_definite");
    EXPECT_EQ(e.reason(), ErrorReason::solver_failure);
    auto identity =
        build<std::complex<float>>(5, MatrixLayout::row_major, [](std::uint64_t i, std::uint64_t j) {
            return std::complex<float>(i == j ? 1.0f : 0.0f);
        });
    EXPECT_EQ(logdet_positive_definite(identity.data.data(), identity.geometry), 0.0f);
}

TEST(StructuredCholesky, SubnormalRangeIsCorrected) {
    // 2^-1060 * [[2, 1], [1, 2]]: log det = ln 3 - 2120 ln 2.
    auto a = build<double>(2, MatrixLayout::row_major, [](std::uint64_t i, std::uint64_t j) {
        return std::ldexp(i == j ? 2.0 : 1.0, -1060);
    });
    EXPECT_NEAR(logdet_positive_definite(a.data.data(), a.geometry), std::log(3.0) - 2120 * std::numbers::ln2,
                1e-12);
}
