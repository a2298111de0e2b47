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

template <class Info, class Kernel> Info from_config(std::string_view name, const GemmBlocking& b, Kernel k) {
    return {name, b.mr, b.nr, b.mc, b.kc, b.nc, k};
}

template <class R> std::vector<GemmKernelInfo<R>> simd_kernels(bool avx2, bool avx512) {
    using Info = GemmKernelInfo<R>;
    std::vector<Info> out;
    if constexpr (std::is_same_v<R, double>) {
        if (avx2) out.push_back(from_config<Info>("AVX2", isa_avx256::gemm_f64, gemm_microkernels_avx2().f64));
        if (avx512) out.push_back(from_config<Info>("AVX512", isa_avx512::gemm_f64, gemm_microkernels_avx512().f64));
    } else if constexpr (std::is_same_v<R, float>) {
        if (avx2) out.push_back(from_config<Info>("AVX2", isa_avx256::gemm_f32, gemm_microkernels_avx2().f32));
        if (avx512) out.push_back(from_config<Info>("AVX512", isa_avx512::gemm_f32, gemm_microkernels_avx512().f32));
    }
    return out;
}

template <class R, int MR, int NR>
void portable_split_tile(std::uint64_t kc, const R* a, const R* b, R* c_re, R* c_im, std::uint64_t ldc,
                         bool accumulate) {
    R re[MR][NR] = {}, im[MR][NR] = {};
    for (std::uint64_t p = 0; p < kc; p += 2) {
        for (int i = 0; i < MR; ++i) {
            const R ar = a[i], ai = a[MR + i];
            for (int j = 0; j < NR; ++j) {
                re[i][j] += ar * b[j];
                im[i][j] += ar * b[NR + j];
            }
            for (int j = 0; j < NR; ++j) {
                re[i][j] += ai * -b[NR + j];
                im[i][j] += ai * b[j];
            }
        }
        a += 2 * MR;
        b += 2 * NR;
    }
    for (int i = 0; i < MR; ++i)
        for (int j = 0; j < NR; ++j) {
            R& r = c_re[i * ldc + j];
            R& m = c_im[i * ldc + j];
            r = accumulate ? r + re[i][j] : re[i][j];
            m = accumulate ? m + im[i][j] : im[i][j];
        }
}

template <class R> SplitGemmKernelInfo<R> portable_split_kernel() {
    return {"portable", 2, 4, 128, 256, 2048, &portable_split_tile<R, 2, 4>};
}

template <class R> std::vector<SplitGemmKernelInfo<R>> simd_split_kernels(bool avx2, bool avx512) {
    using Info = SplitGemmKernelInfo<R>;
    std::vector<Info> out;
    if constexpr (std::is_same_v<R, double>) {
        if (avx2)
            out.push_back(from_config<Info>("AVX2", isa_avx256::gemm_split_f64, gemm_microkernels_avx2().split_f64));
        if (avx512)
            out.push_back(from_config<Info>("AVX512", isa_avx512::gemm_split_f64, gemm_microkernels_avx512().split_f64));
    } else {
        if (avx2)
            out.push_back(from_config<Info>("AVX2", isa_avx256::gemm_split_f32, gemm_microkernels_avx2().split_f32));
        if (avx512)
            out.push_back(from_config<Info>("AVX512", isa_avx512::gemm_split_f32, gemm_microkernels_avx512().split_f32));
    }
    return out;
}

// A packing buffer. Each thread keeps one per role and type and reuses it: a fresh allocation of
// this size is mapped anew by the system, and its page faults cost a few percent of a product.
// A role already in use on the thread (a product nested in another) gets a private buffer.
template <class R, int Role> class PackBuffer {
    struct Cache {
        R* data = nullptr;
        std::uint64_t capacity = 0;
        bool busy = false;
        ~Cache() { ::operator delete(data, std::align_val_t(64)); }
    };
    static Cache& cache() {
        thread_local Cache c;
        return c;
    }
    Cache* held_ = nullptr;
    R* own_ = nullptr;

public:
    R* data = nullptr;
    explicit PackBuffer(std::uint64_t count) {
        Cache& c = cache();
        if (c.busy) {
            own_ = data = static_cast<R*>(::operator new(count * sizeof(R), std::align_val_t(64)));
            return;
        }
        if (c.capacity < count) {
            ::operator delete(c.data, std::align_val_t(64));
            c.data = nullptr;
            c.capacity = 0;
            c.data = static_cast<R*>(::operator new(count * sizeof(R), std::align_val_t(64)));
            c.capacity = count;
        }
        c.busy = true;
        held_ = &c;
        data = c.data;
    }
    ~PackBuffer() {
        if (held_ != nullptr) held_->busy = false;
        ::operator delete(own_, std::align_val_t(64));
    }
    PackBuffer(const PackBuffer&) = delete;
    PackBuffer& operator=(const PackBuffer&) = delete;
};

