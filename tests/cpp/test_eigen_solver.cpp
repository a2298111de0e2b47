#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "backend/cpu/fallback_complex_eigen_solver.hpp"
#include "core/errors.hpp"

using namespace quillmark;
using namespace quillmark::cpu;

namespace {

using Zd = std::complex<double>;

template <class T> struct IsComplexT : std::false_type {};
template <class R> struct IsComplexT<std::complex<R>> : std::true_type {};

template <class C> C make(Zd v) {
    if constexpr (IsComplexT<C>::value)
        return C(v);
    else
        return static_cast<C>(v.real());
}

// A logical n x n matrix stored in the requested layout.
template <class C> struct Matrix {
    MatrixGeometry geometry;
    std::vector<C> data;
    Zd at(std::uint64_t i, std::uint64_t j) const { return Zd(data[geometry.index(i, j)]); }
};

template <class C>
Matrix<C> build(std::uint64_t n, MatrixLayout layout,
                const std::function<Zd(std::uint64_t, std::uint64_t)>& f) {
    Matrix<C> m{{n, n, layout}, std::vector<C>(n * n)};
    for (std::uint64_t i = 0; i < n; ++i)
        for (std::uint64_t j = 0; j < n; ++j)
            m.data[m.geometry.index(i, j)] = make<C>(f(i, j));
    return m;
}

template <class C> Matrix<C> random_matrix(std::uint64_t n, MatrixLayout layout, unsigned seed) {
    std::mt19937 gen(seed);
    std::normal_distribution<double> dist;
    return build<C>(n, layout, [&](std::uint64_t, std::uint64_t) { return Zd(dist(gen), dist(gen)); });
}

template <class C> double eps_of() {
    return std::numeric_limits<RealOf<C>>::epsilon();
}

struct Decomposed {
    std::vector<Zd> values;
    std::vector<std::vector<Zd>> vectors;
};

// Runs eig and reads vector i back through the documented placement for the layout.
template <class C> Decomposed run_eig(const Matrix<C>& a, MatrixLayout vector_layout) {
    using Out = EigenComplexOf<C>;
    const std::uint64_t n = a.geometry.rows;
    std::vector<Out> values(n);
    std::vector<Out> vectors(n * n);
    eig(a.data.data(), a.geometry, values.data(), vectors.data(), vector_layout);
    const MatrixGeometry g{n, n, vector_layout};
    Decomposed d;
    for (std::uint64_t k = 0; k < n; ++k) {
        d.values.push_back(Zd(values[k]));
        std::vector<Zd> v(n);
        for (std::uint64_t i = 0; i < n; ++i)
            v[i] = Zd(vectors[vector_layout == MatrixLayout::column_major ? g.index(i, k) : g.index(k, i)]);
        d.vectors.push_back(v);
    }
    return d;
}

double norm(const std::vector<Zd>& v) {
    double s = 0;
    for (const Zd& e : v)
        s += std::norm(e);
    return std::sqrt(s);
}

// max_k ||A v_k - lambda_k v_k|| / ||A||_F, computed independently of the solver.
template <class C> double worst_residual(const Matrix<C>& a, const Decomposed& d) {
    const std::uint64_t n = a.geometry.rows;
    double frobenius = 0;
    for (std::uint64_t i = 0; i < n; ++i)
        for (std::uint64_t j = 0; j < n; ++j)
            frobenius += std::norm(a.at(i, j));
    frobenius = std::sqrt(frobenius);
    double worst = 0;
    for (std::uint64_t k = 0; k < n; ++k) {
        std::vector<Zd> r(n);
        for (std::uint64_t i = 0; i < n; ++i) {
            Zd s = -d.values[k] * d.vectors[k][i];
            for (std::uint64_t j = 0; j < n; ++j)
                s += a.at(i, j) * d.vectors[k][j];
            r[i] = s;
        }
        worst = std::max(worst, norm(r) / frobenius);
    }
    return worst;
}

// P = I + 0.25 * (ones below the diagonal) and its inverse, for similarity transforms with a
// known eigenvector basis.
struct Similarity {
    std::uint64_t n;
    std::vector<double> p, pinv;
    explicit Similarity(std::uint64_t order) : n(order), p(order * order, 0), pinv(order * order, 0) {
        for (std::uint64_t i = 0; i < n; ++i)
            for (std::uint64_t j = 0; j <= i; ++j)
                p[i * n + j] = i == j ? 1.0 : 0.25;
        for (std::uint64_t c = 0; c < n; ++c)
            for (std::uint64_t i = 0; i < n; ++i) {
                double s = i == c ? 1.0 : 0.0;
                for (std::uint64_t k = 0; k < i; ++k)
                    s -= p[i * n + k] * pinv[k * n + c];
                pinv[i * n + c] = s;
            }
    }
    // (P B P^-1)(i, j)
    template <class F> double conjugate(std::uint64_t i, std::uint64_t j, F b) const {
        double s = 0;
        for (std::uint64_t k = 0; k < n; ++k)
            for (std::uint64_t l = 0; l < n; ++l)
                s += p[i * n + k] * b(k, l) * pinv[l * n + j];
        return s;
    }
    // P e_0 with unit norm.
    std::vector<Zd> column0() const {
        std::vector<Zd> v(n);
        double s = 0;
        for (std::uint64_t i = 0; i < n; ++i)
            s += p[i * n] * p[i * n];
        for (std::uint64_t i = 0; i < n; ++i)
            v[i] = p[i * n] / std::sqrt(s);
        return v;
    }
};

template <class E, class F> E capture(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e;
    }
    throw std::logic_error("expected exception was not thrown");
}

