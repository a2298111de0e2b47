#pragma once
// Packers feeding the real GEMM driver from typed storage. A complex product C = A B runs as the
// real product C'' = A'' B'' with
//   A''(i, 2p + t) = (Re, Im)[t] of A(i, p)                      (interleaved A read as real),
//   B''(2p + s, 2j + t) = [[Re, Im], [-Im, Re]][s][t] of B(p, j),
// so that C''(i, 2j + t) is (Re, Im)[t] of C(i, j): the result comes out interleaved.
#include <algorithm>
#include <complex>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "backend/cpu/gemm.hpp"
#include "storage/views.hpp"

namespace quillmark::cpu {

template <class R, class S> inline R load_compute(const S* p, std::uint64_t i) noexcept {
    if constexpr (std::is_same_v<S, std::int32_t>) return static_cast<R>(p[i]); // wraps into uint32_t
    else return load_element<R>(p, i);
}

// Real element (line, depth) at p[line * ls + depth * ds].
template <class S, class R> struct RealPanelSource {
    const S* p = nullptr;
    std::uint64_t ls = 0;
    std::uint64_t ds = 0;

    static void pack(const void* self, R* dst, std::uint64_t l0, std::uint64_t lines, std::uint64_t d0,
                     std::uint64_t depth, std::uint64_t width) {
        const auto& s = *static_cast<const RealPanelSource*>(self);
        for (std::uint64_t q = 0; q < lines; q += width, dst += depth * width) {
            const std::uint64_t w = std::min(width, lines - q);
            if (s.ls == 1) {
                for (std::uint64_t d = 0; d < depth; ++d) {
                    const S* src = s.p + (d0 + d) * s.ds + l0 + q;
                    R* o = dst + d * width;
                    for (std::uint64_t l = 0; l < w; ++l) o[l] = load_compute<R>(src, l);
                    for (std::uint64_t l = w; l < width; ++l) o[l] = R{};
                }
                continue;
            }
            for (std::uint64_t l = 0; l < w; ++l) {
                const S* src = s.p + (l0 + q + l) * s.ls + d0 * s.ds;
                if (s.ds == 1)
                    for (std::uint64_t d = 0; d < depth; ++d) dst[d * width + l] = load_compute<R>(src, d);
                else
                    for (std::uint64_t d = 0; d < depth; ++d) dst[d * width + l] = load_compute<R>(src, d * s.ds);
            }
            if (w < width)
                for (std::uint64_t d = 0; d < depth; ++d) std::fill(dst + d * width + w, dst + (d + 1) * width, R{});
        }
    }
    GemmPacker<R> packer() const { return {&pack, this}; }
};

// Complex element (line, depth) of split planes.
template <class T, class R> struct SplitComplexLoader {
    const T* re = nullptr;
    const T* im = nullptr;
    std::uint64_t ls = 0;
    std::uint64_t ds = 0;
    void at(std::uint64_t l, std::uint64_t d, R& r, R& i) const noexcept {
        const std::uint64_t x = l * ls + d * ds;
        r = load_element<R>(re, x);
        i = load_element<R>(im, x);
    }
};

// Complex element (line, depth) of interleaved storage S.
template <class S, class R> struct InterleavedComplexLoader {
    const S* p = nullptr;
    std::uint64_t ls = 0;
    std::uint64_t ds = 0;
    void at(std::uint64_t l, std::uint64_t d, R& r, R& i) const noexcept {
        const std::complex<R> z = load_element<std::complex<R>>(p, l * ls + d * ds);
        r = z.real();
        i = z.imag();
    }
};

// B'' panel rows straight from memory when consecutive lines of the loader are adjacent complex
// numbers of the compute type: each depth row is a run that is copied as it stands, with its
// (-Im, Re) partner row beside it. Returns false, writing nothing, for any other loader.
template <class R, class Loader>
bool pack_right_runs(const Loader& ld, R* dst, std::uint64_t j0, std::uint64_t w, std::uint64_t d0,
                     std::uint64_t depth, std::uint64_t width) noexcept {
    if constexpr (requires { ld.p; }) {
        if constexpr (std::is_same_v<std::remove_cv_t<std::remove_pointer_t<decltype(ld.p)>>, std::complex<R>>) {
            if (ld.ls != 1) return false;
            for (std::uint64_t x = 0; x < depth; x += 2) {
                const R* src = reinterpret_cast<const R*>(ld.p + ((d0 + x) / 2) * ld.ds + j0);
                R* o = dst + x * width;
                for (std::uint64_t col = 0; col < w; col += 2) {
                    o[col] = src[col];
                    o[col + 1] = src[col + 1];
                    o[width + col] = -src[col + 1];
                    o[width + col + 1] = src[col];
                }
            }
            return true;
        }
    }
    return false;
}

// The loader's storage as reals when it holds complex numbers of the compute type with the depth
// contiguous (element (line, depth) at reals 2 (line * ls + depth) and the one after); null
// otherwise.
template <class R, class Loader> const R* contiguous_reals(const Loader& ld) noexcept {
    if constexpr (requires { ld.p; }) {
        if constexpr (std::is_same_v<std::remove_cv_t<std::remove_pointer_t<decltype(ld.p)>>, std::complex<R>>)
            if (ld.ds == 1) return reinterpret_cast<const R*>(ld.p);
    }
    return nullptr;
}

// A'' of the embedding (optionally of conj(A)); depth offsets and counts are even. The depth is
// taken in chunks so that a chunk of the panel stays in L1 while its lines are written one by
// one: a whole panel is larger than L1, and lines a power of two apart would also contend for
// the same L1 sets if they were read side by side.
template <class Loader, class R> struct ComplexLeftSource {
    Loader ld;
    bool conjugate = false;

    static constexpr std::uint64_t kChunk = 128; // reals of depth

    // A full panel of a few interleaved rows, step by step: the rows are read side by side and
    // each step's 2W reals are written in one run. False for widths without an unrolled form.
    template <std::uint64_t W>
    static void pack_rows(const R* src, std::uint64_t stride, R* dst, std::uint64_t depth, R sign) noexcept {
        const R* row[W];
        for (std::uint64_t l = 0; l < W; ++l) row[l] = src + l * stride;
        for (std::uint64_t x = 0; x < depth; x += 2, dst += 2 * W) {
#pragma GCC unroll 8
            for (std::uint64_t l = 0; l < W; ++l) {
                dst[l] = row[l][x];
                dst[W + l] = sign * row[l][x + 1];
            }
        }
    }
    static bool pack_full_panel(const R* src, std::uint64_t stride, R* dst, std::uint64_t depth, std::uint64_t width,
                                R sign) noexcept {
        switch (width) {
        case 3: return pack_rows<3>(src, stride, dst, depth, sign), true;
        case 4: return pack_rows<4>(src, stride, dst, depth, sign), true;
        default: return false;
        }
    }

    static void pack(const void* self, R* dst, std::uint64_t l0, std::uint64_t lines, std::uint64_t d0,
                     std::uint64_t depth, std::uint64_t width) {
        const auto& s = *static_cast<const ComplexLeftSource*>(self);
        const R sign = s.conjugate ? R(-1) : R(1);
        const R* reals = contiguous_reals<R>(s.ld);
        for (std::uint64_t q = 0; q < lines; q += width, dst += depth * width) {
            const std::uint64_t w = std::min(width, lines - q);
            if (reals != nullptr && w == width && pack_full_panel(reals + 2 * (l0 + q) * s.ld.ls + d0, 2 * s.ld.ls, dst,
                                                                   depth, width, sign))
                continue;
            for (std::uint64_t x0 = 0; x0 < depth; x0 += kChunk) {
                const std::uint64_t x1 = std::min(depth, x0 + kChunk);
                for (std::uint64_t l = 0; l < w; ++l) {
                    R* o = dst + l;
                    const std::uint64_t line = l0 + q + l;
                    if (reals != nullptr) {
                        // Interleaved rows are the panel's depth order already: a strided copy.
                        const R* src = reals + 2 * line * s.ld.ls + d0;
                        for (std::uint64_t x = x0; x < x1; x += 2) {
                            o[x * width] = src[x];
                            o[(x + 1) * width] = sign * src[x + 1];
                        }
                        continue;
                    }
                    if constexpr (std::is_same_v<Loader, SplitComplexLoader<R, R>>) {
                        if (s.ld.ds == 1) {
                            const R* re = s.ld.re + line * s.ld.ls + d0 / 2;
                            const R* im = s.ld.im + line * s.ld.ls + d0 / 2;
                            for (std::uint64_t x = x0; x < x1; x += 2) {
                                o[x * width] = re[x / 2];
                                o[(x + 1) * width] = sign * im[x / 2];
                            }
                            continue;
                        }
                    }
                    for (std::uint64_t x = x0; x < x1; x += 2) {
                        R re, im;
                        s.ld.at(line, (d0 + x) / 2, re, im);
                        o[x * width] = re;
                        o[(x + 1) * width] = sign * im;
                    }
                }
            }
            if (w < width)
                for (std::uint64_t d = 0; d < depth; ++d) std::fill(dst + d * width + w, dst + (d + 1) * width, R{});
        }
    }
    GemmPacker<R> packer() const { return {&pack, this}; }
};

// B of split_complex_gemm: lines are complex columns j; each step p holds `width` real parts then
// `width` imaginary parts. Depth offsets and counts are in reals (two per step, even).
template <class Loader, class R> struct SplitRightSource {
    Loader ld;

    static void pack(const void* self, R* dst, std::uint64_t l0, std::uint64_t lines, std::uint64_t d0,
                     std::uint64_t depth, std::uint64_t width) {
        const auto& s = *static_cast<const SplitRightSource*>(self);
        if constexpr (std::is_same_v<Loader, SplitComplexLoader<R, R>>) {
            // Planes of the compute type with adjacent columns: walk the rows once, each feeding
            // every panel, so the reads stream instead of revisiting each row once per panel.
            if (s.ld.ls == 1) {
                for (std::uint64_t x = 0; x < depth; x += 2) {
                    const std::uint64_t at = ((d0 + x) / 2) * s.ld.ds + l0;
                    const R* re = s.ld.re + at;
                    const R* im = s.ld.im + at;
                    R* o = dst + x * width;
                    for (std::uint64_t q = 0; q < lines; q += width, o += depth * width) {
                        const std::uint64_t w = std::min(width, lines - q);
                        for (std::uint64_t l = 0; l < w; ++l) {
                            o[l] = re[q + l];
                            o[width + l] = im[q + l];
                        }
                        for (std::uint64_t l = w; l < width; ++l) o[l] = o[width + l] = R{};
                    }
                }
                return;
            }
        }
        for (std::uint64_t q = 0; q < lines; q += width, dst += depth * width) {
            const std::uint64_t w = std::min(width, lines - q);
            for (std::uint64_t x = 0; x < depth; x += 2) {
                R* o = dst + x * width;
                for (std::uint64_t l = 0; l < w; ++l) s.ld.at(l0 + q + l, (d0 + x) / 2, o[l], o[width + l]);
                for (std::uint64_t l = w; l < width; ++l) o[l] = o[width + l] = R{};
            }
        }
    }
    GemmPacker<R> packer() const { return {&pack, this}; }
};

// B'' of the embedding, lines 2j + t; line offsets, counts and the panel width are even.
template <class Loader, class R> struct ComplexRightSource {
    Loader ld;

    static void pack(const void* self, R* dst, std::uint64_t l0, std::uint64_t lines, std::uint64_t d0,
                     std::uint64_t depth, std::uint64_t width) {
        const auto& s = *static_cast<const ComplexRightSource*>(self);
        for (std::uint64_t q = 0; q < lines; q += width, dst += depth * width) {
            const std::uint64_t w = std::min(width, lines - q);
            if (!pack_right_runs(s.ld, dst, (l0 + q) / 2, w, d0, depth, width)) {
                for (std::uint64_t col = 0; col < w; col += 2) {
                    const std::uint64_t j = (l0 + q + col) / 2;
                    for (std::uint64_t x = 0; x < depth; x += 2) {
                        R re, im;
                        s.ld.at(j, (d0 + x) / 2, re, im);
                        R* o = dst + x * width + col;
                        o[0] = re;
                        o[1] = im;
                        o[width] = -im;
                        o[width + 1] = re;
                    }
                }
            }
            if (w < width)
                for (std::uint64_t d = 0; d < depth; ++d) std::fill(dst + d * width + w, dst + (d + 1) * width, R{});
        }
    }
    GemmPacker<R> packer() const { return {&pack, this}; }
};

// B of complex_gemm_tile from row-major interleaved storage, B(p, j) at p[p*ld + j]: line 2j + t
// is part t of column j, and each complex depth step is one panel row copied as it stands, so a
// panel fills the first half of its depth * width slot. Line offsets, counts, the panel width
// and the depth (in reals, two per step) are even.
template <class R> struct InterleavedRightRowsSource {
    const std::complex<R>* p = nullptr;
    std::uint64_t ld = 0;

    static void pack(const void* self, R* dst, std::uint64_t l0, std::uint64_t lines, std::uint64_t d0,
                     std::uint64_t depth, std::uint64_t width) {
        const auto& s = *static_cast<const InterleavedRightRowsSource*>(self);
        // Each row is walked once, feeding every panel in turn, so the reads stream.
        for (std::uint64_t step = 0; step < depth / 2; ++step) {
            const R* row = reinterpret_cast<const R*>(s.p + (d0 / 2 + step) * s.ld) + l0;
            R* o = dst + step * width;
            for (std::uint64_t q = 0; q < lines; q += width, o += depth * width) {
                const std::uint64_t w = std::min(width, lines - q);
                const R* src = row + q;
                // Fixed-size chunks: a copy of run-time length becomes a library call.
                std::uint64_t l = 0;
                for (; l + 8 <= w; l += 8) std::memcpy(o + l, src + l, 8 * sizeof(R));
                for (; l < w; ++l) o[l] = src[l];
                std::fill(o + w, o + width, R{});
            }
        }
    }
    GemmPacker<R> packer() const { return {&pack, this}; }
};

// C = A B with both factors given by loaders (line i or j, depth p) and C written to split
// planes, row-major with leading dimension ldc.
template <class R, class LeftLoader, class RightLoader>
void split_product(std::uint64_t m, std::uint64_t n, std::uint64_t k, const LeftLoader& left, const RightLoader& right,
                   R* c_re, R* c_im, std::uint64_t ldc, const CpuRuntimeContext* ctx) {
    const ComplexLeftSource<LeftLoader, R> l{left, false};
    const SplitRightSource<RightLoader, R> r{right};
    split_complex_gemm<R>(m, n, k, l.packer(), r.packer(), c_re, c_im, ldc, ctx);
}

} // namespace quillmark::cpu
