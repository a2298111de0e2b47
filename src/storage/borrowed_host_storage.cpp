#include "storage/borrowed_host_storage.hpp"

#include <stdexcept>
#include <string>

namespace quillmark {
namespace {

void require_data(const void* data, std::uint64_t count, const char* name) {
    if (data == nullptr && count != 0)
        throw std::invalid_argument(std::string(name) + " - null data for non-empty storage");
}

void require_matrix_layout(MatrixLayout layout, const char* name) {
    if (layout != MatrixLayout::row_major && layout != MatrixLayout::column_major)
        throw std::invalid_argument(std::string(name) + " - unsupported matrix layout");
}

} // namespace

template <class P> BorrowedDenseHostRealScalar<P>::BorrowedDenseHostRealScalar(storage_type* data)
    : SingleBufferEntity<ScalarEntity, storage_type>(policy_dtype<P>(), ComplexLayout::none,
                                                     MatrixLayout::none, {}) {
    require_data(data, 1, "BorrowedDenseHostRealScalar");
    this->attach(data, 1);
}

template <class P>
BorrowedDenseHostRealVector<P>::BorrowedDenseHostRealVector(storage_type* data, std::uint64_t n)
    : SingleBufferEntity<VectorEntity, storage_type>(policy_dtype<P>(), ComplexLayout::none,
                                                     MatrixLayout::none, {n, 0}) {
    require_data(data, n, "BorrowedDenseHostRealVector");
    this->attach(data, n);
}

template <class P>
BorrowedDenseHostRealMatrix<P>::BorrowedDenseHostRealMatrix(storage_type* data, std::uint64_t rows,
                                                            std::uint64_t cols, MatrixLayout layout)
    : SingleBufferEntity<MatrixEntity, storage_type>(policy_dtype<P>(), ComplexLayout::none, layout,
                                                     {rows, cols}) {
    const std::uint64_t count = checked_element_product(rows, cols);
    require_data(data, count, "BorrowedDenseHostRealMatrix");
    require_matrix_layout(layout, "BorrowedDenseHostRealMatrix");
    this->attach(data, count);
}

template <class P>
BorrowedDenseHostComplexSplitScalar<P>::BorrowedDenseHostComplexSplitScalar(component_type* data)
    : SplitBufferEntity<ScalarEntity, component_type>(policy_dtype<P>(), ComplexLayout::none,
                                                      MatrixLayout::none, {}) {
    require_data(data, 1, "BorrowedDenseHostComplexSplitScalar");
    this->attach(data, data + 1, 1);
}

template <class P>
BorrowedDenseHostComplexInterleavedVector<P>::BorrowedDenseHostComplexInterleavedVector(storage_type* data,
                                                                                        std::uint64_t n)
    : SingleBufferEntity<VectorEntity, storage_type>(policy_dtype<P>(), ComplexLayout::interleaved,
                                                     MatrixLayout::none, {n, 0}) {
    require_data(data, n, "BorrowedDenseHostComplexInterleavedVector");
    this->attach(data, n);
}

template <class P> BorrowedDenseHostComplexInterleavedMatrix<P>::BorrowedDenseHostComplexInterleavedMatrix(
    storage_type* data, std::uint64_t rows, std::uint64_t cols, MatrixLayout layout)
    : SingleBufferEntity<MatrixEntity, storage_type>(policy_dtype<P>(), ComplexLayout::interleaved, layout,
                                                     {rows, cols}) {
    const std::uint64_t count = checked_element_product(rows, cols);
    require_data(data, count, "BorrowedDenseHostComplexInterleavedMatrix");
    require_matrix_layout(layout, "BorrowedDenseHostComplexInterleavedMatrix");
    this->attach(data, count);
}

#define QM_REAL(P)                                                                                           \
    template class BorrowedDenseHostRealScalar<P>;                                                           \
    template class BorrowedDenseHostRealVector<P>;                                                           \
    template class BorrowedDenseHostRealMatrix<P>;
#define QM_COMPLEX(P)                                                                                        \
    template class BorrowedDenseHostComplexSplitScalar<P>;                                                   \
    template class BorrowedDenseHostComplexInterleavedVector<P>;                                             \
    template class BorrowedDenseHostComplexInterleavedMatrix<P>;
QUILLMARK_REAL_POLICIES(QM_REAL)
QUILLMARK_COMPLEX_POLICIES(QM_COMPLEX)

} // namespace quillmark
