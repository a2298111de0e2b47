#pragma once
// Element buffers in erased form: how data crosses layers that do not know the element type at
// compile time (storage initialisers, layout adaptation, native plugins).
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <typeinfo>

#include "core/operand_types.hpp"
#include "core/scalar_type.hpp"

namespace quillmark {

// What a buffer holds. The plugin ABI code of a role is its value plus one.
enum class BufferRole : std::uint32_t {
    data = 0,      // the only buffer: real data or interleaved complex data
    real = 1,      // real plane of split complex data
    imaginary = 2, // imaginary plane of split complex data
    lu_pivots = 3,
    lu_factors = 4,
    lu_swap_count = 5,
    eigenvalues = 6,
    eigenvectors = 7,
};

// "data", "real", "imaginary", "LU pivots", "LU factors", "LU swap count", "eigenvalues",
// "eigenvectors"; "unknown" for anything else.
std::string_view buffer_role_name(BufferRole role) noexcept;

// Type identity that survives shared-library boundaries, where type_info objects may be
// duplicated: equal objects, or failing that equal mangled names.
bool same_element_type(const std::type_info& a, const std::type_info& b) noexcept;

struct BufferDescriptor {
    void* data = nullptr; // null only when element_count is 0
    std::uint64_t element_count = 0;
    std::uint64_t element_size = 0;
    ScalarType scalar_type = ScalarType::float32; // split planes carry their component type
    const std::type_info* element_type = &typeid(void);
    BufferRole role = BufferRole::data;
    // How the storage arranges the buffer: {rows, cols} for matrix-shaped buffers, {n, 0} for
    // sequences, {0, 0} for single values; layout is none unless the buffer is a matrix.
    std::array<std::uint64_t, 2> shape{};
    MatrixLayout layout = MatrixLayout::none;

    template <class T> static BufferDescriptor of(T* data, std::uint64_t count,
                                                  BufferRole role = BufferRole::data,
                                                  std::array<std::uint64_t, 2> shape = {},
                                                  MatrixLayout layout = MatrixLayout::none) noexcept {
        using E = std::remove_cv_t<T>;
        BufferDescriptor d;
        d.data = const_cast<E*>(data);
        d.element_count = count;
        d.element_size = sizeof(E);
        d.scalar_type = ScalarTraits<E>::type;
        d.element_type = &typeid(E);
        d.role = role;
        d.shape = shape;
        d.layout = layout;
        return d;
    }

    // Element type, size and scalar type all name T.
    template <class T> bool holds() const noexcept {
        using E = std::remove_cv_t<T>;
        return element_size == sizeof(E) && scalar_type == ScalarTraits<E>::type && element_type != nullptr &&
               same_element_type(*element_type, typeid(E));
    }
};

// The buffers of one storage, numbered in the storage's order: 0 the real (or only) buffer and
// 1 the imaginary plane for plain and split data; factors, pivots, swap count for LU storage;
// eigenvalues, eigenvectors for eigen storage.
class ErasedBufferAccess {
public:
    virtual ~ErasedBufferAccess() = default;
    virtual std::size_t buffer_count() const noexcept = 0;
    // Throws std::invalid_argument "ErasedBufferAccess - buffer index out of range".
    BufferDescriptor buffer(std::size_t index) const;

protected:
    // Called with index < buffer_count() only.
    virtual BufferDescriptor describe_buffer(std::size_t index) const noexcept = 0;
};

// Compares a storage's buffers with an expected descriptor list (everything but the data
// pointers). Throws std::invalid_argument label + " - buffer count mismatch" or
// label + " - buffer layout mismatch at index " + i for the first buffer that differs.
void check_buffer_layout(const ErasedBufferAccess& storage, std::span<const BufferDescriptor> expected,
                         std::string_view label);

} // namespace quillmark