std::uint64_t round_up(std::uint64_t v, std::uint64_t m) { return (v + m - 1) / m * m; }

// Where the driver's tiles land: a real matrix, or the two planes of a split complex one. Edge
// tiles are computed into a scratch tile and the valid part merged.
template <class R>
void merge(R* c, std::uint64_t ldc, const R* t, std::uint64_t ldt, std::uint64_t mr, std::uint64_t nr, bool accumulate) {
    for (std::uint64_t i = 0; i < mr; ++i)
        for (std::uint64_t j = 0; j < nr; ++j) {
            R& out = c[i * ldc + j];
            out = accumulate ? out + t[i * ldt + j] : t[i * ldt + j];
        }
}

constexpr std::uint64_t kScratch = 16 * 64;

template <class R> struct RealSink {
    GemmMicroKernel<R> kernel;
    R* c;
    std::uint64_t ldc;
    void clear(std::uint64_t m, std::uint64_t n) const {
        for (std::uint64_t i = 0; i < m; ++i) std::fill(c + i * ldc, c + i * ldc + n, R{});
    }
    void tile(std::uint64_t kc, const R* a, const R* b, std::uint64_t i, std::uint64_t j, std::uint64_t mr,
              std::uint64_t nr, std::uint64_t MR, std::uint64_t NR, bool accumulate) const {
        R* ct = c + i * ldc + j;
        if (mr == MR && nr == NR) return kernel(kc, a, b, ct, ldc, accumulate);
        edge(kc, a, b, ct, mr, nr, NR, accumulate);
    }
    // Out of line, so that the scratch tile's stack frame is only set up for edge tiles.
    [[gnu::noinline]] void edge(std::uint64_t kc, const R* a, const R* b, R* ct, std::uint64_t mr, std::uint64_t nr,
                                std::uint64_t NR, bool accumulate) const {
        alignas(64) R scratch[kScratch];
        kernel(kc, a, b, scratch, NR, false);
        merge(ct, ldc, scratch, NR, mr, nr, accumulate);
    }
};

template <class R> struct SplitSink {
    SplitGemmMicroKernel<R> kernel;
    R* re;
    R* im;
    std::uint64_t ldc;
    void clear(std::uint64_t m, std::uint64_t n) const {
        RealSink<R>{nullptr, re, ldc}.clear(m, n);
        RealSink<R>{nullptr, im, ldc}.clear(m, n);
    }
    void tile(std::uint64_t kc, const R* a, const R* b, std::uint64_t i, std::uint64_t j, std::uint64_t mr,
              std::uint64_t nr, std::uint64_t MR, std::uint64_t NR, bool accumulate) const {
        const std::uint64_t at = i * ldc + j;
        if (mr == MR && nr == NR) return kernel(kc, a, b, re + at, im + at, ldc, accumulate);
        edge(kc, a, b, at, mr, nr, NR, accumulate);
    }
    [[gnu::noinline]] void edge(std::uint64_t kc, const R* a, const R* b, std::uint64_t at, std::uint64_t mr,
                                std::uint64_t nr, std::uint64_t NR, bool accumulate) const {
        alignas(64) R scratch[2 * kScratch];
        kernel(kc, a, b, scratch, scratch + kScratch, NR, false);
        merge(re + at, ldc, scratch, NR, mr, nr, accumulate);
        merge(im + at, ldc, scratch + kScratch, NR, mr, nr, accumulate);
    }
};

// One packed A block against one packed B block: each B micro-panel serves every A micro-panel
// of the block before the next one is read.
template <class R, class Sink>
void macro_kernel(const Sink& sink, std::uint64_t MR, std::uint64_t NR, std::uint64_t mc, std::uint64_t nc,
                  std::uint64_t kc, const R* apack, const R* bpack, std::uint64_t ic, std::uint64_t jc,
                  bool accumulate) {
    for (std::uint64_t jr = 0; jr < nc; jr += NR) {
        const std::uint64_t nr = std::min(NR, nc - jr);
        const R* bp = bpack + jr * kc;
        for (std::uint64_t ir = 0; ir < mc; ir += MR)
            sink.tile(kc, apack + ir * kc, bp, ic + ir, jc + jr, std::min(MR, mc - ir), nr, MR, NR, accumulate);
    }
}

