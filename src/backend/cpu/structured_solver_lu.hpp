#pragma once
// The blocked partial-pivoting LU shared by lu_factor and slogdet. It works on a column-major
// n x n matrix and reproduces the column-by-column elimination exactly: every element receives
// the updates of steps 0, 1, ... in ascending order, each one a fused multiply-subtract
// c - a*b rounded once. A complex update c - l*u is the two fused real updates per part
//   re: c.re - l.re*u.re, then + l.im*u.im;   im: c.im - l.im*u.re, then - l.re*u.im,
// which is also the order in which the real embedding of the trailing product accumulates.
// Because fma is correctly rounded, every kernel variant gives the same bits.
#include <cstdint>
#include <string_view>
#include <vector>

namespace quillmark {
class CpuRuntimeContext;
}

namespace quillmark::cpu {

template <class R> struct LuUpdateKernels {
    std::string_view name; // "portable", "AVX2" or "AVX512"
    // y[i] = fma(-x[i], u, y[i]) for i < n.
    void (*axpy)(std::uint64_t n, const R* x, R u, R* y) noexcept = nullptr;
    // Interleaved complex y[i] -= x[i] * (ur + i ui) in the order above, for n complex elements.
    void (*complex_axpy)(std::uint64_t n, const R* x, R ur, R ui, R* y) noexcept = nullptr;
    // Columns j < cols of b (leading dimension ld, complex elements for the complex form) solved
    // in place against the unit lower m x m block l: b(i, j) -= l(i, k) b(k, j), k ascending.
    void (*lower_solve)(std::uint64_t m, std::uint64_t cols, const R* l, std::uint64_t ld, R* b) noexcept = nullptr;
    void (*complex_lower_solve)(std::uint64_t m, std::uint64_t cols, const R* l, std::uint64_t ld, R* b) noexcept = nullptr;
    // c[r*ldc + s] = c - sum over p < kc of a[p*mr + r] * b[p*nr + s], fused, p ascending.
    void (*tile)(std::uint64_t kc, const R* a, const R* b, R* c, std::uint64_t ldc) noexcept = nullptr;
    std::uint32_t mr = 0;
    std::uint32_t nr = 0; // even
};

// The kernel sets this processor can run, portable first, and the one of the SIMD selection.
template <class R> std::vector<LuUpdateKernels<R>> available_lu_kernels();
template <class R> const LuUpdateKernels<R>& default_lu_kernels();

LuUpdateKernels<double> lu_kernels_f64_avx2() noexcept;
LuUpdateKernels<float> lu_kernels_f32_avx2() noexcept;

// Why an elimination stopped early, at step `step`.
enum class LuStop { none, non_finite, singular, underflow };

struct LuOutcome {
    LuStop stop = LuStop::none;
    std::uint64_t step = 0;
    std::int64_t swaps = 0;
};

inline constexpr std::uint64_t kLuBlock = 128;
inline constexpr std::uint64_t kCholeskyBlock = 64;

// Factorises the column-major matrix a (leading dimension n) in place; pivots[k] receives the
// 1-based row exchanged at step k. C is float, double, std::complex<float> or
// std::complex<double>; R its real type. `block` 0 or >= n runs the plain column-by-column
// elimination. Stops at the first failing step and reports it instead of throwing.
template <class C, class R>
LuOutcome lu_eliminate(C* a, std::uint64_t n, std::int64_t* pivots, const LuUpdateKernels<R>& kernels,
                       std::uint64_t block, const CpuRuntimeContext* ctx);

template <class R> struct CholeskyOutcome {
    bool positive = true;
    std::uint64_t step = 0; // the failing pivot when not positive
};

// Lower Cholesky factor of the Hermitian matrix whose lower triangle the column-major a holds,
// with the same fused ascending updates (a complex update takes u = conj(L(j, k))). Pivot j is
// x = Re a(j, j) - sum |L(j, k)|^2; it fails when x is not finite, x <= 0 or
// x <= |a(j, j)| * eps * (4j + 1). pivots[j] receives x; stops at the first failing pivot.
template <class C, class R>
CholeskyOutcome<R> cholesky_eliminate(C* a, std::uint64_t n, R eps, R* pivots, const LuUpdateKernels<R>& kernels,
                                      std::uint64_t block, const CpuRuntimeContext* ctx);

} // namespace quillmark::cpu
