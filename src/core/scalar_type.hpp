#pragma once
// Element types, their metadata and the storage/compute pairs kernels are compiled for.
#include <complex>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "core/low_precision.hpp"

namespace quillmark {

enum class ScalarType : std::uint32_t {
    float32 = 0,
    float64 = 1,
    float16 = 2,
    int32 = 3,
    int64 = 4,
    uint32 = 5,
    uint64 = 6,
    complex64 = 7,
    complex128 = 8,
    complex_int32 = 9,
    complex_int64 = 10,
    bfloat16 = 11,
    complex32 = 12,
};

enum class ScalarCategory : std::uint32_t {
    real_floating = 0,
    integer = 1,
    complex_floating = 2,
    complex_integer = 3,
};

struct ScalarMetadata {
    ScalarType type;
    ScalarCategory category;
    ScalarType component;
    std::size_t element_size;
    std::string_view name;
};

// The rows in their fixed scan order.
std::span<const ScalarMetadata> scalar_metadata_table() noexcept;
// Throws std::invalid_argument "scalar_metadata - unknown scalar type".
const ScalarMetadata& scalar_metadata(ScalarType type);
std::string_view scalar_name(ScalarType type);
std::optional<ScalarType> scalar_type_from_name(std::string_view name) noexcept;

constexpr bool is_complex_category(ScalarCategory c) noexcept {
    return c == ScalarCategory::complex_floating || c == ScalarCategory::complex_integer;
}

enum class Domain : std::uint32_t { real = 0, complex = 1 };

class DataTypeDescriptor {
public:
    DataTypeDescriptor(ScalarType storage, ScalarType compute);
    Domain domain() const noexcept { return domain_; }
    ScalarType storage() const noexcept { return storage_; }
    ScalarType compute() const noexcept { return compute_; }
    bool operator==(const DataTypeDescriptor&) const = default;

private:
    Domain domain_;
    ScalarType storage_;
    ScalarType compute_;
};

// "Values are loaded from <storage> storage, computed in <compute>, ..." for widened/mixed precision.
std::string precision_description(ScalarType storage, ScalarType compute);

// C++ value type -> scalar type.
template <class T> struct ScalarTraits;
template <> struct ScalarTraits<float> { static constexpr ScalarType type = ScalarType::float32; };
template <> struct ScalarTraits<double> { static constexpr ScalarType type = ScalarType::float64; };
template <> struct ScalarTraits<Float16> { static constexpr ScalarType type = ScalarType::float16; };
template <> struct ScalarTraits<BFloat16> { static constexpr ScalarType type = ScalarType::bfloat16; };
template <> struct ScalarTraits<std::int32_t> { static constexpr ScalarType type = ScalarType::int32; };
template <> struct ScalarTraits<std::int64_t> { static constexpr ScalarType type = ScalarType::int64; };
template <> struct ScalarTraits<std::uint32_t> { static constexpr ScalarType type = ScalarType::uint32; };
template <> struct ScalarTraits<std::uint64_t> { static constexpr ScalarType type = ScalarType::uint64; };
template <> struct ScalarTraits<std::complex<float>> { static constexpr ScalarType type = ScalarType::complex64; };
template <> struct ScalarTraits<std::complex<double>> {
    static constexpr ScalarType type = ScalarType::complex128;
};
template <> struct ScalarTraits<Complex32> { static constexpr ScalarType type = ScalarType::complex32; };

// A compile-time storage/compute pairing.
template <class S, class C> struct NumericPolicy {
    using storage_type = S;
    using compute_type = C;
    static constexpr ScalarType storage_scalar = ScalarTraits<S>::type;
    static constexpr ScalarType compute_scalar = ScalarTraits<C>::type;
};

using PolicyF32 = NumericPolicy<float, float>;
using PolicyF64 = NumericPolicy<double, double>;
using PolicyBF16 = NumericPolicy<BFloat16, float>;
using PolicyF16 = NumericPolicy<Float16, float>;
using PolicyC32 = NumericPolicy<Complex32, std::complex<float>>;
using PolicyC64 = NumericPolicy<std::complex<float>, std::complex<float>>;
using PolicyC128 = NumericPolicy<std::complex<double>, std::complex<double>>;
using PolicyI32 = NumericPolicy<std::int32_t, std::int32_t>;

// The compiled policies as lists for explicit template instantiation: M(Policy) per entry.
#define QUILLMARK_REAL_POLICIES(M) M(PolicyF32) M(PolicyF64) M(PolicyBF16) M(PolicyF16) M(PolicyI32)
#define QUILLMARK_COMPLEX_POLICIES(M) M(PolicyC32) M(PolicyC64) M(PolicyC128)

// Calls f(Policy{}) for each of the seven floating policies.
template <class F> void for_each_floating_policy(F&& f) {
    f(PolicyF32{});
    f(PolicyF64{});
    f(PolicyBF16{});
    f(PolicyF16{});
    f(PolicyC32{});
    f(PolicyC64{});
    f(PolicyC128{});
}

// Whether (storage, compute) is one of the compiled pairs (the seven floating ones and int32).
bool is_compiled_policy(ScalarType storage, ScalarType compute) noexcept;

} // namespace quillmark
