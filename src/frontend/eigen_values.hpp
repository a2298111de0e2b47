#pragma once
// What user-facing code holds for an eigen-decomposition operand: sole owner of one EigenValsEntity.
#include <cstdint>
#include <memory>

#include "storage/operand_entity.hpp"

namespace quillmark {

class EigenValues {
public:
    // Throws ArgumentError (reason null_storage) "EigenValues - storage cannot be null".
    explicit EigenValues(std::unique_ptr<EigenValsEntity> storage);

    EigenValsEntity& entity() noexcept { return *storage_; }
    const EigenValsEntity& entity() const noexcept { return *storage_; }
    const DataTypeDescriptor& dtype() const noexcept { return storage_->dtype(); }
    // Number of eigenvalues.
    std::uint64_t order() const noexcept { return storage_->extent()[0]; }

private:
    std::unique_ptr<EigenValsEntity> storage_;
};

} // namespace quillmark
