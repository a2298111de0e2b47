#include "frontend/eigen_values.hpp"

#include <utility>

#include "core/errors.hpp"

namespace quillmark {

EigenValues::EigenValues(std::unique_ptr<EigenValsEntity> storage) : storage_(std::move(storage)) {
    if (!storage_)
        throw ArgumentError("EigenValues", ErrorReason::null_storage, "EigenValues - storage cannot be null");
}

} // namespace quillmark
