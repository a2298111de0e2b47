#include "backend/cpu/fallback_complex_eigen_solver.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "backend/cpu/gemm_sources.hpp"
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

// Real inputs keep their balancing and Hessenberg reduction real (a quarter of the complex
// work; Q stays real), so these helpers take T = double as well as Z.
inline double re_of(double v) noexcept { return v; }
inline double re_of(const Z& v) noexcept { return v.real(); }
inline double im_of(double) noexcept { return 0; }
inline double im_of(const Z& v) noexcept { return v.imag(); }
inline double conj_of(double v) noexcept { return v; }
inline Z conj_of(const Z& v) noexcept { return std::conj(v); }
inline double zmul(double a, double b) noexcept { return a * b; }
inline double zmul_conj(double a, double b) noexcept { return a * b; }
inline double abs1(double a) noexcept { return std::fabs(a); }
template <class T> T from_parts(double re, double im) noexcept {
    if constexpr (std::is_same_v<T, double>) return re;
    else return T(re, im);
}

// Euclidean norm without overflow or destructive underflow.
template <class T> double norm2(const T* v, std::uint64_t count, std::uint64_t stride = 1) noexcept {
    double scale = 0;
    for (std::uint64_t i = 0; i < count; ++i)
        scale = std::max({scale, std::fabs(re_of(v[i * stride])), std::fabs(im_of(v[i * stride]))});
    if (scale == 0 || !std::isfinite(scale))
        return scale;
    double sum = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const double re = re_of(v[i * stride]) / scale;
        const double im = im_of(v[i * stride]) / scale;
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
template <class T> std::vector<double> balance(std::vector<T>& h, std::uint64_t n, std::uint64_t maximum_sweeps) {
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

using ZLoader = InterleavedComplexLoader<Z, double>;

// c[i*ldc + j] = sum_p op(L)(i, p) R(p, j) for i < m, j < cols through the packed GEMM, with
// L(i, p) at l[i*l_line + p*l_depth] (conjugated on request) and R(p, j) at r[j*r_line + p*r_depth].
template <class T>
void product(std::uint64_t m, std::uint64_t cols, std::uint64_t depth, const T* l, std::uint64_t l_line,
             std::uint64_t l_depth, bool conj_left, const T* r, std::uint64_t r_line, std::uint64_t r_depth, T* c,
             std::uint64_t ldc) {
    if constexpr (std::is_same_v<T, double>) {
        const RealPanelSource<double, double> left{l, l_line, l_depth};
        const RealPanelSource<double, double> right{r, r_line, r_depth};
        gemm<double>(m, cols, depth, left.packer(), right.packer(), c, ldc, nullptr);
    } else {
        const ComplexLeftSource<ZLoader, double> left{{l, l_line, l_depth}, conj_left};
        const ComplexRightSource<ZLoader, double> right{{r, r_line, r_depth}};
        gemm<double>(m, 2 * cols, 2 * depth, left.packer(), right.packer(), reinterpret_cast<double*>(c), 2 * ldc,
                     nullptr);
    }
}

// dst[i*ld + j] -= src[i*cols + j] for i < rows, j < cols.
template <class T>
void subtract_block(T* dst, std::uint64_t ld, const T* src, std::uint64_t rows, std::uint64_t cols) noexcept {
    for (std::uint64_t i = 0; i < rows; ++i)
        for (std::uint64_t j = 0; j < cols; ++j)
            dst[i * ld + j] -= src[i * cols + j];
}

// out[r] = sum_i rows[r*ld + i] * x[i] for r < count, i < m. Four rows with two partial sums each
// keep eight independent additions in flight.
template <class T>
void multiply_rows(const T* rows, std::uint64_t ld, std::uint64_t count, std::uint64_t m, const T* x, T* out) noexcept {
    if constexpr (std::is_same_v<T, double>) {
        static const bool vectorised = avx2_usable(probe_cpu_features());
        if (vectorised) {
            rows_times_vector_avx2(rows, ld, count, m, x, out);
            return;
        }
    }
    std::uint64_t r = 0;
    for (; r + 4 <= count; r += 4) {
        const T* p0 = rows + r * ld;
        const T* p1 = p0 + ld;
        const T* p2 = p1 + ld;
        const T* p3 = p2 + ld;
        T s[8]{};
        std::uint64_t i = 0;
        for (; i + 2 <= m; i += 2) {
            s[0] += zmul(p0[i], x[i]), s[4] += zmul(p0[i + 1], x[i + 1]);
            s[1] += zmul(p1[i], x[i]), s[5] += zmul(p1[i + 1], x[i + 1]);
            s[2] += zmul(p2[i], x[i]), s[6] += zmul(p2[i + 1], x[i + 1]);
            s[3] += zmul(p3[i], x[i]), s[7] += zmul(p3[i + 1], x[i + 1]);
        }
        if (i < m) {
            s[0] += zmul(p0[i], x[i]), s[1] += zmul(p1[i], x[i]);
            s[2] += zmul(p2[i], x[i]), s[3] += zmul(p3[i], x[i]);
        }
        for (int q = 0; q < 4; ++q)
            out[r + q] = s[q] + s[q + 4];
    }
    for (; r < count; ++r) {
        const T* p = rows + r * ld;
        T sum{};
        for (std::uint64_t i = 0; i < m; ++i)
            sum += zmul(p[i], x[i]);
        out[r] = sum;
    }
}

// A panel of reflectors P_j = I - tau_j v_j v_j^H, gathered as P_first ... P_last = I - V T V^H:
// column p of V at v[p*n ..) (zero above its unit entry), T upper triangular (t[i*count + p]).
template <class T> struct ReflectorPanel {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    std::vector<T> v;
    std::vector<T> t;
};

// m := (I - V op(T) V^H) m with op(T) = T^H (adjoint) or T, on the rows from panel.first + 1 on
// and `cols` columns of m (row-major, ld; m points at its first such row).
template <class T>
void apply_panel(const ReflectorPanel<T>& panel, std::uint64_t n, bool adjoint, T* m, std::uint64_t ld,
                 std::uint64_t cols, std::vector<T>& w, std::vector<T>& scratch) {
    const std::uint64_t kb = panel.count;
    const std::uint64_t r0 = panel.first + 1;
    const std::uint64_t rows = n - r0;
    const T* t = panel.t.data();
    w.resize(kb * cols);
    product<T>(kb, cols, rows, panel.v.data() + r0, n, 1, true, m, 1, ld, w.data(), cols);
    // W := op(T) W in place: T^H is lower triangular (rows from the bottom), T upper (from the top).
    for (std::uint64_t step = 0; step < kb; ++step) {
        const std::uint64_t i = adjoint ? kb - 1 - step : step;
        T* wi = w.data() + i * cols;
        const T d = adjoint ? conj_of(t[i * kb + i]) : t[i * kb + i];
        for (std::uint64_t c = 0; c < cols; ++c)
            wi[c] = zmul(d, wi[c]);
        for (std::uint64_t q = adjoint ? 0 : i + 1; q < (adjoint ? i : kb); ++q) {
            const T f = adjoint ? conj_of(t[q * kb + i]) : t[i * kb + q];
            const T* wq = w.data() + q * cols;
            for (std::uint64_t c = 0; c < cols; ++c)
                wi[c] += zmul(f, wq[c]);
        }
    }
    scratch.resize(rows * cols);
    product<T>(rows, cols, kb, panel.v.data() + r0, 1, n, false, w.data(), 1, cols, scratch.data(), cols);
    subtract_block(m, ld, scratch.data(), rows, cols);
}

// Householder reduction to upper Hessenberg form, Q^H A Q = H, in panels: each panel's reflectors
// are found column by column (their left and right action on the panel's own columns applied as
// it goes, with Y = A V T kept for the right side), then the rest of the matrix is updated by
// matrix products. zt receives Q transposed (row m of zt is column m of Q).
template <class T> void hessenberg(std::vector<T>& h, std::vector<T>& zt, std::uint64_t n) {
    constexpr std::uint64_t kPanel = 32;
    std::vector<ReflectorPanel<T>> panels;
    std::vector<T> a(n), y, vc, w, scratch;
    std::vector<T> s(kPanel);
    for (std::uint64_t k0 = 0; k0 + 2 < n; k0 += kPanel) {
        const std::uint64_t kb = std::min(kPanel, n - 2 - k0);
        ReflectorPanel<T> panel{k0, kb, std::vector<T>(kb * n, T(0)), std::vector<T>(kb * kb, T(0))};
        y.assign(kb * n, T(0));
        for (std::uint64_t p = 0; p < kb; ++p) {
            const std::uint64_t j = k0 + p;
            // s[q] = (V^H x)[q] for the panel's first p reflectors, over rows from `from` on.
            auto project = [&](const T* x, std::uint64_t from) {
                for (std::uint64_t q = 0; q < p; ++q) {
                    const T* vq = panel.v.data() + q * n;
                    T sum{};
                    for (std::uint64_t r = from; r < n; ++r)
                        sum += zmul_conj(vq[r], x[r]);
                    s[q] = sum;
                }
            };
            for (std::uint64_t r = 0; r < n; ++r)
                a[r] = h[r * n + j];
            // Column j of (A - Y V^H), then of (I - V T^H V^H) times that, for the panel so far.
            for (std::uint64_t q = 0; q < p; ++q) {
                const T f = conj_of(panel.v[q * n + j]);
                const T* yq = y.data() + q * n;
                for (std::uint64_t r = 0; r < n; ++r)
                    a[r] -= zmul(yq[r], f);
            }
            if (p > 0) {
                project(a.data(), k0 + 1);
                for (std::uint64_t i = p; i-- > 0;) {
                    T sum{};
                    for (std::uint64_t q = 0; q <= i; ++q)
                        sum += zmul_conj(panel.t[q * kb + i], s[q]);
                    s[i] = sum;
                }
                for (std::uint64_t q = 0; q < p; ++q) {
                    const T* vq = panel.v.data() + q * n;
                    for (std::uint64_t r = k0 + 1; r < n; ++r)
                        a[r] -= zmul(vq[r], s[q]);
                }
            }
            const std::uint64_t m = n - j - 1; // reflector length, rows j+1 .. n-1
            const T alpha = a[j + 1];
            const double tail = norm2(a.data() + j + 2, m - 1);
            T* v = panel.v.data() + p * n;
            T tau{};
            if (tail != 0 || im_of(alpha) != 0) {
                const double beta = -std::copysign(std::hypot(std::abs(alpha), tail), re_of(alpha));
                tau = from_parts<T>((beta - re_of(alpha)) / beta, -im_of(alpha) / beta);
                const T scale = T(1) / (alpha - T(beta));
                v[j + 1] = 1;
                for (std::uint64_t i = j + 2; i < n; ++i) {
                    v[i] = zmul(a[i], scale);
                    a[i] = 0;
                }
                a[j + 1] = beta;
            }
            for (std::uint64_t r = 0; r < n; ++r)
                h[r * n + j] = a[r];
            if (tau == T(0))
                continue; // the identity: its columns of Y and T stay zero
            // Y e_p = tau (A v - Y (V^H v)) with A as it was when the panel began (columns past j
            // have not been touched yet); T e_p = (-tau T (V^H v), tau).
            T* yp = y.data() + p * n;
            multiply_rows(h.data() + j + 1, n, n, m, v + j + 1, yp);
            project(v, j + 1);
            for (std::uint64_t q = 0; q < p; ++q) {
                const T* yq = y.data() + q * n;
                for (std::uint64_t r = 0; r < n; ++r)
                    yp[r] -= zmul(yq[r], s[q]);
            }
            for (std::uint64_t r = 0; r < n; ++r)
                yp[r] = zmul(tau, yp[r]);
            for (std::uint64_t q = 0; q < p; ++q) {
                T sum{};
                for (std::uint64_t i = q; i < p; ++i)
                    sum += zmul(panel.t[q * kb + i], s[i]);
                panel.t[q * kb + p] = zmul(-tau, sum);
            }
            panel.t[p * kb + p] = tau;
        }
        const std::uint64_t c0 = k0 + kb;
        const std::uint64_t cols = n - c0;
        const std::uint64_t r0 = k0 + 1;
        // Right of the panel: H := H - Y V^H on every row, then H := H - V T^H (V^H H) below row k0.
        vc.resize(kb * n);
        for (std::uint64_t i = 0; i < kb * n; ++i)
            vc[i] = conj_of(panel.v[i]);
        scratch.resize(n * cols);
        product<T>(n, cols, kb, y.data(), 1, n, false, vc.data() + c0, 1, n, scratch.data(), cols);
        subtract_block(h.data() + c0, n, scratch.data(), n, cols);
        apply_panel(panel, n, true, h.data() + r0 * n + c0, n, cols, w, scratch);
        panels.push_back(std::move(panel));
    }
    // Q = (I - V_0 T_0 V_0^H) (I - V_1 T_1 V_1^H) ..., built from the last panel back so that each
    // one only meets the trailing block that the later ones have filled.
    std::vector<T> q(n * n, T(0));
    for (std::uint64_t i = 0; i < n; ++i)
        q[i * n + i] = 1;
    for (auto it = panels.rbegin(); it != panels.rend(); ++it) {
        const ReflectorPanel<T>& panel = *it;
        const std::uint64_t r0 = panel.first + 1;
        apply_panel(panel, n, false, q.data() + r0 * n + r0, n, n - r0, w, scratch);
    }
    for (std::uint64_t r = 0; r < n; ++r)
        for (std::uint64_t c = 0; c < n; ++c)
            zt[c * n + r] = q[r * n + c];
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
    const double xx = x.real() * x.real() + x.imag() * x.imag();
    const double total = xx + y.real() * y.real() + y.imag() * y.imag();
    if (xx > 0x1p-500 && total < 0x1p500) {
        // Squares far from both ends of the range: plain square roots are exact enough.
        const double ax = std::sqrt(xx);
        const double rho = std::sqrt(total);
        const Z phase(x.real() / ax, x.imag() / ax);
        return {ax / rho, zmul(phase, std::conj(y) / rho), phase * rho};
    }
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

// Rotation chains over the working rows, vectorised where the processor allows.
void rotate_chain(Z* base, std::uint64_t line_stride, std::uint64_t element_stride, std::uint64_t length,
                  std::uint64_t count, const double* c, const Z* s) noexcept {
    if (count == 0 || length == 0)
        return;
    static const auto kernel = avx2_usable(probe_cpu_features()) ? &complex_rotate_chain_avx2 : &complex_rotate_chain;
    kernel(reinterpret_cast<double*>(base), line_stride, element_stride, length, count, c,
           reinterpret_cast<const double*>(s));
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

    // Rotations of recent sweeps (cosines, sines for rows (G) and for columns (G^H)) whose
    // application to the Schur vectors and to the columns right of each sweep's window waits, so
    // that several sweeps pass over the same cached columns. No later sweep reads those parts:
    // windows only move up and left, and their own rotations touch columns up to their end.
    struct Pending {
        std::uint64_t l, hi, offset;
    };
    std::vector<Pending> pending;
    std::vector<double> cs;
    std::vector<Z> srow;
    std::vector<Z> scol;
    cs.reserve(4 * n);
    srow.reserve(4 * n);
    scol.reserve(4 * n);
    auto flush = [&] {
        constexpr std::uint64_t kWidth = 16;
        for (std::uint64_t j0 = 0; j0 < n; j0 += kWidth) {
            const std::uint64_t j1 = std::min(j0 + kWidth, n);
            for (const Pending& p : pending) {
                const std::uint64_t steps = p.hi - p.l;
                rotate_chain(zt.data() + p.l * n + j0, n, 1, j1 - j0, steps, cs.data() + p.offset,
                             scol.data() + p.offset);
                const std::uint64_t start = std::max(j0, p.hi + 1);
                if (start < j1)
                    rotate_chain(h.data() + p.l * n + start, n, 1, j1 - start, steps, cs.data() + p.offset,
                                 srow.data() + p.offset);
            }
        }
        pending.clear();
        cs.clear();
        srow.clear();
        scol.clear();
    };
    constexpr std::size_t kPendingSweeps = 8;
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
            if (hi == 0) {
                flush();
                break;
            }
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
        const std::uint64_t offset = cs.size();
        // The bulge chase touches only the active window; everything outside it sees this sweep's
        // rotations in one pass each afterwards.
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
            rotate_chain(h.data() + k * n + k, n, 1, hi - k + 1, 1, &c, &s);
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
            cs.push_back(c);
            srow.push_back(s);
            scol.push_back(sc);
        }
        const std::uint64_t steps = hi - l;
        const double* c = cs.data() + offset;
        const Z* sc = scol.data() + offset;
        if (l > 0)
            rotate_chain(h.data() + l, 1, n, l, steps, c, sc);
        // Row i of the window waits for the column rotations of steps i .. hi-1. Rows go in blocks
        // whose staggered starts run one by one until the block can share the remaining steps.
        constexpr std::uint64_t kBlock = 8;
        for (std::uint64_t i0 = l; i0 < hi; i0 += kBlock) {
            const std::uint64_t i1 = std::min(i0 + kBlock, hi);
            const std::uint64_t shared = i1 - 1;
            for (std::uint64_t i = i0; i < shared; ++i)
                rotate_chain(h.data() + i * n + i, 1, 1, 1, shared - i, c + (i - l), sc + (i - l));
            rotate_chain(h.data() + i0 * n + shared, 1, n, i1 - i0, hi - shared, c + (shared - l), sc + (shared - l));
        }
        pending.push_back({l, hi, offset});
        if (pending.size() == kPendingSweeps)
            flush();
    }
}

struct Decomposition {
    std::uint64_t n = 0;
    int exponent = 0;        // the input is 2^exponent times `original`
    std::vector<Z> original; // row-major input in working precision, range-scaled
    std::vector<double> original_real; // the same, for real inputs only
    std::vector<Z> t;        // Schur form, row-major
    std::vector<Z> zt;       // Schur vectors, row m = vector m
    std::vector<double> scaling;
    double norm = 0; // Frobenius norm of the input
};

// Balancing and Hessenberg reduction in T, then the shifted QR in complex working storage.
template <class T>
void reduce(Decomposition& dec, std::vector<T> h, const EigenSolverOptions& options, const Names& names) {
    const std::uint64_t n = dec.n;
    dec.scaling = balance(h, n, options.maximum_balance_sweeps);
    std::vector<T> zt(n * n);
    hessenberg(h, zt, n);
    if constexpr (std::is_same_v<T, Z>) {
        dec.t = std::move(h);
        dec.zt = std::move(zt);
    } else {
        dec.t.assign(h.begin(), h.end());
        dec.zt.assign(zt.begin(), zt.end());
    }
    schur(dec.t, dec.zt, n, options, names);
}

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
    if constexpr (IsComplex<C>::value) {
        reduce<Z>(dec, dec.original, options, names);
    } else {
        dec.original_real.resize(n * n);
        for (std::uint64_t i = 0; i < n * n; ++i)
            dec.original_real[i] = dec.original[i].real();
        reduce<double>(dec, dec.original_real, options, names);
    }
    return dec;
}

