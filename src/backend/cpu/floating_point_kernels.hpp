#pragma once
// Dense CPU kernels of the element-wise, reduction and product operations, compiled once per
// numeric policy and complex layout. Each takes the typed views of its operands (inputs first,
// then outputs) and an optional runtime context for its large loops (nullptr runs serially).
// Values are loaded into the compute type, computed there and rounded once on output. The
// int32 policy serves a subset, with arithmetic wrapping modulo 2^32.
//
// Shapes are validated by the operation's shape rule before a kernel runs; kernels re-check the
// dimensions they depend on and throw std::invalid_argument
// "CPU floating kernel - operand shape mismatch" instead of touching memory out of range.
#include <complex>
#include <cstdint>
#include <type_traits>

#include "core/operand_types.hpp"
#include "core/scalar_type.hpp"
#include "storage/views.hpp"

namespace quillmark {
class CpuRuntimeContext;
}

namespace quillmark::cpu {

// Storage type of one real component (Complex32 -> Float16, std::complex<R> -> R).
template <class S> struct StorageComponent {
    using type = S;
};
template <class R> struct StorageComponent<std::complex<R>> {
    using type = R;
};
template <> struct StorageComponent<Complex32> {
    using type = Float16;
};

template <class P>
inline constexpr bool is_complex_policy = !std::is_same_v<typename StorageComponent<typename P::storage_type>::type,
                                                          typename P::storage_type>;
template <class P> inline constexpr bool is_integer_policy = std::is_same_v<typename P::storage_type, std::int32_t>;

// The view types a policy's kernels take, per complex layout: `none` for real and int32
// policies, `split` or `interleaved` for complex ones. RealScalar is the norm's output.
template <class P, ComplexLayout L> struct KernelOperands;

template <class P> struct KernelOperands<P, ComplexLayout::none> {
    static_assert(!is_complex_policy<P>, "complex policies take the split or interleaved layout");
    using S = typename P::storage_type;
    using Vector = DenseVectorView<S>;
    using Matrix = DenseMatrixView<S>;
    using Scalar = ScalarView<S>;
    using RealScalar = ScalarView<S>;
};

template <class P> struct KernelOperands<P, ComplexLayout::split> {
    static_assert(is_complex_policy<P>, "the split layout is for complex policies");
    using T = typename StorageComponent<typename P::storage_type>::type;
    using Vector = SplitVectorView<T>;
    using Matrix = SplitMatrixView<T>;
    using Scalar = SplitScalarView<T>;
    using RealScalar = ScalarView<T>;
};

template <class P> struct KernelOperands<P, ComplexLayout::interleaved> {
    static_assert(is_complex_policy<P>, "the interleaved layout is for complex policies");
    using S = typename P::storage_type;
    using Vector = DenseVectorView<S>;
    using Matrix = DenseMatrixView<S>;
    using Scalar = ScalarView<S>;
    using RealScalar = ScalarView<typename StorageComponent<S>::type>;
};

// Boolean results (1 true, 0 false) and the matrix_power exponent.
using FlagView = ScalarView<std::int32_t>;
using ExponentView = ScalarView<std::int32_t>;

#define QUILLMARK_FLOATING_ONLY requires(!is_integer_policy<P>)

template <class P, ComplexLayout L = ComplexLayout::none> struct FloatingKernels {
    using Operands = KernelOperands<P, L>;
    using Vector = typename Operands::Vector;
    using Matrix = typename Operands::Matrix;
    using Scalar = typename Operands::Scalar;
    using RealScalar = typename Operands::RealScalar;
    using Ctx = const CpuRuntimeContext*;

    // Element-wise; `out` may be the same buffer as an input.
    static void sqrt(const Vector& in, const Vector& out, Ctx ctx) QUILLMARK_FLOATING_ONLY;
    static void conjugate(const Vector& inout, Ctx ctx) QUILLMARK_FLOATING_ONLY;
    static void multiply(const Vector& x, const Vector& y, const Vector& out, Ctx ctx);
    static void add(const Vector& x, const Vector& y, const Vector& out, Ctx ctx);
    static void subtract(const Vector& x, const Vector& y, const Vector& out, Ctx ctx);
    static void scale(const Vector& x, const Scalar& s, const Vector& out, Ctx ctx);
    static void divide(const Vector& x, const Scalar& s, const Vector& out, Ctx ctx) QUILLMARK_FLOATING_ONLY;

    // Reductions.
    static void sum(const Vector& x, const Scalar& out, Ctx ctx);
    static void norm(const Vector& x, const RealScalar& out, Ctx ctx) QUILLMARK_FLOATING_ONLY;
    static void inner(const Vector& x, const Vector& y, const Scalar& out, Ctx ctx);
    static void trace(const Matrix& a, const Scalar& out, Ctx ctx);
    static void vector_equal(const Vector& x, const Vector& y, const FlagView& out, Ctx ctx);
    static void is_unitary(const Matrix& a, const FlagView& out, Ctx ctx) QUILLMARK_FLOATING_ONLY;

    // Matrix results; an output overlapping an input is handled through a copy of the input.
    static void transpose(const Matrix& a, const Matrix& out, Ctx ctx);
    static void adjoint(const Matrix& a, const Matrix& out, Ctx ctx) QUILLMARK_FLOATING_ONLY;
    static void matmul(const Matrix& a, const Matrix& b, const Matrix& out, Ctx ctx);
    static void matvec(const Matrix& a, const Vector& x, const Vector& out, Ctx ctx);
    static void kron(const Matrix& a, const Matrix& b, const Matrix& out, Ctx ctx);
    static void outer(const Vector& x, const Vector& y, const Matrix& out, Ctx ctx);
    static void partial_trace_left(const Matrix& a, const Matrix& out, Ctx ctx) QUILLMARK_FLOATING_ONLY;
    static void partial_trace_right(const Matrix& a, const Matrix& out, Ctx ctx) QUILLMARK_FLOATING_ONLY;
    // Throws std::invalid_argument "matrix_power - exponent must be non-negative" before writing.
    static void matrix_power(const Matrix& a, const ExponentView& exponent, const Matrix& out,
                             Ctx ctx) QUILLMARK_FLOATING_ONLY;
    static void eye(const Matrix& inout, Ctx ctx);
};

#undef QUILLMARK_FLOATING_ONLY

// The compiled combinations.
extern template struct FloatingKernels<PolicyF32>;
extern template struct FloatingKernels<PolicyF64>;
extern template struct FloatingKernels<PolicyBF16>;
extern template struct FloatingKernels<PolicyF16>;
extern template struct FloatingKernels<PolicyI32>;
extern template struct FloatingKernels<PolicyC32, ComplexLayout::split>;
extern template struct FloatingKernels<PolicyC64, ComplexLayout::split>;
extern template struct FloatingKernels<PolicyC128, ComplexLayout::split>;
extern template struct FloatingKernels<PolicyC32, ComplexLayout::interleaved>;
extern template struct FloatingKernels<PolicyC64, ComplexLayout::interleaved>;
extern template struct FloatingKernels<PolicyC128, ComplexLayout::interleaved>;

} // namespace quillmark::cpu
