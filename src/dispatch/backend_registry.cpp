#include "dispatch/backend_registry.hpp"

#include "catalogue/numerics.hpp"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <unordered_set>

#include "catalogue/operation_registry.hpp"
#include "core/errors.hpp"
#include "dispatch/backend_dispatcher.hpp"

namespace quillmark {
namespace {

constexpr std::size_t mix(std::size_t seed, std::size_t value) noexcept {
    return seed ^ (value + 0x9E3779B97F4A7C15ull + (seed << 6) + (seed >> 2));
}

bool is_host(std::uint32_t location) noexcept {
    return location == static_cast<std::uint32_t>(Location::pageable_host) ||
           location == static_cast<std::uint32_t>(Location::pinned_host);
}

bool carries_format_value(std::int8_t index) noexcept { return index != -1 && index != 0; }

std::int8_t own_format_alternative(OperandKind kind) noexcept {
    switch (kind) {
    case OperandKind::scalar: return BackendOperandKey::scalar_format;
    case OperandKind::vector: return BackendOperandKey::vector_format;
    case OperandKind::matrix: return BackendOperandKey::matrix_format;
    default: return BackendOperandKey::no_format;
    }
}

bool is_matrix_shaped(OperandKind kind) noexcept {
    return kind == OperandKind::matrix || kind == OperandKind::lu || kind == OperandKind::eigen;
}

void append_keys(std::string& out, std::span<const BackendOperandKey> keys) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (i) out += ';';
        out += keys[i].to_string();
    }
}

// Cost of one position: 0 when equal, 1 or 2 through an adapter, nullopt when unbridgeable.
template <class FindAdapter>
std::optional<std::uint64_t> position_cost(const BackendOperandKey& requested, const BackendOperandKey& registered,
                                           FindAdapter&& find_adapter) {
    if (requested == registered) return 0;
    if (!find_adapter(requested, registered)) return std::nullopt;
    return is_host(requested.location) && is_host(registered.location) ? 1 : 2;
}

} // namespace

// ---- BackendOperandKey ----

BackendOperandKey BackendOperandKey::make(OperandKind kind, Location location, ScalarType storage, ScalarType compute,
                                          ComplexLayout complex, std::optional<MatrixLayout> layout,
                                          StorageFormat format) noexcept {
    BackendOperandKey key;
    key.kind = static_cast<std::uint32_t>(kind);
    key.location = static_cast<std::uint32_t>(location);
    key.set_format_alternative(own_format_alternative(kind), format);
    key.storage = static_cast<std::uint32_t>(storage);
    key.compute = static_cast<std::uint32_t>(compute);
    key.complex = static_cast<std::uint32_t>(complex);
    key.set_layout(layout);
    return key;
}

void BackendOperandKey::set_format_alternative(std::int8_t index, StorageFormat value) noexcept {
    format_index = static_cast<std::uint8_t>(index);
    format = carries_format_value(index) ? static_cast<std::uint32_t>(value) : 0u;
}

void BackendOperandKey::set_layout(std::optional<MatrixLayout> value) noexcept {
    layout = value ? static_cast<std::uint32_t>(*value) : 0u;
    layout_present = value ? 1u : 0u;
}

bool BackendOperandKey::operator==(const BackendOperandKey& other) const noexcept {
    if (kind != other.kind || location != other.location) return false;
    const std::int8_t index = format_alternative();
    if (index != other.format_alternative()) return false;
    if (carries_format_value(index) && format != other.format) return false;
    if (storage != other.storage || compute != other.compute || complex != other.complex) return false;
    if (has_layout() && other.has_layout()) return layout == other.layout;
    return has_layout() == other.has_layout();
}

std::string BackendOperandKey::to_string() const {
    std::string out;
    out.reserve(80);
    out += "kind=" + std::to_string(kind);
    out += ",location=" + std::to_string(location);
    out += ",storage=" + std::to_string(storage);
    out += ",compute=" + std::to_string(compute);
    out += ",complex=" + std::to_string(complex);
    out += ",format=" + std::to_string(static_cast<int>(format_alternative()));
    out += ",layout=";
    out += has_layout() ? std::to_string(layout) : std::string("-");
    return out;
}

std::size_t BackendOperandKeyHash::operator()(const BackendOperandKey& key) const noexcept {
    const std::int8_t index = key.format_alternative();
    std::size_t h = mix(0, key.kind);
    h = mix(h, key.location);
    h = mix(h, static_cast<std::uint8_t>(index));
    if (carries_format_value(index)) h = mix(h, key.format);
    h = mix(h, key.storage);
    h = mix(h, key.compute);
    h = mix(h, key.complex);
    h = mix(h, key.has_layout() ? 1u : 0u);
    if (key.has_layout()) h = mix(h, key.layout);
    return h;
}