constexpr MatrixLayout kLayouts[] = {MatrixLayout::row_major, MatrixLayout::column_major};

} // namespace

template <class C> class EigenTyped : public ::testing::Test {};
using ComputeTypes = ::testing::Types<float, double, std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(EigenTyped, ComputeTypes);

TYPED_TEST(EigenTyped, RandomMatricesGiveUnitVectorsWithSmallResiduals) {
    using C = TypeParam;
    for (MatrixLayout layout : kLayouts) {
        for (std::uint64_t n : {1u, 2u, 5u, 16u}) {
            const Matrix<C> a = random_matrix<C>(n, layout, 100 + unsigned(n));
            const Decomposed d = run_eig(a, layout);
            EXPECT_LT(worst_residual(a, d), 50 * n * eps_of<C>()) << n;
            Zd trace = 0;
            Zd sum = 0;
            for (std::uint64_t k = 0; k < n; ++k) {
                trace += a.at(k, k);
                sum += d.values[k];
                EXPECT_NEAR(norm(d.vectors[k]), 1, 10 * eps_of<C>());
            }
            EXPECT_LT(std::abs(trace - sum), 100 * n * eps_of<C>() * (1 + std::abs(trace)));
        }
    }
}

TYPED_TEST(EigenTyped, TriangularSpectrumIsTheDiagonal) {
    using C = TypeParam;
    const std::uint64_t n = 6;
    const double diagonal[] = {4, -3, 0.5, 2, -1.25, 7};
    for (MatrixLayout layout : kLayouts) {
        std::mt19937 gen(3);
        std::uniform_real_distribution<double> dist(-2, 2);
        const Matrix<C> a = build<C>(n, layout, [&](std::uint64_t i, std::uint64_t j) {
            return i == j ? Zd(diagonal[i]) : j > i ? Zd(dist(gen), dist(gen)) : Zd(0);
        });
        const Decomposed d = run_eig(a, MatrixLayout::column_major);
        std::vector<double> got;
        for (const Zd& v : d.values) {
            EXPECT_NEAR(v.imag(), 0, 100 * eps_of<C>());
            got.push_back(v.real());
        }
        std::sort(got.begin(), got.end());
        std::vector<double> want(diagonal, diagonal + n);
        std::sort(want.begin(), want.end());
        for (std::uint64_t k = 0; k < n; ++k)
            EXPECT_NEAR(got[k], want[k], 100 * eps_of<C>() * 8);
        EXPECT_LT(worst_residual(a, d), 50 * n * eps_of<C>());
    }
}

