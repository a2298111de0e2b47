#include "storage/dense_host_storage.hpp"

#include <stdexcept>
#include <string>
#include <utility>

namespace quillmark {
namespace {

template <class T> HostArray<T> zeroed(std::uint64_t count) {
    check_array_bytes(count, sizeof(T));
    return HostArray<T>(count);
}

// size == rows * cols, without forming a product that could wrap.
bool holds_product(std::uint64_t size, std::uint64_t rows, std::uint64_t cols) noexcept {
    if (rows == 0 || cols == 0) return size == 0;
    return size % rows == 0 && size / rows == cols;
}

void require_size(bool ok, const char* message) {
    if (!ok) throw std::invalid_argument(message);
}

template <class S> constexpr ComplexLayout layout_of_elements() {
    return is_complex_storage_v<S> ? ComplexLayout::interleaved : ComplexLayout::none;
}

inline Float16 real_part(const Complex32& c) noexcept { return c.real; }
inline Float16 imag_part(const Complex32& c) noexcept { return c.imag; }
template <class R> R real_part(const std::complex<R>& c) noexcept { return c.real(); }
template <class R> R imag_part(const std::complex<R>& c) noexcept { return c.imag(); }

} // namespace

// ---- vectors

template <class P> DenseHostRealVector<P>::DenseHostRealVector(std::uint64_t n)
    : DenseHostRealVector(zeroed<storage_type>(n)) {}

template <class P> DenseHostRealVector<P>::DenseHostRealVector(HostArray<storage_type> values)
    : SingleBufferEntity<VectorEntity, storage_type>(policy_dtype<P>(), ComplexLayout::none,
                                                     MatrixLayout::none, {values.size(), 0}),
      values_(std::move(values)) {
    this->attach(values_.data(), values_.size());
}

template <class P> DenseHostComplexSplitVector<P>::DenseHostComplexSplitVector(std::uint64_t n)
    : DenseHostComplexSplitVector(zeroed<component_type>(n), zeroed<component_type>(n)) {}

template <class P> DenseHostComplexSplitVector<P>::DenseHostComplexSplitVector(HostArray<component_type> real,
                                                                               HostArray<component_type> imag)
    : SplitBufferEntity<VectorEntity, component_type>(policy_dtype<P>(), ComplexLayout::split,
                                                      MatrixLayout::none, {real.size(), 0}),
      real_(std::move(real)), imag_(std::move(imag)) {
    require_size(real_.size() == imag_.size(),
                 "DenseHostComplexSplitVector - real and imag sizes don't match");
    this->attach(real_.data(), imag_.data(), real_.size());
}

template <class P> DenseHostComplexIntlvVector<P>::DenseHostComplexIntlvVector(std::uint64_t n)
    : DenseHostComplexIntlvVector(zeroed<storage_type>(n)) {}

template <class P> DenseHostComplexIntlvVector<P>::DenseHostComplexIntlvVector(HostArray<storage_type> values)
    : SingleBufferEntity<VectorEntity, storage_type>(policy_dtype<P>(), ComplexLayout::interleaved,
                                                     MatrixLayout::none, {values.size(), 0}),
      values_(std::move(values)) {
    this->attach(values_.data(), values_.size());
}

// ---- matrices

template <class P>
DenseHostRealMatrixRowMajor<P>::DenseHostRealMatrixRowMajor(std::uint64_t rows, std::uint64_t cols)
    : DenseHostRealMatrixRowMajor(rows, cols, zeroed<storage_type>(checked_element_product(rows, cols))) {}

template <class P>
DenseHostRealMatrixRowMajor<P>::DenseHostRealMatrixRowMajor(std::uint64_t rows, std::uint64_t cols,
                                                            HostArray<storage_type> values)
    : SingleBufferEntity<MatrixEntity, storage_type>(policy_dtype<P>(), ComplexLayout::none,
                                                     MatrixLayout::row_major, {rows, cols}),
      values_(std::move(values)) {
    require_size(holds_product(values_.size(), rows, cols),
                 "DenseHostRealMatrixRowMajor - data size mismatch");
    this->attach(values_.data(), values_.size());
}

template <class P>
DenseHostComplexSplitMatrixRowMajor<P>::DenseHostComplexSplitMatrixRowMajor(std::uint64_t rows,
                                                                            std::uint64_t cols)
    : DenseHostComplexSplitMatrixRowMajor(rows, cols,
                                          zeroed<component_type>(checked_element_product(rows, cols)),
                                          zeroed<component_type>(checked_element_product(rows, cols))) {}

template <class P> DenseHostComplexSplitMatrixRowMajor<P>::DenseHostComplexSplitMatrixRowMajor(
    std::uint64_t rows, std::uint64_t cols, HostArray<component_type> real, HostArray<component_type> imag)
    : SplitBufferEntity<MatrixEntity, component_type>(policy_dtype<P>(), ComplexLayout::split,
                                                      MatrixLayout::row_major, {rows, cols}),
      real_(std::move(real)), imag_(std::move(imag)) {
    require_size(holds_product(real_.size(), rows, cols) && holds_product(imag_.size(), rows, cols),
                 "DenseHostComplexSplitMatrixRowMajor - data size mismatch");
    this->attach(real_.data(), imag_.data(), real_.size());
}

template <class P, MatrixLayout L>
DenseHostComplexIntlvMatrix<P, L>::DenseHostComplexIntlvMatrix(std::uint64_t rows, std::uint64_t cols)
    : DenseHostComplexIntlvMatrix(rows, cols, zeroed<storage_type>(checked_element_product(rows, cols))) {}

template <class P, MatrixLayout L>
DenseHostComplexIntlvMatrix<P, L>::DenseHostComplexIntlvMatrix(std::uint64_t rows, std::uint64_t cols,
                                                               HostArray<storage_type> values)
    : SingleBufferEntity<MatrixEntity, storage_type>(policy_dtype<P>(), ComplexLayout::interleaved, L, {rows, cols}),
      values_(std::move(values)) {
    require_size(holds_product(values_.size(), rows, cols),
                 L == MatrixLayout::row_major ? "DenseHostComplexIntlvMatrixRowMajor - data size mismatch"
                                              : "DenseHostComplexIntlvMatrixColMajor - data size mismatch");
    this->attach(values_.data(), values_.size());
}

// ---- LU

template <class P> DenseHostLUDecompColMajor<P>::DenseHostLUDecompColMajor(std::uint64_t n)
    : DenseHostLUDecompColMajor(n, zeroed<storage_type>(checked_element_product(n, n))) {}

template <class P>
DenseHostLUDecompColMajor<P>::DenseHostLUDecompColMajor(std::uint64_t n, HostArray<storage_type> factors)
    : HostEntityBase<LuDecompEntity>(policy_dtype<P>(), layout_of_elements<storage_type>(),
                                     MatrixLayout::column_major, {n, 0}),
      factors_(std::move(factors)) {
    require_size(holds_product(factors_.size(), n, n), "DenseHostLUDecompColMajor - data size mismatch");
    pivots_ = zeroed<std::int64_t>(n);
}

template <class P>
BufferDescriptor DenseHostLUDecompColMajor<P>::describe_buffer(std::size_t index) const noexcept {
    const std::uint64_t n = order();
    switch (index) {
    case 0:
        return BufferDescriptor::of(factors_.data(), factors_.size(), BufferRole::lu_factors, {n, n},
                                    MatrixLayout::column_major);
    case 1: return BufferDescriptor::of(pivots_.data(), pivots_.size(), BufferRole::lu_pivots, {n, 0});
    default: return BufferDescriptor::of(&swaps_, 1, BufferRole::lu_swap_count);
    }
}

// ---- scalars

template <class P> BoundRealScalarEntity<P>::BoundRealScalarEntity()
    : BoundRealScalarEntity(storage_type{}) {}

template <class P> BoundRealScalarEntity<P>::BoundRealScalarEntity(storage_type value)
    : SingleBufferEntity<ScalarEntity, storage_type>(policy_dtype<P>(), ComplexLayout::none,
                                                     MatrixLayout::none, {}),
      value_(value) {
    this->attach(&value_, 1);
}

template <class P> BoundComplexScalarEntity<P>::BoundComplexScalarEntity()
    : BoundComplexScalarEntity(storage_type{}) {}

template <class P> BoundComplexScalarEntity<P>::BoundComplexScalarEntity(storage_type value)
    : SplitBufferEntity<ScalarEntity, component_type>(policy_dtype<P>(), ComplexLayout::none,
                                                      MatrixLayout::none, {}),
      parts_{real_part(value), imag_part(value)} {
    this->attach(&parts_[0], &parts_[1], 1);
}

template <class P> typename P::storage_type BoundComplexScalarEntity<P>::value() const noexcept {
    return storage_type(parts_[0], parts_[1]);
}

// ---- eigen

namespace {
void require_eigen_layout(MatrixLayout layout) {
    if (layout != MatrixLayout::row_major && layout != MatrixLayout::column_major)
        throw std::invalid_argument("host eigenvalues - unsupported policy or layout");
}
} // namespace

template <class P>
DenseHostEigenValues<P>::DenseHostEigenValues(std::uint64_t n, MatrixLayout vectors_layout, bool with_vectors)
    : HostEntityBase<EigenValsEntity>(policy_dtype<P>(), ComplexLayout::interleaved, vectors_layout, {n, 0}),
      with_vectors_(with_vectors) {
    require_eigen_layout(vectors_layout);
    const std::uint64_t vector_count = with_vectors ? checked_element_product(n, n) : 0;
    check_array_bytes(vector_count, sizeof(storage_type));
    values_ = zeroed<storage_type>(n);
    vectors_ = zeroed<storage_type>(vector_count);
}

template <class P>
DenseHostEigenValues<P>::DenseHostEigenValues(HostArray<storage_type> values, HostArray<storage_type> vectors,
                                              MatrixLayout vectors_layout)
    : HostEntityBase<EigenValsEntity>(policy_dtype<P>(), ComplexLayout::interleaved, vectors_layout,
                                      {values.size(), 0}),
      values_(std::move(values)), vectors_(std::move(vectors)),
      with_vectors_(!vectors_.empty() || values_.empty()) {
    require_eigen_layout(vectors_layout);
    require_size(vectors_.empty() || holds_product(vectors_.size(), values_.size(), values_.size()),
                 "DenseHostEigenValues - data size mismatch");
}

template <class P>
BufferDescriptor DenseHostEigenValues<P>::describe_buffer(std::size_t index) const noexcept {
    const std::uint64_t n = order();
    if (index == 0)
        return BufferDescriptor::of(values_.data(), values_.size(), BufferRole::eigenvalues, {n, 0});
    if (vectors_.empty()) return BufferDescriptor::of(vectors_.data(), 0, BufferRole::eigenvectors);
    return BufferDescriptor::of(vectors_.data(), vectors_.size(), BufferRole::eigenvectors, {n, n},
                                matrix_layout());
}

// ---- instantiations

#define QM_REAL(P)                                                                                           \
    template class DenseHostRealVector<P>;                                                                   \
    template class DenseHostRealMatrixRowMajor<P>;                                                           \
    template class BoundRealScalarEntity<P>;
#define QM_COMPLEX(P)                                                                                        \
    template class DenseHostComplexSplitVector<P>;                                                           \
    template class DenseHostComplexIntlvVector<P>;                                                           \
    template class DenseHostComplexSplitMatrixRowMajor<P>;                                                   \
    template class DenseHostComplexIntlvMatrix<P, MatrixLayout::row_major>;                                  \
    template class DenseHostComplexIntlvMatrix<P, MatrixLayout::column_major>;                               \
    template class BoundComplexScalarEntity<P>;                                                              \
    template class DenseHostEigenValues<P>;                                                                  \
    template class DenseHostLUDecompColMajor<P>;
QUILLMARK_REAL_POLICIES(QM_REAL)
QUILLMARK_COMPLEX_POLICIES(QM_COMPLEX)
template class DenseHostLUDecompColMajor<PolicyF32>;
template class DenseHostLUDecompColMajor<PolicyF64>;
template class DenseHostLUDecompColMajor<PolicyBF16>;
template class DenseHostLUDecompColMajor<PolicyF16>;

} // namespace quillmark
