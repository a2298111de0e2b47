#include "storage/access.hpp"

#include <complex>
#include <stdexcept>
#include <string>

#include "storage/storage_traits.hpp"

namespace quillmark {
namespace {

[[noreturn]] void fail_shape(std::string_view label) {
    throw std::invalid_argument(std::string(label) + " - operand kind, layout or dtype mismatch");
}

[[noreturn]] void fail_buffer(std::string_view label) {
    throw std::invalid_argument(std::string(label) + " - storage buffer type, alignment or count mismatch");
}

template <class S> constexpr ComplexLayout single_buffer_layout() {
    return is_complex_storage_v<S> ? ComplexLayout::interleaved : ComplexLayout::none;
}

const ErasedBufferAccess& require(const OperandEntity& entity, OperandKind kind, ComplexLayout complex_layout,
                                  ScalarType storage, std::string_view label) {
    if (entity.kind() != kind || entity.storage_format() != StorageFormat::dense ||
        entity.complex_layout() != complex_layout || entity.dtype().storage() != storage)
        fail_shape(label);
    return entity.erased_access();
}

std::uint64_t matrix_count(const OperandEntity& entity, std::string_view label) {
    const auto e = entity.extent();
    if (e[0] != 0 && e[1] > UINT64_MAX / e[0]) fail_shape(label);
    return e[0] * e[1];
}

// Checks one buffer and returns its data as T*. A null pointer is valid for an empty buffer only.
template <class T> T* checked_buffer(const ErasedBufferAccess& buffers, std::size_t index, BufferRole role,
                                     std::uint64_t count, std::string_view label) {
    if (index >= buffers.buffer_count()) fail_buffer(label);
    const BufferDescriptor d = buffers.buffer(index);
    const auto address = reinterpret_cast<std::uintptr_t>(d.data);
    if (!d.holds<T>() || d.role != role || d.element_count != count || (d.data == nullptr && count != 0) ||
        address % alignof(T) != 0)
        fail_buffer(label);
    return static_cast<T*>(d.data);
}

} // namespace

template <class T>
SingleBufferAccess<T>::SingleBufferAccess(const ErasedBufferAccess& buffers, std::size_t index,
                                          BufferRole role, std::uint64_t count, std::string_view label)
    : data_(checked_buffer<T>(buffers, index, role, count, label)), size_(count) {}

template <class T> SplitBufferAccess<T>::SplitBufferAccess(const ErasedBufferAccess& buffers,
                                                           std::uint64_t count, std::string_view label)
    : re_(checked_buffer<T>(buffers, 0, BufferRole::real, count, label)),
      im_(checked_buffer<T>(buffers, 1, BufferRole::imaginary, count, label)), size_(count) {}

template <class T>
DenseRealScalarAccess<T>::DenseRealScalarAccess(OperandEntity& entity, std::string_view label)
    : buffer_(require(entity, OperandKind::scalar, single_buffer_layout<T>(), ScalarTraits<T>::type, label),
              0, BufferRole::data, 1, label) {}

template <class T>
DenseComplexSplitScalarAccess<T>::DenseComplexSplitScalarAccess(OperandEntity& entity, std::string_view label)
    : buffers_(require(entity, OperandKind::scalar, ComplexLayout::none,
                       ScalarTraits<split_complex_t<T>>::type, label),
               1, label) {
    // The view reaches the imaginary part as the element after the real one.
    if (buffers_.imag() != buffers_.real() + 1) fail_buffer(label);
}

template <class T>
DenseRealVectorAccess<T>::DenseRealVectorAccess(OperandEntity& entity, std::string_view label)
    : buffer_(require(entity, OperandKind::vector, ComplexLayout::none, ScalarTraits<T>::type, label), 0,
              BufferRole::data, entity.extent()[0], label) {}

template <class T>
DenseComplexSplitVectorAccess<T>::DenseComplexSplitVectorAccess(OperandEntity& entity, std::string_view label)
    : buffers_(require(entity, OperandKind::vector, ComplexLayout::split,
                       ScalarTraits<split_complex_t<T>>::type, label),
               entity.extent()[0], label) {}

template <class T>
DenseComplexInterleavedVectorAccess<T>::DenseComplexInterleavedVectorAccess(OperandEntity& entity,
                                                                            std::string_view label)
    : buffer_(require(entity, OperandKind::vector, ComplexLayout::interleaved, ScalarTraits<T>::type, label),
              0, BufferRole::data, entity.extent()[0], label) {}

DenseMatrixAccessBase::DenseMatrixAccessBase(const OperandEntity& entity, ComplexLayout complex_layout,
                                             ScalarType storage, std::string_view label) {
    require(entity, OperandKind::matrix, complex_layout, storage, label);
    const MatrixLayout layout = entity.matrix_layout();
    if (layout != MatrixLayout::row_major && layout != MatrixLayout::column_major) fail_shape(label);
    geometry_.rows = entity.extent()[0];
    geometry_.cols = entity.extent()[1];
    geometry_.layout = layout;
}

template <class T>
DenseRealMatrixAccess<T>::DenseRealMatrixAccess(OperandEntity& entity, std::string_view label)
    : DenseMatrixAccessBase(entity, ComplexLayout::none, ScalarTraits<T>::type, label),
      buffer_(entity.erased_access(), 0, BufferRole::data, matrix_count(entity, label), label) {}

template <class T>
DenseComplexSplitMatrixAccess<T>::DenseComplexSplitMatrixAccess(OperandEntity& entity, std::string_view label)
    : DenseMatrixAccessBase(entity, ComplexLayout::split, ScalarTraits<split_complex_t<T>>::type, label),
      buffers_(entity.erased_access(), matrix_count(entity, label), label) {}

template <class T>
DenseComplexInterleavedMatrixAccess<T>::DenseComplexInterleavedMatrixAccess(OperandEntity& entity,
                                                                            std::string_view label)
    : DenseMatrixAccessBase(entity, ComplexLayout::interleaved, ScalarTraits<T>::type, label),
      buffer_(entity.erased_access(), 0, BufferRole::data, matrix_count(entity, label), label) {}

// ---- views from entities

template <class S> DenseVectorView<S> dense_vector_view(OperandEntity& entity, std::string_view label) {
    if constexpr (is_complex_storage_v<S>)
        return DenseComplexInterleavedVectorAccess<S>(entity, label).view();
    else return DenseRealVectorAccess<S>(entity, label).view();
}
template <class S>
DenseVectorView<const S> dense_vector_view(const OperandEntity& entity, std::string_view label) {
    const auto v = dense_vector_view<S>(const_cast<OperandEntity&>(entity), label);
    return {v.data, v.size};
}

template <class T> SplitVectorView<T> split_vector_view(OperandEntity& entity, std::string_view label) {
    return DenseComplexSplitVectorAccess<T>(entity, label).view();
}
template <class T>
SplitVectorView<const T> split_vector_view(const OperandEntity& entity, std::string_view label) {
    const auto v = split_vector_view<T>(const_cast<OperandEntity&>(entity), label);
    return {v.re, v.im, v.size};
}

template <class S> DenseMatrixView<S> dense_matrix_view(OperandEntity& entity, std::string_view label) {
    if constexpr (is_complex_storage_v<S>)
        return DenseComplexInterleavedMatrixAccess<S>(entity, label).view();
    else return DenseRealMatrixAccess<S>(entity, label).view();
}
template <class S>
DenseMatrixView<const S> dense_matrix_view(const OperandEntity& entity, std::string_view label) {
    const auto v = dense_matrix_view<S>(const_cast<OperandEntity&>(entity), label);
    return {v, v.data};
}

template <class T> SplitMatrixView<T> split_matrix_view(OperandEntity& entity, std::string_view label) {
    return DenseComplexSplitMatrixAccess<T>(entity, label).view();
}
template <class T>
SplitMatrixView<const T> split_matrix_view(const OperandEntity& entity, std::string_view label) {
    const auto v = split_matrix_view<T>(const_cast<OperandEntity&>(entity), label);
    return {v, v.re, v.im};
}

template <class S> ScalarView<S> scalar_view(OperandEntity& entity, std::string_view label) {
    return DenseRealScalarAccess<S>(entity, label).view();
}
template <class S> ScalarView<const S> scalar_view(const OperandEntity& entity, std::string_view label) {
    return {scalar_view<S>(const_cast<OperandEntity&>(entity), label).data};
}

template <class T> SplitScalarView<T> split_scalar_view(OperandEntity& entity, std::string_view label) {
    return DenseComplexSplitScalarAccess<T>(entity, label).view();
}
template <class T>
SplitScalarView<const T> split_scalar_view(const OperandEntity& entity, std::string_view label) {
    return {split_scalar_view<T>(const_cast<OperandEntity&>(entity), label).data};
}

template <class S> LuView<S> lu_view(OperandEntity& entity, std::string_view label) {
    const ErasedBufferAccess& buffers =
        require(entity, OperandKind::lu, single_buffer_layout<S>(), ScalarTraits<S>::type, label);
    if (entity.matrix_layout() != MatrixLayout::column_major) fail_shape(label);
    const std::uint64_t n = entity.extent()[0];
    if (n != 0 && n > UINT64_MAX / n) fail_shape(label);
    LuView<S> v;
    v.factors = checked_buffer<S>(buffers, 0, BufferRole::lu_factors, n * n, label);
    v.pivots = checked_buffer<std::int64_t>(buffers, 1, BufferRole::lu_pivots, n, label);
    v.swaps = checked_buffer<std::int64_t>(buffers, 2, BufferRole::lu_swap_count, 1, label);
    v.order = n;
    return v;
}
template <class S> LuView<const S> lu_view(const OperandEntity& entity, std::string_view label) {
    const auto v = lu_view<S>(const_cast<OperandEntity&>(entity), label);
    return {v.factors, v.pivots, v.swaps, v.order};
}

template <class S> EigenView<S> eigen_view(OperandEntity& entity, std::string_view label) {
    static_assert(is_complex_storage_v<S>, "eigen storage holds interleaved complex values");
    const ErasedBufferAccess& buffers =
        require(entity, OperandKind::eigen, ComplexLayout::interleaved, ScalarTraits<S>::type, label);
    const MatrixLayout layout = entity.matrix_layout();
    if (layout != MatrixLayout::row_major && layout != MatrixLayout::column_major) fail_shape(label);
    const std::uint64_t n = entity.extent()[0];
    if (n != 0 && n > UINT64_MAX / n) fail_shape(label);
    EigenView<S> v;
    v.values = checked_buffer<S>(buffers, 0, BufferRole::eigenvalues, n, label);
    // Eigenvectors are optional: an empty vectors buffer means values only.
    if (buffers.buffer_count() < 2) fail_buffer(label);
    const bool with_vectors = buffers.buffer(1).element_count != 0;
    v.vectors = checked_buffer<S>(buffers, 1, BufferRole::eigenvectors, with_vectors ? n * n : 0, label);
    if (!with_vectors) v.vectors = nullptr;
    v.order = n;
    v.layout = layout;
    return v;
}
template <class S> EigenView<const S> eigen_view(const OperandEntity& entity, std::string_view label) {
    const auto v = eigen_view<S>(const_cast<OperandEntity&>(entity), label);
    return {v.values, v.vectors, v.order, v.layout};
}

// ---- instantiations

#define QM_REAL_TYPES(X) X(BFloat16) X(Float16) X(float) X(double) X(std::int32_t)
#define QM_COMPONENT_TYPES(X) X(Float16) X(float) X(double)
#define QM_INTERLEAVED_TYPES(X) X(Complex32) X(std::complex<float>) X(std::complex<double>)
#define QM_LU_TYPES(X) X(BFloat16) X(Float16) X(float) X(double) QM_INTERLEAVED_TYPES(X)

#define QM_SINGLE(T)                                                                                         \
    template class SingleBufferAccess<T>;                                                                    \
    template DenseVectorView<T> dense_vector_view<T>(OperandEntity&, std::string_view);                      \
    template DenseVectorView<const T> dense_vector_view<T>(const OperandEntity&, std::string_view);          \
    template DenseMatrixView<T> dense_matrix_view<T>(OperandEntity&, std::string_view);                      \
    template DenseMatrixView<const T> dense_matrix_view<T>(const OperandEntity&, std::string_view);
#define QM_REAL(T)                                                                                           \
    QM_SINGLE(T)                                                                                             \
    template class DenseRealScalarAccess<T>;                                                                 \
    template class DenseRealVectorAccess<T>;                                                                 \
    template class DenseRealMatrixAccess<T>;                                                                 \
    template ScalarView<T> scalar_view<T>(OperandEntity&, std::string_view);                                 \
    template ScalarView<const T> scalar_view<T>(const OperandEntity&, std::string_view);
#define QM_INTERLEAVED(T)                                                                                    \
    QM_SINGLE(T)                                                                                             \
    template class DenseComplexInterleavedVectorAccess<T>;                                                   \
    template class DenseComplexInterleavedMatrixAccess<T>;                                                   \
    template EigenView<T> eigen_view<T>(OperandEntity&, std::string_view);                                   \
    template EigenView<const T> eigen_view<T>(const OperandEntity&, std::string_view);
#define QM_SPLIT(T)                                                                                          \
    template class SplitBufferAccess<T>;                                                                     \
    template class DenseComplexSplitScalarAccess<T>;                                                         \
    template class DenseComplexSplitVectorAccess<T>;                                                         \
    template class DenseComplexSplitMatrixAccess<T>;                                                         \
    template SplitVectorView<T> split_vector_view<T>(OperandEntity&, std::string_view);                      \
    template SplitVectorView<const T> split_vector_view<T>(const OperandEntity&, std::string_view);          \
    template SplitMatrixView<T> split_matrix_view<T>(OperandEntity&, std::string_view);                      \
    template SplitMatrixView<const T> split_matrix_view<T>(const OperandEntity&, std::string_view);          \
    template SplitScalarView<T> split_scalar_view<T>(OperandEntity&, std::string_view);                      \
    template SplitScalarView<const T> split_scalar_view<T>(const OperandEntity&, std::string_view);
#define QM_LU(T)                                                                                             \
    template LuView<T> lu_view<T>(OperandEntity&, std::string_view);                                         \
    template LuView<const T> lu_view<T>(const OperandEntity&, std::string_view);

QM_REAL_TYPES(QM_REAL)
QM_INTERLEAVED_TYPES(QM_INTERLEAVED)
QM_COMPONENT_TYPES(QM_SPLIT)
QM_LU_TYPES(QM_LU)
template class SingleBufferAccess<std::int64_t>;

} // namespace quillmark