BackendOperandKey operand_key(const OperandDescriptor& d) noexcept {
    std::optional<MatrixLayout> layout;
    if (is_matrix_shaped(d.kind) && d.matrix_layout != MatrixLayout::none) layout = d.matrix_layout;
    return BackendOperandKey::make(d.kind, d.location, d.dtype.storage(), d.dtype.compute(), d.complex_layout, layout,
                                   d.format);
}

// ---- BackendRegistryKey ----

BackendRegistryKey::BackendRegistryKey(BackendKind backend, OperationId operation,
                                       std::vector<BackendOperandKey> inputs, std::vector<BackendOperandKey> outputs)
    : backend_(backend), operation_(std::move(operation)), inputs_(std::move(inputs)), outputs_(std::move(outputs)) {
    if (outputs_.empty()) throw std::invalid_argument("BackendRegistryKey - at least one output is required");
}

bool BackendRegistryKey::operator==(const BackendRegistryKey& other) const noexcept {
    return backend_ == other.backend_ && operation_ == other.operation_ && inputs_ == other.inputs_ &&
           outputs_ == other.outputs_;
}

std::string BackendRegistryKey::to_string() const {
    std::string out = "backend=" + std::to_string(static_cast<std::uint32_t>(backend_)) + ",inputs=[";
    append_keys(out, inputs_);
    out += "],outputs=[";
    append_keys(out, outputs_);
    out += ']';
    return out;
}

std::size_t BackendRegistryKeyHash::operator()(const BackendRegistryKey& key) const noexcept {
    const BackendOperandKeyHash operand_hash;
    std::size_t h = mix(0, static_cast<std::size_t>(key.backend()));
    h = mix(h, OperationIdHash{}(key.operation()));
    h = mix(h, key.inputs().size());
    for (const auto& k : key.inputs()) h = mix(h, operand_hash(k));
    h = mix(h, key.outputs().size());
    for (const auto& k : key.outputs()) h = mix(h, operand_hash(k));
    return h;
}

// ---- BackendEntry ----

BackendEntry::BackendEntry(BackendMaterialiser materialiser, RegistrationProvenance provenance,
                           std::shared_ptr<const ImplementationNumerics> numerics)
    : materialiser_(std::move(materialiser)), provenance_(std::move(provenance)), numerics_(std::move(numerics)) {
    if (!materialiser_) throw std::invalid_argument("BackendEntry - materialiser must not be empty");
}

// ---- Dense validity ----

bool is_valid_dense_operand(ScalarCategory category, OperandKind kind, ComplexLayout complex,
                            std::optional<MatrixLayout> layout) noexcept {
    const bool real = category == ScalarCategory::real_floating || category == ScalarCategory::integer;
    const bool complex_floating = category == ScalarCategory::complex_floating;
    const bool row_major = layout == MatrixLayout::row_major;
    const bool column_major = layout == MatrixLayout::column_major;
    switch (kind) {
    case OperandKind::scalar:
        return (real || complex_floating) && complex == ComplexLayout::none && !layout;
    case OperandKind::vector:
        if (layout) return false;
        if (real) return complex == ComplexLayout::none;
        return complex_floating && (complex == ComplexLayout::split || complex == ComplexLayout::interleaved);
    case OperandKind::matrix:
        if (real) return complex == ComplexLayout::none && row_major;
        if (!complex_floating) return false;
        if (complex == ComplexLayout::split) return row_major;
        return complex == ComplexLayout::interleaved && (row_major || column_major);
    case OperandKind::lu:
        if (!column_major) return false;
        if (category == ScalarCategory::real_floating) return complex == ComplexLayout::none;
        return complex_floating && complex == ComplexLayout::interleaved;
    case OperandKind::eigen:
        return complex_floating && complex == ComplexLayout::interleaved && (row_major || column_major);
    }
    return false;
}

// ---- BackendRegistry ----

