// Exhaustive checks of the half-precision conversions against independent references.
#include <gtest/gtest.h>
#include <immintrin.h>

#include <bit>
#include <cmath>
#include <complex>
#include <cstdint>
#include <future>
#include <vector>

#include "core/low_precision.hpp"

using namespace quillmark;

namespace {

bool is_nan_bits(std::uint32_t b) { return (b & 0x7FFFFFFFu) > 0x7F800000u; }

// Round-to-nearest-even to bfloat16 via exact double arithmetic.
std::uint16_t bfloat16_reference(std::uint32_t b) {
    if (is_nan_bits(b)) return static_cast<std::uint16_t>(((b >> 16) & 0x8000u) | 0x7FC0u | ((b >> 16) & 0x7FC0u));
    const std::uint32_t lo = b & 0xFFFF0000u;
    const std::uint32_t rem = b & 0xFFFFu;
    if (rem == 0) return static_cast<std::uint16_t>(lo >> 16);
    const double x = std::bit_cast<float>(b);
    const double down = std::bit_cast<float>(lo);
    // The next value away from zero; from the largest finite value this is infinity.
    const double up_value = (lo & 0x7FFFFFFFu) == 0x7F7F0000u
                                ? std::ldexp(std::copysign(1.0, x), 128)
                                : static_cast<double>(std::bit_cast<float>(lo + 0x10000u));
    const double dd = std::fabs(x - down), du = std::fabs(up_value - x);
    const bool take_up = du < dd || (du == dd && ((lo >> 16) & 1u) != 0);
    return static_cast<std::uint16_t>((take_up ? lo + 0x10000u : lo) >> 16);
}

// Splits [0, 2^32) over two threads and counts mismatches.
template <class Check> std::uint64_t count_mismatches_32(Check check) {
    auto part = [&](std::uint64_t begin, std::uint64_t end) {
        std::uint64_t bad = 0;
        for (std::uint64_t i = begin; i < end; ++i) bad += check(static_cast<std::uint32_t>(i)) ? 0 : 1;
        return bad;
    };
    const std::uint64_t half = 1ull << 31;
    auto first = std::async(std::launch::async, part, 0ull, half);
    const std::uint64_t second = part(half, 1ull << 32);
    return first.get() + second;
}

} // namespace

// Widening is exact: binary16 as the hardware converts it (NaNs quieted), bfloat16 by a shift.
TEST(LowPrecision, SixteenBitWideningAllPatterns) {
    for (std::uint32_t h = 0; h < 0x10000u; ++h) {
        const std::uint32_t got = std::bit_cast<std::uint32_t>(float_from_float16_bits(static_cast<std::uint16_t>(h)));
        const bool nan = (h & 0x7C00u) == 0x7C00u && (h & 0x3FFu) != 0;
        const std::uint32_t want = nan ? ((h & 0x8000u) << 16) | 0x7FC00000u
                                       : std::bit_cast<std::uint32_t>(_cvtsh_ss(static_cast<unsigned short>(h)));
        ASSERT_EQ(got, want) << "half bits " << h;
        ASSERT_EQ(std::bit_cast<std::uint32_t>(float_from_bfloat16_bits(static_cast<std::uint16_t>(h))), h << 16);
    }
}

// Narrowing of every binary32 pattern, one sweep per format (a combined sweep runs slower).
TEST(LowPrecision, Binary32ToFloat16AllPatterns) {
    const std::uint64_t bad = count_mismatches_32([](std::uint32_t b) {
        const std::uint16_t got = float16_bits_from_float(std::bit_cast<float>(b));
        if (is_nan_bits(b)) return got == (((b >> 16) & 0x8000u) | 0x7E00u);
        return got == _cvtss_sh(std::bit_cast<float>(b), _MM_FROUND_TO_NEAREST_INT);
    });
    EXPECT_EQ(bad, 0u);
}

TEST(LowPrecision, Binary32ToBFloat16AllPatterns) {
    const std::uint64_t bad = count_mismatches_32(
        [](std::uint32_t b) { return bfloat16_bits_from_float(std::bit_cast<float>(b)) == bfloat16_reference(b); });
    EXPECT_EQ(bad, 0u);
}

struct BitCase {
    std::uint32_t in;
    std::uint16_t out;
};

// The exhaustive bfloat16 check trusts a hand-written reference; these pin that reference down.
class BFloat16Cases : public ::testing::TestWithParam<BitCase> {};
TEST_P(BFloat16Cases, Rounds) {
    EXPECT_EQ(bfloat16_bits_from_float(std::bit_cast<float>(GetParam().in)), GetParam().out);
}
INSTANTIATE_TEST_SUITE_P(Edges, BFloat16Cases,
                         ::testing::Values(BitCase{0x3F808000u, 0x3F80}, BitCase{0x3F818000u, 0x3F82},
                                           BitCase{0x7F800001u, 0x7FC0}, BitCase{0xFF800001u, 0xFFC0},
                                           BitCase{0x7F7FFFFFu, 0x7F80}));

TEST(LowPrecision, Complex32RoundTripsPerComponent) {
    const Complex32 c(std::complex<float>(1.0f / 3.0f, -65520.0f));
    EXPECT_EQ(c.real.bits, float16_bits_from_float(1.0f / 3.0f));
    EXPECT_EQ(c.imag.bits, 0xFC00);
    EXPECT_TRUE(std::isinf(static_cast<std::complex<float>>(c).imag()));
}

// Some GCC releases vectorise a pair of double -> float -> double round trips into no rounding
// at all; the build switches that vectoriser off where they do (CMakeLists.txt).
__attribute__((noinline)) void narrow_pair(const std::complex<double>& h, std::complex<double>& w) {
    w = std::complex<double>(std::complex<float>(h));
}

TEST(LowPrecision, NarrowedPairsKeepTheirSingleRounding) {
    volatile double x = 0.1, y = 0.3;
    std::complex<double> w;
    narrow_pair({x, y}, w);
    EXPECT_EQ(w, std::complex<double>(static_cast<float>(x), static_cast<float>(y)));
}
