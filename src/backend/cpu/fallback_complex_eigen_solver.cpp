#include "backend/cpu/fallback_complex_eigen_solver.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/errors.hpp"
#include "runtime/simd_selection.hpp"

namespace quillmark::cpu {

namespace {

using Z = std::complex<double>;

constexpr const char* kLibrary = "CPU";
constexpr double kEpsilon = std::numeric_limits<double>::epsilon();

struct Names {
    const char* operation; // "quillmark.eig"
    const char* prefix;    // "eig - "
};
constexpr Names kEigNames{"quillmark.eig", "eig - "};
constexpr Names kPrincipalNames{"quillmark.principal_eigenvector", "principal_eigenvector - "};

// Plain complex arithmetic (no NaN recovery branch) for the inner loops.
inline Z zmul(const Z& a, const Z& b) noexcept {
    return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}
inline Z zmul_conj(const Z& a, const Z& b) noexcept { // conj(a) * b
    return {a.real() * b.real() + a.imag() * b.imag(), a.real() * b.imag() - a.imag() * b.real()};
}
inline double abs1(const Z& a) noexcept {
    return std::fabs(a.real()) + std::fabs(a.imag());
}

template <class T> struct IsComplex : std::false_type {};
template <class R> struct IsComplex<std::complex<R>> : std::true_type {};

template <class C> inline Z widen(const C& v) noexcept {
    if constexpr (IsComplex<C>::value)
        return {static_cast<double>(v.real()), static_cast<double>(v.imag())};
    else
        return {static_cast<double>(v), 0.0};
}

// Euclidean norm without overflow or destructive underflow.
double norm2(const Z* v, std::uint64_t count, std::uint64_t stride = 1) noexcept {
    double scale = 0;
    for (std::uint64_t i = 0; i < count; ++i)
        scale = std::max({scale, std::fabs(v[i * stride].real()), std::fabs(v[i * stride].imag())});
    if (scale == 0 || !std::isfinite(scale))
        return scale;
    double sum = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const double re = v[i * stride].real() / scale;
        const double im = v[i * stride].imag() / scale;
        sum += re * re + im * im;
    }
    return scale * std::sqrt(sum);
}

inline Z unit_phase(const Z& v) noexcept {
    const double m = std::max(std::fabs(v.real()), std::fabs(v.imag()));
    const Z w(v.real() / m, v.imag() / m);
    return w / std::abs(w);
}

// Radix-two diagonal scaling d so that D^-1 A D has comparable row and column norms. Only exact
// powers of two are applied, so the balanced matrix carries no rounding error.
std::vector<double> balance(std::vector<Z>& h, std::uint64_t n, std::uint64_t maximum_sweeps) {
    std::vector<double> d(n, 1.0);
    constexpr double kLimit = 0x1p400;
    for (std::uint64_t sweep = 0; sweep < maximum_sweeps; ++sweep) {
        bool changed = false;
        for (std::uint64_t i = 0; i < n; ++i) {
            double c = 0;
            double r = 0;
            for (std::uint64_t j = 0; j < n; ++j) {
                if (j == i)
                    continue;
                c += abs1(h[j * n + i]);
                r += abs1(h[i * n + j]);
            }
            if (c == 0 || r == 0 || !std::isfinite(c + r))
                continue;
            const double s = c + r;
            double f = 1;
            double g = r / 2;
            while (c < g && f < kLimit) {
                f *= 2;
                c *= 4;
            }
            g = r * 2;
            while (c >= g && f > 1 / kLimit) {
                f /= 2;
                c /= 4;
            }
            if ((c + r) / f >= 0.95 * s)
                continue;
            const double scaled = d[i] * f;
            if (scaled > kLimit || scaled < 1 / kLimit)
                continue;
            d[i] = scaled;
            changed = true;
            const double inv = 1 / f;
            for (std::uint64_t j = 0; j < n; ++j)
                h[i * n + j] *= inv;
            for (std::uint64_t j = 0; j < n; ++j)
                h[j * n + i] *= f;
        }
        if (!changed)
            break;
    }
    return d;
}

// Householder reduction to upper Hessenberg form; zt accumulates the transposed similarity
// (row m of zt is column m of Q, with Q^H A Q = H).
void hessenberg(std::vector<Z>& h, std::vector<Z>& zt, std::uint64_t n) {
    std::vector<Z> v(n);
    std::vector<Z> w(n);
    for (std::uint64_t k = 0; k + 2 < n; ++k) {
        const std::uint64_t m = n - k - 1; // reflector length, rows k+1 .. n-1
        const Z alpha = h[(k + 1) * n + k];
        const double tail = norm2(h.data() + (k + 2) * n + k, m - 1, n);
        if (tail == 0 && alpha.imag() == 0)
            continue;
        const double beta = -std::copysign(std::hypot(std::abs(alpha), tail), alpha.real());
        const Z tau((beta - alpha.real()) / beta, -alpha.imag() / beta);
        const Z scale = Z(1) / (alpha - beta);
        v[0] = 1;
        for (std::uint64_t i = 1; i < m; ++i)
            v[i] = zmul(h[(k + 1 + i) * n + k], scale);
        h[(k + 1) * n + k] = beta;
        for (std::uint64_t i = 1; i < m; ++i)
            h[(k + 1 + i) * n + k] = 0;

        // Left: H := (I - conj(tau) v v^H) H on rows k+1.., columns k+1..
        const std::uint64_t c0 = k + 1;
        std::fill(w.begin() + c0, w.end(), Z(0));
        for (std::uint64_t i = 0; i < m; ++i) {
            const Z* row = h.data() + (k + 1 + i) * n;
            const Z vi = v[i];
            for (std::uint64_t j = c0; j < n; ++j)
                w[j] += zmul_conj(vi, row[j]);
        }
        const Z ctau = std::conj(tau);
        for (std::uint64_t i = 0; i < m; ++i) {
            Z* row = h.data() + (k + 1 + i) * n;
            const Z f = zmul(ctau, v[i]);
            for (std::uint64_t j = c0; j < n; ++j)
                row[j] -= zmul(f, w[j]);
        }
        // Right: H := H (I - tau v v^H) on all rows, columns k+1..
        for (std::uint64_t r = 0; r < n; ++r) {
            Z* row = h.data() + r * n + c0;
            Z s = 0;
            for (std::uint64_t i = 0; i < m; ++i)
                s += zmul(row[i], v[i]);
            const Z f = zmul(tau, s);
            for (std::uint64_t i = 0; i < m; ++i)
                row[i] -= zmul(f, std::conj(v[i]));
        }
        // Q := Q (I - tau v v^H), i.e. rows k+1.. of zt.
        std::fill(w.begin(), w.end(), Z(0));
        for (std::uint64_t i = 0; i < m; ++i) {
            const Z* row = zt.data() + (k + 1 + i) * n;
            const Z vi = v[i];
            for (std::uint64_t j = 0; j < n; ++j)
                w[j] += zmul(vi, row[j]);
        }
        for (std::uint64_t i = 0; i < m; ++i) {
            Z* row = zt.data() + (k + 1 + i) * n;
            const Z f = zmul(tau, std::conj(v[i]));
            for (std::uint64_t j = 0; j < n; ++j)
                row[j] -= zmul(f, w[j]);
        }
    }
}

// Rotation G = [[c, s], [-conj(s), c]] with G [x; y] = [r; 0].
struct Rotation {
    double c;
    Z s;
    Z r;
};
inline Rotation make_rotation(const Z& x, const Z& y) noexcept {
    if (y == Z(0))
        return {1.0, Z(0), x};
    if (x == Z(0)) {
        const double ay = std::abs(y);
        return {0.0, std::conj(y) / ay, Z(ay)};
    }
    const double ax = std::abs(x);
    const double rho = std::hypot(ax, std::abs(y));
    const Z phase = unit_phase(x);
    return {ax / rho, zmul(phase, std::conj(y) / rho), phase * rho};
}

// Eigenvalue of the trailing 2 x 2 block [[a, b], [c, d]] closer to d.
Z wilkinson_shift(const Z& a, const Z& b, const Z& c, const Z& d) {
    const Z u = std::sqrt(b) * std::sqrt(c);
    double s = abs1(u);
    if (s == 0)
        return d;
    const Z x = 0.5 * (a - d);
    const double sx = abs1(x);
    s = std::max(s, sx);
    Z y = s * std::sqrt((x / s) * (x / s) + (u / s) * (u / s));
    if (sx > 0) {
        const Z xs = x / sx;
        if (xs.real() * y.real() + xs.imag() * y.imag() < 0)
            y = -y;
    }
    const Z denominator = x + y;
    if (denominator == Z(0))
        return d;
    return d - u * (u / denominator);
}

// (x, y) <- (c x + s1 y, c y - s2 x) elementwise, vectorised where the processor allows; the
// same bits either way.
void rotate_rows(Z* x, Z* y, std::uint64_t n, double c, const Z& s1, const Z& s2) noexcept {
    static const bool vectorised = avx2_usable(probe_cpu_features());
    if (vectorised) {
        const double a1[2] = {s1.real(), s1.imag()}, a2[2] = {s2.real(), s2.imag()};
        complex_rotate_avx2(reinterpret_cast<double*>(x), reinterpret_cast<double*>(y), n, c, a1, a2);
        return;
    }
    for (std::uint64_t j = 0; j < n; ++j) {
        const Z a = x[j];
        const Z b = y[j];
        x[j] = c * a + zmul(s1, b);
        y[j] = c * b - zmul(s2, a);
    }
}

// Single-shift complex QR on the Hessenberg matrix h until it is upper triangular (the Schur
// form), accumulating the rotations into zt.
void schur(std::vector<Z>& h, std::vector<Z>& zt, std::uint64_t n, const EigenSolverOptions& options,
           const Names& names) {
    if (n == 0)
        return;
    const double tol = options.convergence_tolerance;
    const double small = std::numeric_limits<double>::min() * (static_cast<double>(n) / kEpsilon);
    double hnorm = 0;
    for (const Z& e : h)
        hnorm = std::max(hnorm, abs1(e));
    const std::uint64_t interval = std::max<std::uint64_t>(options.exceptional_shift_interval, 1);
    auto at = [&](std::uint64_t i, std::uint64_t j) -> Z& { return h[i * n + j]; };

    struct Plane {
        double c;
        Z s;
    };
    std::vector<Plane> sweep;
    sweep.reserve(n);
    std::uint64_t hi = n - 1;
    std::uint64_t its = 0;
    std::uint64_t exceptional = 0;
    while (true) {
        std::uint64_t l = hi;
        for (; l > 0; --l) {
            const double sub = abs1(at(l, l - 1));
            if (sub <= small)
                break;
            double reference = abs1(at(l - 1, l - 1)) + abs1(at(l, l));
            if (reference == 0)
                reference = hnorm;
            if (sub <= tol * reference)
                break;
        }
        if (l > 0)
            at(l, l - 1) = 0;
        if (l == hi) {
            if (hi == 0)
                break;
            --hi;
            its = 0;
            continue;
        }
        if (its >= options.maximum_iterations)
            throw SolverError(kLibrary, -1, "QR iteration limit reached", names.operation,
                              std::string(names.prefix) + "shifted QR iteration did not converge for order " +
                                  std::to_string(n),
                              ErrorReason::non_convergence);
        ++its;
        Z mu;
        if (its % interval == 0) {
            // A stalled window gets an ad hoc shift, alternating between its two ends.
            if (++exceptional % 2 == 1)
                mu = at(hi, hi) + 0.75 * std::fabs(at(hi, hi - 1).real());
            else
                mu = at(l, l) + 0.75 * std::fabs(at(l + 1, l).real());
        } else {
            mu = wilkinson_shift(at(hi - 1, hi - 1), at(hi - 1, hi), at(hi, hi - 1), at(hi, hi));
        }
        sweep.clear();
        for (std::uint64_t k = l; k < hi; ++k) {
            Rotation g;
            if (k == l) {
                g = make_rotation(at(l, l) - mu, at(l + 1, l));
            } else {
                g = make_rotation(at(k, k - 1), at(k + 1, k - 1));
                at(k, k - 1) = g.r;
                at(k + 1, k - 1) = 0;
            }
            const double c = g.c;
            const Z s = g.s;
            const Z sc = std::conj(s);
            Z* rk = h.data() + k * n;
            rotate_rows(rk + k, rk + n + k, n - k, c, s, sc);
            // Rows k+1 and k+2 are read by the next steps; rows up to k only by later column
            // rotations, so theirs wait for the end of the sweep (below).
            const std::uint64_t last = std::min(k + 2, hi);
            for (std::uint64_t i = k + 1; i <= last; ++i) {
                Z* row = h.data() + i * n;
                const Z a = row[k];
                const Z b = row[k + 1];
                row[k] = c * a + zmul(sc, b);
                row[k + 1] = c * b - zmul(s, a);
            }
            sweep.push_back({c, s});
            Z* zk = zt.data() + k * n;
            rotate_rows(zk, zk + n, n, c, sc, s);
        }
        // The waiting column rotations: row i takes those of steps max(l, i) .. hi-1 in order,
        // after every row rotation that reaches it. Four rows go side by side, since each row's
        // steps form one dependent chain.
        constexpr std::uint64_t kRows = 4;
        for (std::uint64_t i0 = 0; i0 < hi; i0 += kRows) {
            for (std::uint64_t k = std::max(l, i0); k < hi; ++k) {
                const double c = sweep[k - l].c;
                const Z s = sweep[k - l].s;
                const Z sc = std::conj(s);
                for (std::uint64_t i = i0; i < std::min(i0 + kRows, std::min(hi, k + 1)); ++i) {
                    Z* row = h.data() + i * n;
                    const Z a = row[k];
                    const Z b = row[k + 1];
                    row[k] = c * a + zmul(sc, b);
                    row[k + 1] = c * b - zmul(s, a);
                }
            }
        }
    }
}

struct Decomposition {
    std::uint64_t n = 0;
    int exponent = 0;        // the input is 2^exponent times `original`
    std::vector<Z> original; // row-major input in working precision, range-scaled
    std::vector<Z> t;        // Schur form, row-major
    std::vector<Z> zt;       // Schur vectors, row m = vector m
    std::vector<double> scaling;
    double norm = 0; // Frobenius norm of the input
};

template <class C>
Decomposition decompose(const C* a, const MatrixGeometry& g, const EigenSolverOptions& options,
                        const Names& names) {
    if (g.rows != g.cols)
        throw std::invalid_argument(std::string(names.prefix) + "input must be square");
    Decomposition dec;
    const std::uint64_t n = g.rows;
    dec.n = n;
    dec.original.resize(n * n);
    for (std::uint64_t i = 0; i < n; ++i) {
        for (std::uint64_t j = 0; j < n; ++j) {
            const Z v = widen(a[g.index(i, j)]);
            if (!std::isfinite(v.real()) || !std::isfinite(v.imag()))
                throw std::invalid_argument(std::string(names.prefix) +
                                            "input must contain only finite entries");
            dec.original[i * n + j] = v;
        }
    }
    // Bring far-out magnitudes near one by an exact power of two, so that neither the iteration
    // nor the residual check underflows or overflows; eigenvalues are scaled back on output.
    double largest = 0;
    for (const Z& v : dec.original)
        largest = std::max({largest, std::fabs(v.real()), std::fabs(v.imag())});
    if (largest > 0 && (largest < 0x1p-256 || largest > 0x1p256)) {
        dec.exponent = std::ilogb(largest);
        for (Z& v : dec.original)
            v = Z(std::scalbn(v.real(), -dec.exponent), std::scalbn(v.imag(), -dec.exponent));
    }
    dec.norm = norm2(dec.original.data(), n * n);
    dec.t = dec.original;
    dec.scaling = balance(dec.t, n, options.maximum_balance_sweeps);
    dec.zt.assign(n * n, Z(0));
    for (std::uint64_t i = 0; i < n; ++i)
        dec.zt[i * n + i] = 1;
    hessenberg(dec.t, dec.zt, n);
    schur(dec.t, dec.zt, n, options, names);
    return dec;
}

// Unit right eigenvector k of the original matrix: back substitution on the Schur form, the
// Schur vectors, then the balancing scale.
void eigenvector(const Decomposition& dec, std::uint64_t k, std::vector<Z>& y, Z* out) {
    const std::uint64_t n = dec.n;
    const std::vector<Z>& t = dec.t;
    const Z lambda = t[k * n + k];
    const double small = std::numeric_limits<double>::min() * (static_cast<double>(n) / kEpsilon);
    const double smin = std::max(kEpsilon * abs1(lambda), small);
    constexpr double kBig = 0x1p500;
    y.assign(k + 1, Z(0));
    y[k] = 1;
    for (std::uint64_t j = k; j-- > 0;) {
        const Z* row = t.data() + j * n;
        Z sum = 0;
        for (std::uint64_t m = j + 1; m <= k; ++m)
            sum += zmul(row[m], y[m]);
        Z den = row[j] - lambda;
        if (abs1(den) < smin)
            den = smin;
        y[j] = -sum / den;
        const double magnitude = abs1(y[j]);
        if (magnitude > kBig) {
            const double f = 1 / magnitude;
            for (std::uint64_t m = j; m <= k; ++m)
                y[m] *= f;
        }
    }
    std::fill(out, out + n, Z(0));
    for (std::uint64_t m = 0; m <= k; ++m) {
        const Z ym = y[m];
        if (ym == Z(0))
            continue;
        const Z* z = dec.zt.data() + m * n;
        for (std::uint64_t r = 0; r < n; ++r)
            out[r] += zmul(ym, z[r]);
    }
    for (std::uint64_t r = 0; r < n; ++r)
        out[r] *= dec.scaling[r];
    const double norm = norm2(out, n);
    if (norm > 0 && std::isfinite(norm))
        for (std::uint64_t r = 0; r < n; ++r)
            out[r] /= norm;
}

// ||A v - lambda v|| / (||A||_F ||v||) within the tolerance (a zero matrix passes trivially);
// lambda is an eigenvalue of the unscaled input.
bool residual_acceptable(const Decomposition& dec, const Z& unscaled_lambda, const Z* v, double tolerance,
                         std::vector<Z>& r) {
    const std::uint64_t n = dec.n;
    if (dec.norm == 0)
        return true;
    const Z lambda(std::scalbn(unscaled_lambda.real(), -dec.exponent),
                   std::scalbn(unscaled_lambda.imag(), -dec.exponent));
    r.resize(n);
    for (std::uint64_t i = 0; i < n; ++i) {
        const Z* row = dec.original.data() + i * n;
        Z s = 0;
        for (std::uint64_t j = 0; j < n; ++j)
            s += zmul(row[j], v[j]);
        r[i] = s - zmul(lambda, v[i]);
    }
    const double residual = norm2(r.data(), n) / (dec.norm * norm2(v, n));
    return residual <= tolerance;
}

[[noreturn]] void throw_residual(const Names& names) {
    throw SolverError(kLibrary, -1, "right-eigenpair residual check failed", names.operation,
                      std::string(names.prefix) + "eigenpair residual exceeds tolerance",
                      ErrorReason::solver_failure);
}

template <class Out> Z round_through(const Z& v) noexcept {
    using R = typename Out::value_type;
    return {static_cast<double>(static_cast<R>(v.real())), static_cast<double>(static_cast<R>(v.imag()))};
}

// Eigenvalue k of the input, rounded to the output precision Out.
template <class Out> Z eigenvalue(const Decomposition& dec, std::uint64_t k, const Names& names) {
    const Z t = dec.t[k * dec.n + k];
    const Z v =
        round_through<Out>(Z(std::scalbn(t.real(), dec.exponent), std::scalbn(t.imag(), dec.exponent)));
    if (!std::isfinite(v.real()) || !std::isfinite(v.imag()))
        throw SolverError(kLibrary, -1, "eigenvalue overflow", names.operation,
                          std::string(names.prefix) + "eigenvalue is outside the finite result range",
                          ErrorReason::solver_failure);
    return v;
}

} // namespace

