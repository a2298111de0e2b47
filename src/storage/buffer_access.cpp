#include "storage/buffer_access.hpp"

#include <cstring>
#include <stdexcept>
#include <string>

#include "storage/operand_entity.hpp"

namespace quillmark {

std::string_view buffer_role_name(BufferRole role) noexcept {
    switch (role) {
    case BufferRole::data: return "data";
    case BufferRole::real: return "real";
    case BufferRole::imaginary: return "imaginary";
    case BufferRole::lu_pivots: return "LU pivots";
    case BufferRole::lu_factors: return "LU factors";
    case BufferRole::lu_swap_count: return "LU swap count";
    case BufferRole::eigenvalues: return "eigenvalues";
    case BufferRole::eigenvectors: return "eigenvectors";
    }
    return "unknown";
}

bool same_element_type(const std::type_info& a, const std::type_info& b) noexcept {
    return a == b || std::strcmp(a.name(), b.name()) == 0;
}

BufferDescriptor ErasedBufferAccess::buffer(std::size_t index) const {
    if (index >= buffer_count())
        throw std::invalid_argument("ErasedBufferAccess - buffer index out of range");
    return describe_buffer(index);
}

void check_buffer_layout(const ErasedBufferAccess& storage, std::span<const BufferDescriptor> expected,
                         std::string_view label) {
    if (storage.buffer_count() != expected.size())
        throw std::invalid_argument(std::string(label) + " - buffer count mismatch");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const BufferDescriptor have = storage.buffer(i);
        const BufferDescriptor& want = expected[i];
        const bool same = have.role == want.role && have.scalar_type == want.scalar_type &&
                          have.element_size == want.element_size &&
                          have.element_count == want.element_count && have.shape == want.shape &&
                          have.layout == want.layout && want.element_type != nullptr &&
                          same_element_type(*have.element_type, *want.element_type);
        if (!same)
            throw std::invalid_argument(std::string(label) + " - buffer layout mismatch at index " +
                                        std::to_string(i));
    }
}

namespace {
class NoBuffers final : public ErasedBufferAccess {
public:
    std::size_t buffer_count() const noexcept override { return 0; }

protected:
    BufferDescriptor describe_buffer(std::size_t) const noexcept override { return {}; }
};
} // namespace

const ErasedBufferAccess& OperandEntity::erased_access() const noexcept {
    static const NoBuffers none;
    return none;
}

} // namespace quillmark
