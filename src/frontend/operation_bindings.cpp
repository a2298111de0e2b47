#include "frontend/operation_bindings.hpp"

#include <stdexcept>

namespace quillmark {

void OperationBindings::insert(OperandRole role, Binding binding) {
    if (!bindings_.emplace(role, binding).second)
        throw std::invalid_argument("OperationBindings::bind - operand role is already bound");
}

void OperationBindings::bind(OperandRole role, const OperandEntity& operand) { insert(role, {&operand, nullptr}); }

void OperationBindings::bind(OperandRole role, OperandEntity& operand) { insert(role, {&operand, &operand}); }

const OperationBindings::Binding* OperationBindings::find(OperandRole role) const noexcept {
    auto it = bindings_.find(role);
    return it == bindings_.end() ? nullptr : &it->second;
}

} // namespace quillmark
