#include "catalogue/operation_registry.hpp"

#include <stdexcept>

namespace quillmark {

void OperationRegistry::register_operation(OperationSpec spec, RegistrationProvenance provenance) {
    if (sealed_) throw std::logic_error("OperationRegistry::register_operation - catalogue is sealed");
    const OperationId id = spec.id();
    if (entries_.contains(id))
        throw std::invalid_argument("OperationRegistry - operation '" + id.to_string() + "' is already registered");
    order_.push_back(id);
    try {
        entries_.emplace(id, Entry{std::move(spec), std::move(provenance)});
    } catch (...) {
        order_.pop_back();
        throw;
    }
}

void OperationRegistry::seal() {
    if (sealed_) return;
    if (order_.size() != entries_.size() || order_.size() >= 0xFFFFFFFFull)
        throw std::logic_error("OperationRegistry::seal - invalid operation catalogue");
    std::uint32_t handle = 1;
    for (const OperationId& id : order_) {
        auto it = entries_.find(id);
        if (it == entries_.end()) throw std::out_of_range("invalid unordered_map<K, T> key");
        it->second.spec.assign_handle(handle++);
    }
    sealed_ = true;
}

const OperationRegistry::Entry& OperationRegistry::entry(const OperationId& id) const {
    auto it = entries_.find(id);
    if (it == entries_.end())
        throw std::out_of_range("OperationRegistry - operation '" + id.name() + "' is not registered");
    return it->second;
}

const OperationSpec& OperationRegistry::lookup(const OperationId& id) const { return entry(id).spec; }

} // namespace quillmark
