#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "backend/cpu/fallback_complex_eigen_solver.hpp"
#include "core/errors.hpp"
#include "runtime/simd_selection.hpp"
#include "test_support.hpp"

using namespace quillmark;
using namespace quillmark::cpu;
using quillmark::testing::capture;

namespace {

using Zd = std::complex<double>;
using Index = std::uint64_t;
constexpr MatrixLayout kLayouts[] = {MatrixLayout::row_major, MatrixLayout::column_major};

template <class C> double eps_of() { return std::numeric_limits<RealOf<C>>::epsilon(); }

// A logical n x n matrix stored in the requested layout.
template <class C> struct Matrix {
    MatrixGeometry geometry;
    std::vector<C> data;
    Zd at(Index i, Index j) const { return Zd(data[geometry.index(i, j)]); }
};

template <class C> Matrix<C> build(Index n, MatrixLayout layout, const std::function<Zd(Index, Index)>& f) {
    Matrix<C> m{{n, n, layout}, std::vector<C>(n * n)};
    for (Index i = 0; i < n; ++i)
        for (Index j = 0; j < n; ++j) {
            const Zd v = f(i, j);
            if constexpr (std::is_floating_point_v<C>)
                m.data[m.geometry.index(i, j)] = static_cast<C>(v.real());
            else
                m.data[m.geometry.index(i, j)] = C(v);
        }
    return m;
}

template <class C> Matrix<C> random_matrix(Index n, MatrixLayout layout, unsigned seed) {
    std::mt19937 gen(seed);
    std::normal_distribution<double> dist;
    return build<C>(n, layout, [&](Index, Index) { return Zd(dist(gen), dist(gen)); });
}

// H = I - 2 u u^T / u^T u with u = (2, 1, ..., 1): orthogonal and its own inverse, so H B H has B's
// spectrum with its structure hidden, and H e_k is the eigenvector that e_k is for B.
struct Reflector {
    Index n;
    double h(Index i, Index j) const { return (i == j ? 1.0 : 0.0) - 2.0 * (i ? 1 : 2) * (j ? 1 : 2) / double(n + 3); }
    template <class C> Matrix<C> conjugate(MatrixLayout layout, const std::function<double(Index, Index)>& b) const {
        return build<C>(n, layout, [&](Index i, Index j) {
            double s = 0;
            for (Index k = 0; k < n; ++k)
                for (Index l = 0; l < n; ++l) s += h(i, k) * b(k, l) * h(l, j);
            return Zd(s);
        });
    }
    // |<H e_k, v>| for a unit v: 1 when v is that eigenvector up to phase.
    double overlap(Index k, const std::vector<Zd>& v) const {
        Zd s = 0;
        for (Index i = 0; i < n; ++i) s += h(i, k) * v[i];
        return std::abs(s);
    }
};

double norm(const std::vector<Zd>& v) {
    double s = 0;
    for (const Zd& e : v) s += std::norm(e);
    return std::sqrt(s);
}

struct Decomposed {
    std::vector<Zd> values;
    std::vector<std::vector<Zd>> vectors;
};

// Runs eig and reads vector k back through the documented placement for the layout.
template <class C> Decomposed run_eig(const Matrix<C>& a, MatrixLayout vector_layout) {
    const Index n = a.geometry.rows;
    std::vector<EigenComplexOf<C>> values(n), vectors(n * n);
    eig(a.data.data(), a.geometry, values.data(), vectors.data(), vector_layout);
    const MatrixGeometry g{n, n, vector_layout};
    Decomposed d{{values.begin(), values.end()}, {}};
    for (Index k = 0; k < n; ++k) {
        std::vector<Zd> v(n);
        for (Index i = 0; i < n; ++i)
            v[i] = Zd(vectors[vector_layout == MatrixLayout::column_major ? g.index(i, k) : g.index(k, i)]);
        d.vectors.push_back(v);
    }
    return d;
}

// max_k ||A v_k - lambda_k v_k|| / ||A||_F, computed independently of the solver.
template <class C> double worst_residual(const Matrix<C>& a, const Decomposed& d) {
    const Index n = a.geometry.rows;
    double frobenius = 0, worst = 0;
    for (Index i = 0; i < n; ++i)
        for (Index j = 0; j < n; ++j) frobenius += std::norm(a.at(i, j));
    for (Index k = 0; k < n; ++k) {
        std::vector<Zd> r(n);
        for (Index i = 0; i < n; ++i) {
            r[i] = -d.values[k] * d.vectors[k][i];
            for (Index j = 0; j < n; ++j) r[i] += a.at(i, j) * d.vectors[k][j];
        }
        worst = std::max(worst, norm(r) / std::sqrt(frobenius));
    }
    return worst;
}

// Distance from w to the nearest of values.
double nearest(const Zd& w, const std::vector<Zd>& values) {
    double best = INFINITY;
    for (const Zd& v : values) best = std::min(best, std::abs(v - w));
    return best;
}

} // namespace