template <class C> EigenSolverOptions default_eigen_options() noexcept {
    EigenSolverOptions options;
    const double base_convergence = static_cast<double>(1e-4f);
    const double base_residual = 0.001;
    const double ratio = std::is_same_v<RealOf<C>, float> ? 1.0 : 0x1p-29;
    options.convergence_tolerance = base_convergence * ratio;
    options.residual_tolerance = base_residual * ratio;
    return options;
}

template <class C>
void eig(const C* a, const MatrixGeometry& g, EigenComplexOf<C>* values, EigenComplexOf<C>* vectors,
         MatrixLayout vector_layout, const EigenSolverOptions& options) {
    using Out = EigenComplexOf<C>;
    const Decomposition dec = decompose(a, g, options, kEigNames);
    const std::uint64_t n = dec.n;
    // Results are checked as they will be returned, i.e. after rounding to the output precision.
    std::vector<Z> lambda(n);
    std::vector<Z> basis(n * n);
    std::vector<Z> y;
    std::vector<Z> r;
    for (std::uint64_t k = 0; k < n; ++k) {
        lambda[k] = eigenvalue<Out>(dec, k, kEigNames);
        Z* v = basis.data() + k * n;
        eigenvector(dec, k, y, v);
        for (std::uint64_t i = 0; i < n; ++i)
            v[i] = round_through<Out>(v[i]);
        if (!residual_acceptable(dec, lambda[k], v, options.residual_tolerance, r))
            throw_residual(kEigNames);
    }
    const MatrixGeometry out{n, n, vector_layout};
    for (std::uint64_t k = 0; k < n; ++k) {
        values[k] = Out(lambda[k]);
        for (std::uint64_t i = 0; i < n; ++i) {
            const std::uint64_t index =
                vector_layout == MatrixLayout::row_major ? out.index(k, i) : out.index(i, k);
            vectors[index] = Out(basis[k * n + i]);
        }
    }
}

