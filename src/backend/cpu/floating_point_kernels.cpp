// Real and int32 instantiations; the complex ones are in floating_point_kernels_complex.cpp.
#include "backend/cpu/floating_point_kernels_impl.hpp"

namespace quillmark::cpu {

template struct FloatingKernels<PolicyF32>;
template struct FloatingKernels<PolicyF64>;
template struct FloatingKernels<PolicyBF16>;
template struct FloatingKernels<PolicyF16>;
template struct FloatingKernels<PolicyI32>;

} // namespace quillmark::cpu
