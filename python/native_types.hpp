#pragma once
// The native objects behind the Python classes, and the array helpers they share.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <array>
#include <cstdint>
#include <memory>
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

// What marshalling needs to know about one ndarray, read before anything is bound.
struct ArrayFacts {
    nb::handle array;
    std::size_t ndim = 0;
    std::array<std::uint64_t, 2> shape{};
    std::optional<ScalarType> storage; // empty for bool and for dtypes the library lacks
    bool is_bool = false;
    std::string dtype_name; // the library's name, else NumPy's
    bool c_contiguous = false;
    bool f_contiguous = false;
    bool aligned = false;
    bool native = false;
    bool writeable = false;

    bool low_precision() const noexcept {
        return storage == ScalarType::bfloat16 || storage == ScalarType::complex32;
    }
};

bool is_ndarray(nb::handle object);
// Requires is_ndarray(array); shape holds the first two dimensions only.
ArrayFacts inspect_array(nb::handle array);
// The compute dtype that a storage dtype uses unless told otherwise (itself when none is compiled).
ScalarType default_compute(ScalarType storage) noexcept;
bool is_complex_type(ScalarType type) noexcept;
// The address of the first element. Low-precision arrays are reached through a view as
// uint16/uint32, which is appended to `keep` so that it outlives the pointer's use.
void* array_data(const ArrayFacts& facts, std::vector<nb::object>& keep);
// The same, keeping the element strides; fails with "host binding requires a NumPy ndarray" when
// NumPy does not export the array.
nb::ndarray<nb::ro> import_array(const ArrayFacts& facts, std::vector<nb::object>& keep);

// A borrowed storage of the kind over caller memory holding `storage` elements. Complex scalars
// are split (imaginary part right after the real part); complex vectors and matrices interleaved.
std::unique_ptr<OperandEntity> borrow_storage(ScalarType storage, OperandKind kind, void* data,
                                              std::array<std::uint64_t, 2> extent, MatrixLayout layout);

// A new array of the storage dtype holding a copy of `count` elements at `source`.
nb::object export_array(ScalarType storage, const std::vector<std::size_t>& shape, bool column_major,
                        const void* source);
// The NumPy dtype object of a library scalar type (bfloat16 and complex32 included).
nb::object numpy_dtype(ScalarType storage);

} // namespace quillmark::python
