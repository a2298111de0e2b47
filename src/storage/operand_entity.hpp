#pragma once
// Operand entities: what an operation reads and writes. Kernels never see entities; they get
// typed views (storage/views.hpp) once per call.
#include <array>
#include <cstdint>

#include "core/operand_types.hpp"
#include "core/scalar_type.hpp"

namespace quillmark {

class ErasedBufferAccess;

class OperandEntity {
public:
    virtual ~OperandEntity() = default;
    virtual OperandKind kind() const noexcept = 0;
    virtual const DataTypeDescriptor& dtype() const noexcept = 0;
    virtual StorageFormat storage_format() const noexcept { return StorageFormat::dense; }
    virtual ComplexLayout complex_layout() const noexcept = 0;
    // MatrixLayout::none for operands that are not matrix-shaped.
    virtual MatrixLayout matrix_layout() const noexcept = 0;
    virtual Location location() const noexcept { return Location::pageable_host; }
    // vector {n, 0}; matrix {rows, cols}; lu and eigen {order, 0}; scalar {0, 0}.
    virtual std::array<std::uint64_t, 2> extent() const noexcept = 0;
    virtual std::int32_t numa_node() const noexcept { return -1; }
    // The element buffers in erased form, for layout adaptation and native plugins. Entities
    // without host buffers keep the default, which offers none.
    virtual const ErasedBufferAccess& erased_access() const noexcept;
};

class ScalarEntity : public OperandEntity {
public:
    OperandKind kind() const noexcept final { return OperandKind::scalar; }
};
class VectorEntity : public OperandEntity {
public:
    OperandKind kind() const noexcept final { return OperandKind::vector; }
};
class MatrixEntity : public OperandEntity {
public:
    OperandKind kind() const noexcept final { return OperandKind::matrix; }
};
class LuDecompEntity : public OperandEntity {
public:
    OperandKind kind() const noexcept final { return OperandKind::lu; }
};
class EigenValsEntity : public OperandEntity {
public:
    OperandKind kind() const noexcept final { return OperandKind::eigen; }
};

// The descriptor of an entity bound to a role.
inline OperandDescriptor describe_operand(const OperandEntity& e, OperandRole role) {
    OperandDescriptor d;
    d.role = role;
    d.kind = e.kind();
    d.dtype = e.dtype();
    d.location = e.location();
    d.format = e.storage_format();
    d.complex_layout = e.complex_layout();
    d.matrix_layout = e.matrix_layout();
    d.extent = e.extent();
    d.numa_node = e.numa_node();
    return d;
}

} // namespace quillmark
