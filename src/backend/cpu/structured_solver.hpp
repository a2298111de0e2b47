#pragma once
// Structured CPU solvers on raw compute-type arrays: partial-pivoting LU with solve and
// log-determinant, the signed log-determinant, the Hermitian Jacobi eigen solver and the
// Cholesky log-determinant. Instantiated for C = float, double, std::complex<float> and
// std::complex<double>. Every matrix is a pointer plus a MatrixGeometry; elements are reached
// through the operand's own layout, so no transposition happens.
//
// Numerical failures raise SolverError with library "CPU"; plain argument faults raise the
// standard exceptions. The Jacobi, slogdet and Cholesky instances of single-precision compute
// run on a double-precision working copy (complex<double> for complex<float>) with the
// tolerances of the compute type, and round their results once to the compute type.
#include <complex>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "storage/views.hpp"

namespace quillmark {
class CpuRuntimeContext;
}

namespace quillmark::cpu {

template <class C> struct ScalarParts {
    using real = C;
};
template <class R> struct ScalarParts<std::complex<R>> {
    using real = R;
};
// float for float and complex<float>, double for double and complex<double>.
template <class C> using RealOf = typename ScalarParts<C>::real;

// In-place LU factorisation with partial pivoting of the square matrix `factors`. On return the
// strict lower triangle holds the unit-lower multipliers and the rest holds U; pivots[k] is the
// 1-based row exchanged with row k at step k. Returns the number of steps that exchanged rows.
// Throws std::invalid_argument "LU factorisation - non-finite pivot"; SolverError `singular`
// (native status k) or `solver_failure` (multiplier underflow); std::overflow_error
// "size exceeds destination integer range". On a SolverError the matrix is partly eliminated.
// Every update a(i,j) -= m a(k,j) is one fused multiply-subtract, applied in step order; the
// trailing updates spread over ctx's workers when one is given.
template <class C>
std::int64_t lu_factor(C* factors, const MatrixGeometry& geometry, std::int64_t* pivots,
                       const CpuRuntimeContext* ctx = nullptr);

// Solves A x = b in place from the LU factors; x holds b on entry and is reached with the given
// element stride (a column of a row-major right-hand-side block has stride k). Every pivot is
// checked before x is touched: std::invalid_argument "solve - invalid LU pivot".
template <class C>
void lu_solve(const C* factors, const MatrixGeometry& geometry, const std::int64_t* pivots, C* x,
              std::uint64_t x_stride = 1);

// Solves every column of the row-major n x columns block x in place, each giving the bits that
// lu_solve gives for it alone.
template <class C>
void lu_solve_columns(const C* factors, const MatrixGeometry& geometry, const std::int64_t* pivots, C* x,
                      std::uint64_t columns);

// Principal logarithm of det(A) from the factors: (sum of ln|u_kk|, phase). Real factors give the
// phase 0 or pi from the swap parity and the sign bits of the diagonal (-0.0 counts as negative).
// Complex factors give arg of (-1)^swaps times the product of the unit diagonal phases, in
// (-pi, pi]; a product on the real axis gives exactly 0 or pi, and a zero diagonal entry adds
// -inf to the real part and nothing to the phase.
template <class C>
std::complex<RealOf<C>> lu_logdet(const C* factors, const MatrixGeometry& geometry, std::int64_t swaps);

// (sign, log|det|): sign is +-1 (unit phase for complex input) or 0 for a singular matrix, whose
// log-magnitude is -inf. Throws std::runtime_error "slogdet - non-finite LU pivot".
template <class C> struct SignedLogDeterminant {
    C sign;
    RealOf<C> log_magnitude;
};
template <class C>
SignedLogDeterminant<C> slogdet(const C* matrix, const MatrixGeometry& geometry, const CpuRuntimeContext* ctx = nullptr);

// Rescales a flattened n x n matrix (either layout) whose smallest non-zero part is subnormal by
// an even power of two 2^s and returns ln 2 * s * n, the excess of the scaled log-determinant;
// returns 0 and leaves diagonal or normally ranged matrices untouched. The limits come from the
// element's real type: the double instance uses the normal threshold exponent -1022, lifts the
// smallest entry to exponent -969 (53 binades above it) and refuses e_max + s >= 1024; the float
// instance uses -126, -102 (24 binades, its significand width) and 128.
// Instantiated for float, double, complex<float> and complex<double>.
template <class W> RealOf<W> normalise_determinant(W* data, std::uint64_t n, std::string_view operation);

// n times the compute type's machine epsilon; the single-precision value is formed in float.
template <class C> double hermitian_tolerance(std::uint64_t n);

// Finite check, then (when asked) the adjoint check of the lower triangle against the upper one.
// Throws std::invalid_argument "<operation> - input must contain only finite entries" or
// "<operation> - input must be symmetric/Hermitian at (i, j)".
template <class C>
void validate_hermitian_input(const C* matrix, const MatrixGeometry& geometry, bool check_symmetry,
                              std::string_view operation);

// Eigenvalues ascending (values[n]) and orthonormal eigenvectors (column i of `vectors`, an n x n
// matrix in `vector_geometry`'s layout, belongs to values[i]) of the Hermitian matrix whose lower
// triangle and real diagonal are given. Validates with operation "quillmark.eigh" (or
// "quillmark.eigvalsh"). Throws SolverError `non_convergence` (native status 64) and
// std::runtime_error "eigh/eigvalsh - eigenvalue overflow". Outputs are written only on success.
// Large real orders spread their rotations over ctx's workers when one is given.
template <class C>
void eigh(const C* matrix, const MatrixGeometry& geometry, RealOf<C>* values, C* vectors,
          const MatrixGeometry& vector_geometry, const CpuRuntimeContext* ctx = nullptr);
template <class C>
void eigvalsh(const C* matrix, const MatrixGeometry& geometry, RealOf<C>* values,
              const CpuRuntimeContext* ctx = nullptr);

// log det of a Hermitian positive-definite matrix by Cholesky factorisation (real result).
// Throws the validation errors of "quillmark.logdet_positive_definite" and SolverError
// `solver_failure` (native status j + 1) for a failed pivot j.
template <class C>
RealOf<C> logdet_positive_definite(const C* matrix, const MatrixGeometry& geometry,
                                   const CpuRuntimeContext* ctx = nullptr);

} // namespace quillmark::cpu
