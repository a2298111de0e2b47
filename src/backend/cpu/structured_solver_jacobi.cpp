// The body comes first: it keeps products and sums separately rounded for all of this unit.
#include "backend/cpu/structured_solver_jacobi_body.hpp"

#include "backend/cpu/simd_traits_x86_sse2.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <type_traits>
#include <stdexcept>
#include <string>

#include "backend/cpu/structured_solver_jacobi.hpp"
#include "core/errors.hpp"
#include "runtime/cpu_runtime_context.hpp"
#include "runtime/simd_selection.hpp"

namespace quillmark::cpu {

namespace {

// SSE2 is the x86-64 baseline, so the portable set is written on it.
struct PortableF64 : simd::Sse2F64 {
    using mask = __m128d;
    static void transpose(vector (&r)[2]) noexcept {
        const vector low = _mm_unpacklo_pd(r[0], r[1]);
        r[1] = _mm_unpackhi_pd(r[0], r[1]);
        r[0] = low;
    }
    static mask lanes_below(std::int64_t count) noexcept {
        return _mm_castsi128_pd(_mm_set_epi64x(count > 1 ? -1 : 0, count > 0 ? -1 : 0));
    }
    static vector blend(vector off, vector on, mask m) noexcept {
        return _mm_or_pd(_mm_and_pd(m, on), _mm_andnot_pd(m, off));
    }
    static vector negate(vector v) noexcept { return _mm_xor_pd(v, _mm_set1_pd(-0.0)); }
};

using u64 = std::uint64_t;
using Z = std::complex<double>;
template <class T> constexpr bool kComplexElement = std::is_same_v<T, Z>;

inline double magnitude(double v) noexcept { return std::fabs(v); }
inline double magnitude(const Z& v) noexcept { return std::abs(v); }
inline double conj_of(double v) noexcept { return v; }
inline Z conj_of(const Z& v) noexcept { return std::conj(v); }

// |apq| / max(dp, dq) / min(dp, dq) <= tol with d = sqrt|diagonal|; beside a zero diagonal
// entry only a zero pair is negligible.
template <class T> inline bool negligible(const T& apq, double dp, double dq, double tol) noexcept {
    if (apq == T(0)) return true;
    if (dp == 0 || dq == 0) return false;
    return magnitude(apq) / std::max(dp, dq) / std::min(dp, dq) <= tol;
}

// (x, y) <- (x c - y conj(s), y c + x s), formed part by part as the vector kernels form it.
inline void rotate_element(double& x, double& y, double c, double s, double) noexcept {
    jacobi_body::rotate_scalar(x, y, c, s);
}
inline void rotate_element(Z& x, Z& y, double c, double sr, double si) noexcept {
    const double xr = x.real() * c - (y.real() * sr + y.imag() * si);
    const double xi = x.imag() * c - (y.imag() * sr - y.real() * si);
    const double yr = y.real() * c + (x.real() * sr - x.imag() * si);
    const double yi = y.imag() * c + (x.real() * si + x.imag() * sr);
    x = Z(xr, xi);
    y = Z(yr, yi);
}

// Elements of split storage: the imaginary parts `plane` values after the real ones.
template <class T> struct SplitPlanes {
    double* base;
    u64 plane;
    T get(u64 at) const noexcept {
        if constexpr (kComplexElement<T>) return Z(base[at], base[at + plane]);
        else return base[at];
    }
    void set(u64 at, const T& v) const noexcept {
        if constexpr (kComplexElement<T>) {
            base[at] = v.real();
            base[at + plane] = v.imag();
        } else {
            base[at] = v;
        }
    }
};

// item(i, scratch) for i < count, dealt round-robin to ctx's workers (costs fall with the index,
// so contiguous shares would be uneven); each share makes its own scratch first.
template <class MakeScratch, class Item>
void deal(const CpuRuntimeContext* ctx, std::uint64_t count, std::uint64_t work, MakeScratch make_scratch,
          Item item) {
    const std::uint64_t shares = ctx ? std::min(count, ctx->thread_count()) : 1;
    auto body = [&](std::uint64_t b, std::uint64_t e) {
        auto scratch = make_scratch();
        for (std::uint64_t t = b; t < e; ++t)
            for (std::uint64_t i = t; i < count; i += shares) item(i, scratch);
    };
    if (shares < 2) body(0, 1);
    else ctx->parallel_for_chunks(0, shares, work, body);
}

} // namespace

JacobiKernelSet jacobi_kernels_portable() noexcept { return jacobi_body::kernel_set<PortableF64>("portable"); }

std::vector<JacobiKernelSet> available_jacobi_kernels() {
    std::vector<JacobiKernelSet> out{jacobi_kernels_portable()};
    if (avx2_usable(probe_cpu_features())) out.push_back(jacobi_kernels_avx2());
    return out;
}

const JacobiKernelSet& default_jacobi_kernels() {
    static const JacobiKernelSet chosen = [] {
        try {
            const std::string_view selection = cpu_simd_selection();
            if (selection == "AVX2" || selection == "AVX512") return jacobi_kernels_avx2();
        } catch (...) {
        }
        return jacobi_kernels_portable();
    }();
    return chosen;
}

[[noreturn]] void throw_jacobi_non_convergence(std::uint64_t n) {
    throw SolverError("CPU", static_cast<std::int32_t>(kJacobiMaximumSweeps), "Jacobi sweep limit reached",
                      "quillmark.eigh",
                      "eigh/eigvalsh - Jacobi iteration did not converge for order " + std::to_string(n),
                      ErrorReason::non_convergence);
}

template <class T>
std::vector<double> jacobi_hermitian(const std::vector<T>& w, std::uint64_t n, double tol, std::vector<T>* vt,
                                     const JacobiKernelSet& kernels, const CpuRuntimeContext* ctx) {
    constexpr bool complex = kComplexElement<T>;
    constexpr u64 planes = complex ? 2 : 1;
    constexpr u64 R = kJacobiPanelRows;
    const JacobiKernelSet::Kernels& kern = complex ? kernels.complex : kernels.real;
    // Odd number of cache lines per column: the above-block tiles read four columns at the same
    // row, which a power-of-two stride would put into one cache set.
    u64 lines = (n + 7) / 8;
    if (lines % 2 == 0) ++lines;
    const u64 ld = lines * 8;
    std::vector<double> storage(planes * n * ld), diag(n), sq(n);
    const SplitPlanes<T> a{storage.data(), n * ld};
    double* const m = storage.data();
    for (u64 j = 0; j < n; ++j) {
        diag[j] = std::real(w[j * n + j]);
        for (u64 k = j + 1; k < n; ++k) a.set(j * ld + k, w[k * n + j]);
    }
    // V and the head rows by panels of R rows, each panel's planes one after the other.
    const u64 panels = (n + R - 1) / R, panel_size = planes * n * R, panel_plane = n * R;
    std::vector<double> v;
    if (vt) {
        v.assign(panels * panel_size, 0.0);
        for (u64 k = 0; k < n; ++k) v[(k / R) * panel_size + k * R + k % R] = 1;
    }
    JacobiSweepRecord record;
    record.run_start.assign(n > 0 ? n : 1, 0);
    std::vector<unsigned char> active(n);
    std::vector<double> rc(n), rs(n), rs_im(complex ? n : 0);
    const JacobiRun run{{active.data(), rc.data(), rs.data(), complex ? rs_im.data() : nullptr, n * ld}, n};

    for (u64 sweep = 0;; ++sweep) {
        for (u64 i = 0; i < n; ++i) sq[i] = std::sqrt(std::fabs(diag[i]));
        bool converged = true;
        for (u64 p = 0; p + 1 < n && converged; ++p)
            for (u64 q = p + 1; q < n; ++q)
                if (!negligible(a.get(p * ld + q), sq[p], sq[q], tol)) {
                    converged = false;
                    break;
                }
        if (converged) break;
        if (sweep == kJacobiMaximumSweeps) throw_jacobi_non_convergence(n);

        record.q.clear();
        record.c.clear();
        record.s.clear();
        record.s_im.clear();
        for (u64 p = 0; p + 1 < n; ++p) {
            record.run_start[p] = record.q.size();
            const u64 x = p * ld; // column p: x + k holds a(k, p)
            double app = diag[p];
            // Blocks end on multiples of the width, so that the rows a block reads from each
            // column above it are one cache line, the next block's the next line.
            for (u64 q0 = p + 1, q1; q0 < n; q0 = q1) {
                q1 = std::min(n, (q0 / kJacobiBlockWidth + 1) * kJacobiBlockWidth);
                bool any = false;
                for (u64 q = q0; q < q1; ++q) {
                    active[q] = 0;
                    const T apq = conj_of(a.get(x + q));
                    const double aqq = diag[q];
                    if (negligible(apq, std::sqrt(std::fabs(app)), std::sqrt(std::fabs(aqq)), tol)) continue;
                    const double scale = std::max({magnitude(apq), std::fabs(app), std::fabs(aqq)});
                    const T g = apq / scale;
                    const double ga = magnitude(g);
                    if (ga == 0) {
                        a.set(x + q, T(0));
                        continue;
                    }
                    const double theta = (aqq / scale) * 0.5 - (app / scale) * 0.5;
                    const double r = std::hypot(theta, ga);
                    const double tq = std::copysign(ga / (r + std::fabs(theta)), theta);
                    const double c = 1.0 / std::hypot(1.0, tq);
                    const T s = (c * tq) * (g / ga);
                    const double sr = std::real(s), si = std::imag(s);
                    const double delta = scale * tq * ga;
                    app = app - delta;
                    diag[q] = aqq + delta;
                    a.set(x + q, T(0));
                    // The block's own pairs; the other rows follow once the block is known.
                    // Row u < q meets a(u, q), the conjugate of the stored {u, q}.
                    for (u64 u = q0; u < q1; ++u) {
                        if (u == q) continue;
                        T xu = a.get(x + u);
                        if (u > q) {
                            T e = a.get(q * ld + u);
                            rotate_element(xu, e, c, sr, si);
                            a.set(q * ld + u, e);
                        } else {
                            T e = conj_of(a.get(u * ld + q));
                            rotate_element(xu, e, c, sr, si);
                            a.set(u * ld + q, conj_of(e));
                        }
                        a.set(x + u, xu);
                    }
                    active[q] = 1;
                    rc[q] = c;
                    rs[q] = sr;
                    if constexpr (complex) rs_im[q] = si;
                    any = true;
                    record.q.push_back(static_cast<std::uint32_t>(q));
                    record.c.push_back(c);
                    record.s.push_back(sr);
                    if constexpr (complex) record.s_im.push_back(si);
                }
                if (!any) continue;
                const JacobiBlock block{
                    {active.data() + q0, rc.data() + q0, rs.data() + q0, complex ? rs_im.data() + q0 : nullptr, n * ld},
                    q0,
                    q1 - q0};
                kern.rotate_below(m, ld, p, block, q1, n);
            }
            // Rows between p and a block, by groups of block-aligned rows.
            constexpr u64 W = kJacobiBlockWidth;
            const u64 g0 = (p + 1) / W, groups = n > g0 * W + W ? (n - g0 * W - 1) / W : 0;
            deal(ctx, groups, planes * (n - p) * (n - p) / 4, [] { return 0; }, [&](u64 i, int) {
                const u64 k0 = (g0 + i) * W;
                kern.rotate_above(m, ld, p, run, std::max(k0, p + 1), k0 + W);
            });
            diag[p] = app;
        }
        record.run_start[n - 1] = record.q.size();

        // Head rows k receive the runs after their own (row k is column k of the lower
        // triangle, conjugated), V every run; each panel of either is independent of the others.
        const u64 head_panels = n > 2 ? (n - 2 + R - 1) / R : 0;
        const auto make_head = [&] { return std::vector<double>(panel_size); };
        deal(ctx, head_panels + (vt ? panels : 0), planes * record.q.size() * n, make_head,
             [&](u64 i, std::vector<double>& head) {
                 if (i >= head_panels) {
                     kern.apply_panel(v.data() + (i - head_panels) * panel_size, panel_plane, record, 0, -1);
                     return;
                 }
                 const u64 k0 = i * R, rows = std::min(R, n - k0);
                 const SplitPlanes<T> h{head.data(), panel_plane};
                 std::fill(head.begin(), head.end(), 0.0);
                 for (u64 r = 0; r < rows; ++r)
                     for (u64 j = k0 + r + 1; j < n; ++j) h.set(j * R + r, conj_of(a.get((k0 + r) * ld + j)));
                 kern.apply_panel(head.data(), panel_plane, record, k0 + 1, static_cast<std::int64_t>(k0));
                 for (u64 r = 0; r < rows; ++r)
                     for (u64 j = k0 + r + 1; j < n; ++j) a.set((k0 + r) * ld + j, conj_of(h.get(j * R + r)));
             });
        for (u64 i = 0; i < n; ++i)
            if (!std::isfinite(diag[i])) throw std::runtime_error("eigh/eigvalsh - eigenvalue overflow");
    }
    if (vt) {
        vt->assign(n * n, T(0));
        for (u64 k = 0; k < n; ++k) {
            const SplitPlanes<T> panel{v.data() + (k / R) * panel_size, panel_plane};
            for (u64 j = 0; j < n; ++j) (*vt)[j * n + k] = panel.get(j * R + k % R);
        }
    }
    return diag;
}

template std::vector<double> jacobi_hermitian<double>(const std::vector<double>&, u64, double, std::vector<double>*,
                                                      const JacobiKernelSet&, const CpuRuntimeContext*);
template std::vector<double> jacobi_hermitian<Z>(const std::vector<Z>&, u64, double, std::vector<Z>*,
                                                 const JacobiKernelSet&, const CpuRuntimeContext*);

} // namespace quillmark::cpu
