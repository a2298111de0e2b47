// AVX-512 complex single-precision kernels.
#include "backend/cpu/simd_engine_complex_body.hpp"
#include "backend/cpu/simd_traits_x86_avx512.hpp"

namespace quillmark::cpu {

ComplexEngine complex_engine_avx512() noexcept { return complex_body::engine<simd::Avx512C64>(); }

} // namespace quillmark::cpu
