#include "core/errors.hpp"

namespace quillmark {

std::string_view reason_name(ErrorReason reason) noexcept {
    switch (reason) {
    case ErrorReason::null_storage: return "null_storage";
    case ErrorReason::no_backend_available: return "no_backend_available";
    case ErrorReason::unsupported_adaptation: return "unsupported_adaptation";
    case ErrorReason::registry_contract_mismatch: return "registry_contract_mismatch";
    case ErrorReason::singular: return "singular";
    case ErrorReason::non_convergence: return "non_convergence";
    case ErrorReason::library_failure: return "library_failure";
    case ErrorReason::solver_failure: return "solver_failure";
    default: return "backend_failure";
    }
}

} // namespace quillmark
