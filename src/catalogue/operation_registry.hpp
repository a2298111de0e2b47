#pragma once
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "catalogue/operation_id.hpp"
#include "catalogue/operation_spec.hpp"

namespace quillmark {

// The operation catalogue: open for registration, then sealed once, which assigns handles.
class OperationRegistry {
public:
    struct Entry {
        OperationSpec spec;
        RegistrationProvenance provenance;
    };

    void register_operation(OperationSpec spec, RegistrationProvenance provenance);
    void seal();
    bool sealed() const noexcept { return sealed_; }

    // Throws std::out_of_range "OperationRegistry - operation '<name>' is not registered".
    const OperationSpec& lookup(const OperationId& id) const;
    const Entry& entry(const OperationId& id) const;
    bool contains(const OperationId& id) const noexcept { return entries_.contains(id); }
    std::span<const OperationId> operations() const noexcept { return order_; }
    std::size_t size() const noexcept { return order_.size(); }

private:
    std::vector<OperationId> order_;
    std::unordered_map<OperationId, Entry> entries_;
    bool sealed_ = false;
};

} // namespace quillmark
