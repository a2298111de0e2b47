// The complex single-precision engines against plain loops and the scalar backend's kernels,
// for every length around the vector widths (masked tails) and for each engine this CPU runs.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <stdexcept>
#include <vector>

#include "backend/cpu/floating_point_kernels.hpp"
#include "backend/cpu/simd_engine.hpp"

using namespace quillmark;
using cpu::c64;
using u64 = std::uint64_t;

namespace {

class SimdEngine : public ::testing::TestWithParam<const char*> {
protected:
    const cpu::ComplexEngine& engine() { return cpu::complex_engine(GetParam()); }
    void SetUp() override {
        try {
            cpu::complex_engine(GetParam());
        } catch (const std::runtime_error&) {
            GTEST_SKIP() << GetParam() << " is not usable on this CPU";
        }
    }
};

std::vector<c64> random_vector(u64 n, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> d;
    std::vector<c64> v(n);
    for (auto& z : v) z = c64(d(rng), d(rng));
    return v;
}

void expect_close(c64 got, std::complex<double> want, double scale) {
    EXPECT_NEAR(got.real(), want.real(), 1e-5 * scale);
    EXPECT_NEAR(got.imag(), want.imag(), 1e-5 * scale);
}

const u64 kLengths[] = {0, 1, 3, 4, 5, 7, 8, 9, 16, 17, 31, 100};

} // namespace

TEST_P(SimdEngine, StreamingKernelsMatchPlainLoops) {
    const cpu::ComplexEngine& z = engine();
    EXPECT_EQ(z.name, GetParam());
    const c64 alpha(0.75f, -1.25f);
    for (u64 n : kLengths) {
        SCOPED_TRACE(n);
        const auto x = random_vector(n + 1, 1), y0 = random_vector(n + 1, 2);
        auto y = y0;
        z.axpy(n, alpha, x.data(), y.data());
        for (u64 i = 0; i < n; ++i) expect_close(y[i], std::complex<double>(y0[i]) + std::complex<double>(alpha) * std::complex<double>(x[i]), 4);
        EXPECT_EQ(y[n], y0[n]); // the masked tail writes nothing past the end

        y = y0;
        z.accumulate(n, x.data(), y.data());
        for (u64 i = 0; i < n; ++i) EXPECT_EQ(y[i], y0[i] + x[i]);

        y = y0;
        z.scale(n, alpha, y.data());
        for (u64 i = 0; i < n; ++i) expect_close(y[i], std::complex<double>(alpha) * std::complex<double>(y0[i]), 4);
        EXPECT_EQ(y[n], y0[n]);

        double squares = 0;
        for (u64 i = 0; i < n; ++i) squares += std::norm(std::complex<double>(x[i]));
        EXPECT_NEAR(z.squared_norm(n, x.data()), squares, 1e-12 * (squares + 1));
    }
}

TEST_P(SimdEngine, GemvAndTransposeMatchTheScalarBackend) {
    using Scalar = cpu::FloatingKernels<PolicyC64, ComplexLayout::interleaved>;
    const cpu::ComplexEngine& z = engine();
    for (u64 rows : {u64{1}, u64{5}, u64{9}}) {
        for (u64 n : kLengths) {
            SCOPED_TRACE(testing::Message() << rows << "x" << n);
            auto a = random_vector(rows * n, 3), x = random_vector(n, 4);
            std::vector<c64> got(rows), want(rows);
            z.gemv_rows(rows, n, a.data(), n, x.data(), got.data());
            DenseMatrixView<c64> av;
            av.rows = rows;
            av.cols = n;
            av.data = a.data();
            Scalar::matvec(av, {x.data(), n}, {want.data(), rows}, nullptr);
            for (u64 i = 0; i < rows; ++i) expect_close(got[i], want[i], std::sqrt(double(n)) + 1);

            for (bool conjugate : {false, true}) {
                std::vector<c64> t(rows * n), ref(rows * n);
                z.transpose(rows, n, a.data(), n, t.data(), rows, conjugate);
                DenseMatrixView<c64> tv;
                tv.rows = n;
                tv.cols = rows;
                tv.data = ref.data();
                if (conjugate) Scalar::adjoint(av, tv, nullptr);
                else Scalar::transpose(av, tv, nullptr);
                EXPECT_EQ(t, ref);
            }
        }
    }
}

TEST_P(SimdEngine, CarriesTheGemmKernelOfItsInstructionSet) {
    const cpu::ComplexEngine& z = engine();
    EXPECT_EQ(z.gemm.name, GetParam());
    ASSERT_NE(z.gemm.kernel, nullptr);
    EXPECT_EQ(z.gemm.kc % 2, 0u); // complex embeddings never split a pair
}

INSTANTIATE_TEST_SUITE_P(Engines, SimdEngine, ::testing::Values("AVX2", "AVX512"));

TEST(SimdEngineSelection, RefusesUnknownWords) {
    EXPECT_THROW(cpu::complex_engine("avx2"), std::invalid_argument);
    EXPECT_THROW(cpu::complex_engine("AUTO"), std::invalid_argument);
}
