// The blocked LU against the column-by-column elimination, bit for bit: pivots, swap count,
// factors and the step at which a failing matrix stops.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "backend/cpu/structured_solver.hpp"
#include "backend/cpu/structured_solver_lu.hpp"
#include "runtime/cpu_runtime_context.hpp"
#include "test_support.hpp"

using namespace quillmark;
using namespace quillmark::cpu;

namespace {

using u64 = std::uint64_t;

using quillmark::testing::same_bits;
template <class C> constexpr bool kIsComplex = !std::is_same_v<C, RealOf<C>>;

template <class C> C value(double re, double im) {
    if constexpr (kIsComplex<C>) return C(RealOf<C>(re), RealOf<C>(im));
    else return C(re);
}

// The textbook elimination: y(i, j) -= l(i, k) u(k, j) for every step k in turn, each update
// fused, the complex one as re: -lr*ur then +li*ui, im: -li*ur then -lr*ui.
template <class C> LuOutcome reference_lu(std::vector<C>& a, u64 n, std::vector<std::int64_t>& pivots) {
    LuOutcome out;
    for (u64 k = 0; k < n; ++k) {
        u64 p = k;
        std::pair<bool, RealOf<C>> best{};
        for (u64 i = k; i < n; ++i) {
            const C v = a[i + k * n];
            if (!std::isfinite(std::real(v)) || !std::isfinite(std::imag(v))) return {LuStop::non_finite, k, out.swaps};
            const RealOf<C> m = std::abs(v);
            // An overflowing modulus is ranked by the halved value, above every finite one.
            const std::pair<bool, RealOf<C>> key = std::isfinite(m) ? std::pair{false, m} : std::pair{true, std::abs(v * RealOf<C>(0.5))};
            if (i == k || key > best) best = key, p = i;
        }
        if (!best.first && best.second == 0) return {LuStop::singular, k, out.swaps};
        pivots[k] = std::int64_t(p + 1);
        if (p != k) {
            for (u64 j = 0; j < n; ++j) std::swap(a[k + j * n], a[p + j * n]);
            ++out.swaps;
        }
        for (u64 i = k + 1; i < n; ++i) {
            const C m = a[i + k * n] / a[k + k * n];
            if (a[i + k * n] != C(0) && m == C(0)) return {LuStop::underflow, k, out.swaps};
            a[i + k * n] = m;
        }
        for (u64 j = k + 1; j < n; ++j)
            for (u64 i = k + 1; i < n; ++i) {
                const C l = a[i + k * n], u = a[k + j * n];
                C& y = a[i + j * n];
                if constexpr (kIsComplex<C>) {
                    const auto re = std::fma(l.imag(), u.imag(), std::fma(-l.real(), u.real(), y.real()));
                    const auto im = std::fma(-l.real(), u.imag(), std::fma(-l.imag(), u.real(), y.imag()));
                    y = C(re, im);
                } else {
                    y = std::fma(-l, u, y);
                }
            }
    }
    return out;
}

enum class Kind { random, ties, near_singular, singular };

template <class C> std::vector<C> matrix(Kind kind, u64 n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> dist(-1, 1);
    std::uniform_int_distribution<int> small(-2, 2);
    std::vector<C> a(n * n);
    for (auto& v : a) {
        if (kind == Kind::ties) v = value<C>(small(gen), kIsComplex<C> ? small(gen) : 0);
        else v = value<C>(dist(gen), dist(gen));
    }
    if (kind == Kind::near_singular || kind == Kind::singular) {
        // The last column repeats a combination of two others, nudged by an ulp-sized amount or not.
        const double nudge = kind == Kind::near_singular ? 1e-7 : 0;
        for (u64 i = 0; i < n; ++i)
            a[i + (n - 1) * n] = a[i] * RealOf<C>(0.5) + a[i + n] * RealOf<C>(0.25) + value<C>(i == n / 2 ? nudge : 0, 0);
    }
    return a;
}

template <class C> class BlockedLu : public ::testing::Test {};
using Types = ::testing::Types<float, double, std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(BlockedLu, Types);

TYPED_TEST(BlockedLu, MatchesTheColumnByColumnEliminationBitForBit) {
    using C = TypeParam;
    using R = RealOf<C>;
    const CpuRuntimeContext workers(quillmark::testing::machine_options(4));
    struct Case {
        u64 n, block;
    };
    const Case cases[] = {{kLuBlock - 1, kLuBlock}, {kLuBlock, kLuBlock}, {kLuBlock + 1, kLuBlock},
                          {2 * kLuBlock + 3, kLuBlock}, {29, 8}, {17, 1}};
    for (const auto& kernels : available_lu_kernels<R>()) {
        for (Kind kind : {Kind::random, Kind::ties, Kind::near_singular, Kind::singular}) {
            for (const Case& c : cases) {
                const std::vector<C> a = matrix<C>(kind, c.n, unsigned(c.n * 7 + int(kind)));
                std::vector<C> expected = a;
                std::vector<std::int64_t> expected_pivots(c.n, 0);
                const LuOutcome want = reference_lu(expected, c.n, expected_pivots);
                for (const CpuRuntimeContext* ctx : {static_cast<const CpuRuntimeContext*>(nullptr), &workers}) {
                    std::vector<C> got = a;
                    std::vector<std::int64_t> pivots(c.n, 0);
                    const LuOutcome have = lu_eliminate<C, R>(got.data(), c.n, pivots.data(), kernels, c.block, ctx);
                    const std::string where = std::string(kernels.name) + " kind " + std::to_string(int(kind)) +
                                              " n " + std::to_string(c.n) + (ctx ? " parallel" : "");
                    ASSERT_EQ(int(have.stop), int(want.stop)) << where;
                    EXPECT_EQ(have.step, want.step) << where;
                    EXPECT_EQ(have.swaps, want.swaps) << where;
                    if (want.stop != LuStop::none) continue; // a stopped factorisation is only partly eliminated
                    EXPECT_EQ(pivots, expected_pivots) << where;
                    EXPECT_TRUE(same_bits(got, expected)) << where;
                }
            }
        }
    }
}

// Blocked and one-panel Cholesky agree bit for bit, also on the failing pivot of an indefinite
// matrix and with the trailing updates on worker threads; the kernels agree with each other.
TYPED_TEST(BlockedLu, CholeskyBlocksMatchOnePanel) {
    using C = TypeParam;
    using R = RealOf<C>;
    const R eps = std::numeric_limits<R>::epsilon();
    const CpuRuntimeContext workers(quillmark::testing::machine_options(4));
    for (const u64 n : {u64(kCholeskyBlock + 5), u64(2 * kCholeskyBlock + 1)}) {
        for (const bool definite : {true, false}) {
            const std::vector<C> b = matrix<C>(Kind::random, n, unsigned(n));
            std::vector<C> a(n * n);
            for (u64 i = 0; i < n; ++i)
                for (u64 j = 0; j < n; ++j) {
                    C s = i == j ? C(definite ? R(n) : R(0.5)) : C(0);
                    for (u64 k = 0; k < n; ++k) {
                        if constexpr (kIsComplex<C>) s += b[i + k * n] * std::conj(b[j + k * n]);
                        else s += b[i + k * n] * b[j + k * n];
                    }
                    a[i + j * n] = s;
                }
            if (!definite) a[(n - 3) * (n + 1)] = C(-1);
            std::vector<C> one = a;
            std::vector<R> one_pivots(n);
            const auto reference =
                cholesky_eliminate<C, R>(one.data(), n, eps, one_pivots.data(), available_lu_kernels<R>()[0], 0, nullptr);
            EXPECT_EQ(reference.positive, definite);
            for (const auto& kernels : available_lu_kernels<R>())
                for (const CpuRuntimeContext* ctx : {static_cast<const CpuRuntimeContext*>(nullptr), &workers}) {
                    const std::string where = std::string(kernels.name) + (ctx ? " parallel" : "");
                    std::vector<C> got = a;
                    std::vector<R> pivots(n);
                    const auto have = cholesky_eliminate<C, R>(got.data(), n, eps, pivots.data(), kernels, 8, ctx);
                    ASSERT_EQ(have.positive, reference.positive) << where;
                    EXPECT_EQ(have.step, reference.step) << where;
                    const u64 valid = reference.positive ? n : reference.step;
                    EXPECT_EQ(0, std::memcmp(pivots.data(), one_pivots.data(), valid * sizeof(R))) << where;
                }
        }
    }
}

} // namespace
