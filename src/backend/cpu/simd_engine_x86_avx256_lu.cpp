// AVX2/FMA kernels of the blocked LU.
#include <immintrin.h>

#include "backend/cpu/structured_solver_lu.hpp"
#include "backend/cpu/structured_solver_lu_tile.hpp"
#include "backend/cpu/simd_traits_x86_avx256.hpp"

namespace quillmark::cpu {
namespace {

// The engine traits plus the two lane shuffles of the interleaved complex update.
struct LuAvx2F64 : simd::Avx256F64 {
    static vector alternate(double even, double odd) noexcept { return _mm256_setr_pd(even, odd, even, odd); }
    static vector swap_pairs(vector v) noexcept { return _mm256_permute_pd(v, 0b0101); }
};

struct LuAvx2F32 : simd::Avx256F32 {
    static vector alternate(float even, float odd) noexcept {
        return _mm256_setr_ps(even, odd, even, odd, even, odd, even, odd);
    }
    static vector swap_pairs(vector v) noexcept { return _mm256_permute_ps(v, 0b10110001); }
};

constexpr int kF64Mr = 6, kF64Nv = 2;
constexpr int kF32Mr = 6, kF32Nv = 2;

} // namespace

LuUpdateKernels<double> lu_kernels_f64_avx2() noexcept {
    return {"AVX2", &lu_tile::axpy<LuAvx2F64>, &lu_tile::complex_axpy<LuAvx2F64>,
            &lu_tile::lower_solve<LuAvx2F64>, &lu_tile::complex_lower_solve<LuAvx2F64>,
            &lu_tile::tile<LuAvx2F64, kF64Mr, kF64Nv>, kF64Mr, kF64Nv * LuAvx2F64::lanes};
}

LuUpdateKernels<float> lu_kernels_f32_avx2() noexcept {
    return {"AVX2", &lu_tile::axpy<LuAvx2F32>, &lu_tile::complex_axpy<LuAvx2F32>,
            &lu_tile::lower_solve<LuAvx2F32>, &lu_tile::complex_lower_solve<LuAvx2F32>,
            &lu_tile::tile<LuAvx2F32, kF32Mr, kF32Nv>, kF32Mr, kF32Nv * LuAvx2F32::lanes};
}

} // namespace quillmark::cpu
