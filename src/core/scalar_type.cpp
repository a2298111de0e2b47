#include "core/scalar_type.hpp"

#include <array>
#include <stdexcept>

namespace quillmark {
namespace {

using enum ScalarType;
constexpr auto RF = ScalarCategory::real_floating;
constexpr auto IN = ScalarCategory::integer;
constexpr auto CF = ScalarCategory::complex_floating;
constexpr auto CI = ScalarCategory::complex_integer;

constexpr std::array<ScalarMetadata, 13> kTable{{
    {bfloat16, RF, bfloat16, 2, "bfloat16"},
    {float16, RF, float16, 2, "float16"},
    {float32, RF, float32, 4, "float32"},
    {float64, RF, float64, 8, "float64"},
    {int32, IN, int32, 4, "int32"},
    {int64, IN, int64, 8, "int64"},
    {uint32, IN, uint32, 4, "uint32"},
    {uint64, IN, uint64, 8, "uint64"},
    {complex32, CF, float16, 4, "complex32"},
    {complex64, CF, float32, 8, "complex64"},
    {complex128, CF, float64, 16, "complex128"},
    {complex_int32, CI, int32, 8, "complex_int32"},
    {complex_int64, CI, int64, 16, "complex_int64"},
}};

const ScalarMetadata* find_row(ScalarType type) noexcept {
    for (const auto& row : kTable)
        if (row.type == type) return &row;
    return nullptr;
}

} // namespace

std::span<const ScalarMetadata> scalar_metadata_table() noexcept { return kTable; }

const ScalarMetadata& scalar_metadata(ScalarType type) {
    const ScalarMetadata* row = find_row(type);
    if (!row) throw std::invalid_argument("scalar_metadata - unknown scalar type");
    return *row;
}

std::string_view scalar_name(ScalarType type) { return scalar_metadata(type).name; }

std::optional<ScalarType> scalar_type_from_name(std::string_view name) noexcept {
    for (const auto& row : kTable)
        if (row.name == name) return row.type;
    return std::nullopt;
}

DataTypeDescriptor::DataTypeDescriptor(ScalarType storage, ScalarType compute)
    : storage_(storage), compute_(compute) {
    const ScalarMetadata& s = scalar_metadata(storage);
    const ScalarMetadata& c = scalar_metadata(compute);
    if (s.category != c.category)
        throw std::invalid_argument("DataTypeDescriptor - storage and compute categories differ");
    domain_ = is_complex_category(s.category) ? Domain::complex : Domain::real;
}

std::string precision_description(ScalarType storage, ScalarType compute) {
    std::string text = "Values are loaded from ";
    text += scalar_name(storage);
    text += " storage, computed in ";
    text += scalar_name(compute);
    text += ", and rounded once to the output storage type.";
    return text;
}

bool is_compiled_policy(ScalarType storage, ScalarType compute) noexcept {
    switch (storage) {
    case float32: return compute == float32;
    case float64: return compute == float64;
    case bfloat16:
    case float16: return compute == float32;
    case complex32:
    case complex64: return compute == complex64;
    case complex128: return compute == complex128;
    case int32: return compute == int32;
    default: return false;
    }
}

} // namespace quillmark