// sum of a[i] * b[i] over i < m in interleaved partial sums, so that the additions overlap.
Z dot(const Z* a, const Z* b, std::uint64_t m) noexcept {
    static const bool vectorised = avx2_usable(probe_cpu_features());
    if (vectorised) {
        double result[2];
        complex_dot_avx2(reinterpret_cast<const double*>(a), reinterpret_cast<const double*>(b), m, result);
        return {result[0], result[1]};
    }
    Z s[4]{};
    std::uint64_t i = 0;
    for (; i + 4 <= m; i += 4)
        for (int q = 0; q < 4; ++q)
            s[q] += zmul(a[i + q], b[i + q]);
    for (; i < m; ++i)
        s[0] += zmul(a[i], b[i]);
    return (s[0] + s[1]) + (s[2] + s[3]);
}

// Upper-triangular solve (T - lambda_k I) y = 0 with y[k] = 1 on the Schur form; y[m] for m > k
// is zero. Components are rescaled as a whole when they grow too large.
void back_substitute(const Decomposition& dec, std::uint64_t k, Z* y) {
    const std::uint64_t n = dec.n;
    const std::vector<Z>& t = dec.t;
    const Z lambda = t[k * n + k];
    const double small = std::numeric_limits<double>::min() * (static_cast<double>(n) / kEpsilon);
    const double smin = std::max(kEpsilon * abs1(lambda), small);
    constexpr double kBig = 0x1p500;
    std::fill(y, y + n, Z(0));
    y[k] = 1;
    for (std::uint64_t j = k; j-- > 0;) {
        const Z* row = t.data() + j * n;
        const Z sum = dot(row + j + 1, y + j + 1, k - j);
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
}

// Balance reversal and unit Euclidean norm of one vector of the balanced problem.
void finish_vector(const Decomposition& dec, Z* out) {
    const std::uint64_t n = dec.n;
    for (std::uint64_t r = 0; r < n; ++r)
        out[r] *= dec.scaling[r];
    const double norm = norm2(out, n);
    if (norm > 0 && std::isfinite(norm))
        for (std::uint64_t r = 0; r < n; ++r)
            out[r] /= norm;
}

// Unit right eigenvector k of the original matrix: back substitution on the Schur form, the
// Schur vectors, then the balancing scale.
void eigenvector(const Decomposition& dec, std::uint64_t k, std::vector<Z>& y, Z* out) {
    const std::uint64_t n = dec.n;
    y.resize(n);
    back_substitute(dec, k, y.data());
    std::fill(out, out + n, Z(0));
    for (std::uint64_t m = 0; m <= k; ++m) {
        const Z ym = y[m];
        if (ym == Z(0))
            continue;
        const Z* z = dec.zt.data() + m * n;
        for (std::uint64_t r = 0; r < n; ++r)
            out[r] += zmul(ym, z[r]);
    }
    finish_vector(dec, out);
}

// basis[k*n + r] = sum_m y[k*n + m] * zt[m*n + r], i.e. every back-substituted vector taken
// through the Schur vectors in one product.
void through_schur_vectors(const Decomposition& dec, const std::vector<Z>& y, std::vector<Z>& basis) {
    const std::uint64_t n = dec.n;
    // y[k*n + m] vanishes for m > k: vectors k0 .. k1-1 only need the first k1 Schur vectors.
    constexpr std::uint64_t kRows = 64;
    for (std::uint64_t k0 = 0; k0 < n; k0 += kRows) {
        const std::uint64_t k1 = std::min(k0 + kRows, n);
        product<Z>(k1 - k0, n, k1, y.data() + k0 * n, n, 1, false, dec.zt.data(), 1, n, basis.data() + k0 * n, n);
    }
}

// Real view of the vectors for the product with a real matrix: line 2j + t is part t of vector j.
struct VectorPartsSource {
    const double* p = nullptr; // vector j at p[2 * j * n ..)
    std::uint64_t n = 0;
    static void pack(const void* self, double* dst, std::uint64_t l0, std::uint64_t lines, std::uint64_t d0,
                     std::uint64_t depth, std::uint64_t width) {
        const auto& s = *static_cast<const VectorPartsSource*>(self);
        for (std::uint64_t q = 0; q < lines; q += width, dst += depth * width) {
            const std::uint64_t w = std::min(width, lines - q);
            for (std::uint64_t d = 0; d < depth; ++d) {
                double* o = dst + d * width;
                for (std::uint64_t l = 0; l < w; ++l) {
                    const std::uint64_t line = l0 + q + l;
                    o[l] = s.p[2 * ((line / 2) * s.n + d0 + d) + line % 2];
                }
                std::fill(o + w, o + width, 0.0);
            }
        }
    }
    GemmPacker<double> packer() const { return {&pack, this}; }
};

// out[i*n + j] = (A v_j)(i) for the range-scaled input A and the vectors of `basis`.
void apply_original(const Decomposition& dec, const std::vector<Z>& basis, std::vector<Z>& out) {
    const std::uint64_t n = dec.n;
    if (!dec.original_real.empty()) {
        const RealPanelSource<double, double> left{dec.original_real.data(), n, 1};
        const VectorPartsSource right{reinterpret_cast<const double*>(basis.data()), n};
        gemm<double>(n, 2 * n, n, left.packer(), right.packer(), reinterpret_cast<double*>(out.data()), 2 * n,
                     nullptr);
        return;
    }
    product<Z>(n, n, n, dec.original.data(), n, 1, false, basis.data(), n, 1, out.data(), n);
}

// ||r|| / (||A||_F ||v||) within the tolerance for r = A v - lambda v (a zero matrix passes
// trivially); lambda is an eigenvalue of the unscaled input, av[i * stride] = (A v)(i).
bool residual_acceptable(const Decomposition& dec, const Z& unscaled_lambda, const Z* v, const Z* av,
                         std::uint64_t stride, double tolerance, std::vector<Z>& r) {
    const std::uint64_t n = dec.n;
    if (dec.norm == 0)
        return true;
    const Z lambda(std::scalbn(unscaled_lambda.real(), -dec.exponent),
                   std::scalbn(unscaled_lambda.imag(), -dec.exponent));
    r.resize(n);
    for (std::uint64_t i = 0; i < n; ++i)
        r[i] = av[i * stride] - zmul(lambda, v[i]);
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

void complex_rotate_chain(double* base, std::uint64_t line_stride, std::uint64_t element_stride, std::uint64_t length,
                          std::uint64_t count, const double* c, const double* s) noexcept {
    Z* const lines = reinterpret_cast<Z*>(base);
    const Z* const sines = reinterpret_cast<const Z*>(s);
    for (std::uint64_t e = 0; e < length; ++e) {
        Z* p = lines + e * element_stride;
        Z x = p[0];
        for (std::uint64_t k = 0; k < count; ++k) {
            const Z y = p[(k + 1) * line_stride];
            p[k * line_stride] = c[k] * x + zmul(sines[k], y);
            x = c[k] * y - zmul(std::conj(sines[k]), x);
        }
        p[count * line_stride] = x;
    }
}

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
    if (n == 0)
        return;
    std::vector<Z> lambda(n);
    std::vector<Z> y(n * n);
    for (std::uint64_t k = 0; k < n; ++k) {
        lambda[k] = eigenvalue<Out>(dec, k, kEigNames);
        back_substitute(dec, k, y.data() + k * n);
    }
    std::vector<Z> basis(n * n);
    through_schur_vectors(dec, y, basis);
    // Results are checked as they will be returned, i.e. after rounding to the output precision.
    for (std::uint64_t k = 0; k < n; ++k) {
        Z* v = basis.data() + k * n;
        finish_vector(dec, v);
        for (std::uint64_t i = 0; i < n; ++i)
            v[i] = round_through<Out>(v[i]);
    }
    std::vector<Z>& av = y; // the triangular factor is no longer needed
    apply_original(dec, basis, av);
    std::vector<Z> r;
    for (std::uint64_t k = 0; k < n; ++k)
        if (!residual_acceptable(dec, lambda[k], basis.data() + k * n, av.data() + k, n, options.residual_tolerance, r))
            throw_residual(kEigNames);
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
    std::vector<Z> av(n);
    for (std::uint64_t i = 0; i < n; ++i) {
        const Z* row = dec.original.data() + i * n;
        Z sum = 0;
        for (std::uint64_t j = 0; j < n; ++j)
            sum += zmul(row[j], v[j]);
        av[i] = sum;
    }
    if (!residual_acceptable(dec, lambda, v.data(), av.data(), 1, options.residual_tolerance, r))
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
