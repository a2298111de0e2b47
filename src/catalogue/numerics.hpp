#pragma once
// Numeric contracts of operations and implementations.
#include <span>

#include "catalogue/operation_spec.hpp"

namespace quillmark {

class OperationNumerics {
public:
    void validate(std::span<const RoleDeclaration> roles) const;
};

} // namespace quillmark