// The blocked loops shared by the real and the split-complex products. A packed panel holds
// kc reals per line whatever the element: a split-complex line takes two reals per step over
// kc / 2 steps.
template <class R, class Sink>
void drive(const Sink& sink, const GemmBlocking& kr, std::uint64_t m, std::uint64_t n, std::uint64_t k,
           const GemmPacker<R>& a, const GemmPacker<R>& b, const CpuRuntimeContext* ctx) {
    if (m == 0 || n == 0) return;
    if (k == 0) return sink.clear(m, n);
    const std::uint64_t MR = kr.mr, NR = kr.nr;
    const std::uint64_t kc_max = std::min(kr.kc, k);
    const std::uint64_t nc_max = std::min(kr.nc, round_up(n, NR));
    // With workers available, cut the rows finely enough for the chunks to balance.
    std::uint64_t mc_max = std::min(kr.mc, round_up(m, MR));
    if (ctx != nullptr) mc_max = std::min(mc_max, std::max<std::uint64_t>(MR, round_up((m + 7) / 8, MR)));
    const std::uint64_t row_blocks = (m + mc_max - 1) / mc_max;

    PackBuffer<R, 0> bpack(kc_max * nc_max);
    for (std::uint64_t jc = 0; jc < n; jc += nc_max) {
        const std::uint64_t nc = std::min(nc_max, n - jc);
        for (std::uint64_t pc = 0; pc < k; pc += kc_max) {
            const std::uint64_t kc = std::min(kc_max, k - pc);
            const bool accumulate = pc != 0;
            b.pack(b.source, bpack.data, jc, nc, pc, kc, NR);
            auto rows = [&](std::uint64_t first, std::uint64_t last) {
                PackBuffer<R, 1> apack(mc_max * kc);
                for (std::uint64_t blk = first; blk < last; ++blk) {
                    const std::uint64_t ic = blk * mc_max;
                    const std::uint64_t mc = std::min(mc_max, m - ic);
                    a.pack(a.source, apack.data, ic, mc, pc, kc, MR);
                    macro_kernel(sink, MR, NR, mc, nc, kc, apack.data, bpack.data, ic, jc, accumulate);
                }
            };
            if (ctx == nullptr || row_blocks < 2) rows(0, row_blocks);
            else ctx->parallel_for_chunks(0, row_blocks, 2 * m * nc * kc, ChunkBody(std::ref(rows)));
        }
    }
}

template <class Info> GemmBlocking blocking_of(const Info& k) { return {k.mr, k.nr, k.mc, k.kc, k.nc}; }

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
    drive(RealSink<R>{kr.kernel, c, ldc}, blocking_of(kr), m, n, k, a, b, ctx);
}

template <class R>
void gemm(std::uint64_t m, std::uint64_t n, std::uint64_t k, const GemmPacker<R>& a, const GemmPacker<R>& b, R* c,
          std::uint64_t ldc, const CpuRuntimeContext* ctx) {
    gemm(default_gemm_kernel<R>(), m, n, k, a, b, c, ldc, ctx);
}

template <class R> std::vector<SplitGemmKernelInfo<R>> available_split_gemm_kernels() {
    return available_variants<SplitGemmKernelInfo<R>>(portable_split_kernel<R>, simd_split_kernels<R>);
}

template <class R> const SplitGemmKernelInfo<R>& default_split_gemm_kernel() {
    static const SplitGemmKernelInfo<R> chosen =
        selected_variant<SplitGemmKernelInfo<R>>(portable_split_kernel<R>, simd_split_kernels<R>);
    return chosen;
}

template <class R>
void split_complex_gemm(const SplitGemmKernelInfo<R>& kr, std::uint64_t m, std::uint64_t n, std::uint64_t k,
                        const GemmPacker<R>& a, const GemmPacker<R>& b, R* c_re, R* c_im, std::uint64_t ldc,
                        const CpuRuntimeContext* ctx) {
    drive(SplitSink<R>{kr.kernel, c_re, c_im, ldc}, blocking_of(kr), m, n, 2 * k, a, b, ctx);
}

template <class R>
void split_complex_gemm(std::uint64_t m, std::uint64_t n, std::uint64_t k, const GemmPacker<R>& a,
                        const GemmPacker<R>& b, R* c_re, R* c_im, std::uint64_t ldc, const CpuRuntimeContext* ctx) {
    split_complex_gemm(default_split_gemm_kernel<R>(), m, n, k, a, b, c_re, c_im, ldc, ctx);
}

#define QUILLMARK_SPLIT_GEMM_INSTANTIATE(R)                                                                            \
    template std::vector<SplitGemmKernelInfo<R>> available_split_gemm_kernels<R>();                                   \
    template const SplitGemmKernelInfo<R>& default_split_gemm_kernel<R>();                                            \
    template void split_complex_gemm<R>(const SplitGemmKernelInfo<R>&, std::uint64_t, std::uint64_t, std::uint64_t,   \
                                        const GemmPacker<R>&, const GemmPacker<R>&, R*, R*, std::uint64_t,            \
                                        const CpuRuntimeContext*);                                                    \
    template void split_complex_gemm<R>(std::uint64_t, std::uint64_t, std::uint64_t, const GemmPacker<R>&,            \
                                        const GemmPacker<R>&, R*, R*, std::uint64_t, const CpuRuntimeContext*);

QUILLMARK_SPLIT_GEMM_INSTANTIATE(float)
QUILLMARK_SPLIT_GEMM_INSTANTIATE(double)

#undef QUILLMARK_SPLIT_GEMM_INSTANTIATE

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
