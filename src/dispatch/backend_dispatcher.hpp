#pragma once
// Adaptation registry and dispatcher: choosing one implementation per execution and wrapping its
// process with the layout adaptations the caller's operands need.
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "core/operand_types.hpp"
#include "dispatch/backend_process.hpp"
#include "dispatch/backend_registry.hpp"
#include "dispatch/layout_adaptation_tiled.hpp"

namespace quillmark {

// Steps one adaptation contributes: `before` run ahead of the kernel, `after` behind it.
struct AdaptationSteps {
    std::vector<std::unique_ptr<BackendProcessStep>> before;
    std::vector<std::unique_ptr<BackendProcessStep>> after;
};

struct BackendAdapter {
    using Predicate = std::function<bool(const BackendOperandKey& requested, const BackendOperandKey& registered)>;
    // `position` is the operand's position in the execution bindings (inputs, then outputs).
    using Builder = std::function<AdaptationSteps(std::size_t position, const OperandDescriptor& descriptor,
                                                  const BackendOperandKey& requested,
                                                  const BackendOperandKey& registered)>;
    Predicate can_adapt;
    Builder build;
    // Optional builder for a write-only output, whose prior contents need not reach the kernel;
    // `build` serves when it is empty.
    Builder build_write_only{};
    // Optional: the same adaptation in tiled form, for kernels that run tile by tile
    // (KernelTiling); a null result keeps the ordinary steps.
    using TileBuilder = std::function<std::shared_ptr<const TileAdapter>(
        const OperandDescriptor& descriptor, const BackendOperandKey& requested, const BackendOperandKey& registered,
        bool output, bool write_only)>;
    TileBuilder tile{};
};

class BackendAdaptationRegistry {
public:
    // Throws std::invalid_argument "BackendAdaptationRegistry - adapter predicate and builder must be set".
    void add_input_adapter(BackendAdapter adapter);
    void add_output_adapter(BackendAdapter adapter);

    std::span<const BackendAdapter> input_adapters() const noexcept { return inputs_; }
    std::span<const BackendAdapter> output_adapters() const noexcept { return outputs_; }
    // The first adapter whose predicate accepts (requested, registered), or nullptr.
    const BackendAdapter* find_input(const BackendOperandKey& requested, const BackendOperandKey& registered) const;
    const BackendAdapter* find_output(const BackendOperandKey& requested, const BackendOperandKey& registered) const;

private:
    std::vector<BackendAdapter> inputs_;
    std::vector<BackendAdapter> outputs_;
};

// A read-only view over a sealed registry and an adaptation registry that outlive it.
class BackendDispatcher {
public:
    struct Choice {
        BackendKind backend;
        BackendMatch match;
    };

    // Throws std::invalid_argument "BackendDispatcher - backend catalogue must be sealed".
    BackendDispatcher(const BackendRegistry& registry, const BackendAdaptationRegistry& adaptations);

    const BackendRegistry& registry() const noexcept { return *registry_; }
    const BackendAdaptationRegistry& adaptations() const noexcept { return *adaptations_; }

    // Cheapest registration over the backend kinds; ties go to cpu_scalar, then cpu_simd.
    // Throws DispatchError no_backend_available when no kind has a candidate. Recent choices are
    // remembered by handle and exact operand keys, so a repeated call shape skips the search.
    Choice choose(std::uint32_t handle, std::span<const BackendOperandKey> inputs,
                  std::span<const BackendOperandKey> outputs) const;

    // Chooses, materialises, plans and adapts the process for one execution. Descriptors are
    // given in role order; bindings positions are inputs first, then outputs.
    BackendProcess dispatch(std::uint32_t handle, std::span<const OperandDescriptor> inputs,
                            std::span<const OperandDescriptor> outputs) const;

    // The kernel that one execution runs when the chosen registration is a single CPU kernel whose
    // operand keys match the request exactly (no adaptation); null otherwise, when dispatch()
    // makes the process.
    const CpuKernelMaterialiser* direct_kernel(std::uint32_t handle, std::span<const OperandDescriptor> inputs,
                                               std::span<const OperandDescriptor> outputs) const;

    // Input adaptation steps go in front of the process (kept in build order).
    void adapt_input(BackendProcess& process, std::span<const OperandDescriptor> descriptors,
                     std::span<const BackendOperandKey> requested,
                     std::span<const BackendOperandKey> registered) const;
    // Only run for a chosen cuda backend: checks the descriptor-level input keys against the
    // registration with the input adapters.
    void adapt_descriptor_input(BackendProcess& process, std::span<const OperandDescriptor> descriptors,
                                std::span<const BackendOperandKey> registered) const;
    // Output adaptations: their preparation steps go in front, their restore steps at the back.
    // `first_position` is the bindings position of the first output (the input count); bit j of
    // `write_only` marks output j as write-only.
    void adapt_output(BackendProcess& process, std::size_t first_position,
                      std::span<const OperandDescriptor> descriptors, std::span<const BackendOperandKey> requested,
                      std::span<const BackendOperandKey> registered, std::uint64_t write_only = 0) const;

private:
    class ChoiceCache;
    // The process of a tiled CPU kernel whose adaptations all have a tiled form: one
    // TiledKernelStep; nullopt otherwise.
    std::optional<BackendProcess> tiled_process(const Choice& choice, std::uint32_t handle,
                                                std::span<const OperandDescriptor> inputs,
                                                std::span<const OperandDescriptor> outputs,
                                                std::span<const BackendOperandKey> input_keys,
                                                std::span<const BackendOperandKey> output_keys) const;
    Choice search(std::uint32_t handle, std::span<const BackendOperandKey> inputs,
                  std::span<const BackendOperandKey> outputs) const;
    const BackendRegistry* registry_;
    const BackendAdaptationRegistry* adaptations_;
    // Shared by copies, which look at the same registries.
    std::shared_ptr<ChoiceCache> cache_;
};

} // namespace quillmark
