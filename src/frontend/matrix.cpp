#include "frontend/matrix.hpp"

#include <utility>

#include "core/errors.hpp"

namespace quillmark {

Matrix::Matrix(std::unique_ptr<MatrixEntity> storage) : storage_(std::move(storage)) {
    if (!storage_)
        throw ArgumentError("Matrix", ErrorReason::null_storage, "Matrix - storage cannot be null");
}

} // namespace quillmark
