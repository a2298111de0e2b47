#pragma once
// Streaming vector kernels on raw real arrays (float or double): the rows of a row-major
// matrix-vector product, the sum of squares with the largest magnitude, and the plane rotation
// of two arrays. Chosen once per process like the matrix-product micro-kernel; the AVX variants
// live in translation units built with their instruction sets, so this header declares only.
#include <cstdint>
#include <string_view>
#include <vector>

namespace quillmark::cpu {

template <class R> struct VectorKernelSet {
    std::string_view name; // "portable", "AVX2" or "AVX512"
    // y[i] = sum over j < n of a[i*lda + j] * x[j] for i < rows. Each row's sum is grouped the
    // same way whatever `rows` is, so splitting the rows among threads changes nothing.
    void (*gemv_rows)(std::uint64_t rows, std::uint64_t n, const R* a, std::uint64_t lda, const R* x,
                      R* y) noexcept = nullptr;
    // Sum of the squares formed in double and the largest magnitude of x[0..n). A NaN entry
    // makes the sum NaN; the maximum then is unspecified.
    void (*squares_and_max)(const R* x, std::uint64_t n, double* squares, double* max) noexcept = nullptr;
    // (x, y) <- (x*c - y*s, y*c + x*s) elementwise, with separately rounded products so every
    // variant gives the same bits.
    void (*rotate)(R* x, R* y, std::uint64_t n, R c, R s) noexcept = nullptr;
};

// The sets this processor can run, portable first.
template <class R> std::vector<VectorKernelSet<R>> available_vector_kernels();
// The set matching the process-wide SIMD selection; the portable one when none is usable.
template <class R> const VectorKernelSet<R>& default_vector_kernels();

VectorKernelSet<double> vector_kernels_f64_avx2() noexcept;
VectorKernelSet<float> vector_kernels_f32_avx2() noexcept;
VectorKernelSet<double> vector_kernels_f64_avx512() noexcept;
VectorKernelSet<float> vector_kernels_f32_avx512() noexcept;

} // namespace quillmark::cpu
