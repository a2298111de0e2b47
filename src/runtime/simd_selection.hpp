#pragma once
#include <cstdint>
#include <string_view>

namespace quillmark {

// What the processor and operating system offer, as read by CPUID and XGETBV.
struct CpuFeatureProbe {
    std::uint32_t max_leaf = 0;
    std::uint32_t leaf1_ecx = 0;
    std::uint32_t leaf7_ebx = 0;
    std::uint64_t xcr0 = 0;
};

CpuFeatureProbe probe_cpu_features() noexcept;
bool avx2_usable(const CpuFeatureProbe& probe) noexcept;
bool avx512_usable(const CpuFeatureProbe& probe) noexcept;

// Decides for a request ("AUTO", "AVX2", "AVX512"; absent means "AUTO") on the given probe.
std::string_view select_simd_implementation(const char* request, const CpuFeatureProbe& probe);

// The process-wide choice, from QUILLMARK_CPU_SIMD_RUNTIME; only a successful answer is cached.
std::string_view cpu_simd_selection();

} // namespace quillmark
