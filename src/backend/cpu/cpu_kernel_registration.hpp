#pragma once
#include "catalogue/operation_spec.hpp"
#include "dispatch/backend_registry.hpp"

namespace quillmark {

// Registers every CPU scalar and SIMD implementation with its implementation record.
void register_cpu_backends(BackendRegistry& registry, const RegistrationProvenance& provenance);

} // namespace quillmark