BackendRegistry::BackendRegistry(const BackendRegistry& other)
    : registrations_(other.registrations_), write_only_(other.write_only_), sealed_(other.sealed_) {
    if (!sealed_) return;
    Index rebuilt;
    rebuilt.reserve(other.index_.size());
    std::unordered_set<const BackendRegistryKey*> referenced;
    for (const auto& [handle, list] : other.index_) {
        auto& target = rebuilt[handle];
        target.reserve(list.size());
        for (const auto& registration : list) {
            auto it = registrations_.find(*registration.first);
            if (it == registrations_.end() || !referenced.insert(&it->first).second)
                throw std::logic_error("BackendRegistry - copied registration index is inconsistent");
            target.emplace_back(&it->first, &it->second);
        }
    }
    if (referenced.size() != registrations_.size())
        throw std::logic_error("BackendRegistry - copied registration index is inconsistent");
    index_ = std::move(rebuilt);
}

BackendRegistry& BackendRegistry::operator=(const BackendRegistry& other) {
    if (this != &other) {
        BackendRegistry copy(other);
        *this = std::move(copy);
    }
    return *this;
}

std::shared_ptr<const ImplementationNumerics> BackendRegistry::resolve_numerics(
    const BackendRegistryKey& key, std::shared_ptr<const ImplementationNumerics> numerics) {
    // The precision text names the dtypes the caller stores and the kernel computes in: those of
    // the first input, or of the first output for operations without inputs.
    const BackendOperandKey& operand = key.inputs().empty() ? key.outputs().front() : key.inputs().front();
    return std::make_shared<const ImplementationNumerics>(numerics->resolved(operand.storage_type(), operand.compute_type()));
}

void BackendRegistry::register_backend(BackendRegistryKey key, BackendMaterialiser materialiser,
                                       RegistrationProvenance provenance,
                                       std::shared_ptr<const ImplementationNumerics> numerics) {
    if (sealed_) throw std::logic_error("BackendRegistry::register_backend - catalogue is sealed");
    if (registrations_.contains(key))
        throw std::invalid_argument("BackendRegistry::register_backend - duplicate registration for " +
                                    key.operation().to_string());
    auto resolved = numerics ? resolve_numerics(key, std::move(numerics)) : nullptr;
    BackendEntry entry(std::move(materialiser), std::move(provenance), std::move(resolved));
    registrations_.emplace(std::move(key), std::move(entry));
}

void BackendRegistry::seal(const OperationRegistry& catalogue) {
    if (sealed_) return;
    if (!catalogue.sealed()) throw std::logic_error("BackendRegistry::seal - operation catalogue must be sealed first");
    Index index;
    std::unordered_map<std::uint32_t, std::uint64_t> write_only;
    for (const auto& [key, entry] : registrations_) {
        const OperationSpec& spec = catalogue.lookup(key.operation());
        if (entry.numerics()) entry.numerics()->validate(spec);
        index[spec.handle()].emplace_back(&key, &entry);
        std::uint64_t mask = 0;
        const auto outputs = spec.roles().subspan(spec.input_count());
        for (std::size_t j = 0; j < outputs.size() && j < 64; ++j)
            if (outputs[j].access == OperandAccess::write) mask |= std::uint64_t{1} << j;
        write_only[spec.handle()] = mask;
    }
    index_ = std::move(index);
    write_only_ = std::move(write_only);
    sealed_ = true;
}

std::span<const BackendRegistry::IndexedRegistration> BackendRegistry::registrations_for(
    std::uint32_t handle) const noexcept {
    auto it = index_.find(handle);
    if (it == index_.end()) return {};
    return it->second;
}

std::uint64_t BackendRegistry::write_only_outputs(std::uint32_t handle) const noexcept {
    auto it = write_only_.find(handle);
    return it == write_only_.end() ? 0 : it->second;
}

