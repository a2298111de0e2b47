#pragma once
// What user-facing code holds for a scalar operand: sole owner of one ScalarEntity.
#include <cstdint>
#include <memory>

#include "storage/operand_entity.hpp"

namespace quillmark {

class Scalar {
public:
    // Throws ArgumentError (reason null_storage) "Scalar - storage cannot be null".
    explicit Scalar(std::unique_ptr<ScalarEntity> storage);

    ScalarEntity& entity() noexcept { return *storage_; }
    const ScalarEntity& entity() const noexcept { return *storage_; }
    const DataTypeDescriptor& dtype() const noexcept { return storage_->dtype(); }

private:
    std::unique_ptr<ScalarEntity> storage_;
};

} // namespace quillmark
