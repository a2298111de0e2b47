#pragma once
// 16-bit floating value types. Conversions are exact bit manipulations, independent of the
// rounding mode, cheap enough to run per element inside kernels.
#include <bit>
#include <complex>
#include <cstdint>

namespace quillmark {

constexpr std::uint16_t bfloat16_bits_from_float(float value) noexcept {
    const std::uint32_t b = std::bit_cast<std::uint32_t>(value);
    if ((b & 0x7FFFFFFFu) <= 0x7F800000u)
        return static_cast<std::uint16_t>((b + 0x7FFFu + ((b >> 16) & 1u)) >> 16);
    return static_cast<std::uint16_t>(((b >> 16) & 0xFFC0u) | 0x7FC0u);
}

constexpr float float_from_bfloat16_bits(std::uint16_t h) noexcept {
    return std::bit_cast<float>(static_cast<std::uint32_t>(h) << 16);
}

constexpr std::uint16_t float16_bits_from_float(float value) noexcept {
    const std::uint32_t b = std::bit_cast<std::uint32_t>(value);
    const std::uint32_t s = (b >> 16) & 0x8000u;
    const std::int32_t e = static_cast<std::int32_t>((b >> 23) & 0xFFu);
    const std::uint32_t m = b & 0x7FFFFFu;
    if (e == 255) return static_cast<std::uint16_t>(s | (m != 0 ? 0x7E00u : 0x7C00u));
    const std::int32_t t = e - 112;
    if (t >= 31) return static_cast<std::uint16_t>(s | 0x7C00u);
    if (t > 0) {
        std::uint32_t h = (static_cast<std::uint32_t>(t) << 10) | (m >> 13);
        const std::uint32_t r = b & 0x1FFFu;
        if (r > 0x1000u || (r == 0x1000u && (m & 0x2000u) != 0)) ++h;
        if (h > 0x7C00u) h = 0x7C00u;
        return static_cast<std::uint16_t>(s | h);
    }
    if (t <= -11) return static_cast<std::uint16_t>(s);
    const std::uint32_t mm = m | 0x800000u;
    const std::int32_t k = 126 - e;
    std::uint32_t q = mm >> k;
    const std::uint32_t rem = mm & ((1u << k) - 1u);
    const std::uint32_t half = 1u << (125 - e);
    if (rem > half || (rem == half && (q & 1u) != 0)) ++q;
    return static_cast<std::uint16_t>(s | q);
}

constexpr float float_from_float16_bits(std::uint16_t h) noexcept {
    const std::uint32_t s = static_cast<std::uint32_t>(h & 0x8000u) << 16;
    const std::uint32_t E = (h >> 10) & 31u;
    std::uint32_t f = h & 0x3FFu;
    std::uint32_t out;
    if (E == 31) {
        out = s | (f != 0 ? 0x7FC00000u : 0x7F800000u);
    } else if (E != 0) {
        out = s | ((E + 112u) << 23) | (f << 13);
    } else if (f == 0) {
        out = s;
    } else {
        std::int32_t exponent = -14;
        while ((f & 0x400u) == 0) {
            f <<= 1;
            --exponent;
        }
        out = s | (static_cast<std::uint32_t>(exponent + 127) << 23) | ((f & 0x3FFu) << 13);
    }
    return std::bit_cast<float>(out);
}

struct BFloat16 {
    std::uint16_t bits = 0;
    constexpr BFloat16() noexcept = default;
    constexpr explicit BFloat16(float v) noexcept : bits(bfloat16_bits_from_float(v)) {}
    static constexpr BFloat16 from_bits(std::uint16_t b) noexcept {
        BFloat16 r;
        r.bits = b;
        return r;
    }
    constexpr explicit operator float() const noexcept { return float_from_bfloat16_bits(bits); }
    constexpr bool operator==(const BFloat16&) const = default;
};

struct Float16 {
    std::uint16_t bits = 0;
    constexpr Float16() noexcept = default;
    constexpr explicit Float16(float v) noexcept : bits(float16_bits_from_float(v)) {}
    static constexpr Float16 from_bits(std::uint16_t b) noexcept {
        Float16 r;
        r.bits = b;
        return r;
    }
    constexpr explicit operator float() const noexcept { return float_from_float16_bits(bits); }
    constexpr bool operator==(const Float16&) const = default;
};

struct Complex32 {
    Float16 real;
    Float16 imag;
    constexpr Complex32() noexcept = default;
    constexpr Complex32(Float16 re, Float16 im) noexcept : real(re), imag(im) {}
    explicit Complex32(std::complex<float> v) noexcept : real(v.real()), imag(v.imag()) {}
    explicit operator std::complex<float>() const noexcept {
        return {static_cast<float>(real), static_cast<float>(imag)};
    }
    constexpr bool operator==(const Complex32&) const = default;
};

static_assert(sizeof(BFloat16) == 2 && sizeof(Float16) == 2 && sizeof(Complex32) == 4);

} // namespace quillmark
