// The complex single-precision engines against plain loops and the scalar backend's kernels,
// for every length around the vector widths (masked tails) and for each engine this CPU runs.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <stdexcept>
#include <vector>

#include "backend/cpu/floating_point_kernels.hpp"
#include "backend/cpu/gemm_sources.hpp"
#include "backend/cpu/simd_engine.hpp"
#include "runtime/cpu_runtime_context.hpp"
#include "test_support.hpp"

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

DenseMatrixView<c64> view(u64 rows, u64 cols, c64* data) {
    DenseMatrixView<c64> m;
    m.rows = rows, m.cols = cols, m.data = data;
    return m;
}

} // namespace

TEST_P(SimdEngine, StreamingKernelsMatchPlainLoops) {
    const cpu::ComplexEngine& z = engine();
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
            SCOPED_TRACE(::testing::Message() << rows << "x" << n);
            auto a = random_vector(rows * n, 3), x = random_vector(n, 4);
            std::vector<c64> got(rows), want(rows);
            z.gemv_rows(rows, n, a.data(), n, x.data(), got.data());
            const DenseMatrixView<c64> av = view(rows, n, a.data());
            Scalar::matvec(av, {x.data(), n}, {want.data(), rows}, nullptr);
            for (u64 i = 0; i < rows; ++i) expect_close(got[i], want[i], std::sqrt(double(n)) + 1);

            for (bool conjugate : {false, true}) {
                std::vector<c64> t(rows * n), ref(rows * n);
                z.transpose(rows, n, a.data(), n, t.data(), rows, conjugate);
                if (conjugate) Scalar::adjoint(av, view(n, rows, ref.data()), nullptr);
                else Scalar::transpose(av, view(n, rows, ref.data()), nullptr);
                EXPECT_EQ(t, ref);
            }
        }
    }
}

// Shapes around the tile (MR rows, NR/2 complex columns), past one depth block (kc/2 steps, so C
// is accumulated) and past one row block.
TEST_P(SimdEngine, ComplexProductMatchesWidenedReference) {
    const cpu::ComplexEngine& z = engine();
    const u64 mr = z.gemm.mr, nc = z.gemm.nr / 2, steps = z.gemm.kc / 2;
    const u64 shapes[][3] = {{1, 1, 1}, {mr + 1, nc + 1, 3}, {2 * mr - 1, 2 * nc + 3, steps + 5},
                             {z.gemm.mc + mr + 2, 3, 2 * steps + 1}};
    for (const auto& [m, n, k] : shapes) {
        SCOPED_TRACE(::testing::Message() << m << "x" << k << " by " << k << "x" << n);
        auto a = random_vector(m * k, 5), b = random_vector(k * n, 6);
        std::vector<c64> c(m * n, c64(7.0f, 7.0f));
        using Loader = cpu::InterleavedComplexLoader<c64, float>;
        const cpu::ComplexLeftSource<Loader, float> left{{a.data(), k, 1}, false};
        const cpu::InterleavedRightRowsSource<float> right{b.data(), n};
        cpu::gemm<float>(z.gemm, m, 2 * n, 2 * k, left.packer(), right.packer(), reinterpret_cast<float*>(c.data()),
                         2 * n, nullptr);
        for (u64 i = 0; i < m; ++i)
            for (u64 j = 0; j < n; ++j) {
                std::complex<double> want;
                for (u64 p = 0; p < k; ++p)
                    want += std::complex<double>(a[i * k + p]) * std::complex<double>(b[p * n + j]);
                expect_close(c[i * n + j], want, std::sqrt(double(k)) + 1);
            }
    }
}

INSTANTIATE_TEST_SUITE_P(Engines, SimdEngine, ::testing::Values("AVX2", "AVX512"));

TEST(SimdEngineSelection, RefusesUnknownWords) {
    EXPECT_THROW(cpu::complex_engine("avx2"), std::invalid_argument);
    EXPECT_THROW(cpu::complex_engine("AUTO"), std::invalid_argument);
}

// The split-complex kernels promise the real embedding's accumulation order: under the same depth
// blocking they must reproduce it bit for bit, for every kernel this CPU runs, across tile, depth
// block and row block edges, with B read row-major and column-major; row blocks on workers must
// give the serial answer.
template <class R> class SplitComplexGemm : public ::testing::Test {};
using SplitGemmTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(SplitComplexGemm, SplitGemmTypes);