template <class C> class EigenTyped : public ::testing::Test {};
using ComputeTypes = ::testing::Types<float, double, std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(EigenTyped, ComputeTypes);

TYPED_TEST(EigenTyped, RandomMatricesGiveUnitVectorsWithSmallResiduals) {
    using C = TypeParam;
    for (MatrixLayout layout : kLayouts)
        for (Index n : {1u, 2u, 5u, 16u, 37u}) {
            const Matrix<C> a = random_matrix<C>(n, layout, 100 + unsigned(n));
            const Decomposed d = run_eig(a, layout);
            EXPECT_LT(worst_residual(a, d), 50 * n * eps_of<C>()) << n;
            Zd trace = 0, sum = 0;
            for (Index k = 0; k < n; ++k) {
                trace += a.at(k, k);
                sum += d.values[k];
                EXPECT_NEAR(norm(d.vectors[k]), 1, 10 * eps_of<C>());
            }
            EXPECT_LT(std::abs(trace - sum), 100 * n * eps_of<C>() * (1 + std::abs(trace)));
        }
}

TYPED_TEST(EigenTyped, BlockTriangularSpectrumIsTheUnionOfTheBlocks) {
    using C = TypeParam;
    // Zero blocks below the diagonal split the QR iteration into windows that start past the first
    // row, so delayed rotations reach the rows above a window and the columns right of it. Blocks of
    // one make the matrix triangular: every reflector is the identity and the spectrum the diagonal.
    const std::vector<Index> partitions[] = {{9, 23, 14}, {1, 1, 1, 1, 1, 1}};
    std::mt19937 gen(8);
    std::normal_distribution<double> dist;
    for (const auto& sizes : partitions)
        for (MatrixLayout layout : kLayouts) {
            std::vector<Index> block;
            for (Index b = 0; b < sizes.size(); ++b) block.insert(block.end(), sizes[b], b);
            const Index n = block.size();
            const Matrix<C> a = build<C>(n, layout, [&](Index i, Index j) {
                const Zd v(dist(gen), dist(gen));
                return block[i] > block[j] ? Zd(0) : v;
            });
            const Decomposed d = run_eig(a, kLayouts[layout == kLayouts[0]]); // vectors in the other layout
            EXPECT_LT(worst_residual(a, d), 100 * n * eps_of<C>());
            // Single precision deflates at a relative 1e-4, which moves sensitive pairs by about as much.
            const double tolerance = std::max(1e3 * eps_of<C>(), 10 * default_eigen_options<C>().convergence_tolerance);
            for (Index b = 0, start = 0; b < sizes.size(); start += sizes[b++]) {
                const Matrix<C> diagonal = build<C>(sizes[b], MatrixLayout::row_major,
                                                    [&](Index i, Index j) { return a.at(start + i, start + j); });
                for (const Zd& w : run_eig(diagonal, MatrixLayout::row_major).values)
                    EXPECT_LT(nearest(w, d.values), tolerance * (1 + std::abs(w))) << n;
            }
        }
}

TYPED_TEST(EigenTyped, HiddenJordanBlockResidualsStaySmall) {
    using C = TypeParam;
    // H J H for a 4 x 4 Jordan block J of eigenvalue 2: defective, so the computed eigenvalues spread
    // by about eps^(1/4), yet every returned pair has a small residual and every vector lies close to
    // the single eigenvector H e_0.
    const Reflector s{4};
    const Matrix<C> a = s.conjugate<C>(MatrixLayout::row_major,
                                       [](Index k, Index l) { return k == l ? 2.0 : (l == k + 1 ? 1.0 : 0.0); });
    const Decomposed d = run_eig(a, MatrixLayout::row_major);
    EXPECT_LT(worst_residual(a, d), default_eigen_options<C>().residual_tolerance);
    const double spread = 4 * std::pow(eps_of<C>(), 0.25);
    for (Index k = 0; k < 4; ++k) {
        EXPECT_NEAR(std::abs(d.values[k] - 2.0), 0, spread);
        EXPECT_NEAR(s.overlap(0, d.vectors[k]), 1, 2 * spread);
    }
}

