#include "backend/cpu/structured_solver_lu.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <new>
#include <type_traits>

#include "backend/cpu/kernel_variants.hpp"
#include "runtime/cpu_runtime_context.hpp"

namespace quillmark::cpu {
namespace {

template <class R> void portable_axpy(std::uint64_t n, const R* x, R u, R* y) noexcept {
    for (std::uint64_t i = 0; i < n; ++i) y[i] = std::fma(-x[i], u, y[i]);
}

template <class R> void portable_complex_axpy(std::uint64_t n, const R* x, R ur, R ui, R* y) noexcept {
    for (std::uint64_t i = 0; i < 2 * n; i += 2) {
        const R xr = x[i], xi = x[i + 1];
        y[i] = std::fma(xi, ui, std::fma(-xr, ur, y[i]));
        y[i + 1] = std::fma(-xr, ui, std::fma(-xi, ur, y[i + 1]));
    }
}

template <class R> void portable_lower_solve(std::uint64_t m, std::uint64_t cols, const R* l, std::uint64_t ld, R* b) noexcept {
    for (std::uint64_t j = 0; j < cols; ++j)
        for (std::uint64_t k = 0; k + 1 < m; ++k) portable_axpy(m - k - 1, l + k * ld + k + 1, b[j * ld + k], b + j * ld + k + 1);
}

template <class R>
void portable_complex_lower_solve(std::uint64_t m, std::uint64_t cols, const R* l, std::uint64_t ld, R* b) noexcept {
    for (std::uint64_t j = 0; j < cols; ++j) {
        R* col = b + 2 * j * ld;
        for (std::uint64_t k = 0; k + 1 < m; ++k)
            portable_complex_axpy(m - k - 1, l + 2 * (k * ld + k + 1), col[2 * k], col[2 * k + 1], col + 2 * (k + 1));
    }
}

template <class R, int MR, int NR>
void portable_tile(std::uint64_t kc, const R* a, const R* b, R* c, std::uint64_t ldc) noexcept {
    for (std::uint64_t p = 0; p < kc; ++p, a += MR, b += NR)
        for (int r = 0; r < MR; ++r)
            for (int s = 0; s < NR; ++s) c[r * ldc + s] = std::fma(-a[r], b[s], c[r * ldc + s]);
}

template <class R> LuUpdateKernels<R> portable_lu_kernels() {
    return {"portable", &portable_axpy<R>, &portable_complex_axpy<R>, &portable_lower_solve<R>,
            &portable_complex_lower_solve<R>, &portable_tile<R, 4, 4>, 4, 4};
}

template <class R> std::vector<LuUpdateKernels<R>> simd_lu_kernels(bool avx2, bool avx512) {
    // AVX-512 machines run the AVX2 kernels; both give the same bits.
    std::vector<LuUpdateKernels<R>> out;
    LuUpdateKernels<R> k;
    if constexpr (std::is_same_v<R, double>) k = lu_kernels_f64_avx2();
    else k = lu_kernels_f32_avx2();
    if (avx2) out.push_back(k);
    if (avx512) {
        k.name = "AVX512";
        out.push_back(k);
    }
    return out;
}

template <class T> struct IsComplex : std::false_type {};
template <class R> struct IsComplex<std::complex<R>> : std::true_type {};

template <class C> bool finite(const C& v) noexcept {
    if constexpr (IsComplex<C>::value) return std::isfinite(v.real()) && std::isfinite(v.imag());
    else return std::isfinite(v);
}

// Pivot ranking key: the magnitude; a complex modulus that overflows is taken of the halved
// value and ranks above every unscaled key.
template <class C, class R> struct Key {
    R magnitude = 0;
    bool scaled = false;
};
template <class C, class R> Key<C, R> key_of(const C& v) noexcept {
    if constexpr (IsComplex<C>::value) {
        const R m = std::abs(v);
        if (!std::isfinite(m)) return {std::abs(v * R(0.5)), true};
        return {m, false};
    } else {
        return {std::fabs(v), false};
    }
}

template <class R> struct Aligned {
    R* data = nullptr;
    explicit Aligned(std::uint64_t count)
        : data(static_cast<R*>(::operator new(std::max<std::uint64_t>(count, 1) * sizeof(R), std::align_val_t(64)))) {}
    ~Aligned() { ::operator delete(data, std::align_val_t(64)); }
    Aligned(const Aligned&) = delete;
    Aligned& operator=(const Aligned&) = delete;
};

// y -= x * u, where x and y are columns of C.
template <class C, class R>
void column_update(const LuUpdateKernels<R>& k, std::uint64_t n, const C* x, const C& u, C* y) noexcept {
    if constexpr (IsComplex<C>::value)
        k.complex_axpy(n, reinterpret_cast<const R*>(x), u.real(), u.imag(), reinterpret_cast<R*>(y));
    else
        k.axpy(n, x, u, y);
}

// Steps k0 .. k1-1 on the columns k0 .. k1-1 (rows k0 .. n-1) of the column-major matrix.
template <class C, class R>
LuOutcome factor_panel(C* a, std::uint64_t n, std::uint64_t k0, std::uint64_t k1, std::int64_t* pivots,
                       const LuUpdateKernels<R>& kernels, LuOutcome outcome) {
    for (std::uint64_t k = k0; k < k1; ++k) {
        C* col = a + k * n;
        std::uint64_t p = k;
        Key<C, R> best{};
        for (std::uint64_t i = k; i < n; ++i) {
            if (!finite(col[i])) return {LuStop::non_finite, k, outcome.swaps};
            if constexpr (IsComplex<C>::value) {
                // |re| + |im| bounds the modulus from above; with a margin for the roundings of
                // both, a candidate below the best cannot win and needs no modulus.
                const R bound = std::fabs(col[i].real()) + std::fabs(col[i].imag());
                if (i != k && !best.scaled && bound * (R(1) + 4 * std::numeric_limits<R>::epsilon()) < best.magnitude)
                    continue;
            }
            const auto key = key_of<C, R>(col[i]);
            if (i == k || (key.scaled != best.scaled ? key.scaled : key.magnitude > best.magnitude)) {
                best = key;
                p = i;
            }
        }
        if (!best.scaled && best.magnitude == 0) return {LuStop::singular, k, outcome.swaps};
        pivots[k] = static_cast<std::int64_t>(p + 1);
        if (p != k) {
            for (std::uint64_t j = k0; j < k1; ++j) std::swap(a[k + j * n], a[p + j * n]);
            ++outcome.swaps;
        }
        const C pivot = col[k];
        for (std::uint64_t i = k + 1; i < n; ++i) {
            const C m = col[i] / pivot;
            if (col[i] != C(0) && m == C(0)) return {LuStop::underflow, k, outcome.swaps};
            col[i] = m;
        }
        for (std::uint64_t j = k + 1; j < k1; ++j)
            column_update(kernels, n - k - 1, col + k + 1, a[k + j * n], a + j * n + k + 1);
    }
    return outcome;
}

// The exchanges of steps k0 .. k1-1 applied to columns [j0, j1).
template <class C>
void swap_rows(C* a, std::uint64_t n, std::uint64_t k0, std::uint64_t k1, const std::int64_t* pivots,
               std::uint64_t j0, std::uint64_t j1) {
    for (std::uint64_t j = j0; j < j1; ++j) {
        C* col = a + j * n;
        for (std::uint64_t k = k0; k < k1; ++k) {
            const std::uint64_t p = static_cast<std::uint64_t>(pivots[k]) - 1;
            if (p != k) std::swap(col[k], col[p]);
        }
    }
}

// Packs the multipliers L(i, k0 + p) for rows [i0, i0 + rows) as nr-wide micro-panels of the
// right factor of the transposed update; a complex L enters as its real embedding
// [[re, im], [-im, re]] so that the real tile accumulates the complex update in its fixed order.
template <class C, class R>
void pack_multipliers(const C* a, std::uint64_t n, std::uint64_t k0, std::uint64_t depth, std::uint64_t i0,
                      std::uint64_t rows, std::uint32_t nr, R* dst) {
    constexpr std::uint64_t w = IsComplex<C>::value ? 2 : 1;
    const std::uint64_t lines = rows * w, kd = depth * w, per = nr / w;
    for (std::uint64_t q = 0; q < lines; q += nr, dst += kd * nr) {
        const std::uint64_t count = std::min<std::uint64_t>(per, rows - q / w);
        for (std::uint64_t p = 0; p < depth; ++p) {
            const C* src = a + (k0 + p) * n + i0 + q / w;
            R* o = dst + p * w * nr;
            if constexpr (IsComplex<C>::value) {
                for (std::uint64_t l = 0; l < count; ++l) {
                    o[2 * l] = src[l].real();
                    o[2 * l + 1] = src[l].imag();
                    o[nr + 2 * l] = -src[l].imag();
                    o[nr + 2 * l + 1] = src[l].real();
                }
                std::fill(o + 2 * count, o + nr, R(0));
                std::fill(o + nr + 2 * count, o + 2 * nr, R(0));
            } else {
                std::copy(src, src + count, o);
                std::fill(o + count, o + nr, R(0));
            }
        }
    }
}

// Packs U(k0 + p, j) for columns [j0, j0 + cols) as mr-wide micro-panels of the left factor of
// the transposed update (real and imaginary parts at consecutive depths). For a Hermitian update
// U(k0 + p, j) is conj(L(j, k0 + p)).
template <class C, class R>
void pack_row_block(const C* a, std::uint64_t n, std::uint64_t k0, std::uint64_t depth, std::uint64_t j0,
                    std::uint64_t cols, std::uint32_t mr, bool hermitian, R* dst) {
    constexpr std::uint64_t w = IsComplex<C>::value ? 2 : 1;
    const std::uint64_t kd = depth * w;
    for (std::uint64_t q = 0; q < cols; q += mr, dst += kd * mr) {
        const std::uint64_t count = std::min<std::uint64_t>(mr, cols - q);
        for (std::uint64_t r = 0; r < mr; ++r) {
            if (r >= count) {
                for (std::uint64_t x = 0; x < kd; ++x) dst[x * mr + r] = R(0);
                continue;
            }
            const std::uint64_t j = j0 + q + r;
            const C* src = hermitian ? a + j + k0 * n : a + j * n + k0;
            const std::uint64_t step = hermitian ? n : 1;
            for (std::uint64_t p = 0; p < depth; ++p) {
                const C v = src[p * step];
                if constexpr (IsComplex<C>::value) {
                    dst[2 * p * mr + r] = v.real();
                    dst[(2 * p + 1) * mr + r] = hermitian ? -v.imag() : v.imag();
                } else {
                    dst[p * mr + r] = v;
                }
            }
        }
    }
}

// A(i, j) -= sum over p of L(i, k0 + p) U(k0 + p, j) for rows k1 <= i < r1 and columns c0 <= j < c1,
// as the real product C^T -= U^T L^T on the column-major storage read as rows of C^T. The
// Hermitian form takes U = L^H and updates only the lower triangle (rows i >= j, by tiles).
template <class C, class R>
void trailing_update(C* a, std::uint64_t n, std::uint64_t k0, std::uint64_t k1, std::uint64_t r1, std::uint64_t c0,
                     std::uint64_t c1, const LuUpdateKernels<R>& kr, const CpuRuntimeContext* ctx,
                     bool hermitian = false) {
    constexpr std::uint64_t w = IsComplex<C>::value ? 2 : 1;
    const std::uint64_t depth = k1 - k0, rows = r1 - k1, cols = c1 - c0;
    if (rows == 0 || depth == 0 || cols == 0) return;
    const std::uint32_t MR = kr.mr, NR = kr.nr;
    const std::uint64_t kd = depth * w;
    const std::uint64_t lines = rows * w;
    const std::uint64_t panels = (lines + NR - 1) / NR;
    Aligned<R> lpack(panels * NR * kd);
    pack_multipliers<C, R>(a, n, k0, depth, k1, rows, NR, lpack.data);
    R* const creal = reinterpret_cast<R*>(a);
    const std::uint64_t ldc = n * w;
    constexpr std::uint64_t kColumnBlock = 96;
    const std::uint64_t mc = std::max<std::uint64_t>(MR, kColumnBlock / MR * MR);
    const std::uint64_t blocks = (cols + mc - 1) / mc;
    auto run = [&](std::uint64_t first, std::uint64_t last) {
        Aligned<R> upack(mc * kd);
        alignas(64) R scratch[16 * 64];
        for (std::uint64_t blk = first; blk < last; ++blk) {
            const std::uint64_t j0 = c0 + blk * mc;
            const std::uint64_t jc = std::min(mc, c1 - j0);
            pack_row_block<C, R>(a, n, k0, depth, j0, jc, MR, hermitian, upack.data);
            const std::uint64_t first_line = hermitian && j0 > k1 ? (j0 - k1) * w / NR * NR : 0;
            for (std::uint64_t s0 = first_line; s0 < lines; s0 += NR) {
                const std::uint64_t ns = std::min<std::uint64_t>(NR, lines - s0);
                const R* bp = lpack.data + (s0 / NR) * NR * kd;
                for (std::uint64_t r0 = 0; r0 < jc; r0 += MR) {
                    const std::uint64_t nr = std::min<std::uint64_t>(MR, jc - r0);
                    const R* ap = upack.data + (r0 / MR) * MR * kd;
                    R* ct = creal + (j0 + r0) * ldc + k1 * w + s0;
                    if (nr == MR && ns == NR) {
                        kr.tile(kd, ap, bp, ct, ldc);
                        continue;
                    }
                    for (std::uint64_t r = 0; r < nr; ++r)
                        for (std::uint64_t s = 0; s < ns; ++s) scratch[r * NR + s] = ct[r * ldc + s];
                    kr.tile(kd, ap, bp, scratch, NR);
                    for (std::uint64_t r = 0; r < nr; ++r)
                        for (std::uint64_t s = 0; s < ns; ++s) ct[r * ldc + s] = scratch[r * NR + s];
                }
            }
        }
    };
    if (ctx == nullptr || blocks < 2) run(0, blocks);
    else ctx->parallel_for_chunks(0, blocks, 2 * rows * cols * depth * w * w, ChunkBody(std::ref(run)));
}

// Rows k0 .. k1-1 of columns [c0, c1): forward substitution with the unit lower block.
template <class C, class R>
void solve_row_block(C* a, std::uint64_t n, std::uint64_t k0, std::uint64_t k1, std::uint64_t c0, std::uint64_t c1,
                     const LuUpdateKernels<R>& kernels) {
    if (c1 <= c0) return;
    constexpr std::uint64_t kLeaf = 16;
    if (k1 - k0 > kLeaf) {
        const std::uint64_t mid = k0 + (k1 - k0) / 2;
        solve_row_block(a, n, k0, mid, c0, c1, kernels);
        trailing_update<C, R>(a, n, k0, mid, k1, c0, c1, kernels, nullptr);
        solve_row_block(a, n, mid, k1, c0, c1, kernels);
        return;
    }
    const R* l = reinterpret_cast<const R*>(a + k0 * n + k0);
    R* b = reinterpret_cast<R*>(a + c0 * n + k0);
    if constexpr (IsComplex<C>::value) kernels.complex_lower_solve(k1 - k0, c1 - c0, l, n, b);
    else kernels.lower_solve(k1 - k0, c1 - c0, l, n, b);
}

// Steps k0 .. k1-1 on columns k0 .. k1-1, halving the panel so that most of its work runs through
// the packed update; exchanges reach only these columns.
template <class C, class R>
LuOutcome factor_columns(C* a, std::uint64_t n, std::uint64_t k0, std::uint64_t k1, std::int64_t* pivots,
                         const LuUpdateKernels<R>& kernels, LuOutcome outcome) {
    constexpr std::uint64_t kLeaf = 16;
    if (k1 - k0 <= kLeaf) return factor_panel(a, n, k0, k1, pivots, kernels, outcome);
    const std::uint64_t mid = k0 + (k1 - k0) / 2;
    outcome = factor_columns(a, n, k0, mid, pivots, kernels, outcome);
    if (outcome.stop != LuStop::none) return outcome;
    swap_rows(a, n, k0, mid, pivots, mid, k1);
    solve_row_block(a, n, k0, mid, mid, k1, kernels);
    trailing_update<C, R>(a, n, k0, mid, n, mid, k1, kernels, nullptr);
    outcome = factor_columns(a, n, mid, k1, pivots, kernels, outcome);
    if (outcome.stop != LuStop::none) return outcome;
    swap_rows(a, n, mid, k1, pivots, k0, mid);
    return outcome;
}

// Columns k0 .. k1-1 of the lower Cholesky factor, right-looking inside the panel.
template <class C, class R>
CholeskyOutcome<R> cholesky_panel(C* a, std::uint64_t n, std::uint64_t k0, std::uint64_t k1, R eps, R* pivots,
                                  const LuUpdateKernels<R>& kernels) {
    for (std::uint64_t j = k0; j < k1; ++j) {
        C* col = a + j * n;
        const R x = std::real(col[j]);
        const R tau = pivots[j] * eps * static_cast<R>(4 * j + 1);
        if (!std::isfinite(x) || x <= 0 || x <= tau) return {false, j};
        pivots[j] = x;
        const R ljj = std::sqrt(x);
        col[j] = C(ljj);
        for (std::uint64_t i = j + 1; i < n; ++i) col[i] = col[i] / ljj;
        for (std::uint64_t c = j + 1; c < k1; ++c) {
            C u = col[c];
            if constexpr (IsComplex<C>::value) u = std::conj(u);
            column_update(kernels, n - c, col + c, u, a + c * n + c);
        }
    }
    return {true, k1};
}

} // namespace

template <class C, class R>
CholeskyOutcome<R> cholesky_eliminate(C* a, std::uint64_t n, R eps, R* pivots, const LuUpdateKernels<R>& kernels,
                                      std::uint64_t block, const CpuRuntimeContext* ctx) {
    if (block == 0 || block > n) block = n;
    for (std::uint64_t j = 0; j < n; ++j) pivots[j] = std::fabs(std::real(a[j * n + j]));
    for (std::uint64_t k0 = 0; k0 < n; k0 += block) {
        const std::uint64_t k1 = std::min(n, k0 + block);
        const CholeskyOutcome<R> outcome = cholesky_panel(a, n, k0, k1, eps, pivots, kernels);
        if (!outcome.positive) return outcome;
        trailing_update<C, R>(a, n, k0, k1, n, k1, n, kernels, ctx, true);
    }
    return {true, n};
}

template <class R> std::vector<LuUpdateKernels<R>> available_lu_kernels() {
    return available_variants<LuUpdateKernels<R>>(portable_lu_kernels<R>, simd_lu_kernels<R>);
}

template <class R> const LuUpdateKernels<R>& default_lu_kernels() {
    static const LuUpdateKernels<R> chosen = selected_variant<LuUpdateKernels<R>>(portable_lu_kernels<R>, simd_lu_kernels<R>);
    return chosen;
}

template <class C, class R>
LuOutcome lu_eliminate(C* a, std::uint64_t n, std::int64_t* pivots, const LuUpdateKernels<R>& kernels,
                       std::uint64_t block, const CpuRuntimeContext* ctx) {
    if (block == 0 || block > n) block = n;
    LuOutcome outcome;
    for (std::uint64_t k0 = 0; k0 < n; k0 += block) {
        const std::uint64_t k1 = std::min(n, k0 + block);
        outcome = factor_columns(a, n, k0, k1, pivots, kernels, outcome);
        if (outcome.stop != LuStop::none) return outcome;
        swap_rows(a, n, k0, k1, pivots, 0, k0);
        swap_rows(a, n, k0, k1, pivots, k1, n);
        solve_row_block(a, n, k0, k1, k1, n, kernels);
        trailing_update<C, R>(a, n, k0, k1, n, k1, n, kernels, ctx);
    }
    return outcome;
}

#define QUILLMARK_LU_CORE(C, R)                                                                                        \
    template LuOutcome lu_eliminate<C, R>(C*, std::uint64_t, std::int64_t*, const LuUpdateKernels<R>&, std::uint64_t, \
                                          const CpuRuntimeContext*);                                                   \
    template CholeskyOutcome<R> cholesky_eliminate<C, R>(C*, std::uint64_t, R, R*, const LuUpdateKernels<R>&,          \
                                                         std::uint64_t, const CpuRuntimeContext*);

QUILLMARK_LU_CORE(float, float)
QUILLMARK_LU_CORE(double, double)
QUILLMARK_LU_CORE(std::complex<float>, float)
QUILLMARK_LU_CORE(std::complex<double>, double)

template std::vector<LuUpdateKernels<float>> available_lu_kernels<float>();
template std::vector<LuUpdateKernels<double>> available_lu_kernels<double>();
template const LuUpdateKernels<float>& default_lu_kernels<float>();
template const LuUpdateKernels<double>& default_lu_kernels<double>();

#undef QUILLMARK_LU_CORE

} // namespace quillmark::cpu