TYPED_TEST(EigenTyped, HiddenJordanBlockResidualsStaySmall) {
    using C = TypeParam;
    // P J P^-1 for a 4 x 4 Jordan block J of eigenvalue 2: defective, so the computed eigenvalues
    // spread by about eps^(1/4), yet every returned pair has a small residual and every vector
    // lies close to the single eigenvector P e_0.
    const std::uint64_t n = 4;
    const Similarity s(n);
    const Matrix<C> a = build<C>(n, MatrixLayout::row_major, [&](std::uint64_t i, std::uint64_t j) {
        return Zd(s.conjugate(
            i, j, [](std::uint64_t k, std::uint64_t l) { return k == l ? 2.0 : (l == k + 1 ? 1.0 : 0.0); }));
    });
    const Decomposed d = run_eig(a, MatrixLayout::row_major);
    EXPECT_LT(worst_residual(a, d), default_eigen_options<C>().residual_tolerance);
    const double spread = 4 * std::pow(eps_of<C>(), 0.25);
    for (const Zd& v : d.values)
        EXPECT_NEAR(std::abs(v - 2.0), 0, spread);
    const std::vector<Zd> e0 = s.column0();
    for (const auto& v : d.vectors) {
        Zd overlap = 0;
        for (std::uint64_t i = 0; i < n; ++i)
            overlap += std::conj(e0[i]) * v[i];
        EXPECT_NEAR(std::abs(overlap), 1, 2 * spread);
    }
}

TYPED_TEST(EigenTyped, PrincipalEigenvectorOfKnownDominantPair) {
    using C = TypeParam;
    // A = P B P^-1 with B upper triangular, diagonal (5, -2, 1, 0.5): the dominant eigenvector is
    // P e_0.
    const std::uint64_t n = 4;
    const double lambda[] = {5, -2, 1, 0.5};
    const Similarity s(n);
    auto b = [&](std::uint64_t i, std::uint64_t j) {
        return i == j ? lambda[i] : (j > i ? 0.3 * double(i + 2 * j) : 0.0);
    };
    for (MatrixLayout layout : kLayouts) {
        const Matrix<C> a =
            build<C>(n, layout, [&](std::uint64_t i, std::uint64_t j) { return Zd(s.conjugate(i, j, b)); });
        std::vector<C> v(n);
        principal_eigenvector(a.data.data(), a.geometry, v.data());
        const std::vector<Zd> want = s.column0();
        std::vector<Zd> got(v.begin(), v.end());
        Zd overlap = 0;
        for (std::uint64_t i = 0; i < n; ++i)
            overlap += std::conj(want[i]) * got[i];
        EXPECT_NEAR(norm(got), 1, 10 * eps_of<C>());
        EXPECT_NEAR(std::abs(overlap), 1, 100 * eps_of<C>());
        // The largest component is real and positive.
        const auto largest =
            std::max_element(got.begin(), got.end(), [](Zd x, Zd y) { return std::abs(x) < std::abs(y); });
        EXPECT_GT(largest->real(), 0);
        EXPECT_EQ(largest->imag(), 0);
    }
}

TEST(EigenSolver, RealRotationHasConjugatePair) {
    const Matrix<double> a = build<double>(2, MatrixLayout::row_major, [](std::uint64_t i, std::uint64_t j) {
        return Zd(i == j ? 0.0 : (i < j ? -1.0 : 1.0));
    });
    const Decomposed d = run_eig(a, MatrixLayout::column_major);
    std::vector<double> imaginary{d.values[0].imag(), d.values[1].imag()};
    std::sort(imaginary.begin(), imaginary.end());
    EXPECT_NEAR(imaginary[0], -1, 1e-15);
    EXPECT_NEAR(imaginary[1], 1, 1e-15);
    EXPECT_NEAR(d.values[0].real(), 0, 1e-15);
    EXPECT_LT(worst_residual(a, d), 1e-15);
}