TYPED_TEST(EigenTyped, PrincipalEigenvectorOfKnownDominantPair) {
    using C = TypeParam;
    // H B H with B upper triangular of diagonal (5, -2, 1, 0.5): the dominant eigenvector is H e_0.
    const double lambda[] = {5, -2, 1, 0.5};
    const Reflector s{4};
    for (MatrixLayout layout : kLayouts) {
        const Matrix<C> a = s.conjugate<C>(
            layout, [&](Index i, Index j) { return i == j ? lambda[i] : (j > i ? 0.3 * double(i + 2 * j) : 0.0); });
        std::vector<C> v(4);
        principal_eigenvector(a.data.data(), a.geometry, v.data());
        const std::vector<Zd> got(v.begin(), v.end());
        EXPECT_NEAR(norm(got), 1, 10 * eps_of<C>());
        EXPECT_NEAR(s.overlap(0, got), 1, 100 * eps_of<C>());
        // The largest component is real and positive.
        const Zd largest =
            *std::max_element(got.begin(), got.end(), [](Zd x, Zd y) { return std::abs(x) < std::abs(y); });
        EXPECT_GT(largest.real(), 0);
        EXPECT_EQ(largest.imag(), 0);
    }
}

// Orders past one reduction panel, with columns that need no reflector (already reduced or zero)
// mixed with ones that do.
TEST(EigenSolver, PartlyReducedMatricesAcrossPanels) {
    const Index n = 45;
    std::mt19937 gen(12);
    std::normal_distribution<double> dist;
    const std::function<bool(Index, Index)> kept[] = {
        [](Index i, Index j) { return j >= i; },                         // triangular: every reflector is the identity
        [](Index i, Index j) { return j + 1 >= i; },                     // already Hessenberg
        [](Index i, Index j) { return j % 7 != 3 || i <= j + 1; },       // some columns reduced, the rest full
        [](Index, Index j) { return j != 0 && j != 33; },                 // zero columns inside both panels
    };
    for (const auto& keep : kept) {
        const Matrix<std::complex<double>> a = build<std::complex<double>>(
            n, MatrixLayout::row_major, [&](Index i, Index j) { return keep(i, j) ? Zd(dist(gen), dist(gen)) : Zd(0); });
        const Decomposed d = run_eig(a, MatrixLayout::column_major);
        EXPECT_LT(worst_residual(a, d), 100 * n * eps_of<double>());
        for (const auto& v : d.vectors) EXPECT_NEAR(norm(v), 1, 1e-14);
    }
}

TEST(EigenSolver, BadlyScaledAndLargeMatricesAreAccurate) {
    // Entries spanning 2^+-60: without balancing the small eigenvalues drown in rounding.
    std::mt19937 gen(21);
    std::uniform_real_distribution<double> dist(0.5, 1.5);
    const Matrix<double> scaled = build<double>(5, MatrixLayout::column_major, [&](Index i, Index j) {
        return Zd(std::ldexp(dist(gen), 30 * (int(i) - int(j))));
    });
    EXPECT_LT(worst_residual(scaled, run_eig(scaled, MatrixLayout::column_major)), 1e-12);
    const Matrix<double> large = random_matrix<double>(200, MatrixLayout::row_major, 77);
    EXPECT_LT(worst_residual(large, run_eig(large, MatrixLayout::column_major)), 1e-13);
}

TEST(EigenSolver, FailuresLeaveOutputsUntouched) {
    const Matrix<double> a = random_matrix<double>(6, MatrixLayout::row_major, 4);
    std::vector<Zd> values(6, Zd(-9)), vectors(36, Zd(-9));
    auto run = [&](const Matrix<double>& m, const EigenSolverOptions& options) {
        eig(m.data.data(), m.geometry, values.data(), vectors.data(), MatrixLayout::column_major, options);
    };

    EigenSolverOptions limited = default_eigen_options<double>();
    limited.maximum_iterations = 0;
    const auto nc = capture<SolverError>([&] { run(a, limited); });
    EXPECT_EQ(nc.reason(), ErrorReason::non_convergence);
    EXPECT_EQ(nc.operation(), "quillmark.eig");
    EXPECT_EQ(nc.library(), "CPU");
    EXPECT_STREQ(nc.what(), "eig - shifted QR iteration did not converge for order 6");

    EigenSolverOptions strict = default_eigen_options<double>();
    strict.residual_tolerance = 0;
    const auto rf = capture<SolverError>([&] { run(a, strict); });
    EXPECT_EQ(rf.reason(), ErrorReason::solver_failure);
    EXPECT_STREQ(rf.what(), "eig - eigenpair residual exceeds tolerance");

    Matrix<double> nan = a;
    nan.data[7] = NAN;
    EXPECT_STREQ(capture<std::invalid_argument>([&] { run(nan, default_eigen_options<double>()); }).what(),
                 "eig - input must contain only finite entries");
    EXPECT_EQ(values, std::vector<Zd>(6, Zd(-9)));
    EXPECT_EQ(vectors, std::vector<Zd>(36, Zd(-9)));
}

