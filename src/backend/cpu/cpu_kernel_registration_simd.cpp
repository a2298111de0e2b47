#include "backend/cpu/cpu_kernel_registration_table.hpp"

namespace quillmark::cpu_registration {

std::vector<Registration> simd_registrations() { return {}; }

} // namespace quillmark::cpu_registration
