#pragma once
// What user-facing code holds for a matrix operand: sole owner of one MatrixEntity.
#include <cstdint>
#include <memory>

#include "storage/operand_entity.hpp"

namespace quillmark {

class Matrix {
public:
    // Throws ArgumentError (reason null_storage) "Matrix - storage cannot be null".
    explicit Matrix(std::unique_ptr<MatrixEntity> storage);

    MatrixEntity& entity() noexcept { return *storage_; }
    const MatrixEntity& entity() const noexcept { return *storage_; }
    const DataTypeDescriptor& dtype() const noexcept { return storage_->dtype(); }
    std::uint64_t rows() const noexcept { return storage_->extent()[0]; }
    std::uint64_t cols() const noexcept { return storage_->extent()[1]; }
    MatrixLayout layout() const noexcept { return storage_->matrix_layout(); }

private:
    std::unique_ptr<MatrixEntity> storage_;
};

} // namespace quillmark