TEST(EigenSolver, PrincipalEigenvectorNeedsAUniqueDominantMagnitude) {
    auto hidden = [](const std::vector<double>& diagonal) {
        return Reflector{diagonal.size()}.conjugate<double>(
            MatrixLayout::row_major, [&](Index i, Index j) { return i == j ? diagonal[i] : 0.0; });
    };
    for (const std::vector<double>& diagonal : {std::vector<double>{3, -3, 1}, {1, 1, 1}, {0, 0}}) {
        const Matrix<double> a = hidden(diagonal);
        std::vector<double> v(diagonal.size(), 5);
        const auto e = capture<SolverError>([&] { principal_eigenvector(a.data.data(), a.geometry, v.data()); });
        EXPECT_STREQ(e.what(), "principal_eigenvector - dominant eigenvalue is not unique");
        EXPECT_EQ(e.operation(), "quillmark.principal_eigenvector");
        EXPECT_EQ(e.reason(), ErrorReason::solver_failure);
        EXPECT_EQ(v, std::vector<double>(diagonal.size(), 5));
    }
    // A near tie is still unique: the eigenvector of -3.01 is H e_1.
    const Matrix<double> a = hidden({1, -3.01, 3});
    std::vector<double> v(3);
    principal_eigenvector(a.data.data(), a.geometry, v.data());
    EXPECT_NEAR(Reflector{3}.overlap(1, {v.begin(), v.end()}), 1, 1e-12);
}

TEST(EigenSolver, EmptyMatricesAndScalarPrincipalVector) {
    const MatrixGeometry empty{0, 0, MatrixLayout::row_major};
    eig<float>(nullptr, empty, nullptr, nullptr, MatrixLayout::row_major);
    principal_eigenvector<double>(nullptr, empty, nullptr);
    const std::complex<float> x(0, -4);
    std::complex<float> principal;
    principal_eigenvector(&x, MatrixGeometry{1, 1, MatrixLayout::column_major}, &principal);
    EXPECT_EQ(principal, std::complex<float>(1));
}

// The rotation chains of the QR sweeps agree with the plain formula applied rotation by rotation,
// along rows (contiguous elements) and down columns (gathered elements), vector tails included.
using RotationChain = void (*)(double*, Index, Index, Index, Index, const double*, const double*) noexcept;
class EigenRotation : public ::testing::TestWithParam<RotationChain> {};
INSTANTIATE_TEST_SUITE_P(Kernels, EigenRotation, ::testing::Values(&complex_rotate_chain, &complex_rotate_chain_avx2),
                         [](const auto& info) { return info.index == 0 ? std::string("portable") : std::string("AVX2"); });

TEST_P(EigenRotation, ChainMatchesSequentialRotations) {
    if (GetParam() == &complex_rotate_chain_avx2 && !avx2_usable(probe_cpu_features())) GTEST_SKIP() << "no AVX2";
    std::mt19937 gen(5);
    std::normal_distribution<double> dist;
    const Index lines = 6, count = lines - 1;
    for (const bool along_rows : {true, false})
        for (const Index length : {Index(1), Index(2), Index(7), Index(8), Index(19), Index(35)}) {
            // A (lines x length) block inside a wider buffer: rows of ld elements.
            const Index ld = (along_rows ? length : lines) + 3;
            const Index line_stride = along_rows ? ld : 1, element_stride = along_rows ? 1 : ld;
            std::vector<Zd> got((along_rows ? lines : length) * ld);
            for (Zd& e : got) e = {dist(gen), dist(gen)};
            std::vector<double> c(count);
            std::vector<Zd> s(count);
            for (Index k = 0; k < count; ++k) {
                const Zd x(dist(gen), dist(gen)), y(dist(gen), dist(gen));
                const double rho = std::sqrt(std::norm(x) + std::norm(y));
                c[k] = std::abs(x) / rho;
                s[k] = x / std::abs(x) * std::conj(y) / rho;
            }
            std::vector<Zd> want = got;
            for (Index k = 0; k < count; ++k)
                for (Index e = 0; e < length; ++e) {
                    Zd& x = want[k * line_stride + e * element_stride];
                    Zd& y = want[(k + 1) * line_stride + e * element_stride];
                    const Zd a = x;
                    x = c[k] * a + s[k] * y;
                    y = c[k] * y - std::conj(s[k]) * a;
                }
            GetParam()(reinterpret_cast<double*>(got.data()), line_stride, element_stride, length, count, c.data(),
                       reinterpret_cast<const double*>(s.data()));
            for (Index i = 0; i < got.size(); ++i)
                ASSERT_LT(std::abs(got[i] - want[i]), 16 * eps_of<double>() * (1 + std::abs(want[i])))
                    << along_rows << " " << length << " " << i;
        }
}
