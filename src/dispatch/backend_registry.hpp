#pragma once
// The backend registry: every implementation keyed by operation, backend kind and the exact
// operand keys it accepts; lookup by cost of the adaptations a request needs; result policy.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "catalogue/operation_id.hpp"
#include "catalogue/operation_spec.hpp"
#include "core/operand_types.hpp"
#include "core/scalar_type.hpp"
#include "dispatch/backend_kind.hpp"
#include "dispatch/backend_process.hpp"

namespace quillmark {

class ImplementationNumerics;
class OperationRegistry;
class BackendAdaptationRegistry;

// One operand as a backend sees it: nine 32-bit words. The format is a three-way alternative
// (scalar / vector / matrix) whose signed index sits in the low byte of `format_index`; only the
// vector and matrix alternatives carry the `format` value. `layout` counts only when the low byte
// of `layout_present` is set.
struct BackendOperandKey {
    static constexpr std::int8_t no_format = -1;
    static constexpr std::int8_t scalar_format = 0;
    static constexpr std::int8_t vector_format = 1;
    static constexpr std::int8_t matrix_format = 2;

    std::uint32_t kind = 0;           // OperandKind
    std::uint32_t location = 0;       // Location
    std::uint32_t format = 0;         // StorageFormat carried by the vector/matrix alternatives
    std::uint32_t format_index = 0xFFu;
    std::uint32_t storage = 0;        // ScalarType
    std::uint32_t compute = 0;        // ScalarType
    std::uint32_t complex = 0;        // ComplexLayout
    std::uint32_t layout = 0;         // MatrixLayout (row_major or column_major)
    std::uint32_t layout_present = 0;

    // The format alternative is the kind's own for scalars, vectors and matrices and none (-1)
    // for LU and eigen operands; a layout is kept only when given.
    static BackendOperandKey make(OperandKind kind, Location location, ScalarType storage, ScalarType compute,
                                  ComplexLayout complex, std::optional<MatrixLayout> layout = std::nullopt,
                                  StorageFormat format = StorageFormat::dense) noexcept;

    std::int8_t format_alternative() const noexcept { return static_cast<std::int8_t>(format_index & 0xFFu); }
    bool has_layout() const noexcept { return (layout_present & 0xFFu) != 0; }
    OperandKind operand_kind() const noexcept { return static_cast<OperandKind>(kind); }
    Location operand_location() const noexcept { return static_cast<Location>(location); }
    ScalarType storage_type() const noexcept { return static_cast<ScalarType>(storage); }
    ScalarType compute_type() const noexcept { return static_cast<ScalarType>(compute); }
    ComplexLayout complex_layout() const noexcept { return static_cast<ComplexLayout>(complex); }
    std::optional<MatrixLayout> matrix_layout() const noexcept {
        if (!has_layout()) return std::nullopt;
        return static_cast<MatrixLayout>(layout);
    }

    void set_format_alternative(std::int8_t index, StorageFormat value = StorageFormat::dense) noexcept;
    void set_layout(std::optional<MatrixLayout> value) noexcept;

    // Format values count only for alternatives 1 and 2; layout values only when both are present.
    bool operator==(const BackendOperandKey& other) const noexcept;

    // "kind=K,location=L,storage=S,compute=C,complex=X,format=F,layout=Y" (Y "-" when absent).
    std::string to_string() const;
};

struct BackendOperandKeyHash {
    std::size_t operator()(const BackendOperandKey& key) const noexcept;
};

// The requested key of a bound operand. A layout is carried by matrix-shaped operands (matrix,
// lu, eigen) whose descriptor names one; scalars and vectors never carry one.
BackendOperandKey operand_key(const OperandDescriptor& descriptor) noexcept;

class BackendRegistryKey {
public:
    // Throws std::invalid_argument "BackendRegistryKey - at least one output is required".
    BackendRegistryKey(BackendKind backend, OperationId operation, std::vector<BackendOperandKey> inputs,
                       std::vector<BackendOperandKey> outputs);

    BackendKind backend() const noexcept { return backend_; }
    const OperationId& operation() const noexcept { return operation_; }
    std::span<const BackendOperandKey> inputs() const noexcept { return inputs_; }
    std::span<const BackendOperandKey> outputs() const noexcept { return outputs_; }

