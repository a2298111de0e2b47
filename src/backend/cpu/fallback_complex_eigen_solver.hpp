#pragma once
// General (non-Hermitian) eigen solver for square matrices of the four compute types. Works in
// double precision: single-precision inputs are widened ("mixed"), double-precision inputs run
// natively. Balancing by radix-two scaling and Householder reduction to Hessenberg form (in real
// arithmetic for real inputs), then single-shift complex QR with Wilkinson shifts and deflation in
// complex working storage, right eigenvectors by back substitution on the Schur form, balance
// reversal, unit Euclidean norm, and a residual check of every returned pair against the original
// matrix.
#include <complex>
#include <cstdint>

#include "backend/cpu/structured_solver.hpp"
#include "storage/views.hpp"

namespace quillmark::cpu {

// Complex type of the same precision: complex<float> for float and complex<float> compute,
// complex<double> for double and complex<double>.
template <class C> using EigenComplexOf = std::complex<RealOf<C>>;

struct EigenSolverOptions {
    // Subdiagonal h(k, k-1) deflates when |h(k, k-1)| <= tol * (|h(k-1, k-1)| + |h(k, k)|), with
    // |z| = |re z| + |im z| on the balanced Hessenberg matrix.
    double convergence_tolerance = 0;
    // Shifted QR iterations allowed for each active dimension before it must deflate.
    std::uint64_t maximum_iterations = 256;
    // Non-deflating iterations between exceptional shifts.
    std::uint64_t exceptional_shift_interval = 10;
    std::uint64_t maximum_balance_sweeps = 32;
    // Bound on ||A v - lambda v||_2 / (||A||_F * ||v||_2) for every returned pair.
    double residual_tolerance = 0;
};

// Single precision: 1e-4f widened (9.999999747378752e-05) and 0.001; double precision: those
// values times 2^-29 (1.8626451021765827e-13 and 1.862645149230957e-12).
template <class C> EigenSolverOptions default_eigen_options() noexcept;

// values[i] and the unit right eigenvector i of the n x n matrix. `vectors` is n x n in
// `vector_layout`: vector i is column i (column-major) or row i (row-major), which places it at
// vectors[i * n .. i * n + n) either way. Eigenvalues come in the order of the Schur diagonal.
// Outputs are written only on success. Throws std::invalid_argument
// "eig - input must contain only finite entries" and "eig - input must be square"; SolverError
// `non_convergence` ("eig - shifted QR iteration did not converge for order n", detail
// "QR iteration limit reached") and `solver_failure` ("eig - eigenpair residual exceeds
// tolerance", detail "right-eigenpair residual check failed"; "eig - eigenvalue is outside the
// finite result range", detail "eigenvalue overflow"), operation "quillmark.eig".
template <class C>
void eig(const C* matrix, const MatrixGeometry& geometry, EigenComplexOf<C>* values,
         EigenComplexOf<C>* vectors, MatrixLayout vector_layout,
         const EigenSolverOptions& options = default_eigen_options<C>());

// Unit eigenvector of the eigenvalue of greatest magnitude, phase-normalised so that its largest
// component is real and positive (a real matrix yields its real eigenvector, returned as C).
// An empty matrix writes nothing. Failures as for eig under operation
// "quillmark.principal_eigenvector" with the prefix "principal_eigenvector - ", plus SolverError
// `solver_failure` "principal_eigenvector - dominant eigenvalue is not unique" (detail
// "dominant eigenvalue magnitude is repeated") when another eigenvalue's magnitude lies within
// 10 * convergence_tolerance (relative) of the largest.
template <class C>
void principal_eigenvector(const C* matrix, const MatrixGeometry& geometry, C* vector,
                           const EigenSolverOptions& options = default_eigen_options<C>());

// Rotation k < count acts on complex lines k and k+1 in turn: (x, y) <- (c[k] x + s[k] y,
// c[k] y - conj(s[k]) x), s[k] at (s[2k], s[2k+1]). Line k starts at complex offset
// k * line_stride of base; its `length` elements lie element_stride complex numbers apart. Each
// element carries its line k+1 value from one rotation to the next, so a chain reads and writes
// every element once. The portable form rounds every product; the AVX2 form (AVX2 and FMA only:
// call it after the processor check) fuses products into their sums.
void complex_rotate_chain(double* base, std::uint64_t line_stride, std::uint64_t element_stride,
                          std::uint64_t length, std::uint64_t count, const double* c, const double* s) noexcept;
void complex_rotate_chain_avx2(double* base, std::uint64_t line_stride, std::uint64_t element_stride,
                               std::uint64_t length, std::uint64_t count, const double* c, const double* s) noexcept;

// out[r] = sum_i rows[r*ld + i] * x[i] for r < count, i < m, in lane-wise partial sums. AVX2 and
// FMA only.
void rows_times_vector_avx2(const double* rows, std::uint64_t ld, std::uint64_t count, std::uint64_t m,
                            const double* x, double* out) noexcept;

// (result[0], result[1]) = sum over i < m of a[i] * b[i] for interleaved complex a and b, in
// lane-wise partial sums. AVX2 and FMA only.
void complex_dot_avx2(const double* a, const double* b, std::uint64_t m, double* result) noexcept;

} // namespace quillmark::cpu
