#pragma once
// Per instruction set: the micro-kernels each engine provides and their register and cache
// blocking. The engine translation units define the functions declared here; this header stays
// free of inline vector code so nothing compiled with AVX flags can leak into baseline code, and
// every caller must check the processor (runtime/simd_selection.hpp) before calling them.
//
// GEMM micro-kernels compute one MR x NR tile
//   c[i*ldc + j] (+)= sum_p a[p*MR + i] * b[p*NR + j]
// with `a` an MR-wide and `b` an NR-wide packed micro-panel of depth kc.
#include <cstdint>

namespace quillmark::cpu {

// mr x nr register tile; mc rows (a multiple of mr) and kc depth of the packed A block stay in
// L2, kc x nc (nc a multiple of nr) of packed B in L3. kc is even so complex embeddings never
// split a pair.
struct GemmBlocking {
    std::uint32_t mr;
    std::uint32_t nr;
    std::uint64_t mc;
    std::uint64_t kc;
    std::uint64_t nc;
};

// Each instruction set's blockings, one struct per set so that kernels can be written once over it.
struct isa_avx256 {
    static constexpr GemmBlocking gemm_f64{6, 8, 96, 256, 4080};
    static constexpr GemmBlocking gemm_f32{6, 16, 96, 512, 4080};
    // complex64 on interleaved operands, in reals: nr = 16 floats is 8 complex columns.
    static constexpr GemmBlocking gemm_c64{3, 16, 96, 512, 4080};
    // Split complex, nr and nc in complex columns, kc in reals (1024 = 512 steps). Measured on a
    // 512 KB-L2 core: a deep kc halves the passes over C, and a few A micro-panels per B panel with
    // an 8 MB B block beat the L2-sized A block of the real kernels.
    static constexpr GemmBlocking gemm_split_f64{6, 4, 12, 1024, 1024};
    static constexpr GemmBlocking gemm_split_f32{6, 8, 12, 1024, 1024};
};

struct isa_avx512 {
    static constexpr GemmBlocking gemm_f64{8, 24, 96, 256, 4080};
    static constexpr GemmBlocking gemm_f32{8, 48, 96, 512, 4080};
    static constexpr GemmBlocking gemm_c64{4, 48, 96, 512, 4080};
    static constexpr GemmBlocking gemm_split_f64{6, 16, 96, 256, 2040};
    static constexpr GemmBlocking gemm_split_f32{6, 32, 96, 256, 2040};
};

// One instruction set's micro-kernels. The complex64 tile takes complex_gemm_tile's packing (kc
// counts reals, c is interleaved); the split tiles are SplitGemmMicroKernel (gemm.hpp).
struct GemmMicroKernels {
    void (*f64)(std::uint64_t kc, const double* a, const double* b, double* c, std::uint64_t ldc,
                bool accumulate) noexcept;
    void (*f32)(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                bool accumulate) noexcept;
    void (*c64)(std::uint64_t kc, const float* a, const float* b, float* c, std::uint64_t ldc,
                bool accumulate) noexcept;
    void (*split_f64)(std::uint64_t kc, const double* a, const double* b, double* c_re, double* c_im,
                      std::uint64_t ldc, bool accumulate) noexcept;
    void (*split_f32)(std::uint64_t kc, const float* a, const float* b, float* c_re, float* c_im,
                      std::uint64_t ldc, bool accumulate) noexcept;
};
GemmMicroKernels gemm_microkernels_avx2() noexcept;
GemmMicroKernels gemm_microkernels_avx512() noexcept;

} // namespace quillmark::cpu
