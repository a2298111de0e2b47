#include "catalogue/operation_spec.hpp"

#include <stdexcept>

#include "catalogue/numerics.hpp"

namespace quillmark {

OperationSpec::OperationSpec(OperationId id, std::vector<RoleDeclaration> roles, ShapeValidator shape_validator,
                             std::shared_ptr<const OperationNumerics> numerics)
    : id_(std::move(id)), roles_(std::move(roles)), shape_validator_(std::move(shape_validator)),
      numerics_(std::move(numerics)) {
    if (roles_.empty()) throw std::invalid_argument("OperationSpec - operation must declare at least one output");
    std::size_t i = 0;
    for (; i < roles_.size() && !is_output_role(roles_[i].role); ++i) {
        if (i > kMaxRoleIndex) throw std::invalid_argument("OperationSpec - operation declares too many input operands");
        if (roles_[i].role != i) throw std::invalid_argument("OperationSpec - input roles must be contiguous and ordered");
        if (roles_[i].access != OperandAccess::read)
            throw std::invalid_argument("OperationSpec - input roles must use read access");
    }
    if (i == roles_.size()) throw std::invalid_argument("OperationSpec - operation must declare at least one output");
    const std::size_t inputs = i;
    for (std::size_t k = 0; i < roles_.size(); ++i, ++k) {
        if (roles_[i].role != output_role(k))
            throw std::invalid_argument("OperationSpec - output roles must be contiguous and ordered");
        if (roles_[i].access != OperandAccess::write && roles_[i].access != OperandAccess::read_write)
            throw std::invalid_argument("OperationSpec - output roles must use write or read-write access");
    }
    if (numerics_) numerics_->validate(roles_);
    input_count_ = inputs;
}

void OperationSpec::validate(std::span<const OperandDescriptor> operands) const {
    if (operands.size() != roles_.size()) throw std::invalid_argument("OperationSpec - operand arity mismatch");
    for (std::size_t i = 0; i < roles_.size(); ++i) {
        if (operands[i].role != roles_[i].role)
            throw std::invalid_argument("OperationSpec - operands do not match the registered role order");
        if (roles_[i].kind && operands[i].kind != *roles_[i].kind)
            throw std::invalid_argument("OperationSpec - operand family does not match the registered contract");
    }
    if (shape_validator_) shape_validator_(operands);
}

void OperationSpec::assign_handle(std::uint32_t handle) {
    if (handle == 0 || handle_ != 0)
        throw std::logic_error("OperationSpec::assign_handle - invalid handle assignment");
    handle_ = handle;
}

std::uint32_t OperationSpec::handle() const {
    if (handle_ == 0) throw std::logic_error("OperationSpec::handle - operation catalogue has not been sealed");
    return handle_;
}

RegistrationProvenance::RegistrationProvenance(std::uint32_t origin, std::string owner_id,
                                               std::optional<std::string> version)
    : origin_(origin), owner_id_(std::move(owner_id)), version_(std::move(version)) {
    if (origin_ > 2) throw std::invalid_argument("RegistrationProvenance - origin is not recognised");
    if (owner_id_.empty()) throw std::invalid_argument("RegistrationProvenance - owner ID must not be empty");
    if (version_ && version_->empty())
        throw std::invalid_argument("RegistrationProvenance - version must not be empty");
}

RegistrationProvenance::RegistrationProvenance(std::optional<std::string> version)
    : RegistrationProvenance(0, "quillmark", std::move(version)) {}

RegistrationProvenance::RegistrationProvenance(std::string owner_id, std::string version)
    : RegistrationProvenance(2, std::move(owner_id), std::optional<std::string>(std::move(version))) {}

bool OperationDescriptor::preserves_output(OperandRole role) const {
    if (!is_output_role(role))
        throw std::invalid_argument("OperationDescriptor::preserves_output - role is not an output");
    const std::uint32_t index = role_index(role);
    if (index >= operands_.size() || operands_[index].role != role)
        throw std::out_of_range("OperationDescriptor::preserves_output - output is not registered");
    return index < preserved_.size() && preserved_[index];
}

} // namespace quillmark
