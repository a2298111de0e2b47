// The cpu_simd backend: complex64 interleaved kernels on the engine of the SIMD selection.
//
// Only keys that are cheaper than the scalar backend's for some caller are registered: the
// scalar backend holds complex vectors and matrices split, so every interleaved operand from
// NumPy matches here at cost 0 and there at cost 1. lu_factor and logdet take and give only
// LU operands and complex scalars, whose keys the scalar backend registers identically; equal
// costs go to the scalar backend, so cpu_simd rows for them could never be chosen and are left
// out.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "backend/cpu/cpu_kernel_registration_table.hpp"
#include "backend/cpu/fallback_complex_eigen_solver.hpp"
#include "backend/cpu/gemm_sources.hpp"
#include "backend/cpu/simd_engine.hpp"
#include "core/errors.hpp"
#include "runtime/cpu_runtime_context.hpp"
#include "storage/access.hpp"

namespace quillmark::cpu_registration {
namespace {

using cpu::c64;
using cpu::ComplexEngine;
using u64 = std::uint64_t;
using Op = BuiltinOperation;
using Matrix = DenseMatrixView<c64>;
using Vector = DenseVectorView<c64>;
using Ctx = const CpuRuntimeContext*;
using namespace cpu_records;

Matrix mat(OperandEntity& e) { return dense_matrix_view<c64>(e, kKernelLabel); }
Vector vec(OperandEntity& e) { return dense_vector_view<c64>(e, kKernelLabel); }
ScalarView<std::int32_t> flag(OperandEntity& e) { return scalar_view<std::int32_t>(e, kKernelLabel); }

void require(bool ok) {
    if (!ok) throw std::invalid_argument("CPU floating kernel - operand shape mismatch");
}

bool overlap(const c64* a, u64 na, const c64* b, u64 nb) noexcept {
    return na != 0 && nb != 0 && a < b + nb && b < a + na;
}

// An input that the output overlaps is read from a private copy, as if inputs were copied first.
struct Guarded {
    std::vector<c64> copy;
    const c64* data;
    Guarded(const c64* in, u64 count, const c64* out, u64 out_count) : data(in) {
        if (overlap(in, count, out, out_count)) {
            copy.assign(in, in + count);
            data = copy.data();
        }
    }
};

template <class F> void chunks(Ctx ctx, u64 n, u64 work, F&& body) {
    if (n == 0) return;
    if (ctx == nullptr || n < 2) return body(u64{0}, n);
    ctx->parallel_for_chunks(0, n, work, ChunkBody([&body](u64 first, u64 last) { body(first, last); }));
}

// c (m x n, row stride n) = a (m x k, row stride lda) * b (k x n, row stride ldb), as the real
// product of the complex embedding: the result comes out interleaved.
void product(const ComplexEngine& z, u64 m, u64 n, u64 k, const c64* a, u64 lda, const c64* b, u64 ldb, c64* c,
             Ctx ctx) {
    using Loader = cpu::InterleavedComplexLoader<c64, float>;
    const cpu::ComplexLeftSource<Loader, float> left{{a, lda, 1}, false};
    const cpu::ComplexRightSource<Loader, float> right{{b, 1, ldb}};
    cpu::gemm<float>(z.gemm, m, 2 * n, 2 * k, left.packer(), right.packer(), reinterpret_cast<float*>(c), 2 * n, ctx);
}

// ---- kernels ------------------------------------------------------------------------------

template <bool Conjugate> void transpose(const Matrix& a, const Matrix& out, Ctx) {
    const ComplexEngine& z = cpu::selected_complex_engine();
    require(out.rows == a.cols && out.cols == a.rows);
    const Guarded in(a.data, a.count(), out.data, out.count());
    z.transpose(a.rows, a.cols, in.data, a.cols, out.data, out.cols, Conjugate);
}

void matmul(const Matrix& a, const Matrix& b, const Matrix& out, Ctx ctx) {
    const ComplexEngine& z = cpu::selected_complex_engine();
    require(a.cols == b.rows && out.rows == a.rows && out.cols == b.cols);
    const bool aliased = overlap(out.data, out.count(), a.data, a.count()) ||
                         overlap(out.data, out.count(), b.data, b.count());
    std::vector<c64> work(aliased ? out.count() : 0);
    c64* c = aliased ? work.data() : out.data;
    product(z, a.rows, b.cols, a.cols, a.data, a.cols, b.data, b.cols, c, ctx);
    if (aliased) std::copy(work.begin(), work.end(), out.data);
}

void matvec(const Matrix& a, const Vector& x, const Vector& out, Ctx ctx) {
    const ComplexEngine& z = cpu::selected_complex_engine();
    require(x.size == a.cols && out.size == a.rows);
    const u64 m = a.rows, n = a.cols;
    const bool aliased = overlap(out.data, m, a.data, a.count()) || overlap(out.data, m, x.data, n);
    std::vector<c64> work(aliased ? m : 0);
    c64* y = aliased ? work.data() : out.data;
    chunks(ctx, m, 8 * m * n, [&](u64 first, u64 last) { z.gemv_rows(last - first, n, a.data + first * n, n, x.data, y + first); });
    if (aliased) std::copy(work.begin(), work.end(), out.data);
}

void partial_trace_shape(const Matrix& a, const Matrix& out) {
    require(a.rows == a.cols && out.rows == out.cols && out.rows != 0 && a.rows % out.rows == 0);
}

// out(i, j) = sum over k of A(k*d + i, k*d + j): whole row segments, added block by block.
void partial_trace_left(const Matrix& a, const Matrix& out, Ctx) {
    const ComplexEngine& z = cpu::selected_complex_engine();
    partial_trace_shape(a, out);
    const u64 big = a.rows, d = out.rows, q = big / d;
    const Guarded in(a.data, a.count(), out.data, out.count());
    std::fill(out.data, out.data + out.count(), c64{});
    for (u64 k = 0; k < q; ++k)
        for (u64 i = 0; i < d; ++i) z.accumulate(d, in.data + (k * d + i) * big + k * d, out.data + i * d);
}

// out(i, j) = sum over k of A(i*q + k, j*q + k): the trace of each q x q block.
void partial_trace_right(const Matrix& a, const Matrix& out, Ctx) {
    cpu::selected_complex_engine();
    partial_trace_shape(a, out);
    const u64 big = a.rows, d = out.rows, q = big / d;
    const Guarded in(a.data, a.count(), out.data, out.count());
    for (u64 i = 0; i < d; ++i)
        for (u64 j = 0; j < d; ++j) {
            c64 total{};
            for (u64 k = 0; k < q; ++k) total += in.data[(i * q + k) * big + j * q + k];
            out.data[i * d + j] = total;
        }
}

void eye(const Matrix& out, Ctx) {
    cpu::selected_complex_engine();
    std::fill(out.data, out.data + out.count(), c64{});
    for (u64 i = 0; i < std::min(out.rows, out.cols); ++i) out.data[i * out.cols + i] = c64(1.0f, 0.0f);
}

void matrix_power(const Matrix& a, const ScalarView<std::int32_t>& exponent, const Matrix& out, Ctx ctx) {
    const ComplexEngine& z = cpu::selected_complex_engine();
    std::int32_t e = exponent.data[0];
    if (e < 0) throw std::invalid_argument("matrix_power - exponent must be non-negative");
    require(a.rows == a.cols && out.rows == a.rows && out.cols == a.cols);
    const u64 n = a.rows;
    std::vector<c64> result(n * n), base(a.data, a.data + n * n), scratch(n * n);
    for (u64 i = 0; i < n; ++i) result[i * n + i] = c64(1.0f, 0.0f);
    bool identity = true; // result still holds I, so the first factor is copied, not multiplied
    for (; e != 0; e >>= 1) {
        if (e & 1) {
            if (identity) result = base;
            else {
                product(z, n, n, n, result.data(), n, base.data(), n, scratch.data(), ctx);
                result.swap(scratch);
            }
            identity = false;
        }
        if (e > 1) {
            product(z, n, n, n, base.data(), n, base.data(), n, scratch.data(), ctx);
            base.swap(scratch);
        }
    }
    std::copy(result.begin(), result.end(), out.data);
}

// Pivots first, then column-oriented substitutions on the column-major factors, so every
// update is a contiguous axpy.
void solve(const LuView<const c64>& lu, const Vector& rhs, Ctx) {
    const ComplexEngine& z = cpu::selected_complex_engine();
    const u64 n = lu.order;
    require(rhs.size == n);
    for (u64 k = 0; k < n; ++k)
        if (lu.pivots[k] < 1 || static_cast<u64>(lu.pivots[k]) > n)
            throw std::invalid_argument("solve - invalid LU pivot");
    c64* x = rhs.data;
    for (u64 k = 0; k < n; ++k) std::swap(x[k], x[lu.pivots[k] - 1]);
    for (u64 j = 0; j + 1 < n; ++j)
        if (x[j] != c64{}) z.axpy(n - j - 1, -x[j], lu.factors + j * n + j + 1, x + j + 1);
    for (u64 j = n; j-- > 0;) {
        x[j] /= lu.factors[j * n + j];
        if (j != 0 && x[j] != c64{}) z.axpy(j, -x[j], lu.factors + j * n, x);
    }
}

void require_finite(const Matrix& a, const char* message) {
    for (u64 i = 0; i < a.count(); ++i)
        if (!std::isfinite(a.data[i].real()) || !std::isfinite(a.data[i].imag())) throw std::invalid_argument(message);
}

constexpr float kPowerTolerance = 1e-5f;
constexpr int kPowerIterations = 512;

// Power iteration from up to two starting vectors. Each iterate is rotated onto the previous
// one's phase, so convergence is measured on directions; the result's largest component is
// made real and positive at the end.
void principal_eigenvector(const Matrix& a, const Vector& out, Ctx ctx) {
    const ComplexEngine& z = cpu::selected_complex_engine();
    require(a.rows == a.cols && out.size == a.rows);
    const u64 n = a.rows;
    if (n == 0) return;
    require_finite(a, "principal_eigenvector - input must contain only finite entries");
    const Guarded in(a.data, a.count(), out.data, n);
    std::vector<c64> v(n), w(n);
    auto start = [&](int attempt) {
        // Constant, then a fixed pseudo-random vector for a start orthogonal to the eigenvector.
        std::uint32_t state = 0x9E3779B9u;
        for (u64 i = 0; i < n; ++i) {
            if (attempt == 0) v[i] = c64(1.0f, 0.0f);
            else {
                state = state * 1664525u + 1013904223u;
                const float re = static_cast<float>(state >> 8) / 16777216.0f - 0.5f;
                state = state * 1664525u + 1013904223u;
                v[i] = c64(re, static_cast<float>(state >> 8) / 16777216.0f - 0.5f);
            }
        }
        z.scale(n, c64(static_cast<float>(1.0 / std::sqrt(z.squared_norm(n, v.data()))), 0.0f), v.data());
    };
    bool converged = false;
    for (int attempt = 0; attempt < 2 && !converged; ++attempt) {
        start(attempt);
        for (int it = 0; it < kPowerIterations; ++it) {
            chunks(ctx, n, 8 * n * n, [&](u64 first, u64 last) { z.gemv_rows(last - first, n, in.data + first * n, n, v.data(), w.data() + first); });
            const double norm = std::sqrt(z.squared_norm(n, w.data()));
            if (norm == 0) { // v lies in the null space: an eigenvector of eigenvalue 0
                converged = attempt == 1;
                break;
            }
            c64 along{};
            for (u64 i = 0; i < n; ++i) along += std::conj(v[i]) * w[i];
            const float phase = std::abs(along);
            const c64 rotate = phase > 0 ? std::conj(along) / phase : c64(1.0f, 0.0f);
            z.scale(n, rotate * static_cast<float>(1.0 / norm), w.data());
            double diff = 0;
            for (u64 i = 0; i < n; ++i) diff += std::norm(std::complex<double>(w[i] - v[i]));
            v.swap(w);
            if (std::sqrt(diff) <= kPowerTolerance) {
                converged = true;
                break;
            }
        }
    }
    if (!converged)
        throw SolverError("CPU", kPowerIterations, "power iteration limit reached", "quillmark.principal_eigenvector",
                          "principal_eigenvector - power iteration did not converge", ErrorReason::non_convergence);
    u64 top = 0;
    for (u64 i = 1; i < n; ++i)
        if (std::abs(v[i]) > std::abs(v[top])) top = i;
    const c64 unit = std::abs(v[top]) > 0 ? std::conj(v[top]) / std::abs(v[top]) : c64(1.0f, 0.0f);
    for (u64 i = 0; i < n; ++i) out.data[i] = v[i] * unit;
    out.data[top] = c64(std::abs(v[top]), 0.0f); // exactly real, not real up to rounding
}

void eig(const Matrix& a, const EigenView<c64>& out, Ctx) {
    cpu::selected_complex_engine();
    const u64 n = out.order;
    if (n != a.rows) throw std::invalid_argument("CPU floating kernel - operand shape mismatch");
    cpu::EigenSolverOptions options = cpu::default_eigen_options<c64>();
    options.exceptional_shift_interval = 16;
    std::vector<c64> scratch(out.vectors ? 0 : n * n);
    cpu::eig<c64>(a.data, a, out.values, out.vectors ? out.vectors : scratch.data(), out.layout, options);
}

LuView<const c64> lu(OperandEntity& e) { return lu_view<c64>(static_cast<const OperandEntity&>(e), kKernelLabel); }
EigenView<c64> eigen(OperandEntity& e) { return eigen_view<c64>(e, kKernelLabel); }

} // namespace

// The interleaved matrix adapter's relayout. The adapter also serves registrations outside this
// backend, so an unusable engine hands the copy back to its portable loop instead of failing.
bool simd_relayout(const c64* src, c64* dst, u64 rows, u64 cols) noexcept {
    const ComplexEngine* z = nullptr;
    try {
        z = &cpu::selected_complex_engine();
    } catch (...) {
        return false;
    }
    z->transpose(rows, cols, src, cols, dst, rows, false);
    return true;
}

std::vector<Registration> simd_registrations() {
    constexpr ScalarType c = ScalarType::complex64;
    const RecordPolicy rp{c, c};
    const auto m = key_of(OperandKind::matrix, c, c, ComplexLayout::interleaved, MatrixLayout::row_major);
    const auto v = key_of(OperandKind::vector, c, c, ComplexLayout::interleaved, MatrixLayout::none);
    const auto lu_key = key_of(OperandKind::lu, c, c, ComplexLayout::interleaved, MatrixLayout::column_major);
    const auto eigen_key = key_of(OperandKind::eigen, c, c, ComplexLayout::interleaved, MatrixLayout::column_major);
    const auto f = key_of(OperandKind::scalar, ScalarType::int32, ScalarType::int32, ComplexLayout::none,
                          MatrixLayout::none);
    constexpr auto M = &mat;
    constexpr auto V = &vec;
    const Numerics copy = generic_record(
        rp, {"simd.transpose_copy", Stability::exact, product_of({in_dim(0, 0), in_dim(0, 1)})});
    const Numerics partial = generic_record(rp, {"simd.partial_trace", Stability::backward_stable,
                                                 product_of({in_dim(0, 0), out_dim(0, 0)}), lit(0),
                                                 ReductionOrder::sequential});
    std::vector<Registration> rows;
    rows.push_back({Op::transpose, {m}, {m}, bound<&transpose<false>, In<M, 0>, Out<M, 1>>(), copy});
    rows.push_back({Op::adjoint, {m}, {m}, bound<&transpose<true>, In<M, 0>, Out<M, 1>>(), copy});
    rows.push_back({Op::matmul, {m, m}, {m}, bound<&matmul, In<M, 0>, In<M, 1>, Out<M, 2>>(), simd_gemm_record()});
    rows.push_back({Op::matvec, {m, v}, {v}, bound<&matvec, In<M, 0>, In<V, 1>, Out<V, 2>>(), simd_gemv_record()});
    rows.push_back({Op::solve, {lu_key}, {v}, bound<&solve, In<&lu, 0>, Out<V, 1>>(), simd_solve_record()});
    rows.push_back({Op::partial_trace_left, {m}, {m}, bound<&partial_trace_left, In<M, 0>, Out<M, 1>>(), partial});
    rows.push_back({Op::partial_trace_right, {m}, {m}, bound<&partial_trace_right, In<M, 0>, Out<M, 1>>(), partial});
    rows.push_back({Op::eye, {}, {m}, bound<&eye, Out<M, 0>>(),
                    generic_record(rp, {"simd.identity_fill", Stability::exact, square(out_dim(0, 0))})});
    rows.push_back({Op::matrix_power, {m, f}, {m}, bound<&matrix_power, In<M, 0>, In<&flag, 1>, Out<M, 2>>(),
                    simd_matrix_power_record()});
    rows.push_back({Op::principal_eigenvector, {m}, {v}, bound<&principal_eigenvector, In<M, 0>, Out<V, 1>>(),
                    simd_power_iteration_record()});
    rows.push_back({Op::eig, {m}, {eigen_key}, bound<&eig, In<M, 0>, Out<&eigen, 1>>(), simd_eigen_record()});
    return rows;
}

} // namespace quillmark::cpu_registration
