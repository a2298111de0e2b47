#include "backend/cpu/gemm.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>

#include "backend/cpu/simd_isa_config.hpp"
#include "backend/cpu/kernel_variants.hpp"
#include "runtime/cpu_runtime_context.hpp"
#include "runtime/simd_selection.hpp"

namespace quillmark::cpu {
namespace {

// Written so that the baseline (SSE2) compiler vectorises along the NR direction.
template <class R, int MR, int NR>
void portable_tile(std::uint64_t kc, const R* a, const R* b, R* c, std::uint64_t ldc, bool accumulate) {
    R acc[MR][NR] = {};
    for (std::uint64_t p = 0; p < kc; ++p) {
        for (int i = 0; i < MR; ++i) {
            const R ai = a[i];
            for (int j = 0; j < NR; ++j) acc[i][j] += ai * b[j];
        }
        a += MR;
        b += NR;
    }
    for (int i = 0; i < MR; ++i) {
        R* out = c + i * ldc;
        if (accumulate)
            for (int j = 0; j < NR; ++j) out[j] += acc[i][j];
        else
            for (int j = 0; j < NR; ++j) out[j] = acc[i][j];
    }
}

template <class R> GemmKernelInfo<R> portable_kernel() {
    if constexpr (sizeof(R) == 8) return {"portable", 4, 4, 128, 256, 2048, &portable_tile<R, 4, 4>};
    else return {"portable", 4, 8, 128, 256, 2048, &portable_tile<R, 4, 8>};
}

template <class R> GemmKernelInfo<R> from_config(std::string_view name, const GemmBlocking& b, GemmMicroKernel<R> k) {
    return {name, b.mr, b.nr, b.mc, b.kc, b.nc, k};
}

template <class R> std::vector<GemmKernelInfo<R>> simd_kernels(bool avx2, bool avx512) {
    std::vector<GemmKernelInfo<R>> out;
    if constexpr (std::is_same_v<R, double>) {
        if (avx2) out.push_back(from_config<R>("AVX2", isa_avx256::gemm_f64, &gemm_microkernel_f64_avx2));
        if (avx512) out.push_back(from_config<R>("AVX512", isa_avx512::gemm_f64, &gemm_microkernel_f64_avx512));
    } else if constexpr (std::is_same_v<R, float>) {
        if (avx2) out.push_back(from_config<R>("AVX2", isa_avx256::gemm_f32, &gemm_microkernel_f32_avx2));
        if (avx512) out.push_back(from_config<R>("AVX512", isa_avx512::gemm_f32, &gemm_microkernel_f32_avx512));
    }
    return out;
}

template <class R> struct AlignedBuffer {
    R* data = nullptr;
    explicit AlignedBuffer(std::uint64_t count)
        : data(static_cast<R*>(::operator new(count * sizeof(R), std::align_val_t(64)))) {}
    ~AlignedBuffer() { ::operator delete(data, std::align_val_t(64)); }
    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;
};

std::uint64_t round_up(std::uint64_t v, std::uint64_t m) { return (v + m - 1) / m * m; }

// One packed A block against one packed B block; edge tiles go through a scratch tile.
template <class R>
void macro_kernel(const GemmKernelInfo<R>& kr, std::uint64_t mc, std::uint64_t nc, std::uint64_t kc, const R* apack,
                  const R* bpack, R* c, std::uint64_t ldc, bool accumulate) {
    const std::uint64_t MR = kr.mr, NR = kr.nr;
    alignas(64) R scratch[16 * 64];
    for (std::uint64_t jr = 0; jr < nc; jr += NR) {
        const std::uint64_t nr = std::min(NR, nc - jr);
        const R* bp = bpack + jr * kc;
        for (std::uint64_t ir = 0; ir < mc; ir += MR) {
            const std::uint64_t mr = std::min(MR, mc - ir);
            const R* ap = apack + ir * kc;
            R* ct = c + ir * ldc + jr;
            if (mr == MR && nr == NR) {
                kr.kernel(kc, ap, bp, ct, ldc, accumulate);
                continue;
            }
            kr.kernel(kc, ap, bp, scratch, NR, false);
            for (std::uint64_t i = 0; i < mr; ++i)
                for (std::uint64_t j = 0; j < nr; ++j)
                    ct[i * ldc + j] = accumulate ? ct[i * ldc + j] + scratch[i * NR + j] : scratch[i * NR + j];
        }
    }
}

} // namespace

template <class R> std::vector<GemmKernelInfo<R>> available_gemm_kernels() {
    return available_variants<GemmKernelInfo<R>>(portable_kernel<R>, simd_kernels<R>);
}

template <class R> const GemmKernelInfo<R>& default_gemm_kernel() {
    static const GemmKernelInfo<R> chosen = selected_variant<GemmKernelInfo<R>>(portable_kernel<R>, simd_kernels<R>);
    return chosen;
}

template <class R>
void gemm(const GemmKernelInfo<R>& kr, std::uint64_t m, std::uint64_t n, std::uint64_t k, const GemmPacker<R>& a,
          const GemmPacker<R>& b, R* c, std::uint64_t ldc, const CpuRuntimeContext* ctx) {
    if (m == 0 || n == 0) return;
    if (k == 0) {
        for (std::uint64_t i = 0; i < m; ++i) std::fill(c + i * ldc, c + i * ldc + n, R{});
        return;
    }
    const std::uint64_t MR = kr.mr, NR = kr.nr;
    const std::uint64_t kc_max = std::min(kr.kc, k);
    const std::uint64_t nc_max = std::min(kr.nc, round_up(n, NR));
    // With workers available, cut the rows finely enough for the chunks to balance.
    std::uint64_t mc_max = std::min(kr.mc, round_up(m, MR));
    if (ctx != nullptr) mc_max = std::min(mc_max, std::max<std::uint64_t>(MR, round_up((m + 7) / 8, MR)));
    const std::uint64_t row_blocks = (m + mc_max - 1) / mc_max;

    AlignedBuffer<R> bpack(kc_max * nc_max);
    for (std::uint64_t jc = 0; jc < n; jc += nc_max) {
        const std::uint64_t nc = std::min(nc_max, n - jc);
        for (std::uint64_t pc = 0; pc < k; pc += kc_max) {
            const std::uint64_t kc = std::min(kc_max, k - pc);
            const bool accumulate = pc != 0;
            b.pack(b.source, bpack.data, jc, nc, pc, kc, NR);
            auto rows = [&](std::uint64_t first, std::uint64_t last) {
                AlignedBuffer<R> apack(mc_max * kc);
                for (std::uint64_t blk = first; blk < last; ++blk) {
                    const std::uint64_t ic = blk * mc_max;
                    const std::uint64_t mc = std::min(mc_max, m - ic);
                    a.pack(a.source, apack.data, ic, mc, pc, kc, MR);
                    macro_kernel(kr, mc, nc, kc, apack.data, bpack.data, c + ic * ldc + jc, ldc, accumulate);
                }
            };
            if (ctx == nullptr || row_blocks < 2) rows(0, row_blocks);
            else ctx->parallel_for_chunks(0, row_blocks, 2 * m * nc * kc, ChunkBody(std::ref(rows)));
        }
    }
}

template <class R>
void gemm(std::uint64_t m, std::uint64_t n, std::uint64_t k, const GemmPacker<R>& a, const GemmPacker<R>& b, R* c,
          std::uint64_t ldc, const CpuRuntimeContext* ctx) {
    gemm(default_gemm_kernel<R>(), m, n, k, a, b, c, ldc, ctx);
}

#define QUILLMARK_GEMM_INSTANTIATE(R)                                                                                  \
    template std::vector<GemmKernelInfo<R>> available_gemm_kernels<R>();                                              \
    template const GemmKernelInfo<R>& default_gemm_kernel<R>();                                                       \
    template void gemm<R>(const GemmKernelInfo<R>&, std::uint64_t, std::uint64_t, std::uint64_t,                      \
                          const GemmPacker<R>&, const GemmPacker<R>&, R*, std::uint64_t, const CpuRuntimeContext*);    \
    template void gemm<R>(std::uint64_t, std::uint64_t, std::uint64_t, const GemmPacker<R>&, const GemmPacker<R>&, R*, \
                          std::uint64_t, const CpuRuntimeContext*);

QUILLMARK_GEMM_INSTANTIATE(float)
QUILLMARK_GEMM_INSTANTIATE(double)
QUILLMARK_GEMM_INSTANTIATE(std::uint32_t)

#undef QUILLMARK_GEMM_INSTANTIATE

} // namespace quillmark::cpu
