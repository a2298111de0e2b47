// The body comes first: it keeps products and sums separately rounded for all of this unit.
#include "backend/cpu/structured_solver_jacobi_body.hpp"

#include "backend/cpu/simd_traits_x86_sse2.hpp"

#include <algorithm>
#include <cmath>
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
};

// |apq| / max(dp, dq) / min(dp, dq) <= tol with d = sqrt|diagonal|; beside a zero diagonal
// entry only a zero pair is negligible.
inline bool negligible(double apq, double dp, double dq, double tol) noexcept {
    if (apq == 0) return true;
    if (dp == 0 || dq == 0) return false;
    return std::fabs(apq) / std::max(dp, dq) / std::min(dp, dq) <= tol;
}

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

void apply_complex_sweep(const JacobiKernelSet& kernels, double* re, double* im, std::uint64_t n,
                         const JacobiComplexRecord& record, const CpuRuntimeContext* ctx) {
    constexpr std::uint64_t R = kJacobiPanelRows;
    deal(ctx, (n + R - 1) / R, 4 * record.q.size() * n, [] { return 0; }, [&](std::uint64_t i, int) {
        kernels.apply_complex_panel(re + i * n * R, im + i * n * R, record);
    });
}

[[noreturn]] void throw_jacobi_non_convergence(std::uint64_t n) {
    throw SolverError("CPU", static_cast<std::int32_t>(kJacobiMaximumSweeps), "Jacobi sweep limit reached",
                      "quillmark.eigh",
                      "eigh/eigvalsh - Jacobi iteration did not converge for order " + std::to_string(n),
                      ErrorReason::non_convergence);
}

