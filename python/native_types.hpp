#pragma once
// The native objects behind the Python classes, and the array helpers they share.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <array>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string>
#include <vector>

#include "core/operand_types.hpp"
#include "core/scalar_type.hpp"
#include "frontend/context.hpp"
#include "storage/operand_entity.hpp"

namespace quillmark::python {

namespace nb = nanobind;

// A sealed catalogue with its backends; shared by every context made over it.
struct NativeCatalogue {
    std::shared_ptr<const SealedCatalogue> sealed;
};

struct NativeContext {
    std::shared_ptr<const QuillmarkContext> context;
    std::uint64_t min_parallel_work = 0;
    std::int64_t cuda_device = -1;

    // Operation texts already resolved by this context, so that a repeated call neither parses
    // nor searches. Read and written only with the interpreter lock held.
    struct ResolvedText {
        std::string text;
        std::uint32_t handle;
        bool elementwise;
    };
    static constexpr std::size_t kResolvedTexts = 64;
    mutable std::vector<ResolvedText> resolved;
};

// Owned host storage of an LU or eigen operand. The compute dtype is fixed here, at construction.
struct StructuredOperand {
    std::unique_ptr<OperandEntity> entity;
    ScalarType storage = ScalarType::complex64;
    ScalarType compute = ScalarType::complex64;
    std::uint64_t size = 0;
};
struct NativeLUOperand : StructuredOperand {};
struct NativeEigenOperand : StructuredOperand {};

struct NativeLUFactor {
    NativeLUOperand lu;
    std::shared_ptr<const QuillmarkContext> context;
};

// The built-in catalogue, built once per process.
std::shared_ptr<const SealedCatalogue> builtin_catalogue();

// ---- NumPy arrays (interpreter lock held for all of these) ----

// A buffer export, released (with the interpreter lock held) when this is destroyed.
class HeldBuffer {
public:
    HeldBuffer() = default;
    HeldBuffer(HeldBuffer&& other) noexcept { *this = std::move(other); }
    HeldBuffer& operator=(HeldBuffer&& other) noexcept;
    ~HeldBuffer() { release(); }
    // Exports the object's buffer; false, with the Python error cleared, when it offers none.
    bool acquire(nb::handle object);
    const Py_buffer& view() const noexcept { return view_; }

private:
    void release() noexcept;
    Py_buffer view_{};
};

// One ndarray as NumPy itself holds it: shape, strides, dtype, flags and data all come from one
// reading of the array's record (or, for dtypes outside NumPy's built-in ones, of its buffer
// export), never from attributes that a subclass can override. The array (and any export) is
// held until this object is destroyed, with the interpreter lock held.
class ArrayFacts {
public:
    ArrayFacts() = default;
    // Requires is_ndarray(array).
    explicit ArrayFacts(nb::handle array);

    nb::handle array;
    void* data = nullptr;
    std::size_t ndim = 0;
    std::array<std::uint64_t, 2> shape{};
    std::array<std::int64_t, 2> strides{}; // in elements
    std::optional<ScalarType> storage;     // empty for bool and for dtypes the library lacks
    bool is_bool = false;
    bool c_contiguous = false;
    bool f_contiguous = false;
    bool aligned = false; // the address suits the element's own alignment
    bool native = false;
    bool writeable = false;

    bool low_precision() const noexcept {
        return storage == ScalarType::bfloat16 || storage == ScalarType::complex32;
    }
    // Bytes spanned by the elements of a contiguous array.
    std::uint64_t byte_size() const noexcept;
    // The library's name of the dtype, else NumPy's.
    std::string dtype_name() const;

private:
    // Reads a NumPy array of a built-in dtype directly from its record; false leaves the facts
    // untouched for the buffer path.
    bool read_record(nb::handle object);
    std::uint64_t bytes_ = 0;
    std::string foreign_name_;
    nb::object held_; // the array itself when read from its record
    HeldBuffer export_;
    nb::object raw_; // the uint16 view through which a bfloat16 array is exported
};

bool is_ndarray(nb::handle object);
// Requires is_ndarray(array); shape and strides hold the first two dimensions only.
ArrayFacts inspect_array(nb::handle array);
// The compute dtype that a storage dtype uses unless told otherwise (itself when none is compiled).
ScalarType default_compute(ScalarType storage) noexcept;
bool is_complex_type(ScalarType type) noexcept;
// The address of the first element (`keep` is unused: the facts hold the export).
void* array_data(const ArrayFacts& facts, std::vector<nb::object>& keep);

// A borrowed storage of the kind over caller memory holding `storage` elements. Complex scalars
// are split (imaginary part right after the real part); complex vectors and matrices interleaved.
// Made in `arena` when one is given: the entity must then not outlive it.
struct EntityDeleter {
    bool in_arena = false;
    void operator()(OperandEntity* entity) const noexcept;
};
using BorrowedEntity = std::unique_ptr<OperandEntity, EntityDeleter>;
BorrowedEntity borrow_storage(ScalarType storage, OperandKind kind, void* data, std::array<std::uint64_t, 2> extent,
                              MatrixLayout layout, std::pmr::memory_resource* arena = nullptr);

// A new array of the storage dtype holding a copy of `count` elements at `source`.
nb::object export_array(ScalarType storage, const std::vector<std::size_t>& shape, bool column_major,
                        const void* source);
// The NumPy dtype object of a library scalar type (bfloat16 and complex32 included).
nb::object numpy_dtype(ScalarType storage);

} // namespace quillmark::python
