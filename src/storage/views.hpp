#pragma once
// Typed views handed to kernels once per call: raw pointers, dimensions and layout. Element
// access is inline and non-virtual; load/store convert between storage and compute types.
#include <complex>
#include <cstdint>
#include <type_traits>

#include "core/low_precision.hpp"
#include "core/operand_types.hpp"

namespace quillmark {

// One buffer of S: real data, or interleaved complex data (std::complex<float>, Complex32, ...).
template <class S> struct DenseVectorView {
    S* data = nullptr;
    std::uint64_t size = 0;
};

// Split complex data: two planes of component type T.
template <class T> struct SplitVectorView {
    T* re = nullptr;
    T* im = nullptr;
    std::uint64_t size = 0;
};

struct MatrixGeometry {
    std::uint64_t rows = 0;
    std::uint64_t cols = 0;
    MatrixLayout layout = MatrixLayout::row_major;
    std::uint64_t index(std::uint64_t i, std::uint64_t j) const noexcept {
        return layout == MatrixLayout::column_major ? j * rows + i : i * cols + j;
    }
    std::uint64_t count() const noexcept { return rows * cols; }
};

template <class S> struct DenseMatrixView : MatrixGeometry {
    S* data = nullptr;
};

template <class T> struct SplitMatrixView : MatrixGeometry {
    T* re = nullptr;
    T* im = nullptr;
};

// A scalar; a split complex scalar keeps its imaginary part in the element after the real one.
template <class S> struct ScalarView {
    S* data = nullptr;
};
template <class T> struct SplitScalarView {
    T* data = nullptr; // data[0] real, data[1] imaginary
};

// Packed LU factors, column-major n x n (S real, or interleaved complex), 1-based pivots, swaps.
// A view of const S also holds its pivots and swap count as const.
template <class S> struct LuView {
    using index_type = std::conditional_t<std::is_const_v<S>, const std::int64_t, std::int64_t>;
    S* factors = nullptr;
    index_type* pivots = nullptr;
    index_type* swaps = nullptr;
    std::uint64_t order = 0;
};

// Eigenvalues and n x n right eigenvectors (interleaved complex S) in the given layout.
template <class S> struct EigenView {
    S* values = nullptr;
    S* vectors = nullptr;
    std::uint64_t order = 0;
    MatrixLayout layout = MatrixLayout::column_major;
};

// Element conversion between storage S (or split component T) and compute C.
template <class C, class S> inline C load_element(const S* p, std::uint64_t i) noexcept {
    if constexpr (std::is_same_v<S, C>) return p[i];
    else if constexpr (std::is_same_v<S, Complex32>) return static_cast<C>(p[i]);
    else return static_cast<C>(static_cast<float>(p[i]));
}
template <class S, class C> inline void store_element(S* p, std::uint64_t i, const C& v) noexcept {
    if constexpr (std::is_same_v<S, C>) p[i] = v;
    else if constexpr (std::is_same_v<S, Complex32>) p[i] = Complex32(v);
    else p[i] = S(static_cast<float>(v));
}
template <class C, class T> inline C load_split(const T* re, const T* im, std::uint64_t i) noexcept {
    using R = typename C::value_type;
    return C(load_element<R>(re, i), load_element<R>(im, i));
}
template <class T, class C> inline void store_split(T* re, T* im, std::uint64_t i, const C& v) noexcept {
    store_element<T>(re, i, v.real());
    store_element<T>(im, i, v.imag());
}

} // namespace quillmark
