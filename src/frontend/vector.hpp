#pragma once
// What user-facing code holds for a vector operand: sole owner of one VectorEntity.
#include <cstdint>
#include <memory>

#include "storage/operand_entity.hpp"

namespace quillmark {

class Vector {
public:
    // Throws ArgumentError (reason null_storage) "Vector - storage cannot be null".
    explicit Vector(std::unique_ptr<VectorEntity> storage);

    VectorEntity& entity() noexcept { return *storage_; }
    const VectorEntity& entity() const noexcept { return *storage_; }
    const DataTypeDescriptor& dtype() const noexcept { return storage_->dtype(); }
    // Number of elements.
    std::uint64_t size() const noexcept { return storage_->extent()[0]; }

private:
    std::unique_ptr<VectorEntity> storage_;
};

} // namespace quillmark
