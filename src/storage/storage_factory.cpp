#include "storage/storage_factory.hpp"

#include <cstring>
#include <new>
#include <string>
#include <type_traits>

#include "storage/dense_host_storage.hpp"

namespace quillmark {
namespace {

enum class Family {
    real_scalar,
    split_scalar,
    real_vector,
    split_vector,
    intlv_vector,
    real_matrix,
    split_matrix,
    intlv_matrix_row,
    intlv_matrix_col,
    lu,
    eigen,
};

[[noreturn]] void fail(const std::string& message) { throw std::invalid_argument(message); }

const char* label_of(Family family) noexcept {
    switch (family) {
    case Family::real_scalar:
    case Family::split_scalar: return "host scalar";
    case Family::real_vector:
    case Family::intlv_vector: return "host vector";
    case Family::split_vector: return "host split vector";
    case Family::real_matrix:
    case Family::intlv_matrix_row:
    case Family::intlv_matrix_col: return "host matrix";
    case Family::split_matrix: return "host split matrix";
    case Family::lu: return "host LU";
    case Family::eigen: return "host eigenvalues";
    }
    return "host storage";
}

// Complex integer data has no dense host class; otherwise the matrix layout must fit the kind.
bool category_supports(ScalarCategory category, OperandKind kind, MatrixLayout layout) noexcept {
    if (category == ScalarCategory::complex_integer) return false;
    switch (kind) {
    case OperandKind::scalar:
    case OperandKind::vector: return layout == MatrixLayout::none;
    case OperandKind::matrix:
    case OperandKind::lu:
    case OperandKind::eigen: return layout == MatrixLayout::row_major || layout == MatrixLayout::column_major;
    }
    return false;
}

Family select_family(const DataTypeDescriptor& dtype, ScalarCategory category, OperandKind kind,
                     ComplexLayout cl, MatrixLayout ml) {
    const bool complex = is_complex_category(category);
    const bool compiled = is_compiled_policy(dtype.storage(), dtype.compute());
    switch (kind) {
    case OperandKind::scalar:
        if (!complex && cl == ComplexLayout::none) return Family::real_scalar;
        // A complex scalar is two adjacent components; it carries no complex layout.
        if (complex && (cl == ComplexLayout::none || cl == ComplexLayout::split)) return Family::split_scalar;
        fail("host scalar - unsupported layout for policy");
    case OperandKind::vector:
        if (!complex && cl == ComplexLayout::none) return Family::real_vector;
        if (complex && cl == ComplexLayout::split) return Family::split_vector;
        if (complex && cl == ComplexLayout::interleaved) return Family::intlv_vector;
        fail("host vector - unsupported complex layout for policy");
    case OperandKind::matrix:
        if (!complex && cl == ComplexLayout::none && ml == MatrixLayout::row_major)
            return Family::real_matrix;
        if (complex && cl == ComplexLayout::split && ml == MatrixLayout::row_major)
            return Family::split_matrix;
        if (complex && cl == ComplexLayout::interleaved)
            return ml == MatrixLayout::row_major ? Family::intlv_matrix_row : Family::intlv_matrix_col;
        fail("host matrix - unsupported layout for policy");
    case OperandKind::lu:
        if (!compiled || category == ScalarCategory::integer) fail("host LU - unsupported numerical policy");
        if (cl != (complex ? ComplexLayout::interleaved : ComplexLayout::none) ||
            ml != MatrixLayout::column_major)
            fail("host LU - unsupported layout for policy");
        return Family::lu;
    case OperandKind::eigen:
        if (!complex || !compiled || cl != ComplexLayout::interleaved)
            fail("host eigenvalues - unsupported policy or layout");
        return Family::eigen;
    }
    fail("dense storage - unsupported scalar category, shape or layout");
}

// Step 1: elements the storage holds (eigen: its values; the vectors are checked with the bytes).
std::uint64_t required_count(Family family, std::array<std::uint64_t, 2> extent) {
    switch (family) {
    case Family::real_scalar:
    case Family::split_scalar: return 1;
    case Family::real_vector:
    case Family::split_vector:
    case Family::intlv_vector:
    case Family::eigen: return extent[0];
    case Family::lu: return checked_element_product(extent[0], extent[0]);
    default: return checked_element_product(extent[0], extent[1]);
    }
}

bool is_split(Family family) noexcept {
    return family == Family::split_vector || family == Family::split_matrix;
}

// Steps 2 and 3; true when the initialiser supplies elements to copy.
bool initialiser_supplies_data(const std::optional<StorageInitialiser>& init, std::uint64_t required,
                               Family family) {
    if (!init) return false;
    if (!init->real) {
        if (init->imaginary) fail("storage initialiser - missing real buffer");
        return false;
    }
    bool ok =
        family != Family::eigen && init->element_count == required && init->real->element_count == required;
    if (family == Family::real_scalar || family == Family::split_scalar) {
        ok = ok && init->split == 0 && !init->imaginary;
    } else {
        const bool split = is_split(family);
        ok = ok && init->split == (split ? 1u : 0u) && init->imaginary.has_value() == split;
        if (ok && split)
            ok = init->imaginary->element_count == required && init->imaginary->role == BufferRole::imaginary;
    }
    if (!ok) fail("storage initialiser - layout or element count mismatch");
    return true;
}

// Step 4.
template <class E> const E* checked_source(const BufferDescriptor& d, const char* label) {
    const auto address = reinterpret_cast<std::uintptr_t>(d.data);
    if (!d.holds<E>() || (d.data == nullptr && d.element_count != 0) || address % sizeof(E) != 0)
        fail(std::string(label) + " - storage buffer type, alignment or count mismatch");
    return static_cast<const E*>(d.data);
}

template <class E> void copy_elements(E* dst, const E* src, std::uint64_t count) noexcept {
    static_assert(std::is_trivially_copyable_v<E>);
    if (src != nullptr && count != 0) std::memcpy(dst, src, count * sizeof(E));
}

template <class Make> std::unique_ptr<OperandEntity> allocate(Make&& make) {
    try {
        return make();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

template <class P> std::unique_ptr<OperandEntity> build(Family family, std::array<std::uint64_t, 2> extent,
                                                        MatrixLayout ml, std::uint64_t count,
                                                        const StorageInitialiser* init) {
    using S = typename P::storage_type;
    const char* label = label_of(family);
    const std::uint64_t n = extent[0];
    if constexpr (!is_complex_storage_v<S>) {
        check_array_bytes(count, sizeof(S));
        const S* src = init ? checked_source<S>(*init->real, label) : nullptr;
        return allocate([&]() -> std::unique_ptr<OperandEntity> {
            switch (family) {
            case Family::real_scalar: return std::make_unique<BoundRealScalarEntity<P>>(src ? src[0] : S{});
            case Family::real_vector: {
                auto e = std::make_unique<DenseHostRealVector<P>>(count);
                copy_elements(e->data(), src, count);
                return e;
            }
            case Family::real_matrix: {
                auto e = std::make_unique<DenseHostRealMatrixRowMajor<P>>(extent[0], extent[1]);
                copy_elements(e->data(), src, count);
                return e;
            }
            case Family::lu:
                if constexpr (!std::is_same_v<P, PolicyI32>) {
                    auto e = std::make_unique<DenseHostLUDecompColMajor<P>>(n);
                    copy_elements(e->factors(), src, count);
                    return e;
                }
                [[fallthrough]];
            default:
                throw std::logic_error("make_dense_host_storage - storage family does not fit the policy");
            }
        });
    } else {
        using T = component_t<S>;
        if (is_split(family)) {
            check_array_bytes(count, sizeof(T));
            const T* re = init ? checked_source<T>(*init->real, label) : nullptr;
            const T* im = init ? checked_source<T>(*init->imaginary, label) : nullptr;
            return allocate([&]() -> std::unique_ptr<OperandEntity> {
                if (family == Family::split_vector) {
                    auto e = std::make_unique<DenseHostComplexSplitVector<P>>(count);
                    copy_elements(e->real(), re, count);
                    copy_elements(e->imag(), im, count);
                    return e;
                }
                auto e = std::make_unique<DenseHostComplexSplitMatrixRowMajor<P>>(extent[0], extent[1]);
                copy_elements(e->real(), re, count);
                copy_elements(e->imag(), im, count);
                return e;
            });
        }
        check_array_bytes(count, sizeof(S));
        if (family == Family::eigen) check_array_bytes(checked_element_product(n, n), sizeof(S));
        const S* src = init ? checked_source<S>(*init->real, label) : nullptr;
        return allocate([&]() -> std::unique_ptr<OperandEntity> {
            switch (family) {
            case Family::split_scalar:
                return std::make_unique<BoundComplexScalarEntity<P>>(src ? src[0] : S{});
            case Family::intlv_vector: {
                auto e = std::make_unique<DenseHostComplexIntlvVector<P>>(count);
                copy_elements(e->data(), src, count);
                return e;
            }
            case Family::intlv_matrix_row: {
                auto e = std::make_unique<DenseHostComplexIntlvMatrixRowMajor<P>>(extent[0], extent[1]);
                copy_elements(e->data(), src, count);
                return e;
            }
            case Family::intlv_matrix_col: {
                auto e = std::make_unique<DenseHostComplexIntlvMatrixColMajor<P>>(extent[0], extent[1]);
                copy_elements(e->data(), src, count);
                return e;
            }
            case Family::lu: {
                auto e = std::make_unique<DenseHostLUDecompColMajor<P>>(n);
                copy_elements(e->factors(), src, count);
                return e;
            }
            case Family::eigen: return std::make_unique<DenseHostEigenValues<P>>(n, ml, true);
            default:
                throw std::logic_error("make_dense_host_storage - storage family does not fit the policy");
            }
        });
    }
}

template <class F> std::unique_ptr<OperandEntity> with_policy(const DataTypeDescriptor& dtype, F&& f) {
    switch (dtype.storage()) {
    case ScalarType::float32: return f(PolicyF32{});
    case ScalarType::float64: return f(PolicyF64{});
    case ScalarType::bfloat16: return f(PolicyBF16{});
    case ScalarType::float16: return f(PolicyF16{});
    case ScalarType::int32: return f(PolicyI32{});
    case ScalarType::complex32: return f(PolicyC32{});
    case ScalarType::complex64: return f(PolicyC64{});
    case ScalarType::complex128: return f(PolicyC128{});
    default: break;
    }
    throw std::logic_error("make_dense_host_storage - compiled policy without storage");
}

} // namespace

std::unique_ptr<OperandEntity> make_dense_host_storage(const DataTypeDescriptor& dtype, OperandKind kind,
                                                       std::array<std::uint64_t, 2> extent,
                                                       ComplexLayout complex_layout,
                                                       MatrixLayout matrix_layout,
                                                       const std::optional<StorageInitialiser>& initialiser) {
    const ScalarCategory category = scalar_metadata(dtype.storage()).category;
    if (!category_supports(category, kind, matrix_layout))
        fail("dense storage - unsupported scalar category, shape or layout");
    const Family family = select_family(dtype, category, kind, complex_layout, matrix_layout);
    if (!is_compiled_policy(dtype.storage(), dtype.compute()))
        fail("numeric policy is not compiled: " + std::string(scalar_name(dtype.storage())) + "/" +
             std::string(scalar_name(dtype.compute())));
    const std::uint64_t count = required_count(family, extent);
    const StorageInitialiser* init =
        initialiser_supplies_data(initialiser, count, family) ? &*initialiser : nullptr;
    return with_policy(dtype, [&](auto policy) {
        return build<decltype(policy)>(family, extent, matrix_layout, count, init);
    });
}

} // namespace quillmark
