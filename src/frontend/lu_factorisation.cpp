#include "frontend/lu_factorisation.hpp"

#include <utility>

#include "core/errors.hpp"

namespace quillmark {

LuFactorisation::LuFactorisation(std::unique_ptr<LuDecompEntity> storage) : storage_(std::move(storage)) {
    if (!storage_)
        throw ArgumentError("LuFactorisation", ErrorReason::null_storage,
                            "LuFactorisation - storage cannot be null");
}

} // namespace quillmark
