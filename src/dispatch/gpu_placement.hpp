#pragma once
// Placement check ahead of a CUDA execution: validates device ids and chooses the execution
// device. Pure logic; this build never reaches it from an execution.
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "core/operand_types.hpp"

namespace quillmark {

// Values outside the three select no device.
enum class GpuSchedulingPolicy : std::uint32_t { output_first = 0, input_first = 1, PreferredDevice = 2 };
// Any value other than reject allows operands on other devices.
enum class GpuCrossDevicePolicy : std::uint32_t { reject = 0, allow = 1 };

struct GpuPlacementRecord {
    OperandRole role = 0;
    std::optional<std::int32_t> device; // absent for host operands
    bool written = false;
};

struct GpuPlacementPolicy {
    GpuSchedulingPolicy scheduling = GpuSchedulingPolicy::output_first;
    std::optional<std::int32_t> preferred_device;
    GpuCrossDevicePolicy cross_device = GpuCrossDevicePolicy::reject;
    // Prefix of messages; "GPU placement validation" when empty.
    std::string component;
};

// Returns the chosen execution device, or none. Failures are std::invalid_argument.
std::optional<std::int32_t> validate_gpu_placement(std::span<const GpuPlacementRecord> records,
                                                   const GpuPlacementPolicy& policy);

} // namespace quillmark
