#pragma once
// Register-blocked micro-kernels over packed panels. Each computes one MR x NR tile
//   c[i*ldc + j] (+)= sum_p a[p*MR + i] * b[p*NR + j]
// with `a` an MR-wide and `b` an NR-wide packed micro-panel of depth kc. The AVX variants live in
// translation units built with their instruction sets and must only be called after the
// processor check; this header stays free of inline code so nothing compiled with those
// flags can leak into baseline code.
#include <cstdint>

namespace quillmark::cpu {

inline constexpr std::uint32_t kAvx2GemmF64Mr = 6, kAvx2GemmF64Nr = 8;
inline constexpr std::uint32_t kAvx2GemmF32Mr = 6, kAvx2GemmF32Nr = 16;
inline constexpr std::uint32_t kAvx512GemmF64Mr = 8, kAvx512GemmF64Nr = 24;
inline constexpr std::uint32_t kAvx512GemmF32Mr = 8, kAvx512GemmF32Nr = 48;

void gemm_microkernel_f64_avx2(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                               bool accumulate) noexcept;
void gemm_microkernel_f32_avx2(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                               bool accumulate) noexcept;
void gemm_microkernel_f64_avx512(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                                 bool accumulate) noexcept;
void gemm_microkernel_f32_avx512(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                                 bool accumulate) noexcept;

} // namespace quillmark::cpu