TEST(EigenSolver, VectorPlacementFollowsTheLayoutAndInputLayoutIsHonoured) {
    // The same logical matrix in both input layouts gives the same pairs; vector i is column i
    // (column-major) or row i (row-major), which is the same memory.
    const Matrix<Zd> rm = random_matrix<Zd>(7, MatrixLayout::row_major, 9);
    Matrix<Zd> cm{{7, 7, MatrixLayout::column_major}, std::vector<Zd>(49)};
    for (std::uint64_t i = 0; i < 7; ++i)
        for (std::uint64_t j = 0; j < 7; ++j)
            cm.data[cm.geometry.index(i, j)] = rm.at(i, j);
    std::vector<Zd> v1(7), v2(7), w1(49), w2(49);
    eig(rm.data.data(), rm.geometry, v1.data(), w1.data(), MatrixLayout::row_major);
    eig(cm.data.data(), cm.geometry, v2.data(), w2.data(), MatrixLayout::column_major);
    EXPECT_EQ(v1, v2);
    EXPECT_EQ(w1, w2);
    // Non-symmetric on purpose: the transpose has other eigenvectors.
    const Decomposed d = run_eig(rm, MatrixLayout::row_major);
    EXPECT_LT(worst_residual(rm, d), 1e-13);
}

TEST(EigenSolver, BadlyScaledMatrixIsBalanced) {
    // Entries spanning 2^+-60: without balancing the small eigenvalues drown in rounding.
    const std::uint64_t n = 5;
    std::mt19937 gen(21);
    std::uniform_real_distribution<double> dist(0.5, 1.5);
    const Matrix<double> a =
        build<double>(n, MatrixLayout::column_major, [&](std::uint64_t i, std::uint64_t j) {
            return Zd(std::ldexp(dist(gen), 30 * (int(i) - int(j))));
        });
    const Decomposed d = run_eig(a, MatrixLayout::column_major);
    EXPECT_LT(worst_residual(a, d), 1e-12);
}

TEST(EigenSolver, FailuresLeaveOutputsUntouched) {
    using C = std::complex<double>;
    const Matrix<double> a = random_matrix<double>(6, MatrixLayout::row_major, 4);
    std::vector<C> values(6, C(-9)), vectors(36, C(-9));

    EigenSolverOptions limited = default_eigen_options<double>();
    limited.maximum_iterations = 0;
    const auto nc = capture<SolverError>([&] {
        eig(a.data.data(), a.geometry, values.data(), vectors.data(), MatrixLayout::column_major, limited);
    });
    EXPECT_EQ(nc.reason(), ErrorReason::non_convergence);
    EXPECT_EQ(nc.operation(), "quillmark.eig");
    EXPECT_EQ(nc.library(), "CPU");
    EXPECT_EQ(nc.native_status(), -1);
    EXPECT_STREQ(nc.what(), "eig - shifted QR iteration did not converge for order 6");

    EigenSolverOptions strict = default_eigen_options<double>();
    strict.residual_tolerance = 0;
    const auto rf = capture<SolverError>([&] {
        eig(a.data.data(), a.geometry, values.data(), vectors.data(), MatrixLayout::column_major, strict);
    });
    EXPECT_EQ(rf.reason(), ErrorReason::solver_failure);
    EXPECT_STREQ(rf.what(), "eig - eigenpair residual exceeds tolerance");

    Matrix<double> nan = a;
    nan.data[7] = NAN;
    try {
        eig(nan.data.data(), nan.geometry, values.data(), vectors.data(), MatrixLayout::column_major);
        ADD_FAILURE() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "eig - input must contain only finite entries");
    }
    EXPECT_EQ(values, std::vector<C>(6, C(-9)));
    EXPECT_EQ(vectors, std::vector<C>(36, C(-9)));
}

