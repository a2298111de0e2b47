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

    // Complex data as separate real and imaginary planes. Every product is rounded on its own
    // and sums keep a fixed grouping, so every variant gives the bits of the scalar formulas.
    // (yr + i yi)[r] = sum over j < n of (ar + i ai)[r*lda + j] (xr + i xi)[j], each sum formed in
    // eight lanes (lane l takes the terms j = l mod 8 in order) combined as
    // ((0+1)+(2+3))+((4+5)+(6+7)).
    void (*split_dot_rows)(std::uint64_t rows, std::uint64_t n, const R* ar, const R* ai, std::uint64_t lda,
                           const R* xr, const R* xi, R* yr, R* yi) noexcept = nullptr;
    // split_dot_rows on interleaved (re, im) rows read where they lie, with the same bits: row r
    // starts at a + 2*r*lda and y[r] is stored as an interleaved pair. x (n interleaved pairs) is
    // first arranged by pack_dot_x into the 2n reals the rows kernel reads. Null where the set has
    // no such kernel.
    void (*pack_dot_x)(std::uint64_t n, const R* x, R* packed) noexcept = nullptr;
    void (*interleaved_dot_rows)(std::uint64_t rows, std::uint64_t n, const R* a, std::uint64_t lda,
                                 const R* packed_x, R* y) noexcept = nullptr;
    // out = x + y and out = x - y over one plane.
    void (*add_planes)(std::uint64_t n, const R* x, const R* y, R* out) noexcept = nullptr;
    void (*subtract_planes)(std::uint64_t n, const R* x, const R* y, R* out) noexcept = nullptr;
    // out = x * y elementwise: (xr yr - xi yi) + i (xr yi + xi yr).
    void (*multiply_split)(std::uint64_t n, const R* xr, const R* xi, const R* yr, const R* yi, R* outr,
                           R* outi) noexcept = nullptr;
    // Exact copies between interleaved (re, im) pairs and split planes; null in the portable set,
    // whose copies the layout adaptation does itself.
    void (*to_split)(std::uint64_t n, const R* interleaved, R* re, R* im) noexcept = nullptr;
    void (*to_interleaved)(std::uint64_t n, const R* re, const R* im, R* interleaved) noexcept = nullptr;
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
