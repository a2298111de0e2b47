#include "frontend/context.hpp"

#include <stdexcept>

namespace quillmark {

QuillmarkContext::QuillmarkContext(std::shared_ptr<const SealedCatalogue> catalogue, CpuRuntimeOptions runtime_options)
    : catalogue_(std::move(catalogue)), dispatcher_(catalogue_->backends, catalogue_->adaptations) {
    if (!catalogue_->operations.sealed())
        throw std::logic_error("QuillmarkContext - operation catalogue must be sealed");
    const OperationRegistry& operations = catalogue_->operations;
    by_handle_.resize(operations.size());
    for (const OperationId& id : operations.operations()) {
        const OperationSpec& spec = operations.lookup(id);
        by_handle_.at(spec.handle() - 1) = &spec;
    }
    runtime_ = std::make_shared<const CpuRuntimeContext>(std::move(runtime_options));
}

const OperationSpec& QuillmarkContext::lookup(const OperationId& id) const {
    if (!catalogue_->operations.contains(id))
        throw std::out_of_range("QuillmarkContext - operation '" + id.to_string() + "' is not registered");
    return catalogue_->operations.lookup(id);
}

const OperationSpec& QuillmarkContext::operation(std::uint32_t handle) const {
    if (handle == 0 || handle > by_handle_.size())
        throw std::out_of_range("QuillmarkContext - operation handle is not registered");
    return *by_handle_[handle - 1];
}

} // namespace quillmark
