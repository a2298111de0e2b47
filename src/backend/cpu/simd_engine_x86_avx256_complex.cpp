// AVX2/FMA complex single-precision kernels.
#include "backend/cpu/simd_engine_complex_body.hpp"
#include "backend/cpu/simd_traits_x86_avx256.hpp"

namespace quillmark::cpu {

ComplexEngine complex_engine_avx2() noexcept { return complex_body::engine<simd::Avx256C64>(); }

} // namespace quillmark::cpu