    bool operator==(const BackendRegistryKey& other) const noexcept;
    // "backend=B,inputs=[k;k],outputs=[k]".
    std::string to_string() const;

private:
    BackendKind backend_;
    OperationId operation_;
    std::vector<BackendOperandKey> inputs_;
    std::vector<BackendOperandKey> outputs_;
};

struct BackendRegistryKeyHash {
    std::size_t operator()(const BackendRegistryKey& key) const noexcept;
};

class BackendEntry {
public:
    // Throws std::invalid_argument "BackendEntry - materialiser must not be empty".
    BackendEntry(BackendMaterialiser materialiser, RegistrationProvenance provenance,
                 std::shared_ptr<const ImplementationNumerics> numerics = nullptr);

    const BackendMaterialiser& materialiser() const noexcept { return materialiser_; }
    BackendProcess materialise() const { return materialiser_(); }
    const RegistrationProvenance& provenance() const noexcept { return provenance_; }
    // Null when the registration gave none.
    const std::shared_ptr<const ImplementationNumerics>& numerics() const noexcept { return numerics_; }

private:
    BackendMaterialiser materialiser_;
    RegistrationProvenance provenance_;
    std::shared_ptr<const ImplementationNumerics> numerics_;
};

// Points into the registry that answered; valid as long as that registry lives unchanged.
struct BackendMatch {
    const BackendRegistryKey* key = nullptr;
    const BackendEntry* entry = nullptr;
    std::uint64_t cost = 0;
};

struct DenseResultRequest {
    OperandKind kind = OperandKind::scalar;
    Location location = Location::pageable_host;
    std::optional<MatrixLayout> layout;
    std::optional<ScalarType> output_dtype;
};

// Whether the combination describes a valid dense operand (split-complex and real matrices are
// row-major only, LU column-major only; complex integers never).
bool is_valid_dense_operand(ScalarCategory category, OperandKind kind, ComplexLayout complex,
                            std::optional<MatrixLayout> layout) noexcept;

class BackendRegistry {
public:
    using RegistrationMap = std::unordered_map<BackendRegistryKey, BackendEntry, BackendRegistryKeyHash>;
    using IndexedRegistration = std::pair<const BackendRegistryKey*, const BackendEntry*>;

    BackendRegistry() = default;
    // Copies the registrations and rebuilds the per-operation index over the copies; throws
    // std::logic_error "BackendRegistry - copied registration index is inconsistent" when the
    // rebuilt index does not reference exactly the copied registrations.
    BackendRegistry(const BackendRegistry& other);
    BackendRegistry& operator=(const BackendRegistry& other);
    BackendRegistry(BackendRegistry&&) noexcept = default;
    BackendRegistry& operator=(BackendRegistry&&) noexcept = default;
    ~BackendRegistry() = default;

    void register_backend(BackendRegistryKey key, BackendMaterialiser materialiser, RegistrationProvenance provenance,
                          std::shared_ptr<const ImplementationNumerics> numerics = nullptr);
    // Requires a sealed catalogue; resolves every registration's operation to its handle.
    void seal(const OperationRegistry& catalogue);
    bool sealed() const noexcept { return sealed_; }

    // Iteration order of the registration map (also the order of each per-operation list).
    const RegistrationMap& registrations() const noexcept { return registrations_; }
    std::size_t size() const noexcept { return registrations_.size(); }
    // The sealed per-operation list; empty for an unknown handle or before sealing.
    std::span<const IndexedRegistration> registrations_for(std::uint32_t handle) const noexcept;
    // Bit j set: output j of the operation is write-only, so its prior contents are never read.
    // Zero for an unknown handle or before sealing; outputs from the 64th on are never marked.
    std::uint64_t write_only_outputs(std::uint32_t handle) const noexcept;

    std::optional<BackendMatch> find(std::uint32_t handle, BackendKind backend,
                                     std::span<const BackendOperandKey> inputs,
                                     std::span<const BackendOperandKey> outputs,
                                     const BackendAdaptationRegistry& adaptations) const;

    DataTypeDescriptor infer_dense_result_policy(std::uint32_t handle, std::span<const BackendKind> backends,
                                                 std::span<const BackendOperandKey> inputs,
                                                 const DenseResultRequest& request,
                                                 const BackendAdaptationRegistry& adaptations) const;

private:
    using Index = std::unordered_map<std::uint32_t, std::vector<IndexedRegistration>>;

    // Integration point for the numeric contracts: checks the implementation numerics against the
    // key and returns the resolved form that the entry keeps. Passes the pointer through for now.
    static std::shared_ptr<const ImplementationNumerics> resolve_numerics(
        const BackendRegistryKey& key, std::shared_ptr<const ImplementationNumerics> numerics);

    RegistrationMap registrations_;
    Index index_;
    std::unordered_map<std::uint32_t, std::uint64_t> write_only_;
    bool sealed_ = false;
};

} // namespace quillmark