template <class C>
void principal_eigenvector(const C* a, const MatrixGeometry& g, C* vector,
                           const EigenSolverOptions& options) {
    const Decomposition dec = decompose(a, g, options, kPrincipalNames);
    const std::uint64_t n = dec.n;
    if (n == 0)
        return;
    std::uint64_t best = 0;
    double best_magnitude = -1;
    for (std::uint64_t k = 0; k < n; ++k) {
        const double m = std::abs(dec.t[k * n + k]);
        if (m > best_magnitude) {
            best_magnitude = m;
            best = k;
        }
    }
    const double threshold = best_magnitude * (1 - 10 * options.convergence_tolerance);
    for (std::uint64_t k = 0; k < n; ++k) {
        if (k != best && std::abs(dec.t[k * n + k]) >= threshold)
            throw SolverError(
                kLibrary, -1, "dominant eigenvalue magnitude is repeated", kPrincipalNames.operation,
                "principal_eigenvector - dominant eigenvalue is not unique", ErrorReason::solver_failure);
    }
    std::vector<Z> v(n);
    std::vector<Z> y;
    std::vector<Z> r;
    eigenvector(dec, best, y, v.data());
    // Fix the phase: the largest component becomes real and positive.
    std::uint64_t pivot = 0;
    for (std::uint64_t i = 1; i < n; ++i)
        if (std::abs(v[i]) > std::abs(v[pivot]))
            pivot = i;
    if (v[pivot] != Z(0)) {
        const Z rotate = std::conj(unit_phase(v[pivot]));
        for (Z& e : v)
            e = zmul(e, rotate);
        v[pivot] = Z(v[pivot].real(), 0.0);
    }
    std::vector<C> result(n);
    for (std::uint64_t i = 0; i < n; ++i) {
        if constexpr (IsComplex<C>::value) {
            result[i] = C(v[i]);
            v[i] = widen(result[i]);
        } else {
            result[i] = static_cast<C>(v[i].real());
            v[i] = widen(result[i]);
        }
    }
    const Z lambda = eigenvalue<EigenComplexOf<C>>(dec, best, kPrincipalNames);
    if (!residual_acceptable(dec, lambda, v.data(), options.residual_tolerance, r))
        throw_residual(kPrincipalNames);
    std::copy(result.begin(), result.end(), vector);
}

#define QUILLMARK_EIGEN_SOLVER(C)                                                                            \
    template EigenSolverOptions default_eigen_options<C>() noexcept;                                         \
    template void eig<C>(const C*, const MatrixGeometry&, EigenComplexOf<C>*, EigenComplexOf<C>*,            \
                         MatrixLayout, const EigenSolverOptions&);                                           \
    template void principal_eigenvector<C>(const C*, const MatrixGeometry&, C*, const EigenSolverOptions&);

QUILLMARK_EIGEN_SOLVER(float)
QUILLMARK_EIGEN_SOLVER(double)
QUILLMARK_EIGEN_SOLVER(std::complex<float>)
QUILLMARK_EIGEN_SOLVER(std::complex<double>)

#undef QUILLMARK_EIGEN_SOLVER

} // namespace quillmark::cpu
