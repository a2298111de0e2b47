// Single-thread throughput of the dense matrix product: every usable micro-kernel on float and
// double, then the matmul kernel per policy as registered (default micro-kernel).
// Build with -DQUILLMARK_BUILD_BENCH=ON and run ./build/<dir>/quillmark_bench_kernels [sizes...].
#include <chrono>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "backend/cpu/floating_point_kernels.hpp"
#include "backend/cpu/gemm.hpp"
#include "backend/cpu/gemm_sources.hpp"
#include "runtime/cpu_runtime_context.hpp"

using namespace quillmark;
using namespace quillmark::cpu;

namespace {

template <class F> double best_seconds(std::uint64_t n, F&& run) {
    const int reps = n <= 256 ? 20 : 4;
    run();
    double best = 1e30;
    for (int r = 0; r < reps; ++r) {
        const auto t0 = std::chrono::steady_clock::now();
        run();
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    return best;
}

template <class R> void bench_micro_kernels(const char* type, std::uint64_t n) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<R> dist(-1, 1);
    std::vector<R> a(n * n), b(n * n), c(n * n);
    for (auto& v : a) v = dist(rng);
    for (auto& v : b) v = dist(rng);
    const RealPanelSource<R, R> left{a.data(), n, 1}, right{b.data(), 1, n};
    for (const auto& kernel : available_gemm_kernels<R>()) {
        const double s = best_seconds(n, [&] { gemm<R>(kernel, n, n, n, left.packer(), right.packer(), c.data(), n, nullptr); });
        std::printf("gemm %-7s %-8s n=%-5llu %8.2f GFLOP/s\n", type, std::string(kernel.name).c_str(),
                    static_cast<unsigned long long>(n), 2.0 * n * n * n / s * 1e-9);
    }
}

template <class P, ComplexLayout L> void bench_matmul(const char* name, std::uint64_t n, double flops_per_mac) {
    using S = typename P::storage_type;
    std::vector<S> a(n * n), b(n * n), c(n * n);
    std::mt19937 rng(2);
    std::uniform_real_distribution<float> dist(-1, 1);
    for (std::uint64_t i = 0; i < n * n; ++i) {
        if constexpr (is_complex_policy<P>) {
            a[i] = S(typename P::compute_type(dist(rng), dist(rng)));
            b[i] = S(typename P::compute_type(dist(rng), dist(rng)));
        } else {
            a[i] = S(dist(rng));
            b[i] = S(dist(rng));
        }
    }
    DenseMatrixView<S> av, bv, cv;
    av.rows = av.cols = bv.rows = bv.cols = cv.rows = cv.cols = n;
    av.data = a.data();
    bv.data = b.data();
    cv.data = c.data();
    const double s = best_seconds(n, [&] { FloatingKernels<P, L>::matmul(av, bv, cv, nullptr); });
    std::printf("matmul %-10s n=%-5llu %8.2f GFLOP/s\n", name, static_cast<unsigned long long>(n),
                flops_per_mac * n * n * n / s * 1e-9);
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::uint64_t> sizes;
    for (int i = 1; i < argc; ++i) sizes.push_back(std::strtoull(argv[i], nullptr, 10));
    if (sizes.empty()) sizes = {256, 1024};
    for (auto n : sizes) {
        bench_micro_kernels<double>("float64", n);
        bench_micro_kernels<float>("float32", n);
    }
    for (auto n : sizes) {
        bench_matmul<PolicyF64, ComplexLayout::none>("float64", n, 2);
        bench_matmul<PolicyF32, ComplexLayout::none>("float32", n, 2);
        bench_matmul<PolicyBF16, ComplexLayout::none>("bfloat16", n, 2);
        bench_matmul<PolicyC64, ComplexLayout::interleaved>("complex64", n, 8);
        bench_matmul<PolicyC128, ComplexLayout::interleaved>("complex128", n, 8);
    }
    return 0;
}
