#include "frontend/vector.hpp"

#include <utility>

#include "core/errors.hpp"

namespace quillmark {

Vector::Vector(std::unique_ptr<VectorEntity> storage) : storage_(std::move(storage)) {
    if (!storage_)
        throw ArgumentError("Vector", ErrorReason::null_storage, "Vector - storage cannot be null");
}

} // namespace quillmark
