#pragma once
// One table-driven registrar for both CPU backends: each backend lists its registrations as rows
// (operation, operand keys, kernel, record) and `register_rows` enters them under its kind.
#include <complex>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "backend/cpu/cpu_kernel_registration_records.hpp"
#include "catalogue/builtin_operations.hpp"
#include "dispatch/backend_process.hpp"
#include "dispatch/backend_registry.hpp"

namespace quillmark::cpu_registration {

using cpu_records::Numerics;
using Kernel = LaunchCpuKernelStep::Kernel;

struct Registration {
    BuiltinOperation operation;
    std::vector<BackendOperandKey> inputs;
    std::vector<BackendOperandKey> outputs;
    Kernel kernel;
    Numerics numerics;
    KernelTiling tiling{};
};

void register_rows(BackendRegistry& registry, BackendKind backend, const RegistrationProvenance& provenance,
                   std::vector<Registration> rows);

std::vector<Registration> scalar_registrations();
// complex64 interleaved kernels of the selected SIMD engine.
std::vector<Registration> simd_registrations();
// The selected engine's relayout for the interleaved matrix adapter; false when no engine is usable.
bool simd_relayout(const std::complex<float>* src, std::complex<float>* dst, std::uint64_t rows,
                   std::uint64_t cols) noexcept;

BackendOperandKey key_of(OperandKind kind, ScalarType storage, ScalarType compute, ComplexLayout complex,
                         MatrixLayout layout);

inline constexpr const char* kKernelLabel = "CPU floating kernel";

inline OperandEntity& input(BackendExecutionBindings& b, std::size_t position) {
    return const_cast<OperandEntity&>(b.operand(position)); // kernels only read their inputs
}

inline OperandEntity& output(BackendExecutionBindings& b, std::size_t position) {
    OperandEntity* entity = b.mutable_operand(position);
    if (!entity) throw std::invalid_argument("CPU floating kernel - mutable operand required");
    return *entity;
}

// Kernel arguments fetched from the bindings: `View` turns the operand at `Position` into the
// view the kernel takes.
template <auto View, std::size_t Position> struct In {
    static auto get(BackendExecutionBindings& b) { return View(input(b, Position)); }
};
template <auto View, std::size_t Position> struct Out {
    static auto get(BackendExecutionBindings& b) { return View(output(b, Position)); }
};

// The kernel that calls F(views..., runtime).
template <auto F, class... Args> Kernel bound() {
    return [](CpuExecutionContext& ctx, BackendExecutionBindings& b) { F(Args::get(b)..., ctx.runtime()); };
}

} // namespace quillmark::cpu_registration
