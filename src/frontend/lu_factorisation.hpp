#pragma once
// What user-facing code holds for an LU factorisation operand: sole owner of one LuDecompEntity.
#include <cstdint>
#include <memory>

#include "storage/operand_entity.hpp"

namespace quillmark {

class LuFactorisation {
public:
    // Throws ArgumentError (reason null_storage) "LuFactorisation - storage cannot be null".
    explicit LuFactorisation(std::unique_ptr<LuDecompEntity> storage);

    LuDecompEntity& entity() noexcept { return *storage_; }
    const LuDecompEntity& entity() const noexcept { return *storage_; }
    const DataTypeDescriptor& dtype() const noexcept { return storage_->dtype(); }
    // Order n of the factorised n x n matrix.
    std::uint64_t order() const noexcept { return storage_->extent()[0]; }

private:
    std::unique_ptr<LuDecompEntity> storage_;
};

} // namespace quillmark