TEST(EigenSolver, PrincipalEigenvectorNeedsAUniqueDominantMagnitude) {
    struct Case {
        std::vector<double> diagonal;
        bool unique;
    };
    for (const Case& c :
         {Case{{3, -3, 1}, false}, Case{{1, 1, 1}, false}, Case{{0, 0}, false}, Case{{1, -3.01, 3}, true}}) {
        const std::uint64_t n = c.diagonal.size();
        // Hide the diagonal behind an orthogonal similarity (a Householder reflector).
        std::vector<double> u(n, 1.0);
        u[0] = 2;
        double uu = 0;
        for (double e : u)
            uu += e * e;
        auto h = [&](std::uint64_t i, std::uint64_t j) {
            return (i == j ? 1.0 : 0.0) - 2 * u[i] * u[j] / uu;
        };
        const Matrix<double> a =
            build<double>(n, MatrixLayout::row_major, [&](std::uint64_t i, std::uint64_t j) {
                double s = 0;
                for (std::uint64_t k = 0; k < n; ++k)
                    s += h(i, k) * c.diagonal[k] * h(k, j);
                return Zd(s);
            });
        std::vector<double> v(n, 5);
        if (c.unique) {
            principal_eigenvector(a.data.data(), a.geometry, v.data());
            // The eigenvector of -3.01 is column 1 of the reflector.
            double overlap = 0;
            for (std::uint64_t i = 0; i < n; ++i)
                overlap += h(i, 1) * v[i];
            EXPECT_NEAR(std::fabs(overlap), 1, 1e-12);
        } else {
            const auto e =
                capture<SolverError>([&] { principal_eigenvector(a.data.data(), a.geometry, v.data()); });
            EXPECT_STREQ(e.what(), "principal_eigenvector - dominant eigenvalue is not unique");
            EXPECT_EQ(e.operation(), "quillmark.principal_eigenvector");
            EXPECT_EQ(e.reason(), ErrorReason::solver_failure);
            EXPECT_EQ(v, std::vector<double>(n, 5));
        }
    }
}

TEST(EigenSolver, EmptyAndScalarMatrices) {
    const MatrixGeometry empty{0, 0, MatrixLayout::row_major};
    eig<float>(nullptr, empty, nullptr, nullptr, MatrixLayout::row_major);
    principal_eigenvector<double>(nullptr, empty, nullptr);
    const std::complex<float> x(0, -4);
    std::complex<float> value, vector, principal;
    const MatrixGeometry one{1, 1, MatrixLayout::column_major};
    eig(&x, one, &value, &vector, MatrixLayout::column_major);
    EXPECT_EQ(value, x);
    EXPECT_EQ(std::abs(vector), 1.0f);
    principal_eigenvector(&x, one, &principal);
    EXPECT_EQ(principal, std::complex<float>(1));
}

TEST(EigenSolver, DefaultOptionsFollowThePrecision) {
    EXPECT_EQ(default_eigen_options<float>().convergence_tolerance, 9.999999747378752e-05);
    EXPECT_EQ(default_eigen_options<std::complex<float>>().residual_tolerance, 0.001);
    EXPECT_EQ(default_eigen_options<double>().convergence_tolerance, 1.8626451021765827e-13);
    EXPECT_EQ(default_eigen_options<std::complex<double>>().residual_tolerance, 1.862645149230957e-12);
    EXPECT_EQ(default_eigen_options<double>().maximum_iterations, 256u);
}

TEST(EigenSolver, LargeMatrixIsFastAndAccurate) {
    const std::uint64_t n = 200;
    const Matrix<double> a = random_matrix<double>(n, MatrixLayout::row_major, 77);
    const auto start = std::chrono::steady_clock::now();
    const Decomposed d = run_eig(a, MatrixLayout::column_major);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(worst_residual(a, d), 1e-13);
    EXPECT_LT(seconds, 5.0);
}
