// Complex instantiations, split and interleaved.
#include "backend/cpu/floating_point_kernels_impl.hpp"

namespace quillmark::cpu {

template struct FloatingKernels<PolicyC32, ComplexLayout::split>;
template struct FloatingKernels<PolicyC64, ComplexLayout::split>;
template struct FloatingKernels<PolicyC128, ComplexLayout::split>;
template struct FloatingKernels<PolicyC32, ComplexLayout::interleaved>;
template struct FloatingKernels<PolicyC64, ComplexLayout::interleaved>;
template struct FloatingKernels<PolicyC128, ComplexLayout::interleaved>;

} // namespace quillmark::cpu
