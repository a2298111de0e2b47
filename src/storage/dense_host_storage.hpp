#pragma once
// Owned dense host storages. Each allocates and frees its own element arrays; constructors
// taking arrays check their lengths and fail with "<Class> - data size mismatch" (the split
// vector with "DenseHostComplexSplitVector - real and imag sizes don't match"). A size whose
// element count or byte count leaves the address range fails with std::bad_array_new_length.
//
// Instantiated (in dense_host_storage.cpp) for:
//   real vector / real row-major matrix / bound real scalar: PolicyF32, PolicyF64, PolicyBF16,
//     PolicyF16, PolicyI32;
//   split and interleaved complex vectors and matrices, bound complex scalar, eigen storage:
//     PolicyC32, PolicyC64, PolicyC128;
//   LU storage: the seven floating policies (factors real, or interleaved complex).
#include <cstdint>

#include "storage/access.hpp"
#include "storage/host_array.hpp"
#include "storage/host_storage_base.hpp"

namespace quillmark {

template <class P> class DenseHostRealVector final
    : public SingleBufferEntity<VectorEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    explicit DenseHostRealVector(std::uint64_t n);
    explicit DenseHostRealVector(HostArray<storage_type> values);
    DenseRealVectorAccess<storage_type> access() { return DenseRealVectorAccess<storage_type>(*this); }

private:
    HostArray<storage_type> values_;
};

template <class P> class DenseHostComplexSplitVector final
    : public SplitBufferEntity<VectorEntity, component_t<typename P::storage_type>> {
public:
    using storage_type = typename P::storage_type;
    using component_type = component_t<storage_type>;
    explicit DenseHostComplexSplitVector(std::uint64_t n);
    DenseHostComplexSplitVector(HostArray<component_type> real, HostArray<component_type> imag);
    DenseComplexSplitVectorAccess<component_type> access() {
        return DenseComplexSplitVectorAccess<component_type>(*this);
    }

private:
    HostArray<component_type> real_;
    HostArray<component_type> imag_;
};

// Interleaved complex vector: the form results take when the policy asks for interleaved data.
template <class P> class DenseHostComplexIntlvVector final
    : public SingleBufferEntity<VectorEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    explicit DenseHostComplexIntlvVector(std::uint64_t n);
    explicit DenseHostComplexIntlvVector(HostArray<storage_type> values);
    DenseComplexInterleavedVectorAccess<storage_type> access() {
        return DenseComplexInterleavedVectorAccess<storage_type>(*this);
    }

private:
    HostArray<storage_type> values_;
};

template <class P> class DenseHostRealMatrixRowMajor final
    : public SingleBufferEntity<MatrixEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    DenseHostRealMatrixRowMajor(std::uint64_t rows, std::uint64_t cols);
    DenseHostRealMatrixRowMajor(std::uint64_t rows, std::uint64_t cols, HostArray<storage_type> values);
    DenseRealMatrixAccess<storage_type> access() { return DenseRealMatrixAccess<storage_type>(*this); }

private:
    HostArray<storage_type> values_;
};

template <class P> class DenseHostComplexSplitMatrixRowMajor final
    : public SplitBufferEntity<MatrixEntity, component_t<typename P::storage_type>> {
public:
    using storage_type = typename P::storage_type;
    using component_type = component_t<storage_type>;
    DenseHostComplexSplitMatrixRowMajor(std::uint64_t rows, std::uint64_t cols);
    DenseHostComplexSplitMatrixRowMajor(std::uint64_t rows, std::uint64_t cols,
                                        HostArray<component_type> real, HostArray<component_type> imag);
    DenseComplexSplitMatrixAccess<component_type> access() {
        return DenseComplexSplitMatrixAccess<component_type>(*this);
    }

private:
    HostArray<component_type> real_;
    HostArray<component_type> imag_;
};

// Interleaved complex matrix in either order; the two orders are distinct storage classes.
template <class P, MatrixLayout L> class DenseHostComplexIntlvMatrix final
    : public SingleBufferEntity<MatrixEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    DenseHostComplexIntlvMatrix(std::uint64_t rows, std::uint64_t cols);
    DenseHostComplexIntlvMatrix(std::uint64_t rows, std::uint64_t cols, HostArray<storage_type> values);
    DenseComplexInterleavedMatrixAccess<storage_type> access() {
        return DenseComplexInterleavedMatrixAccess<storage_type>(*this);
    }

private:
    HostArray<storage_type> values_;
};
template <class P> using DenseHostComplexIntlvMatrixRowMajor = DenseHostComplexIntlvMatrix<P, MatrixLayout::row_major>;
template <class P>
using DenseHostComplexIntlvMatrixColMajor = DenseHostComplexIntlvMatrix<P, MatrixLayout::column_major>;

