#include "frontend/scalar.hpp"

#include <utility>

#include "core/errors.hpp"

namespace quillmark {

Scalar::Scalar(std::unique_ptr<ScalarEntity> storage) : storage_(std::move(storage)) {
    if (!storage_)
        throw ArgumentError("Scalar", ErrorReason::null_storage, "Scalar - storage cannot be null");
}

} // namespace quillmark
