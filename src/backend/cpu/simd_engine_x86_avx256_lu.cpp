// AVX2/FMA kernels of the blocked LU.
#include <immintrin.h>

#include "backend/cpu/structured_solver_lu.hpp"
#include "backend/cpu/structured_solver_lu_tile.hpp"

namespace quillmark::cpu {
namespace {

struct LuAvx2F64 {
    using scalar = double;
    using vector = __m256d;
    static constexpr int lanes = 4;
    static vector load(const double* p) noexcept { return _mm256_loadu_pd(p); }
    static void store(double* p, vector v) noexcept { _mm256_storeu_pd(p, v); }
    static vector broadcast(const double* p) noexcept { return _mm256_broadcast_sd(p); }
    static vector set1(double v) noexcept { return _mm256_set1_pd(v); }
    static vector alternate(double even, double odd) noexcept { return _mm256_setr_pd(even, odd, even, odd); }
    static vector swap_pairs(vector v) noexcept { return _mm256_permute_pd(v, 0b0101); }
    static vector fnmadd(vector a, vector b, vector c) noexcept { return _mm256_fnmadd_pd(a, b, c); }
};

struct LuAvx2F32 {
    using scalar = float;
    using vector = __m256;
    static constexpr int lanes = 8;
    static vector load(const float* p) noexcept { return _mm256_loadu_ps(p); }
    static void store(float* p, vector v) noexcept { _mm256_storeu_ps(p, v); }
    static vector broadcast(const float* p) noexcept { return _mm256_broadcast_ss(p); }
    static vector set1(float v) noexcept { return _mm256_set1_ps(v); }
    static vector alternate(float even, float odd) noexcept {
        return _mm256_setr_ps(even, odd, even, odd, even, odd, even, odd);
    }
    static vector swap_pairs(vector v) noexcept { return _mm256_permute_ps(v, 0b10110001); }
    static vector fnmadd(vector a, vector b, vector c) noexcept { return _mm256_fnmadd_ps(a, b, c); }
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