// Packed LU factors (column-major n x n in the storage dtype), n one-based int64 pivots and the
// row-exchange count. Buffers: 0 factors, 1 pivots, 2 swap count. The factors are not checked
// for forming a valid factorisation.
template <class P> class DenseHostLUDecompColMajor final : public HostEntityBase<LuDecompEntity> {
public:
    using storage_type = typename P::storage_type;
    explicit DenseHostLUDecompColMajor(std::uint64_t n);
    DenseHostLUDecompColMajor(std::uint64_t n, HostArray<storage_type> factors);

    std::uint64_t order() const noexcept { return extent()[0]; }
    storage_type* factors() noexcept { return factors_.data(); }
    const storage_type* factors() const noexcept { return factors_.data(); }
    std::int64_t* pivots() noexcept { return pivots_.data(); }
    const std::int64_t* pivots() const noexcept { return pivots_.data(); }
    std::int64_t swap_count() const noexcept { return swaps_; }
    LuView<storage_type> access() { return lu_view<storage_type>(*this); }

    std::size_t buffer_count() const noexcept override { return 3; }

protected:
    BufferDescriptor describe_buffer(std::size_t index) const noexcept override;

private:
    HostArray<storage_type> factors_;
    HostArray<std::int64_t> pivots_;
    std::int64_t swaps_ = 0;
};

// Owned scalar of a real policy (also the int32 scalar that stands in for a bool result).
template <class P> class BoundRealScalarEntity final
    : public SingleBufferEntity<ScalarEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    BoundRealScalarEntity();
    explicit BoundRealScalarEntity(storage_type value);
    storage_type value() const noexcept { return value_; }
    DenseRealScalarAccess<storage_type> access() { return DenseRealScalarAccess<storage_type>(*this); }

private:
    storage_type value_{};
};

// Owned split complex scalar: the imaginary part is the element after the real part.
template <class P> class BoundComplexScalarEntity final
    : public SplitBufferEntity<ScalarEntity, component_t<typename P::storage_type>> {
public:
    using storage_type = typename P::storage_type;
    using component_type = component_t<storage_type>;
    BoundComplexScalarEntity();
    explicit BoundComplexScalarEntity(storage_type value);
    storage_type value() const noexcept;
    DenseComplexSplitScalarAccess<component_type> access() {
        return DenseComplexSplitScalarAccess<component_type>(*this);
    }

private:
    component_type parts_[2]{};
};

// n interleaved complex eigenvalues and, when requested, the n x n eigenvectors in the given
// layout. Buffers: 0 values, 1 vectors (empty without eigenvectors). A layout other than row- or
// column-major fails with "host eigenvalues - unsupported policy or layout".
template <class P> class DenseHostEigenValues final : public HostEntityBase<EigenValsEntity> {
public:
    using storage_type = typename P::storage_type;
    explicit DenseHostEigenValues(std::uint64_t n, MatrixLayout vectors_layout = MatrixLayout::column_major,
                                  bool with_vectors = true);
    // vectors holds n * n elements, or none. "DenseHostEigenValues - data size mismatch".
    DenseHostEigenValues(HostArray<storage_type> values, HostArray<storage_type> vectors,
                         MatrixLayout vectors_layout);

    std::uint64_t order() const noexcept { return extent()[0]; }
    bool has_vectors() const noexcept { return with_vectors_; }
    storage_type* values() noexcept { return values_.data(); }
    const storage_type* values() const noexcept { return values_.data(); }
    storage_type* vectors() noexcept { return vectors_.data(); }
    const storage_type* vectors() const noexcept { return vectors_.data(); }
    EigenView<storage_type> access() { return eigen_view<storage_type>(*this); }

    std::size_t buffer_count() const noexcept override { return 2; }

protected:
    BufferDescriptor describe_buffer(std::size_t index) const noexcept override;

private:
    HostArray<storage_type> values_;
    HostArray<storage_type> vectors_;
    bool with_vectors_;
};

#define QM_EXTERN_REAL(P)                                                                                    \
    extern template class DenseHostRealVector<P>;                                                            \
    extern template class DenseHostRealMatrixRowMajor<P>;                                                    \
    extern template class BoundRealScalarEntity<P>;
#define QM_EXTERN_COMPLEX(P)                                                                                 \
    extern template class DenseHostComplexSplitVector<P>;                                                    \
    extern template class DenseHostComplexIntlvVector<P>;                                                    \
    extern template class DenseHostComplexSplitMatrixRowMajor<P>;                                            \
    extern template class DenseHostComplexIntlvMatrix<P, MatrixLayout::row_major>;                           \
    extern template class DenseHostComplexIntlvMatrix<P, MatrixLayout::column_major>;                        \
    extern template class BoundComplexScalarEntity<P>;                                                       \
    extern template class DenseHostEigenValues<P>;                                                           \
    extern template class DenseHostLUDecompColMajor<P>;
QUILLMARK_REAL_POLICIES(QM_EXTERN_REAL)
QUILLMARK_COMPLEX_POLICIES(QM_EXTERN_COMPLEX)
extern template class DenseHostLUDecompColMajor<PolicyF32>;
extern template class DenseHostLUDecompColMajor<PolicyF64>;
extern template class DenseHostLUDecompColMajor<PolicyBF16>;
extern template class DenseHostLUDecompColMajor<PolicyF16>;
#undef QM_EXTERN_REAL
#undef QM_EXTERN_COMPLEX

} // namespace quillmark