TYPED_TEST(SplitComplexGemm, ReproducesTheRealEmbedding) {
    using R = TypeParam;
    using Loader = cpu::SplitComplexLoader<R, R>;
    std::mt19937_64 rng(23);
    std::normal_distribution<R> d;
    const CpuRuntimeContext runtime(quillmark::testing::machine_options(5)); // four workers
    for (const auto& split : cpu::available_split_gemm_kernels<R>()) {
        cpu::GemmKernelInfo<R> real{};
        for (const auto& k : cpu::available_gemm_kernels<R>())
            if (k.name == split.name) real = k;
        ASSERT_NE(real.kernel, nullptr) << split.name;
        real.kc = split.kc;
        const u64 mr = split.mr, nr = split.nr, steps = split.kc / 2;
        const u64 shapes[][3] = {{1, 1, 1}, {mr + 1, nr + 1, 3}, {2 * mr - 1, 2 * nr + 3, steps + 5},
                                 {split.mc + mr + 2, 3, 2 * steps + 1}};
        for (const auto& [m, n, k] : shapes)
            for (const bool b_rows : {true, false}) {
                SCOPED_TRACE(::testing::Message() << split.name << " " << m << "x" << k << "x" << n << " B rows "
                                                << b_rows);
                std::vector<R> ar(m * k), ai(m * k), br(k * n), bi(k * n);
                for (auto* v : {&ar, &ai, &br, &bi})
                    for (auto& x : *v) x = d(rng);
                const Loader a{ar.data(), ai.data(), k, 1};
                const Loader b = b_rows ? Loader{br.data(), bi.data(), 1, n} : Loader{br.data(), bi.data(), k, 1};
                const cpu::ComplexLeftSource<Loader, R> left{a, false};

                std::vector<R> cr(m * n, R(5)), ci(m * n, R(5)); // stale contents must be overwritten
                const cpu::SplitRightSource<Loader, R> right{b};
                cpu::split_complex_gemm<R>(split, m, n, k, left.packer(), right.packer(), cr.data(), ci.data(), n,
                                           nullptr);

                std::vector<R> pr(m * n), pi(m * n);
                cpu::split_complex_gemm<R>(split, m, n, k, left.packer(), right.packer(), pr.data(), pi.data(), n,
                                           &runtime);
                EXPECT_TRUE(pr == cr && pi == ci);

                std::vector<R> c(2 * m * n);
                const cpu::ComplexRightSource<Loader, R> embedded{b};
                cpu::gemm<R>(real, m, 2 * n, 2 * k, left.packer(), embedded.packer(), c.data(), 2 * n, nullptr);
                u64 differ = 0;
                for (u64 q = 0; q < m * n; ++q) differ += (cr[q] != c[2 * q]) + (ci[q] != c[2 * q + 1]);
                EXPECT_EQ(differ, 0u);
            }
    }
}

// The left packer's layout, dst[q*depth*width + x*width + l] = part x % 2 of A(l0 + q*width + l,
// (d0 + x) / 2), through each of its paths: whole interleaved panels, interleaved and split rows
// chunk by chunk, and the general loader (column-major), with and without conjugation, ending in
// a partial panel.
TEST(GemmPacking, LeftPanelsHoldTheEmbedding) {
    using R = double;
    using Z = std::complex<R>;
    const u64 rows = 11, cols = 150, l0 = 1, lines = 9, d0 = 4, depth = 2 * 140;
    std::vector<Z> a(rows * cols);
    std::vector<R> re(rows * cols), im(rows * cols);
    for (u64 i = 0; i < a.size(); ++i) {
        a[i] = Z(R(i) + 0.25, -R(i) - 0.5);
        re[i] = a[i].real(), im[i] = a[i].imag();
    }
    std::vector<Z> col(rows * cols); // the same matrix column-major
    for (u64 i = 0; i < rows; ++i)
        for (u64 j = 0; j < cols; ++j) col[j * rows + i] = a[i * cols + j];
    using Interleaved = cpu::InterleavedComplexLoader<Z, R>;
    using Split = cpu::SplitComplexLoader<R, R>;
    for (const u64 width : {3u, 4u, 6u})
        for (const bool conj : {false, true}) {
            const cpu::ComplexLeftSource<Interleaved, R> rows_interleaved{{a.data(), cols, 1}, conj};
            const cpu::ComplexLeftSource<Split, R> rows_split{{re.data(), im.data(), cols, 1}, conj};
            const cpu::ComplexLeftSource<Interleaved, R> columns{{col.data(), 1, rows}, conj};
            for (const cpu::GemmPacker<R> packer : {rows_interleaved.packer(), rows_split.packer(), columns.packer()}) {
                SCOPED_TRACE(::testing::Message() << "width " << width << " conj " << conj);
                const u64 panels = (lines + width - 1) / width;
                std::vector<R> dst(panels * depth * width, R(7));
                packer.pack(packer.source, dst.data(), l0, lines, d0, depth, width);
                u64 bad = 0;
                for (u64 q = 0; q < panels; ++q)
                    for (u64 x = 0; x < depth; ++x)
                        for (u64 l = 0; l < width; ++l) {
                            const u64 line = q * width + l;
                            const Z z = line < lines ? a[(l0 + line) * cols + (d0 + x) / 2] : Z{};
                            const R want = x % 2 == 0 ? z.real() : (conj ? -z.imag() : z.imag());
                            bad += dst[q * depth * width + x * width + l] != want;
                        }
                EXPECT_EQ(bad, 0u);
            }
        }
}
