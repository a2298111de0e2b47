#include "runtime/simd_selection.hpp"

#include <cpuid.h>

#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>

namespace quillmark {
namespace {

std::uint64_t read_xcr0() noexcept {
    std::uint32_t eax = 0, edx = 0;
    // xgetbv with ECX = 0; encoded so no -mxsave flag is needed.
    __asm__ volatile(".byte 0x0f, 0x01, 0xd0" : "=a"(eax), "=d"(edx) : "c"(0));
    return (static_cast<std::uint64_t>(edx) << 32) | eax;
}

constexpr std::uint32_t kOsxsave = 1u << 27;
constexpr std::uint32_t kAvx = 1u << 28;
constexpr std::uint32_t kFma = 1u << 12;

} // namespace

CpuFeatureProbe probe_cpu_features() noexcept {
    CpuFeatureProbe probe;
    unsigned a = 0, b = 0, c = 0, d = 0;
    __cpuid(0, a, b, c, d);
    probe.max_leaf = a;
    if (probe.max_leaf < 7) return probe;
    __cpuid(1, a, b, c, d);
    probe.leaf1_ecx = c;
    if ((c & kOsxsave) == 0 || (c & kAvx) == 0) return probe;
    probe.xcr0 = read_xcr0();
    __cpuid_count(7, 0, a, b, c, d);
    probe.leaf7_ebx = b;
    return probe;
}

bool avx2_usable(const CpuFeatureProbe& p) noexcept {
    if (p.max_leaf < 7) return false;
    if ((p.leaf1_ecx & kOsxsave) == 0 || (p.leaf1_ecx & kAvx) == 0) return false;
    return (p.leaf1_ecx & kFma) != 0 && (p.xcr0 & 0x6) == 0x6 && (p.leaf7_ebx & 0x128u) == 0x128u;
}

bool avx512_usable(const CpuFeatureProbe& p) noexcept {
    return avx2_usable(p) && (p.xcr0 & 0xE6) == 0xE6 && (p.leaf7_ebx & 0xD0030000u) == 0xD0030000u;
}

std::string_view select_simd_implementation(const char* request, const CpuFeatureProbe& probe) {
    const std::string_view word = request ? std::string_view(request) : std::string_view("AUTO");
    const bool want_auto = word == "AUTO";
    if (!want_auto && word != "AVX2" && word != "AVX512")
        throw std::invalid_argument("QUILLMARK_CPU_SIMD_RUNTIME must be AUTO, AVX2 or AVX512");
    if ((want_auto || word == "AVX512") && avx512_usable(probe)) return "AVX512";
    if ((want_auto || word == "AVX2") && avx2_usable(probe)) return "AVX2";
    throw std::runtime_error("CPU SIMD selection: requested implementation is not compiled or the CPU/OS does not "
                             "support its required instruction set");
}

std::string_view cpu_simd_selection() {
    static std::mutex mutex;
    static std::string_view cached;
    std::lock_guard lock(mutex);
    if (cached.empty()) cached = select_simd_implementation(std::getenv("QUILLMARK_CPU_SIMD_RUNTIME"), probe_cpu_features());
    return cached;
}

} // namespace quillmark
