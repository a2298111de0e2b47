#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "catalogue/operation_id.hpp"
#include "core/operand_types.hpp"

namespace quillmark {

class OperationNumerics;

struct RoleDeclaration {
    OperandRole role;
    OperandAccess access;
    std::optional<OperandKind> kind;
};

using ShapeValidator = std::function<void(std::span<const OperandDescriptor>)>;

// One operation's signature, shape rule and numeric contract.
class OperationSpec {
public:
    OperationSpec(OperationId id, std::vector<RoleDeclaration> roles, ShapeValidator shape_validator = {},
                  std::shared_ptr<const OperationNumerics> numerics = nullptr);

    const OperationId& id() const noexcept { return id_; }
    std::span<const RoleDeclaration> roles() const noexcept { return roles_; }
    std::size_t input_count() const noexcept { return input_count_; }
    std::size_t output_count() const noexcept { return roles_.size() - input_count_; }
    const OperationNumerics* numerics() const noexcept { return numerics_.get(); }
    const std::shared_ptr<const OperationNumerics>& numerics_ptr() const noexcept { return numerics_; }

    void validate(std::span<const OperandDescriptor> operands) const;
    void assign_handle(std::uint32_t handle);
    std::uint32_t handle() const;
    bool has_handle() const noexcept { return handle_ != 0; }

private:
    OperationId id_;
    std::vector<RoleDeclaration> roles_;
    ShapeValidator shape_validator_;
    std::shared_ptr<const OperationNumerics> numerics_;
    std::size_t input_count_ = 0;
    std::uint32_t handle_ = 0;
};

class RegistrationProvenance {
public:
    RegistrationProvenance(std::uint32_t origin, std::string owner_id, std::optional<std::string> version);
    // Built-in: origin 0, owner "quillmark".
    explicit RegistrationProvenance(std::optional<std::string> version = std::nullopt);
    // A plugin: origin 2, always versioned.
    RegistrationProvenance(std::string owner_id, std::string version);

    std::uint32_t origin() const noexcept { return origin_; }
    const std::string& owner_id() const noexcept { return owner_id_; }
    const std::optional<std::string>& version() const noexcept { return version_; }
    // "builtin" or "native".
    std::string_view kind_name() const noexcept { return origin_ == 0 ? "builtin" : "native"; }

private:
    std::uint32_t origin_;
    std::string owner_id_;
    std::optional<std::string> version_;
};

// One concrete call: operands in role order and, per output, whether it is read too.
class OperationDescriptor {
public:
    OperationDescriptor(std::vector<OperandDescriptor> operands, std::vector<bool> preserved_outputs)
        : operands_(std::move(operands)), preserved_(std::move(preserved_outputs)) {}
    std::span<const OperandDescriptor> operands() const noexcept { return operands_; }
    bool preserves_output(OperandRole role) const;

private:
    std::vector<OperandDescriptor> operands_;
    std::vector<bool> preserved_;
};

} // namespace quillmark
