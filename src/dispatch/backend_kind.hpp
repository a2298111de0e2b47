#pragma once
#include <cstdint>
#include <string_view>

namespace quillmark {

// The numeric values appear in registration texts and in the plugin ABI (value + 1).
enum class BackendKind : std::uint32_t { cpu_scalar = 0, cpu_simd = 1, cuda = 2 };

// "cpu_scalar", "cpu_simd", "cuda"; "unknown" for any other value.
constexpr std::string_view backend_kind_name(BackendKind kind) noexcept {
    switch (kind) {
    case BackendKind::cpu_scalar: return "cpu_scalar";
    case BackendKind::cpu_simd: return "cpu_simd";
    case BackendKind::cuda: return "cuda";
    }
    return "unknown";
}

constexpr bool is_cpu_backend(BackendKind kind) noexcept {
    return kind == BackendKind::cpu_scalar || kind == BackendKind::cpu_simd;
}

} // namespace quillmark
