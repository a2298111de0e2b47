#include "dispatch/gpu_placement.hpp"

#include <stdexcept>

namespace quillmark {
namespace {

bool on_output_side(const GpuPlacementRecord& r) noexcept { return is_output_role(r.role) || r.written; }

std::optional<std::int32_t> first_device(std::span<const GpuPlacementRecord> records, bool output_side) {
    for (const auto& r : records)
        if (on_output_side(r) == output_side && r.device) return r.device;
    return std::nullopt;
}

} // namespace

std::optional<std::int32_t> validate_gpu_placement(std::span<const GpuPlacementRecord> records,
                                                   const GpuPlacementPolicy& policy) {
    const std::string component = policy.component.empty() ? "GPU placement validation" : policy.component;

    for (const auto& r : records)
        if (r.device && *r.device < 0)
            throw std::invalid_argument(component + " - GPU operand " + role_text(r.role) +
                                        " has invalid CUDA device placement " + std::to_string(*r.device));

    std::optional<std::int32_t> chosen;
    switch (policy.scheduling) {
    case GpuSchedulingPolicy::output_first:
        chosen = first_device(records, true);
        if (!chosen) chosen = first_device(records, false);
        break;
    case GpuSchedulingPolicy::input_first:
        chosen = first_device(records, false);
        if (!chosen) chosen = first_device(records, true);
        break;
    case GpuSchedulingPolicy::PreferredDevice:
        if (!policy.preferred_device)
            throw std::invalid_argument(component + " - PreferredDevice GPU scheduling requires a preferred CUDA device");
        if (*policy.preferred_device < 0)
            throw std::invalid_argument(component + " - preferred CUDA device must be non-negative");
        chosen = policy.preferred_device;
        break;
    default:
        break;
    }

    if (policy.cross_device == GpuCrossDevicePolicy::reject && chosen) {
        for (const auto& r : records)
            if (r.device && *r.device != *chosen)
                throw std::invalid_argument(component + " - GPU operand " + role_text(r.role) + " is on device " +
                                            std::to_string(*r.device) + " but selected execution device is " +
                                            std::to_string(*chosen));
    }
    return chosen;
}

} // namespace quillmark
