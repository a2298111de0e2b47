#pragma once
// Creation of owned dense host storage from a requested dtype, kind, shape and layouts,
// either zero-filled or from caller data given as erased buffers.
#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>

#include "storage/buffer_access.hpp"
#include "storage/operand_entity.hpp"

namespace quillmark {

struct StorageInitialiser {
    std::uint32_t split = 0;              // 1 when the data comes as separate real and imaginary planes
    std::uint64_t element_count = 0;      // logical elements supplied
    std::optional<BufferDescriptor> real; // real parts, or the only data
    std::optional<BufferDescriptor>
        imaginary; // imaginary parts (role BufferRole::imaginary); split data only
};

// extent follows OperandEntity::extent: scalar (ignored), vector {n, _}, matrix {rows, cols},
// LU and eigen {n, _}. matrix_layout is none for scalars and vectors; LU storage is column-major;
// for eigen storage it is the layout of the eigenvectors.
//
// Checks, in order, each failing with std::invalid_argument:
//   "dense storage - unsupported scalar category, shape or layout"  (complex integer types,
//       or a matrix layout that does not fit the kind);
//   the class's layout acceptance: "host scalar - unsupported layout for policy",
//       "host vector - unsupported complex layout for policy", "host matrix - unsupported layout
//       for policy", "host LU - unsupported numerical policy" (any pair but the seven floating
//       policies), "host LU - unsupported layout for policy", "host eigenvalues - unsupported
//       policy or layout" (eigen storage is interleaved complex32/complex64, complex64,
//       complex128);
//   "numeric policy is not compiled: <storage>/<compute>";
//   the element count: a count that leaves the address range throws std::bad_array_new_length;
//   the initialiser: "storage initialiser - missing real buffer", "storage initialiser - layout
//       or element count mismatch", then "<label> - storage buffer type, alignment or count
//       mismatch" with label "host scalar", "host vector", "host split vector", "host matrix",
//       "host split matrix" or "host LU".
// Scalars take one element of the storage type (a complex value for a split complex scalar),
// split flag 0 and no imaginary buffer. Split planes carry the component type (float for
// complex64). Eigen storage is created zero-filled only.
// Returns null when allocating the storage fails.
std::unique_ptr<OperandEntity>
make_dense_host_storage(const DataTypeDescriptor& dtype, OperandKind kind,
                        std::array<std::uint64_t, 2> extent, ComplexLayout complex_layout,
                        MatrixLayout matrix_layout,
                        const std::optional<StorageInitialiser>& initialiser = std::nullopt);

// Ownership of an entity as its kind's interface (VectorEntity, MatrixEntity, ...). Null stays
// null; another kind throws std::invalid_argument "entity_cast - operand kind mismatch".
template <class E> std::unique_ptr<E> entity_cast(std::unique_ptr<OperandEntity> entity) {
    if (!entity) return nullptr;
    E* typed = dynamic_cast<E*>(entity.get());
    if (typed == nullptr) throw std::invalid_argument("entity_cast - operand kind mismatch");
    entity.release();
    return std::unique_ptr<E>(typed);
}

} // namespace quillmark
