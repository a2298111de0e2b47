#pragma once
// Cyclic Jacobi on a real symmetric or complex Hermitian double matrix, reorganised for the
// cache and vector units while every element still sees exactly the operations, in exactly the
// order, of the element-wise loop that rotates rows and columns p and q one rotation at a time.
//
// Why it can be reorganised:
//  - Only the lower triangle is stored (element {i, j}, i < j, in column i at row j), so nothing
//    is ever mirrored: where the loop works on an upper element, the kernels take the
//    conjugate of the stored one (an exact sign flip).
//  - Within the run of pivot p (rotations (p, q), q = p+1 ... n-1), an element {k, q} with both
//    indices above p is touched by exactly two rotations, (p, min) and (p, max). The run is
//    taken in blocks of consecutive q: the rotation parameters of a block only need the block's
//    own elements, and the block is then applied to every other row k as a short chain of
//    rotations of x[k] = a(k, p) held in a register.
//  - Rows k < p ("head") never feed a rotation parameter again in the sweep, nor does V: both
//    only receive the recorded (q, c, s) sequence, which is applied at the end of the sweep to
//    panels of 16 rows kept in cache, each run's a(k, p) staying in registers.
//  - For a row k between p and a block, rotation (p, q) is the last touch of element {k, q} in
//    run p, and a(k, p) no longer feeds the run: those rows take the run once it is complete,
//    each streaming its own column.
//  - Rows and panels are independent of each other within these steps, so workers share them.
#include <complex>
#include <cstdint>
#include <string_view>
#include <vector>

namespace quillmark {
class CpuRuntimeContext;
}

namespace quillmark::cpu {

// Rotation parameters: c is real, s real or complex (s, s_im; s_im is null for real elements).
// Complex elements keep their imaginary parts `plane` values after the real ones.

// Rotations by index; skipped (negligible) pairs are inactive.
struct JacobiRotations {
    const unsigned char* active;
    const double* c;
    const double* s;
    const double* s_im;
    std::uint64_t plane;
};

// The rotations of one block of columns q0 ... q0+width-1 (width <= kJacobiBlockWidth), by
// offset.
struct JacobiBlock : JacobiRotations {
    std::uint64_t q0;
    std::uint64_t width;
};

// The rotations of one run (pivot p) of an order-n matrix, indexed by q.
struct JacobiRun : JacobiRotations {
    std::uint64_t n;
};

// The rotations of one sweep in order: run p owns entries [run_start[p], run_start[p+1]).
struct JacobiSweepRecord {
    std::vector<std::uint64_t> run_start;
    std::vector<std::uint32_t> q;
    std::vector<double> c;
    std::vector<double> s;
    std::vector<double> s_im; // complex sweeps only
};

inline constexpr std::uint64_t kJacobiMaximumSweeps = 64;
inline constexpr std::uint64_t kJacobiPanelRows = 16;
inline constexpr std::uint64_t kJacobiBlockWidth = 8;

struct JacobiKernelSet {
    struct Kernels {
        // x[k] = m[p*ld + k] and the block's elements {k, q}: rows k in [k_begin, k_end) below
        // the block (element in column q at row k) ...
        void (*rotate_below)(double* m, std::uint64_t ld, std::uint64_t p, const JacobiBlock& block,
                             std::uint64_t k_begin, std::uint64_t k_end) noexcept = nullptr;
        // ... and, once the run is complete, rows k in [k_begin, k_end) (p < k) with every
        // rotation (p, q) past the block of k (element in column k at row q).
        void (*rotate_above)(double* m, std::uint64_t ld, std::uint64_t p, const JacobiRun& run,
                             std::uint64_t k_begin, std::uint64_t k_end) noexcept = nullptr;
        // Applies runs first_run ... of the record to a panel of kJacobiPanelRows rows stored
        // panel[j * kJacobiPanelRows + r] = row r, column j. With first_row >= 0 row r takes part
        // in run p only when first_row + r < p (the head rows, whose runs begin after their own
        // pivot). Real panels take two consecutive runs in which every row takes part in one pass.
        void (*apply_panel)(double* panel, std::uint64_t plane, const JacobiSweepRecord& record,
                            std::uint64_t first_run, std::int64_t first_row) noexcept = nullptr;
    };
    std::string_view name; // "portable" or "AVX2"
    Kernels real;
    Kernels complex;
};

JacobiKernelSet jacobi_kernels_portable() noexcept;
JacobiKernelSet jacobi_kernels_avx2() noexcept;
// The sets this processor can run, portable first.
std::vector<JacobiKernelSet> available_jacobi_kernels();
// AVX2 whenever the process-wide selection names a SIMD engine (AVX-512 processors run it too).
const JacobiKernelSet& default_jacobi_kernels();

// SolverError `non_convergence` with native status kJacobiMaximumSweeps, for order n.
[[noreturn]] void throw_jacobi_non_convergence(std::uint64_t n);

// Jacobi on the row-major Hermitian n x n matrix w with the given negligibility tolerance.
// Returns the diagonal after convergence; vt (when non-null) receives the eigenvectors
// transposed (vt[p*n + k] = V(k, p)). Throws the non-convergence SolverError and
// std::runtime_error "eigh/eigvalsh - eigenvalue overflow" after a sweep that overflowed.
// With ctx, rows are shared among its workers; the result does not depend on how.
// T is double or std::complex<double> (Hermitian w; a(p, q) and a(q, p) conjugate).
template <class T>
std::vector<double> jacobi_hermitian(const std::vector<T>& w, std::uint64_t n, double tolerance, std::vector<T>* vt,
                                     const JacobiKernelSet& kernels, const CpuRuntimeContext* ctx = nullptr);

} // namespace quillmark::cpu
