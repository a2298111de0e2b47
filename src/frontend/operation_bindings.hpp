#pragma once
#include <cstddef>
#include <unordered_map>

#include "core/operand_types.hpp"
#include "storage/operand_entity.hpp"

namespace quillmark {

// Operands bound to the roles of one call. A binding does not own its operand.
class OperationBindings {
public:
    struct Binding {
        const OperandEntity* operand = nullptr;
        OperandEntity* writable = nullptr; // null for a read-only binding
    };

    // Throw std::invalid_argument "OperationBindings::bind - operand role is already bound".
    void bind(OperandRole role, const OperandEntity& operand);
    void bind(OperandRole role, OperandEntity& operand);

    std::size_t size() const noexcept { return bindings_.size(); }
    const Binding* find(OperandRole role) const noexcept;

private:
    void insert(OperandRole role, Binding binding);
    std::unordered_map<OperandRole, Binding> bindings_;
};

} // namespace quillmark
