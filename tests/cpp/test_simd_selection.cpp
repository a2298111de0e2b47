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

// Requests on an AVX-512 machine, then with one of its features taken away.
TEST(SimdSelection, RequestsAgainstProbedFeatures) {
    const auto full = [](CpuFeatureProbe&) {};
    const auto no_zmm = [](CpuFeatureProbe& p) { p.xcr0 = 0x7; }; // upper ZMM state not enabled by the OS
    const auto no_fma = [](CpuFeatureProbe& p) { p.leaf1_ecx &= ~(1u << 12); };
    const auto old = [](CpuFeatureProbe& p) { p.max_leaf = 6; };
    const struct {
        const char* request;
        void (*remove)(CpuFeatureProbe&);
        const char* want;
    } cases[] = {{nullptr, full, "AVX512"},  {"AUTO", full, "AVX512"},     {"AVX2", full, "AVX2"},
                 {"AVX512", full, "AVX512"}, {"avx2", full, kInvalid},     {"", full, kInvalid},
                 {"AUTO", no_zmm, "AVX2"},   {"AVX512", no_zmm, kUnusable}, {"AVX2", old, kUnusable},
                 {"AUTO", no_fma, kUnusable}}; // no scalar fallback, even under AUTO
    for (const auto& c : cases) {
        auto probe = avx512_machine();
        c.remove(probe);
        EXPECT_EQ(select(c.request, probe), c.want) << (c.request ? c.request : "(unset)");
    }
}

TEST(SimdSelection, ThisMachine) {
    // The build machines have AVX-512; the process-wide answer must agree with a fresh probe.
    const auto probe = probe_cpu_features();
    if (!avx2_usable(probe)) GTEST_SKIP() << "no AVX2 here";
    EXPECT_EQ(cpu_simd_selection(), avx512_usable(probe) ? "AVX512" : "AVX2");
}
