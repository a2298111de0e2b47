#pragma once
// Typed access to operand entities. Each access checks the entity's kind, layout, storage
// dtype and buffers once and then hands out a raw view; kernels work on the view only.
//
// Failures are std::invalid_argument: label + " - operand kind, layout or dtype mismatch" when the
// entity is not of the family asked for, label + " - storage buffer type, alignment or count
// mismatch" when its buffers do not hold what the family promises.
//
// Constness: accesses take a mutable entity and give mutable views. The *_view functions have
// const overloads that return views of const elements; prefer those for read-only operands.
//
// Instantiated for: real T = BFloat16, Float16, float, double, std::int32_t; split component
// T = Float16, float, double; interleaved T = Complex32, std::complex<float>,
// std::complex<double>; LU S = the real floating and interleaved complex types; eigen S = the
// interleaved complex types.
#include <cstdint>
#include <string_view>

#include "storage/buffer_access.hpp"
#include "storage/operand_entity.hpp"
#include "storage/views.hpp"

namespace quillmark {

// One array of T at a given buffer number.
template <class T> class SingleBufferAccess {
public:
    SingleBufferAccess(const ErasedBufferAccess& buffers, std::size_t index, BufferRole role,
                       std::uint64_t count, std::string_view label);
    T* data() const noexcept { return data_; }
    std::uint64_t size() const noexcept { return size_; }

private:
    T* data_ = nullptr;
    std::uint64_t size_ = 0;
};

// The two planes (buffers 0 and 1) of split complex data with component type T.
template <class T> class SplitBufferAccess {
public:
    SplitBufferAccess(const ErasedBufferAccess& buffers, std::uint64_t count, std::string_view label);
    T* real() const noexcept { return re_; }
    T* imag() const noexcept { return im_; }
    std::uint64_t size() const noexcept { return size_; }

private:
    T* re_ = nullptr;
    T* im_ = nullptr;
    std::uint64_t size_ = 0;
};

template <class T> class DenseRealScalarAccess {
public:
    explicit DenseRealScalarAccess(OperandEntity& entity, std::string_view label = "DenseRealScalarAccess");
    ScalarView<T> view() const noexcept { return {buffer_.data()}; }

private:
    SingleBufferAccess<T> buffer_;
};

template <class T> class DenseComplexSplitScalarAccess {
public:
    explicit DenseComplexSplitScalarAccess(OperandEntity& entity,
                                           std::string_view label = "DenseComplexSplitScalarAccess");
    SplitScalarView<T> view() const noexcept { return {buffers_.real()}; }

private:
    SplitBufferAccess<T> buffers_;
};

template <class T> class DenseRealVectorAccess {
public:
    explicit DenseRealVectorAccess(OperandEntity& entity, std::string_view label = "DenseRealVectorAccess");
    DenseVectorView<T> view() const noexcept { return {buffer_.data(), buffer_.size()}; }

private:
    SingleBufferAccess<T> buffer_;
};

template <class T> class DenseComplexSplitVectorAccess {
public:
    explicit DenseComplexSplitVectorAccess(OperandEntity& entity,
                                           std::string_view label = "DenseComplexSplitVectorAccess");
    SplitVectorView<T> view() const noexcept { return {buffers_.real(), buffers_.imag(), buffers_.size()}; }

private:
    SplitBufferAccess<T> buffers_;
};

template <class T> class DenseComplexInterleavedVectorAccess {
public:
    explicit DenseComplexInterleavedVectorAccess(
        OperandEntity& entity, std::string_view label = "DenseComplexInterleavedVectorAccess");
    DenseVectorView<T> view() const noexcept { return {buffer_.data(), buffer_.size()}; }

private:
    SingleBufferAccess<T> buffer_;
};

// Geometry of a matrix entity in either matrix layout.
class DenseMatrixAccessBase {
public:
    const MatrixGeometry& geometry() const noexcept { return geometry_; }
    std::uint64_t rows() const noexcept { return geometry_.rows; }
    std::uint64_t cols() const noexcept { return geometry_.cols; }
    MatrixLayout layout() const noexcept { return geometry_.layout; }

protected:
    DenseMatrixAccessBase(const OperandEntity& entity, ComplexLayout complex_layout, ScalarType storage,
                          std::string_view label);
    MatrixGeometry geometry_;
};

template <class T> class DenseRealMatrixAccess : public DenseMatrixAccessBase {
public:
    explicit DenseRealMatrixAccess(OperandEntity& entity, std::string_view label = "DenseRealMatrixAccess");
    DenseMatrixView<T> view() const noexcept { return {geometry_, buffer_.data()}; }

private:
    SingleBufferAccess<T> buffer_;
};

template <class T> class DenseComplexSplitMatrixAccess : public DenseMatrixAccessBase {
public:
    explicit DenseComplexSplitMatrixAccess(OperandEntity& entity,
                                           std::string_view label = "DenseComplexSplitMatrixAccess");
    SplitMatrixView<T> view() const noexcept { return {geometry_, buffers_.real(), buffers_.imag()}; }

private:
    SplitBufferAccess<T> buffers_;
};

template <class T> class DenseComplexInterleavedMatrixAccess : public DenseMatrixAccessBase {
public:
    explicit DenseComplexInterleavedMatrixAccess(
        OperandEntity& entity, std::string_view label = "DenseComplexInterleavedMatrixAccess");
    DenseMatrixView<T> view() const noexcept { return {geometry_, buffer_.data()}; }

private:
    SingleBufferAccess<T> buffer_;
};

// Views straight from an entity. S is the storage element type (real, or interleaved complex);
// T is the component type of split complex data.
template <class S>
DenseVectorView<S> dense_vector_view(OperandEntity& entity, std::string_view label = "dense_vector_view");
template <class S> DenseVectorView<const S> dense_vector_view(const OperandEntity& entity,
                                                              std::string_view label = "dense_vector_view");
template <class T>
SplitVectorView<T> split_vector_view(OperandEntity& entity, std::string_view label = "split_vector_view");
template <class T> SplitVectorView<const T> split_vector_view(const OperandEntity& entity,
                                                              std::string_view label = "split_vector_view");
// Either matrix layout; the geometry says which.
template <class S>
DenseMatrixView<S> dense_matrix_view(OperandEntity& entity, std::string_view label = "dense_matrix_view");
template <class S> DenseMatrixView<const S> dense_matrix_view(const OperandEntity& entity,
                                                              std::string_view label = "dense_matrix_view");
template <class T>
SplitMatrixView<T> split_matrix_view(OperandEntity& entity, std::string_view label = "split_matrix_view");
template <class T> SplitMatrixView<const T> split_matrix_view(const OperandEntity& entity,
                                                              std::string_view label = "split_matrix_view");
template <class S> ScalarView<S> scalar_view(OperandEntity& entity, std::string_view label = "scalar_view");
template <class S>
ScalarView<const S> scalar_view(const OperandEntity& entity, std::string_view label = "scalar_view");
template <class T>
SplitScalarView<T> split_scalar_view(OperandEntity& entity, std::string_view label = "split_scalar_view");
template <class T> SplitScalarView<const T> split_scalar_view(const OperandEntity& entity,
                                                              std::string_view label = "split_scalar_view");
// Column-major factors, pivots and swap count.
template <class S> LuView<S> lu_view(OperandEntity& entity, std::string_view label = "lu_view");
template <class S> LuView<const S> lu_view(const OperandEntity& entity, std::string_view label = "lu_view");
// vectors is null when the storage holds no eigenvectors.
template <class S> EigenView<S> eigen_view(OperandEntity& entity, std::string_view label = "eigen_view");
template <class S>
EigenView<const S> eigen_view(const OperandEntity& entity, std::string_view label = "eigen_view");

} // namespace quillmark