std::vector<double> jacobi_real(const std::vector<double>& w, std::uint64_t n, double tol,
                                std::vector<double>* vt, const JacobiKernelSet& kernels,
                                const CpuRuntimeContext* ctx) {
    using u64 = std::uint64_t;
    constexpr u64 R = kJacobiPanelRows;
    // Odd number of cache lines per column: the above-block tiles read four columns at the same
    // row, which a power-of-two stride would put into one cache set.
    u64 lines = (n + 7) / 8;
    if (lines % 2 == 0) ++lines;
    const u64 ld = lines * 8;
    std::vector<double> storage(n * ld), diag(n), sq(n);
    double* const m = storage.data();
    for (u64 j = 0; j < n; ++j) {
        diag[j] = w[j * n + j];
        for (u64 k = j + 1; k < n; ++k) m[j * ld + k] = w[k * n + j];
    }
    const u64 panels = (n + R - 1) / R;
    std::vector<double> v;
    if (vt) {
        v.assign(panels * n * R, 0.0);
        for (u64 k = 0; k < n; ++k) v[(k / R) * n * R + k * R + k % R] = 1;
    }
    JacobiSweepRecord record;
    record.run_start.assign(n > 0 ? n : 1, 0);
    std::vector<unsigned char> active(n);
    std::vector<double> rc(n), rs(n);
    const JacobiRun run{n, active.data(), rc.data(), rs.data()};

    for (u64 sweep = 0;; ++sweep) {
        for (u64 i = 0; i < n; ++i) sq[i] = std::sqrt(std::fabs(diag[i]));
        bool converged = true;
        for (u64 p = 0; p + 1 < n && converged; ++p)
            for (u64 q = p + 1; q < n; ++q)
                if (!negligible(m[p * ld + q], sq[p], sq[q], tol)) {
                    converged = false;
                    break;
                }
        if (converged) break;
        if (sweep == kJacobiMaximumSweeps) throw_jacobi_non_convergence(n);

        record.q.clear();
        record.c.clear();
        record.s.clear();
        for (u64 p = 0; p + 1 < n; ++p) {
            record.run_start[p] = record.q.size();
            double* const x = m + p * ld;
            double app = diag[p];
            // Blocks end on multiples of the width, so that the rows a block reads from each
            // column above it are one cache line, the next block's the next line.
            for (u64 q0 = p + 1, q1; q0 < n; q0 = q1) {
                q1 = std::min(n, (q0 / kJacobiBlockWidth + 1) * kJacobiBlockWidth);
                bool any = false;
                for (u64 q = q0; q < q1; ++q) {
                    active[q] = 0;
                    const double apq = x[q], aqq = diag[q];
                    if (negligible(apq, std::sqrt(std::fabs(app)), std::sqrt(std::fabs(aqq)), tol)) continue;
                    const double scale = std::max({std::fabs(apq), std::fabs(app), std::fabs(aqq)});
                    const double g = apq / scale;
                    const double ga = std::fabs(g);
                    if (ga == 0) {
                        x[q] = 0;
                        continue;
                    }
                    const double theta = (aqq / scale) * 0.5 - (app / scale) * 0.5;
                    const double r = std::hypot(theta, ga);
                    const double tq = std::copysign(ga / (r + std::fabs(theta)), theta);
                    const double c = 1.0 / std::hypot(1.0, tq);
                    const double s = (c * tq) * (g / ga);
                    const double delta = scale * tq * ga;
                    app = app - delta;
                    diag[q] = aqq + delta;
                    x[q] = 0;
                    // The block's own pairs; the other rows follow once the block is known.
                    for (u64 u = q0; u < q1; ++u) {
                        if (u == q) continue;
                        double& e = u < q ? m[u * ld + q] : m[q * ld + u];
                        jacobi_body::rotate_scalar(x[u], e, c, s);
                    }
                    active[q] = 1;
                    rc[q] = c;
                    rs[q] = s;
                    any = true;
                    record.q.push_back(static_cast<std::uint32_t>(q));
                    record.c.push_back(c);
                    record.s.push_back(s);
                }
                if (!any) continue;
                const JacobiBlock block{q0, q1 - q0, active.data() + q0, rc.data() + q0, rs.data() + q0};
                kernels.rotate_below(m, ld, p, block, q1, n);
            }
            // Rows between p and a block, by groups of block-aligned rows.
            constexpr u64 W = kJacobiBlockWidth;
            const u64 g0 = (p + 1) / W, groups = n > g0 * W + W ? (n - g0 * W - 1) / W : 0;
            deal(ctx, groups, (n - p) * (n - p) / 4, [] { return 0; }, [&](u64 i, int) {
                const u64 k0 = (g0 + i) * W;
                kernels.rotate_above(m, ld, p, run, std::max(k0, p + 1), k0 + W);
            });
            diag[p] = app;
        }
        record.run_start[n - 1] = record.q.size();

        // Head rows k receive the runs after their own (row k is column k of the lower
        // triangle), V every run; each panel of either is independent of the others.
        const u64 head_panels = n > 2 ? (n - 2 + R - 1) / R : 0;
        const auto make_head = [&] { return std::vector<double>(n * R); };
        deal(ctx, head_panels + (vt ? panels : 0), record.q.size() * n, make_head,
             [&](u64 i, std::vector<double>& head) {
                 if (i >= head_panels) {
                     kernels.apply_panel(v.data() + (i - head_panels) * n * R, record, 0, -1);
                     return;
                 }
                 const u64 k0 = i * R, rows = std::min(R, n - k0);
                 std::fill(head.begin(), head.end(), 0.0);
                 for (u64 r = 0; r < rows; ++r)
                     for (u64 j = k0 + r + 1; j < n; ++j) head[j * R + r] = m[(k0 + r) * ld + j];
                 kernels.apply_panel(head.data(), record, k0 + 1, static_cast<std::int64_t>(k0));
                 for (u64 r = 0; r < rows; ++r)
                     for (u64 j = k0 + r + 1; j < n; ++j) m[(k0 + r) * ld + j] = head[j * R + r];
             });
        for (u64 i = 0; i < n; ++i)
            if (!std::isfinite(diag[i])) throw std::runtime_error("eigh/eigvalsh - eigenvalue overflow");
    }
    if (vt) {
        vt->assign(n * n, 0.0);
        for (u64 j = 0; j < n; ++j)
            for (u64 k = 0; k < n; ++k) (*vt)[j * n + k] = v[(k / R) * n * R + j * R + k % R];
    }
    return diag;
}

} // namespace quillmark::cpu
