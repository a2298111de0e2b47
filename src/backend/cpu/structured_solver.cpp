#include "backend/cpu/structured_solver.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "backend/cpu/structured_solver_jacobi.hpp"
#include "backend/cpu/structured_solver_lu.hpp"
#include "core/errors.hpp"

namespace quillmark::cpu {

namespace {

template <class T> struct IsComplex : std::false_type {};
template <class R> struct IsComplex<std::complex<R>> : std::true_type {};
template <class C> inline constexpr bool kComplex = IsComplex<C>::value;

// Single-precision Jacobi, slogdet and Cholesky work on a double-precision copy.
template <class C> struct WidenOf {
    using type = C;
};
template <> struct WidenOf<float> {
    using type = double;
};
template <> struct WidenOf<std::complex<float>> {
    using type = std::complex<double>;
};
template <class C> using Widened = typename WidenOf<C>::type;

constexpr const char* kLibrary = "CPU";

template <class C> inline bool is_finite(const C& v) noexcept {
    if constexpr (kComplex<C>)
        return std::isfinite(v.real()) && std::isfinite(v.imag());
    else
        return std::isfinite(v);
}

template <class C> inline RealOf<C> real_part(const C& v) noexcept {
    if constexpr (kComplex<C>)
        return v.real();
    else
        return v;
}

template <class C> inline C conj_of(const C& v) noexcept {
    if constexpr (kComplex<C>)
        return std::conj(v);
    else
        return v;
}

// Plain product (no NaN recovery path) so the update loops stay branch-free.
template <class C> inline C mul(const C& a, const C& b) noexcept {
    if constexpr (kComplex<C>)
        return C(a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real());
    else
        return a * b;
}

template <class To, class From> inline To convert(const From& v) noexcept {
    if constexpr (kComplex<To>)
        return To(static_cast<RealOf<To>>(real_part(v)), static_cast<RealOf<To>>(std::imag(v)));
    else
        return static_cast<To>(v);
}

// The magnitude by which the elimination ranked the pivot v: a complex modulus that overflows
// is taken of the halved value.
template <class C> inline RealOf<C> pivot_magnitude(const C& v) noexcept {
    using R = RealOf<C>;
    const R m = std::abs(v);
    if constexpr (kComplex<C>)
        if (!std::isfinite(m))
            return std::abs(v * R(0.5));
    return m;
}

// ln|v| without overflow of the complex modulus.
template <class C> inline RealOf<C> log_abs(const C& v) noexcept {
    using R = RealOf<C>;
    if constexpr (kComplex<C>) {
        const R m = std::abs(v);
        if (std::isinf(m) && is_finite(v))
            return std::log(std::abs(v * R(0.5))) + std::numbers::ln2_v<R>;
        return std::log(m);
    } else {
        return std::log(std::fabs(v));
    }
}

// v / |v| for a non-zero finite v, robust against overflow and underflow of the modulus.
template <class R> inline std::complex<R> unit_phase(const std::complex<R>& v) noexcept {
    const R m = std::max(std::fabs(v.real()), std::fabs(v.imag()));
    const std::complex<R> w(v.real() / m, v.imag() / m);
    return w / std::abs(w);
}

struct Strides {
    std::uint64_t row;
    std::uint64_t col;
};
inline Strides strides_of(const MatrixGeometry& g) noexcept {
    return g.layout == MatrixLayout::column_major ? Strides{1, g.rows} : Strides{g.cols, 1};
}

inline void require_square(const MatrixGeometry& g, const char* message) {
    if (g.rows != g.cols)
        throw std::invalid_argument(message);
}

inline std::int32_t status_of(std::uint64_t value) noexcept {
    return static_cast<std::int32_t>(
        std::min<std::uint64_t>(value, std::numeric_limits<std::int32_t>::max()));
}

// Private column-major copy in the working type W (the layout the eliminations run on).
template <class W, class C> std::vector<W> column_major_copy(const C* a, const MatrixGeometry& g) {
    const std::uint64_t n = g.rows;
    std::vector<W> w(n * n);
    const Strides st = strides_of(g);
    // Square tiles keep the reads of a row-major source in cache.
    constexpr std::uint64_t kTile = 32;
    for (std::uint64_t jb = 0; jb < n; jb += kTile)
        for (std::uint64_t ib = 0; ib < n; ib += kTile)
            for (std::uint64_t j = jb; j < std::min(n, jb + kTile); ++j)
                for (std::uint64_t i = ib; i < std::min(n, ib + kTile); ++i)
                    w[j * n + i] = convert<W>(a[i * st.row + j * st.col]);
    return w;
}

template <class C> double tolerance_for(std::uint64_t n) {
    if constexpr (std::is_same_v<RealOf<C>, float>) {
        return static_cast<double>(static_cast<float>(n) * std::numeric_limits<float>::epsilon());
    } else {
        return static_cast<double>(n) * std::numeric_limits<double>::epsilon();
    }
}

// The input check in the widened working precision of C.
template <class C>
void validate_input(const C* a, const MatrixGeometry& g, bool check_symmetry, double tolerance,
                    std::string_view operation) {
    using W = Widened<C>;
    using RW = RealOf<W>;
    const std::uint64_t n = g.rows;
    const Strides st = strides_of(g);
    for (std::uint64_t i = 0; i < n; ++i)
        for (std::uint64_t j = 0; j < n; ++j)
            if (!is_finite(a[i * st.row + j * st.col]))
                throw std::invalid_argument(std::string(operation) +
                                            " - input must contain only finite entries");
    if (!check_symmetry)
        return;
    for (std::uint64_t i = 0; i < n; ++i) {
        for (std::uint64_t j = 0; j <= i; ++j) {
            const W x = convert<W>(a[i * st.row + j * st.col]);
            const W y = convert<W>(a[j * st.row + i * st.col]);
            RW m;
            RW diff;
            if constexpr (kComplex<W>) {
                m = std::max(
                    {std::fabs(x.real()), std::fabs(x.imag()), std::fabs(y.real()), std::fabs(y.imag())});
                if (m == 0)
                    continue;
                diff =
                    std::max(std::fabs(x.real() / m - y.real() / m), std::fabs(x.imag() / m + y.imag() / m));
            } else {
                m = std::max(std::fabs(x), std::fabs(y));
                if (m == 0)
                    continue;
                diff = std::fabs(x / m - y / m);
            }
            if (diff > tolerance)
                throw std::invalid_argument(std::string(operation) +
                                            " - input must be symmetric/Hermitian at (" + std::to_string(i) +
                                            ", " + std::to_string(j) + ")");
        }
    }
}

// Row-major working copy of the Hermitian matrix defined by the lower triangle and the real
// diagonal.
template <class W, class C> std::vector<W> hermitian_copy(const C* a, const MatrixGeometry& g) {
    const std::uint64_t n = g.rows;
    const Strides st = strides_of(g);
    std::vector<W> w(n * n);
    for (std::uint64_t i = 0; i < n; ++i) {
        for (std::uint64_t j = 0; j < i; ++j) {
            const W v = convert<W>(a[i * st.row + j * st.col]);
            w[i * n + j] = v;
            w[j * n + i] = conj_of(v);
        }
        w[i * n + i] = W(static_cast<RealOf<W>>(real_part(a[i * (st.row + st.col)])));
    }
    return w;
}

template <class C>
void hermitian_eigen(const C* a, const MatrixGeometry& g, RealOf<C>* values, C* vectors,
                     const MatrixGeometry* vector_geometry, std::string_view operation,
                     const CpuRuntimeContext* ctx) {
    using W = Widened<C>;
    using R = RealOf<C>;
    require_square(g, "eigh/eigvalsh - input must be square");
    const std::uint64_t n = g.rows;
    if (vector_geometry && (vector_geometry->rows != n || vector_geometry->cols != n))
        throw std::invalid_argument("eigh - eigenvector shape mismatch");
    const double tol = tolerance_for<C>(n);
    validate_input(a, g, true, tol, operation);
    std::vector<W> w = hermitian_copy<W>(a, g);
    std::vector<W> vt;
    const std::vector<double> d = jacobi_hermitian(w, n, tol, vector_geometry ? &vt : nullptr, default_jacobi_kernels(), ctx);

    std::vector<R> result(n);
    for (std::uint64_t i = 0; i < n; ++i) {
        result[i] = static_cast<R>(d[i]);
        if (!std::isfinite(result[i]))
            throw std::runtime_error("eigh/eigvalsh - eigenvalue overflow");
    }
    std::vector<std::uint64_t> perm(n);
    std::iota(perm.begin(), perm.end(), std::uint64_t{0});
    std::stable_sort(perm.begin(), perm.end(), [&](std::uint64_t x, std::uint64_t y) { return d[x] < d[y]; });
    for (std::uint64_t i = 0; i < n; ++i)
        values[i] = result[perm[i]];
    if (vector_geometry) {
        for (std::uint64_t i = 0; i < n; ++i) {
            const W* column = vt.data() + perm[i] * n;
            for (std::uint64_t k = 0; k < n; ++k)
                vectors[vector_geometry->index(k, i)] = convert<C>(column[k]);
        }
    }
}

} // namespace

template <class C>
std::int64_t lu_factor(C* a, const MatrixGeometry& g, std::int64_t* pivots, const CpuRuntimeContext* ctx) {
    require_square(g, "LU factorisation - matrix must be square");
    const std::uint64_t n = g.rows;
    if (n > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        throw std::overflow_error("size exceeds destination integer range");
    // The elimination runs on columns; a row-major matrix goes through a transposed copy.
    std::vector<C> transposed;
    C* work = a;
    if (g.layout != MatrixLayout::column_major && n > 1) {
        transposed.resize(n * n);
        for (std::uint64_t i = 0; i < n; ++i)
            for (std::uint64_t j = 0; j < n; ++j) transposed[j * n + i] = a[i * n + j];
        work = transposed.data();
    }
    const LuOutcome outcome =
        lu_eliminate<C, RealOf<C>>(work, n, pivots, default_lu_kernels<RealOf<C>>(), kLuBlock, ctx);
    if (work != a)
        for (std::uint64_t i = 0; i < n; ++i)
            for (std::uint64_t j = 0; j < n; ++j) a[i * n + j] = transposed[j * n + i];
    switch (outcome.stop) {
    case LuStop::none:
        break;
    case LuStop::non_finite:
        throw std::invalid_argument("LU factorisation - non-finite pivot");
    case LuStop::singular:
        throw SolverError(kLibrary, status_of(outcome.step), "zero LU pivot", "quillmark.lu_factor",
                          "LU factorisation - singular matrix at pivot " + std::to_string(outcome.step),
                          ErrorReason::singular);
    case LuStop::underflow:
        throw SolverError(kLibrary, -1, "LU multiplier underflow", "quillmark.lu_factor",
                          "LU multiplier range cannot be preserved", ErrorReason::solver_failure);
    }
    return outcome.swaps;
}

namespace {

// Solves the right-hand sides x(i, c) = x[i * ld + c], c < columns, each with exactly the
// operations of a lone vector; the columns run side by side so the factors are read once per
// block of columns.
template <class C>
void solve_rows(const C* a, const MatrixGeometry& g, const std::int64_t* pivots, C* x, std::uint64_t ld,
                std::uint64_t columns) {
    require_square(g, "solve - LU factors must be square");
    const std::uint64_t n = g.rows;
    for (std::uint64_t i = 0; i < n; ++i)
        if (pivots[i] < 1 || static_cast<std::uint64_t>(pivots[i]) > n)
            throw std::invalid_argument("solve - invalid LU pivot");
    const Strides st = strides_of(g);
    for (std::uint64_t i = 0; i < n; ++i) {
        const std::uint64_t p = static_cast<std::uint64_t>(pivots[i]) - 1;
        if (p != i)
            std::swap_ranges(x + i * ld, x + i * ld + columns, x + p * ld);
    }
    constexpr std::uint64_t kBlock = 64;
    std::vector<C> sums(std::min(columns, kBlock));
    for (std::uint64_t c0 = 0; c0 < columns; c0 += kBlock) {
        const std::uint64_t width = std::min(kBlock, columns - c0);
        C* const sum = sums.data();
        for (std::uint64_t i = 0; i < n; ++i) {
            std::fill(sum, sum + width, C(0));
            for (std::uint64_t j = 0; j < i; ++j) {
                const C l = a[i * st.row + j * st.col];
                const C* xj = x + j * ld + c0;
                for (std::uint64_t c = 0; c < width; ++c)
                    sum[c] += mul(l, xj[c]);
            }
            C* xi = x + i * ld + c0;
            for (std::uint64_t c = 0; c < width; ++c)
                xi[c] -= sum[c];
        }
        for (std::uint64_t i = n; i-- > 0;) {
            std::fill(sum, sum + width, C(0));
            for (std::uint64_t j = i + 1; j < n; ++j) {
                const C u = a[i * st.row + j * st.col];
                const C* xj = x + j * ld + c0;
                for (std::uint64_t c = 0; c < width; ++c)
                    sum[c] += mul(u, xj[c]);
            }
            const C d = a[i * (st.row + st.col)];
            C* xi = x + i * ld + c0;
            for (std::uint64_t c = 0; c < width; ++c)
                xi[c] = (xi[c] - sum[c]) / d;
        }
    }
}

} // namespace

template <class C>
void lu_solve(const C* a, const MatrixGeometry& g, const std::int64_t* pivots, C* x, std::uint64_t x_stride) {
    solve_rows(a, g, pivots, x, x_stride, 1);
}

template <class C>
void lu_solve_columns(const C* a, const MatrixGeometry& g, const std::int64_t* pivots, C* x, std::uint64_t columns) {
    solve_rows(a, g, pivots, x, columns, columns);
}

template <class C>
std::complex<RealOf<C>> lu_logdet(const C* a, const MatrixGeometry& g, std::int64_t swaps) {
    using R = RealOf<C>;
    require_square(g, "logdet - LU factors must be square");
    const std::uint64_t n = g.rows;
    const std::uint64_t diagonal_stride = g.rows + 1;
    R sum = 0;
    if constexpr (kComplex<C>) {
        std::complex<R> phase = (swaps & 1) ? R(-1) : R(1);
        for (std::uint64_t k = 0; k < n; ++k) {
            const C u = a[k * diagonal_stride];
            sum += log_abs(u);
            if (u != C(0) && is_finite(u)) {
                phase *= unit_phase(u);
                phase /= std::abs(phase);
            }
        }
        // A product on the real axis takes its principal value exactly (+pi, never -pi).
        const R angle = phase.imag() == 0 ? (phase.real() < 0 ? std::numbers::pi_v<R> : R(0))
                                          : std::atan2(phase.imag(), phase.real());
        return {sum, angle};
    } else {
        std::int64_t parity = swaps & 1;
        for (std::uint64_t k = 0; k < n; ++k) {
            const C u = a[k * diagonal_stride];
            sum += std::log(std::fabs(u));
            if (std::signbit(u))
                parity ^= 1;
        }
        return {sum, parity ? std::numbers::pi_v<R> : R(0)};
    }
}

template <class W> RealOf<W> normalise_determinant(W* data, std::uint64_t n, std::string_view operation) {
    using R = RealOf<W>;
    if (n == 0)
        return 0;
    constexpr int kNormalExponent = std::numeric_limits<R>::min_exponent - 1;       // -1022, -126
    constexpr int kLiftExponent = kNormalExponent + std::numeric_limits<R>::digits; // -969, -102
    constexpr int kOverflowExponent = std::numeric_limits<R>::max_exponent;         // 1024, 128
    bool off_diagonal = false;
    R smallest = std::numeric_limits<R>::infinity();
    R largest = 0;
    auto track = [&](R part) {
        const R m = std::fabs(part);
        if (m == 0 || std::isnan(m))
            return;
        if (m < smallest)
            smallest = m;
        if (m > largest)
            largest = m;
    };
    for (std::uint64_t i = 0; i < n; ++i) {
        for (std::uint64_t j = 0; j < n; ++j) {
            const W v = data[i * n + j];
            if (i != j && v != W(0))
                off_diagonal = true;
            if constexpr (kComplex<W>) {
                track(v.real());
                track(v.imag());
            } else {
                track(v);
            }
        }
    }
    if (!off_diagonal || !(smallest < std::numeric_limits<R>::min()))
        return 0;
    const std::int64_t e_max = std::ilogb(largest);
    const std::int64_t e_min = std::ilogb(smallest);
    std::int64_t s = 0;
    if (e_min < kNormalExponent) {
        s = std::max<std::int64_t>(kLiftExponent - e_min, -e_max);
        if (s % 2 != 0)
            s += 1;
        if (e_max + s >= kOverflowExponent)
            throw SolverError(kLibrary, -1, "determinant scaling would overflow", std::string(operation),
                              std::string(operation) + " - subnormal factorisation range cannot be preserved",
                              ErrorReason::solver_failure);
    }
    if (s == 0)
        return 0;
    const int exponent = static_cast<int>(s);
    for (std::uint64_t i = 0; i < n * n; ++i) {
        if constexpr (kComplex<W>)
            data[i] = W(std::scalbn(data[i].real(), exponent), std::scalbn(data[i].imag(), exponent));
        else
            data[i] = std::scalbn(data[i], exponent);
    }
    return std::numbers::ln2_v<R> * static_cast<R>(s) * static_cast<R>(n);
}

template <class C> SignedLogDeterminant<C> slogdet(const C* a, const MatrixGeometry& g, const CpuRuntimeContext* ctx) {
    using W = Widened<C>;
    using RW = RealOf<W>;
    using R = RealOf<C>;
    require_square(g, "slogdet/logdet_positive_definite - input must be square");
    const std::uint64_t n = g.rows;
    std::vector<W> w = column_major_copy<W>(a, g);
    const RW correction = normalise_determinant(w.data(), n, "quillmark.slogdet");
    if (n == 0)
        return {C(1), static_cast<R>(RW(0) - correction)};
    std::vector<std::int64_t> pivots(n);
    const LuOutcome outcome =
        lu_eliminate<W, RW>(w.data(), n, pivots.data(), default_lu_kernels<RW>(), kLuBlock, ctx);
    switch (outcome.stop) {
    case LuStop::none:
        break;
    case LuStop::non_finite:
        throw std::runtime_error("slogdet - non-finite LU pivot");
    case LuStop::singular:
        return {C(0), -std::numeric_limits<R>::infinity()};
    case LuStop::underflow:
        throw SolverError(kLibrary, -1, "LU multiplier underflow", "quillmark.slogdet",
                          "slogdet - LU multiplier range cannot be preserved", ErrorReason::solver_failure);
    }
    W sign(1);
    RW log_magnitude = 0;
    for (std::uint64_t k = 0; k < n; ++k) {
        if (static_cast<std::uint64_t>(pivots[k]) != k + 1)
            sign = -sign;
        const W u = w[k * n + k];
        log_magnitude += log_abs(u);
        if constexpr (kComplex<W>) {
            const W q = u / pivot_magnitude(u);
            sign = mul(sign, q / std::abs(q));
        } else {
            if (u < 0)
                sign = -sign;
        }
    }
    if constexpr (kComplex<W>)
        sign /= std::abs(sign);
    return {convert<C>(sign), static_cast<R>(log_magnitude - correction)};
}

template <class C> double hermitian_tolerance(std::uint64_t n) {
    return tolerance_for<C>(n);
}

template <class C>
void validate_hermitian_input(const C* a, const MatrixGeometry& g, bool check_symmetry,
                              std::string_view operation) {
    require_square(g, "eigh/eigvalsh - input must be square");
    validate_input(a, g, check_symmetry, tolerance_for<C>(g.rows), operation);
}

template <class C>
void eigh(const C* a, const MatrixGeometry& g, RealOf<C>* values, C* vectors,
          const MatrixGeometry& vector_geometry, const CpuRuntimeContext* ctx) {
    hermitian_eigen(a, g, values, vectors, &vector_geometry, "quillmark.eigh", ctx);
}

template <class C>
void eigvalsh(const C* a, const MatrixGeometry& g, RealOf<C>* values, const CpuRuntimeContext* ctx) {
    hermitian_eigen<C>(a, g, values, nullptr, nullptr, "quillmark.eigvalsh", ctx);
}

template <class C>
RealOf<C> logdet_positive_definite(const C* a, const MatrixGeometry& g, const CpuRuntimeContext* ctx) {
    using W = Widened<C>;
    using RW = RealOf<W>;
    using R = RealOf<C>;
    constexpr const char* kOperation = "quillmark.logdet_positive_definite";
    require_square(g, "slogdet/logdet_positive_definite - input must be square");
    const std::uint64_t n = g.rows;
    validate_input(a, g, true, tolerance_for<C>(n), kOperation);
    std::vector<W> w = column_major_copy<W>(a, g);
    const RW correction = normalise_determinant(w.data(), n, kOperation);
    if (n == 0)
        return static_cast<R>(RW(0) - correction);
    const RW eps = static_cast<RW>(std::numeric_limits<R>::epsilon());
    std::vector<RW> pivots(n);
    const CholeskyOutcome<RW> outcome =
        cholesky_eliminate<W, RW>(w.data(), n, eps, pivots.data(), default_lu_kernels<RW>(), kCholeskyBlock, ctx);
    if (!outcome.positive)
        throw SolverError(kLibrary, status_of(outcome.step + 1), "non-positive Cholesky pivot", kOperation,
                          "logdet_positive_definite - matrix is not positive definite at pivot " +
                              std::to_string(outcome.step),
                          ErrorReason::solver_failure);
    RW sum = 0;
    for (std::uint64_t j = 0; j < n; ++j)
        sum += std::log(pivots[j]);
    return static_cast<R>(sum - correction);
}

#define QUILLMARK_STRUCTURED_SOLVER(C)                                                                       \
    template std::int64_t lu_factor<C>(C*, const MatrixGeometry&, std::int64_t*, const CpuRuntimeContext*);                            \
    template void lu_solve<C>(const C*, const MatrixGeometry&, const std::int64_t*, C*, std::uint64_t);      \
    template void lu_solve_columns<C>(const C*, const MatrixGeometry&, const std::int64_t*, C*, std::uint64_t); \
    template std::complex<RealOf<C>> lu_logdet<C>(const C*, const MatrixGeometry&, std::int64_t);            \
    template SignedLogDeterminant<C> slogdet<C>(const C*, const MatrixGeometry&, const CpuRuntimeContext*);                            \
    template RealOf<C> normalise_determinant<C>(C*, std::uint64_t, std::string_view);                        \
    template double hermitian_tolerance<C>(std::uint64_t);                                                   \
    template void validate_hermitian_input<C>(const C*, const MatrixGeometry&, bool, std::string_view);      \
    template void eigh<C>(const C*, const MatrixGeometry&, RealOf<C>*, C*, const MatrixGeometry&,             \
                          const CpuRuntimeContext*);                                                         \
    template void eigvalsh<C>(const C*, const MatrixGeometry&, RealOf<C>*, const CpuRuntimeContext*);        \
    template RealOf<C> logdet_positive_definite<C>(const C*, const MatrixGeometry&, const CpuRuntimeContext*);

QUILLMARK_STRUCTURED_SOLVER(float)
QUILLMARK_STRUCTURED_SOLVER(double)
QUILLMARK_STRUCTURED_SOLVER(std::complex<float>)
QUILLMARK_STRUCTURED_SOLVER(std::complex<double>)

#undef QUILLMARK_STRUCTURED_SOLVER

} // namespace quillmark::cpu
