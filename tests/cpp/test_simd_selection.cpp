#include <gtest/gtest.h>

#include <string>

#include "runtime/simd_selection.hpp"

using namespace quillmark;

namespace {

CpuFeatureProbe avx512_machine() { return {13, (1u << 27) | (1u << 28) | (1u << 12), 0xD0030128u, 0xE7}; }

std::string select(const char* request, const CpuFeatureProbe& probe) {
    try {
        return std::string(select_simd_implementation(request, probe));
    } catch (const std::exception& e) {
        return e.what();
    }
}

constexpr const char* kInvalid = "QUILLMARK_CPU_SIMD_RUNTIME must be AUTO, AVX2 or AVX512";
constexpr const char* kUnusable = "CPU SIMD selection: requested implementation is not compiled or the CPU/OS does not "
                                  "support its required instruction set";

} // namespace

TEST(SimdSelection, RequestsOnAnAvx512Machine) {
    const auto probe = avx512_machine();
    EXPECT_EQ(select(nullptr, probe), "AVX512");
    EXPECT_EQ(select("AUTO", probe), "AVX512");
    EXPECT_EQ(select("AVX2", probe), "AVX2");
    EXPECT_EQ(select("AVX512", probe), "AVX512");
    EXPECT_EQ(select("avx2", probe), kInvalid);
    EXPECT_EQ(select("", probe), kInvalid);
}

TEST(SimdSelection, MissingOsStateOrFeatures) {
    auto no_zmm = avx512_machine();
    no_zmm.xcr0 = 0x7; // upper ZMM state not enabled by the OS
    EXPECT_EQ(select("AUTO", no_zmm), "AVX2");
    EXPECT_EQ(select("AVX512", no_zmm), kUnusable);

    auto no_fma = avx512_machine();
    no_fma.leaf1_ecx &= ~(1u << 12);
    EXPECT_EQ(select("AUTO", no_fma), kUnusable); // no scalar fallback, even under AUTO

    auto old = avx512_machine();
    old.max_leaf = 6;
    EXPECT_EQ(select("AVX2", old), kUnusable);
}

TEST(SimdSelection, ThisMachine) {
    // The build machines have AVX-512; the process-wide answer must agree with a fresh probe.
    const auto probe = probe_cpu_features();
    if (!avx2_usable(probe)) GTEST_SKIP() << "no AVX2 here";
    EXPECT_EQ(cpu_simd_selection(), avx512_usable(probe) ? "AVX512" : "AVX2");
}
