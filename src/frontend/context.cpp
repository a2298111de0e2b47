#include "frontend/context.hpp"

#include <algorithm>
#include <stdexcept>

namespace quillmark {

QuillmarkContext::QuillmarkContext(std::shared_ptr<const SealedCatalogue> catalogue, CpuRuntimeOptions runtime_options)
    : catalogue_(std::move(catalogue)), dispatcher_(catalogue_->backends, catalogue_->adaptations) {
    if (!catalogue_->operations.sealed())
        throw std::logic_error("QuillmarkContext - operation catalogue must be sealed");
    table_.reserve(catalogue_->operations.size());
    for (const OperationId& id : catalogue_->operations.operations())
        table_.push_back({id.to_string(), &catalogue_->operations.lookup(id)});
    std::sort(table_.begin(), table_.end(), [](const auto& a, const auto& b) { return a.canonical < b.canonical; });
    runtime_ = std::make_shared<const CpuRuntimeContext>(std::move(runtime_options));
}

const OperationSpec& QuillmarkContext::lookup(const OperationId& id) const {
    const std::string canonical = id.to_string();
    auto it = std::lower_bound(table_.begin(), table_.end(), canonical,
                               [](const TableEntry& e, const std::string& key) { return e.canonical < key; });
    if (it == table_.end() || !(it->spec->id() == id))
        throw std::out_of_range("QuillmarkContext - operation '" + canonical + "' is not registered");
    return *it->spec;
}

} // namespace quillmark
