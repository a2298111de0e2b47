#include "dispatch/backend_dispatcher.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <mutex>
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
                                  std::span<const BackendOperandKey> registered, std::uint64_t write_only = 0) {
    AdaptationSteps all;
    for (std::size_t i = 0; i < requested.size(); ++i) {
        if (requested[i] == registered[i]) continue;
        const BackendAdapter* adapter = first_accepting(adapters, requested[i], registered[i]);
        if (!adapter) throw_unsupported(name);
        const bool overwritten = i < 64 && ((write_only >> i) & 1) != 0 && adapter->build_write_only;
        const BackendAdapter::Builder& build = overwritten ? adapter->build_write_only : adapter->build;
        AdaptationSteps steps = build(first_position + i, descriptors[i], requested[i], registered[i]);
        for (auto& step : steps.before) all.before.push_back(std::move(step));
        for (auto& step : steps.after) all.after.push_back(std::move(step));
    }
    return all;
}

void insert_adaptations(BackendProcess& process, AdaptationSteps steps) {
    for (auto it = steps.before.rbegin(); it != steps.before.rend(); ++it) process.push_front(std::move(*it));
    for (auto& step : steps.after) process.push_back(std::move(step));
}

// The requested keys of one direction; calls with few operands keep them on the stack.
class RequestedKeys {
public:
    explicit RequestedKeys(std::span<const OperandDescriptor> descriptors) : size_(descriptors.size()) {
        BackendOperandKey* keys = inline_.data();
        if (size_ > inline_.size()) {
            heap_.resize(size_);
            keys = heap_.data();
        }
        for (std::size_t i = 0; i < size_; ++i) keys[i] = operand_key(descriptors[i]);
    }
    std::span<const BackendOperandKey> keys() const noexcept {
        return {size_ > inline_.size() ? heap_.data() : inline_.data(), size_};
    }

private:
    std::array<BackendOperandKey, 4> inline_{};
    std::vector<BackendOperandKey> heap_;
    std::size_t size_;
};

} // namespace

// ---- Choice cache ----

// A small table of recent choices. A choice depends only on the sealed registry, the adapters and
// the requested keys; keys compare bit for bit, and the adapter counts are part of the entry
// because adapters may still be added to an adaptation registry after the dispatcher is made.
class BackendDispatcher::ChoiceCache {
public:
    static constexpr std::size_t kMaxOperands = 4;

    std::optional<Choice> find(std::uint32_t handle, std::span<const BackendOperandKey> inputs,
                               std::span<const BackendOperandKey> outputs, std::size_t adapters) {
        if (inputs.size() + outputs.size() > kMaxOperands) return std::nullopt;
        std::lock_guard lock(mutex_);
        for (const Slot& slot : slots_)
            if (slot.matches(handle, inputs, outputs, adapters)) return slot.choice;
        return std::nullopt;
    }

    void store(std::uint32_t handle, std::span<const BackendOperandKey> inputs,
               std::span<const BackendOperandKey> outputs, std::size_t adapters, const Choice& choice) {
        if (inputs.size() + outputs.size() > kMaxOperands) return;
        std::lock_guard lock(mutex_);
        Slot& slot = slots_[next_];
        next_ = (next_ + 1) % slots_.size();
        slot.handle = handle;
        slot.inputs = inputs.size();
        slot.outputs = outputs.size();
        slot.adapters = adapters;
        std::copy(inputs.begin(), inputs.end(), slot.keys.begin());
        std::copy(outputs.begin(), outputs.end(), slot.keys.begin() + inputs.size());
        slot.choice = choice;
    }

private:
    static_assert(sizeof(BackendOperandKey) == 9 * sizeof(std::uint32_t), "keys compare as plain words");

    struct Slot {
        std::uint32_t handle = 0; // 0 is never a handle: the slot is empty
        std::size_t inputs = 0;
        std::size_t outputs = 0;
        std::size_t adapters = 0;
        std::array<BackendOperandKey, kMaxOperands> keys{};
        Choice choice{};

        bool matches(std::uint32_t h, std::span<const BackendOperandKey> in, std::span<const BackendOperandKey> out,
                     std::size_t a) const noexcept {
            return handle == h && inputs == in.size() && outputs == out.size() && adapters == a &&
                   std::memcmp(keys.data(), in.data(), in.size_bytes()) == 0 &&
                   std::memcmp(keys.data() + in.size(), out.data(), out.size_bytes()) == 0;
        }
    };

    std::mutex mutex_;
    std::array<Slot, 32> slots_{};
    std::size_t next_ = 0;
};

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
    : registry_(&registry), adaptations_(&adaptations), cache_(std::make_shared<ChoiceCache>()) {
    if (!registry.sealed()) throw std::invalid_argument("BackendDispatcher - backend catalogue must be sealed");
}

BackendDispatcher::Choice BackendDispatcher::choose(std::uint32_t handle, std::span<const BackendOperandKey> inputs,
                                                    std::span<const BackendOperandKey> outputs) const {
    const std::size_t adapters = adaptations_->input_adapters().size() + adaptations_->output_adapters().size();
    if (auto cached = cache_->find(handle, inputs, outputs, adapters)) return *cached;
    const Choice choice = search(handle, inputs, outputs);
    cache_->store(handle, inputs, outputs, adapters, choice);
    return choice;
}