std::optional<BackendMatch> BackendRegistry::find(std::uint32_t handle, BackendKind backend,
                                                  std::span<const BackendOperandKey> inputs,
                                                  std::span<const BackendOperandKey> outputs,
                                                  const BackendAdaptationRegistry& adaptations) const {
    if (!sealed_) throw std::logic_error("BackendRegistry::find - numeric catalogue is not sealed");
    auto it = index_.find(handle);
    if (it == index_.end()) return std::nullopt;

    auto find_input = [&](const BackendOperandKey& a, const BackendOperandKey& b) {
        return adaptations.find_input(a, b) != nullptr;
    };
    auto find_output = [&](const BackendOperandKey& a, const BackendOperandKey& b) {
        return adaptations.find_output(a, b) != nullptr;
    };

    std::uint64_t best = 0;
    std::vector<const IndexedRegistration*> tied;
    for (const IndexedRegistration& registration : it->second) {
        const BackendRegistryKey& key = *registration.first;
        if (key.backend() != backend) continue;
        if (key.inputs().size() != inputs.size() || key.outputs().size() != outputs.size()) continue;

        std::uint64_t cost = 0;
        bool accepted = true;
        for (std::size_t i = 0; accepted && i < inputs.size(); ++i) {
            auto c = position_cost(inputs[i], key.inputs()[i], find_input);
            if (c) cost += *c;
            else accepted = false;
        }
        for (std::size_t j = 0; accepted && j < outputs.size(); ++j) {
            auto c = position_cost(outputs[j], key.outputs()[j], find_output);
            if (c) cost += *c;
            else accepted = false;
        }
        if (!accepted) continue;

        if (tied.empty() || cost < best) {
            best = cost;
            tied.assign(1, &registration);
        } else if (cost == best) {
            tied.push_back(&registration);
        }
    }

    if (tied.empty()) return std::nullopt;
    if (tied.size() == 1) return BackendMatch{tied.front()->first, tied.front()->second, best};

    std::vector<std::string> texts;
    texts.reserve(tied.size());
    for (const auto* registration : tied) texts.push_back(registration->first->to_string());
    std::sort(texts.begin(), texts.end());
    std::string message =
        "BackendRegistry::find - ambiguous equal-cost registrations for numeric operation handle " +
        std::to_string(handle) + ": ";
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (i) message += " | ";
        message += texts[i];
    }
    throw DispatchError("BackendRegistry::find", ErrorReason::registry_contract_mismatch, message);
}

DataTypeDescriptor BackendRegistry::infer_dense_result_policy(std::uint32_t handle,
                                                              std::span<const BackendKind> backends,
                                                              std::span<const BackendOperandKey> inputs,
                                                              const DenseResultRequest& request,
                                                              const BackendAdaptationRegistry& adaptations) const {
    if (!sealed_) throw std::logic_error("result policy - numeric catalogue is not sealed");
    if (request.kind != OperandKind::scalar && request.kind != OperandKind::vector &&
        request.kind != OperandKind::matrix)
        throw std::invalid_argument("result policy - expected a dense scalar, vector or matrix");
    const bool layout_ok =
        request.kind == OperandKind::matrix
            ? request.layout && (*request.layout == MatrixLayout::row_major || *request.layout == MatrixLayout::column_major)
            : !request.layout;
    if (!layout_ok) throw std::invalid_argument("result policy - a valid matrix layout is required only for matrices");

    std::optional<DataTypeDescriptor> kept;
    for (const IndexedRegistration& registration : registrations_for(handle)) {
        const BackendRegistryKey& key = *registration.first;
        if (std::find(backends.begin(), backends.end(), key.backend()) == backends.end()) continue;
        if (key.inputs().size() != inputs.size() || key.outputs().size() != 1) continue;

        const BackendOperandKey& produced = key.outputs()[0];
        if (produced.operand_kind() != request.kind) continue;
        if (request.output_dtype && produced.storage_type() != *request.output_dtype) continue;

        const ScalarCategory category = scalar_metadata(produced.storage_type()).category;
        const ComplexLayout complex = is_complex_category(category) ? ComplexLayout::interleaved : ComplexLayout::none;
        const std::optional<MatrixLayout> layout =
            request.kind == OperandKind::matrix ? request.layout : std::optional<MatrixLayout>{};
        const BackendOperandKey candidate = BackendOperandKey::make(
            request.kind, request.location, produced.storage_type(), produced.compute_type(), complex, layout);
        if (!is_valid_dense_operand(category, request.kind, complex, layout)) continue;
        if (!(candidate == produced) && !adaptations.find_output(candidate, produced)) continue;

        bool inputs_ok = true;
        for (std::size_t i = 0; inputs_ok && i < inputs.size(); ++i)
            inputs_ok = inputs[i] == key.inputs()[i] || adaptations.find_input(inputs[i], key.inputs()[i]);
        if (!inputs_ok) continue;

        const DataTypeDescriptor descriptor(produced.storage_type(), produced.compute_type());
        if (!kept) {
            kept = descriptor;
        } else if (kept->storage() != descriptor.storage() || kept->compute() != descriptor.compute()) {
            throw DispatchError("result policy", ErrorReason::registry_contract_mismatch,
                                "ambiguous result policy: supply an output dtype or use Context.execute with explicit "
                                "operand policies");
        }
    }
    if (kept) return *kept;
    throw DispatchError("result policy", ErrorReason::no_backend_available,
                        "unsupported result policy: no viable implementation for the input policies and output layout");
}

} // namespace quillmark
