#include "dispatch/backend_dispatcher.hpp"

#include <limits>
#include <stdexcept>
#include <string>

#include "core/errors.hpp"

namespace quillmark {
namespace {

const BackendAdapter* first_accepting(std::span<const BackendAdapter> adapters, const BackendOperandKey& requested,
                                      const BackendOperandKey& registered) {
    for (const BackendAdapter& adapter : adapters)
        if (adapter.can_adapt(requested, registered)) return &adapter;
    return nullptr;
}

[[noreturn]] void throw_count_mismatch(const std::string& name, const char* what) {
    throw DispatchError("BackendDispatcher::" + name, ErrorReason::registry_contract_mismatch,
                        "BackendDispatcher::" + name + " - " + what + " count mismatch");
}

[[noreturn]] void throw_unsupported(const std::string& name) {
    throw DispatchError("BackendDispatcher::" + name, ErrorReason::unsupported_adaptation,
                        "BackendDispatcher::" + name + " - unsupported operand adaptation");
}

// Builds the adaptations of every differing position; nothing is inserted until all are built.
AdaptationSteps build_adaptations(std::span<const BackendAdapter> adapters, const std::string& name,
                                  std::size_t first_position, std::span<const OperandDescriptor> descriptors,
                                  std::span<const BackendOperandKey> requested,
                                  std::span<const BackendOperandKey> registered) {
    AdaptationSteps all;
    for (std::size_t i = 0; i < requested.size(); ++i) {
        if (requested[i] == registered[i]) continue;
        const BackendAdapter* adapter = first_accepting(adapters, requested[i], registered[i]);
        if (!adapter) throw_unsupported(name);
        AdaptationSteps steps = adapter->build(first_position + i, descriptors[i], requested[i], registered[i]);
        for (auto& step : steps.before) all.before.push_back(std::move(step));
        for (auto& step : steps.after) all.after.push_back(std::move(step));
    }
    return all;
}

void insert_adaptations(BackendProcess& process, AdaptationSteps steps) {
    for (auto it = steps.before.rbegin(); it != steps.before.rend(); ++it) process.push_front(std::move(*it));
    for (auto& step : steps.after) process.push_back(std::move(step));
}

std::vector<BackendOperandKey> keys_of(std::span<const OperandDescriptor> descriptors) {
    std::vector<BackendOperandKey> keys;
    keys.reserve(descriptors.size());
    for (const auto& d : descriptors) keys.push_back(operand_key(d));
    return keys;
}

} // namespace

// ---- BackendAdaptationRegistry ----

void BackendAdaptationRegistry::add_input_adapter(BackendAdapter adapter) {
    if (!adapter.can_adapt || !adapter.build)
        throw std::invalid_argument("BackendAdaptationRegistry - adapter predicate and builder must be set");
    inputs_.push_back(std::move(adapter));
}

void BackendAdaptationRegistry::add_output_adapter(BackendAdapter adapter) {
    if (!adapter.can_adapt || !adapter.build)
        throw std::invalid_argument("BackendAdaptationRegistry - adapter predicate and builder must be set");
    outputs_.push_back(std::move(adapter));
}

const BackendAdapter* BackendAdaptationRegistry::find_input(const BackendOperandKey& requested,
                                                            const BackendOperandKey& registered) const {
    return first_accepting(inputs_, requested, registered);
}

const BackendAdapter* BackendAdaptationRegistry::find_output(const BackendOperandKey& requested,
                                                             const BackendOperandKey& registered) const {
    return first_accepting(outputs_, requested, registered);
}

// ---- BackendDispatcher ----

BackendDispatcher::BackendDispatcher(const BackendRegistry& registry, const BackendAdaptationRegistry& adaptations)
    : registry_(&registry), adaptations_(&adaptations) {
    if (!registry.sealed()) throw std::invalid_argument("BackendDispatcher - backend catalogue must be sealed");
}

BackendDispatcher::Choice BackendDispatcher::choose(std::uint32_t handle, std::span<const BackendOperandKey> inputs,
                                                    std::span<const BackendOperandKey> outputs) const {
    const auto a = registry_->find(handle, BackendKind::cpu_scalar, inputs, outputs, *adaptations_);
    const auto b = registry_->find(handle, BackendKind::cpu_simd, inputs, outputs, *adaptations_);
    // This build never looks up cuda registrations.
    const std::optional<BackendMatch> c;

    bool prefer_pinned = false;
    for (const auto& key : inputs) prefer_pinned |= key.operand_location() == Location::pinned_host;
    for (const auto& key : outputs) prefer_pinned |= key.operand_location() == Location::pinned_host;

    if (!a && !b && !c)
        throw DispatchError("BackendDispatcher::dispatch", ErrorReason::no_backend_available,
                            "BackendDispatcher::dispatch - no backend entry available");

    constexpr std::uint64_t none = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t cost_a = a ? a->cost : none;
    const std::uint64_t cost_b = b ? b->cost : none;
    const std::uint64_t cost_c = c ? c->cost : none;
    if (c && (prefer_pinned || (cost_c < cost_a && cost_c < cost_b))) return {BackendKind::cuda, *c};
    if (b && cost_b < cost_a) return {BackendKind::cpu_simd, *b};
    return {BackendKind::cpu_scalar, *a};
}

BackendProcess BackendDispatcher::dispatch(std::uint32_t handle, std::span<const OperandDescriptor> inputs,
                                           std::span<const OperandDescriptor> outputs) const {
    const std::vector<BackendOperandKey> input_keys = keys_of(inputs);
    const std::vector<BackendOperandKey> output_keys = keys_of(outputs);
    const Choice choice = choose(handle, input_keys, output_keys);

    BackendProcess process = choice.match.entry->materialise();
    BackendExecutionPlan plan;
    plan.target = choice.backend;
    process.set_execution_plan(std::move(plan));
    adapt_input(process, inputs, input_keys, choice.match.key->inputs());
    if (choice.backend == BackendKind::cuda) adapt_descriptor_input(process, inputs, choice.match.key->inputs());
    adapt_output(process, inputs.size(), outputs, output_keys, choice.match.key->outputs());
    return process;
}

void BackendDispatcher::adapt_input(BackendProcess& process, std::span<const OperandDescriptor> descriptors,
                                    std::span<const BackendOperandKey> requested,
                                    std::span<const BackendOperandKey> registered) const {
    const std::string name = "adapt_input";
    if (descriptors.size() != requested.size() || requested.size() != registered.size())
        throw_count_mismatch(name, "input");
    insert_adaptations(process,
                       build_adaptations(adaptations_->input_adapters(), name, 0, descriptors, requested, registered));
}

void BackendDispatcher::adapt_descriptor_input(BackendProcess& /*process*/,
                                               std::span<const OperandDescriptor> descriptors,
                                               std::span<const BackendOperandKey> registered) const {
    const std::string name = "adapt_descriptor_input";
    if (descriptors.size() != registered.size()) throw_count_mismatch(name, "input");
    for (std::size_t i = 0; i < descriptors.size(); ++i) {
        const BackendOperandKey requested = operand_key(descriptors[i]);
        if (!(requested == registered[i]) && !adaptations_->find_input(requested, registered[i]))
            throw_unsupported(name);
    }
}

void BackendDispatcher::adapt_output(BackendProcess& process, std::size_t first_position,
                                     std::span<const OperandDescriptor> descriptors,
                                     std::span<const BackendOperandKey> requested,
                                     std::span<const BackendOperandKey> registered) const {
    const std::string name = "adapt_output";
    if (descriptors.size() != requested.size() || requested.size() != registered.size())
        throw_count_mismatch(name, "output");
    insert_adaptations(process, build_adaptations(adaptations_->output_adapters(), name, first_position, descriptors,
                                                  requested, registered));
}

} // namespace quillmark
