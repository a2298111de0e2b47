#pragma once
// Packed-panel matrix product on a real compute type R (float, double, or uint32_t for wrapping
// integer products). Operands reach the driver only through packers, which is where storage
// conversion, layouts and complex embeddings are absorbed; the driver owns the cache blocking,
// the parallel loop and the choice of micro-kernel.
#include <cstdint>
#include <string_view>
#include <vector>

namespace quillmark {
class CpuRuntimeContext;
}

namespace quillmark::cpu {

template <class R>
using GemmMicroKernel = void (*)(std::uint64_t kc, const R* a, const R* b, R* c, std::uint64_t ldc, bool accumulate);

template <class R> struct GemmKernelInfo {
    std::string_view name; // "portable", "AVX2" or "AVX512"
    std::uint32_t mr = 0;
    std::uint32_t nr = 0;
    std::uint64_t mc = 0; // multiple of mr
    std::uint64_t kc = 0; // even, so complex embeddings never split a pair
    std::uint64_t nc = 0; // multiple of nr
    GemmMicroKernel<R> kernel = nullptr;
};

// The kernels this processor can run, portable first.
template <class R> std::vector<GemmKernelInfo<R>> available_gemm_kernels();
// Chosen once from the process-wide SIMD selection; the portable kernel when none is usable.
template <class R> const GemmKernelInfo<R>& default_gemm_kernel();

// Writes the block of `lines` x `depth` elements starting at (l0, d0) of a source, where a line is
// a row of the left factor or a column of the right one and depth runs along the inner dimension,
// as micro-panels `width` lines wide: element (l0 + q*width + l, d0 + d) goes to
// dst[q*depth*width + d*width + l]; lines past the end of the block are zero.
template <class R> struct GemmPacker {
    void (*pack)(const void* source, R* dst, std::uint64_t l0, std::uint64_t lines, std::uint64_t d0,
                 std::uint64_t depth, std::uint64_t width) = nullptr;
    const void* source = nullptr;
};

// Split-complex micro-kernel: an MR x NR tile of complex C kept as two planes. Per complex depth
// step the packed A holds MR real parts then MR imaginary parts and the packed B NR real parts
// then NR imaginary parts; kc counts reals (two per step). Each part of C is accumulated in the
// order of the real embedding (Re: ar br, then -ai bi; Im: ar bi, then ai br), so its results
// match the embedding's bit for bit under the same blocking.
template <class R>
using SplitGemmMicroKernel = void (*)(std::uint64_t kc, const R* a, const R* b, R* c_re, R* c_im, std::uint64_t ldc,
                                      bool accumulate);

// The same blocking fields in complex terms: mr rows, nr complex columns, kc in reals.
template <class R> struct SplitGemmKernelInfo {
    std::string_view name;
    std::uint32_t mr = 0;
    std::uint32_t nr = 0;
    std::uint64_t mc = 0;
    std::uint64_t kc = 0;
    std::uint64_t nc = 0;
    SplitGemmMicroKernel<R> kernel = nullptr;
};

template <class R> std::vector<SplitGemmKernelInfo<R>> available_split_gemm_kernels();
template <class R> const SplitGemmKernelInfo<R>& default_split_gemm_kernel();

// c[i*ldc + j] = sum over p < k of A(i, p) * B(p, j) for i < m, j < n; c is overwritten.
template <class R>
void gemm(std::uint64_t m, std::uint64_t n, std::uint64_t k, const GemmPacker<R>& a, const GemmPacker<R>& b, R* c,
          std::uint64_t ldc, const CpuRuntimeContext* ctx);
template <class R>
void gemm(const GemmKernelInfo<R>& kernel, std::uint64_t m, std::uint64_t n, std::uint64_t k, const GemmPacker<R>& a,
          const GemmPacker<R>& b, R* c, std::uint64_t ldc, const CpuRuntimeContext* ctx);

// The complex product on split planes, C(i, j) = sum over p < k of A(i, p) * B(p, j) with
// C(i, j) = (c_re, c_im)[i*ldc + j], overwritten. `a` packs lines i over depth 2p + t
// (ComplexLeftSource), `b` lines j over the same depth with NR real parts then NR imaginary parts
// per step (SplitRightSource).
template <class R>
void split_complex_gemm(std::uint64_t m, std::uint64_t n, std::uint64_t k, const GemmPacker<R>& a,
                        const GemmPacker<R>& b, R* c_re, R* c_im, std::uint64_t ldc, const CpuRuntimeContext* ctx);
template <class R>
void split_complex_gemm(const SplitGemmKernelInfo<R>& kernel, std::uint64_t m, std::uint64_t n, std::uint64_t k,
                        const GemmPacker<R>& a, const GemmPacker<R>& b, R* c_re, R* c_im, std::uint64_t ldc,
                        const CpuRuntimeContext* ctx);

} // namespace quillmark::cpu