BackendDispatcher::Choice BackendDispatcher::search(std::uint32_t handle, std::span<const BackendOperandKey> inputs,
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
    const RequestedKeys requested_inputs(inputs), requested_outputs(outputs);
    const auto input_keys = requested_inputs.keys();
    const auto output_keys = requested_outputs.keys();
    const Choice choice = choose(handle, input_keys, output_keys);
    if (choice.match.cost != 0 && choice.backend != BackendKind::cuda)
        if (auto tiled = tiled_process(choice, handle, inputs, outputs, input_keys, output_keys))
            return std::move(*tiled);

    BackendProcess process = choice.match.entry->materialise();
    BackendExecutionPlan plan;
    plan.target = choice.backend;
    process.set_execution_plan(std::move(plan));
    adapt_input(process, inputs, input_keys, choice.match.key->inputs());
    if (choice.backend == BackendKind::cuda) adapt_descriptor_input(process, inputs, choice.match.key->inputs());
    adapt_output(process, inputs.size(), outputs, output_keys, choice.match.key->outputs(),
                 registry_->write_only_outputs(handle));
    return process;
}

std::optional<BackendProcess> BackendDispatcher::tiled_process(const Choice& choice, std::uint32_t handle,
                                                               std::span<const OperandDescriptor> inputs,
                                                               std::span<const OperandDescriptor> outputs,
                                                               std::span<const BackendOperandKey> input_keys,
                                                               std::span<const BackendOperandKey> output_keys) const {
    const auto* cpu = choice.match.entry->materialiser().target<CpuKernelMaterialiser>();
    const std::size_t count = inputs.size() + outputs.size();
    if (!cpu || cpu->tiling.count != count) return std::nullopt;
    const auto registered_in = choice.match.key->inputs(), registered_out = choice.match.key->outputs();
    if (registered_in.size() != inputs.size() || registered_out.size() != outputs.size()) return std::nullopt;
    const std::uint64_t write_only = registry_->write_only_outputs(handle);

    std::vector<TiledKernelStep::Operand> operands(count);
    for (std::size_t i = 0; i < count; ++i) {
        const bool output = i >= inputs.size();
        const std::size_t k = output ? i - inputs.size() : i;
        const BackendOperandKey& requested = output ? output_keys[k] : input_keys[k];
        const BackendOperandKey& registered = output ? registered_out[k] : registered_in[k];
        operands[i].axis = cpu->tiling.axes[i];
        if (requested == registered) continue;
        const BackendAdapter* adapter = output ? adaptations_->find_output(requested, registered)
                                               : adaptations_->find_input(requested, registered);
        if (!adapter || !adapter->tile) return std::nullopt;
        const bool overwritten = output && k < 64 && ((write_only >> k) & 1) != 0;
        operands[i].adapter = adapter->tile(output ? outputs[k] : inputs[k], requested, registered, output, overwritten);
        if (!operands[i].adapter) return std::nullopt;
    }

    // The ordinary steps, in the order dispatch() would give them, for executions tiling cannot serve.
    AdaptationSteps in = build_adaptations(adaptations_->input_adapters(), "adapt_input", 0, inputs, input_keys,
                                           registered_in);
    AdaptationSteps out = build_adaptations(adaptations_->output_adapters(), "adapt_output", inputs.size(), outputs,
                                            output_keys, registered_out, write_only);
    TiledKernelStep::Steps ordinary;
    for (auto* list : {&out.before, &in.before})
        for (auto& step : *list) ordinary.push_back(std::move(step));
    ordinary.push_back(std::make_unique<LaunchCpuKernelStep>(cpu->backend, cpu->kernel));
    for (auto* list : {&in.after, &out.after})
        for (auto& step : *list) ordinary.push_back(std::move(step));

    BackendProcess process;
    BackendExecutionPlan plan;
    plan.target = choice.backend;
    process.set_execution_plan(std::move(plan));
    process.push_back(std::make_unique<TiledKernelStep>(*cpu, std::move(operands), std::move(ordinary)));
    return process;
}

const CpuKernelMaterialiser* BackendDispatcher::direct_kernel(std::uint32_t handle,
                                                             std::span<const OperandDescriptor> inputs,
                                                             std::span<const OperandDescriptor> outputs) const {
    const RequestedKeys requested_inputs(inputs), requested_outputs(outputs);
    const Choice choice = choose(handle, requested_inputs.keys(), requested_outputs.keys());
    if (choice.match.cost != 0) return nullptr;
    return choice.match.entry->materialiser().target<CpuKernelMaterialiser>();
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
                                     std::span<const BackendOperandKey> registered, std::uint64_t write_only) const {
    const std::string name = "adapt_output";
    if (descriptors.size() != requested.size() || requested.size() != registered.size())
        throw_count_mismatch(name, "output");
    insert_adaptations(process, build_adaptations(adaptations_->output_adapters(), name, first_position, descriptors,
                                                  requested, registered, write_only));
}

} // namespace quillmark
