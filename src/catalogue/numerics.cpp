#include "catalogue/numerics.hpp"

namespace quillmark {

void OperationNumerics::validate(std::span<const RoleDeclaration>) const {}

} // namespace quillmark
