#pragma once
// Borrowed dense host storages: entities over caller memory (arrays bound from Python), which
// must outlive them and which they never free. They check only that a non-empty storage has
// data: "<Class> - null data for non-empty storage". A borrowed matrix also needs a row- or
// column-major layout ("<Class> - unsupported matrix layout").
//
// Read-only caller memory is passed as a mutable pointer; the binding's access (read or write)
// is what keeps kernels from writing to it.
//
// Instantiated for the five real policies (PolicyF32, PolicyF64, PolicyBF16, PolicyF16,
// PolicyI32) and the three complex ones (PolicyC32, PolicyC64, PolicyC128) respectively.
#include <cstdint>

#include "storage/access.hpp"
#include "storage/host_storage_base.hpp"

namespace quillmark {

template <class P> class BorrowedDenseHostRealScalar final
    : public SingleBufferEntity<ScalarEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    explicit BorrowedDenseHostRealScalar(storage_type* data);
    DenseRealScalarAccess<storage_type> access() { return DenseRealScalarAccess<storage_type>(*this); }
};

template <class P> class BorrowedDenseHostRealVector final
    : public SingleBufferEntity<VectorEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    BorrowedDenseHostRealVector(storage_type* data, std::uint64_t n);
    DenseRealVectorAccess<storage_type> access() { return DenseRealVectorAccess<storage_type>(*this); }
};

template <class P> class BorrowedDenseHostRealMatrix final
    : public SingleBufferEntity<MatrixEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    BorrowedDenseHostRealMatrix(storage_type* data, std::uint64_t rows, std::uint64_t cols,
                                MatrixLayout layout);
    DenseRealMatrixAccess<storage_type> access() { return DenseRealMatrixAccess<storage_type>(*this); }
};

// One complex value as two adjacent components: data[0] real, data[1] imaginary.
template <class P> class BorrowedDenseHostComplexSplitScalar final
    : public SplitBufferEntity<ScalarEntity, component_t<typename P::storage_type>> {
public:
    using storage_type = typename P::storage_type;
    using component_type = component_t<storage_type>;
    explicit BorrowedDenseHostComplexSplitScalar(component_type* data);
    DenseComplexSplitScalarAccess<component_type> access() {
        return DenseComplexSplitScalarAccess<component_type>(*this);
    }
};

template <class P> class BorrowedDenseHostComplexInterleavedVector final
    : public SingleBufferEntity<VectorEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    BorrowedDenseHostComplexInterleavedVector(storage_type* data, std::uint64_t n);
    DenseComplexInterleavedVectorAccess<storage_type> access() {
        return DenseComplexInterleavedVectorAccess<storage_type>(*this);
    }
};

template <class P> class BorrowedDenseHostComplexInterleavedMatrix final
    : public SingleBufferEntity<MatrixEntity, typename P::storage_type> {
public:
    using storage_type = typename P::storage_type;
    BorrowedDenseHostComplexInterleavedMatrix(storage_type* data, std::uint64_t rows, std::uint64_t cols,
                                              MatrixLayout layout);
    DenseComplexInterleavedMatrixAccess<storage_type> access() {
        return DenseComplexInterleavedMatrixAccess<storage_type>(*this);
    }
};

#define QM_EXTERN_REAL(P)                                                                                    \
    extern template class BorrowedDenseHostRealScalar<P>;                                                    \
    extern template class BorrowedDenseHostRealVector<P>;                                                    \
    extern template class BorrowedDenseHostRealMatrix<P>;
#define QM_EXTERN_COMPLEX(P)                                                                                 \
    extern template class BorrowedDenseHostComplexSplitScalar<P>;                                            \
    extern template class BorrowedDenseHostComplexInterleavedVector<P>;                                      \
    extern template class BorrowedDenseHostComplexInterleavedMatrix<P>;
QUILLMARK_REAL_POLICIES(QM_EXTERN_REAL)
QUILLMARK_COMPLEX_POLICIES(QM_EXTERN_COMPLEX)
#undef QM_EXTERN_REAL
#undef QM_EXTERN_COMPLEX

} // namespace quillmark
