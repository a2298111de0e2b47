#pragma once
// The complex single-precision engines of the cpu_simd backend: raw-span kernels on interleaved
// std::complex<float>, one table per instruction set. The tables' functions live in translation
// units built with their instruction sets; this header only declares them.
#include <complex>
#include <cstdint>
#include <string_view>

#include "backend/cpu/gemm.hpp"

namespace quillmark::cpu {

using c64 = std::complex<float>;

struct ComplexEngine {
    std::string_view name; // "AVX2" or "AVX512", the selection word
    // y[i] = sum over j < n of a[i*lda + j] * x[j] for i < rows.
    void (*gemv_rows)(std::uint64_t rows, std::uint64_t n, const c64* a, std::uint64_t lda, const c64* x,
                      c64* y) noexcept = nullptr;
    // y[0..n) += alpha * x[0..n)
    void (*axpy)(std::uint64_t n, c64 alpha, const c64* x, c64* y) noexcept = nullptr;
    // y[0..n) += x[0..n)
    void (*accumulate)(std::uint64_t n, const c64* x, c64* y) noexcept = nullptr;
    // x[0..n) *= alpha
    void (*scale)(std::uint64_t n, c64 alpha, c64* x) noexcept = nullptr;
    // sum of |x_i|^2, accumulated in double
    double (*squared_norm)(std::uint64_t n, const c64* x) noexcept = nullptr;
    // dst[j*ldd + i] = src[i*lds + j] (conjugated on request) for i < rows, j < cols.
    void (*transpose)(std::uint64_t rows, std::uint64_t cols, const c64* src, std::uint64_t lds, c64* dst,
                      std::uint64_t ldd, bool conjugate) noexcept = nullptr;
    // Micro-kernel and blocking of the real GEMM that complex products run on.
    GemmKernelInfo<float> gemm;
};

ComplexEngine complex_engine_avx2() noexcept;
ComplexEngine complex_engine_avx512() noexcept;

// The engine of the process-wide SIMD selection. Propagates the selection's failure: the SIMD
// backend has no portable fallback.
const ComplexEngine& selected_complex_engine();
// The engine of one selection word ("AVX2" or "AVX512"); for tests comparing engines. Throws
// std::invalid_argument for another word and the selection's runtime error when the processor
// cannot run it.
const ComplexEngine& complex_engine(std::string_view name);

} // namespace quillmark::cpu
