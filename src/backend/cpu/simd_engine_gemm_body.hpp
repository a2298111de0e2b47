#pragma once
// The packed-product micro-kernels of one instruction set, written once over its vector traits
// and blockings (`Isa`, simd_isa_config.hpp). Only engine translation units include this, with
// their instruction set enabled.
#include "backend/cpu/gemm_tile.hpp"
#include "backend/cpu/simd_isa_config.hpp"

namespace quillmark::cpu {
namespace {

template <class Isa, class F64, class F32, class C64> GemmMicroKernels gemm_microkernels() noexcept {
    constexpr GemmBlocking f64 = Isa::gemm_f64, f32 = Isa::gemm_f32, c64 = Isa::gemm_c64;
    constexpr GemmBlocking split_f64 = Isa::gemm_split_f64, split_f32 = Isa::gemm_split_f32;
    return {&gemm_tile<F64, f64.mr, f64.nr / F64::lanes>,
            &gemm_tile<F32, f32.mr, f32.nr / F32::lanes>,
            &complex_gemm_tile<C64, c64.mr, c64.nr / F32::lanes>,
            &split_complex_gemm_tile<F64, split_f64.mr, split_f64.nr / F64::lanes>,
            &split_complex_gemm_tile<F32, split_f32.mr, split_f32.nr / F32::lanes>};
}

} // namespace
} // namespace quillmark::cpu
