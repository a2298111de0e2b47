#pragma once
// Compile-time facts about storage element types shared by the storage classes and accesses.
#include <complex>
#include <cstdint>
#include <limits>
#include <new>
#include <type_traits>

#include "core/low_precision.hpp"
#include "core/scalar_type.hpp"

namespace quillmark {

template <class S> struct StorageElementTraits {
    static constexpr bool is_complex = false;
    using component = S;
};
template <> struct StorageElementTraits<Complex32> {
    static constexpr bool is_complex = true;
    using component = Float16;
};
template <class R> struct StorageElementTraits<std::complex<R>> {
    static constexpr bool is_complex = true;
    using component = R;
};

template <class S> inline constexpr bool is_complex_storage_v =
    StorageElementTraits<std::remove_cv_t<S>>::is_complex;
// The type of one part of a complex element (the element itself for real types).
template <class S> using component_t = typename StorageElementTraits<std::remove_cv_t<S>>::component;

// The complex storage type whose split planes have component type T.
template <class T> struct SplitComplexOf;
template <> struct SplitComplexOf<Float16> {
    using type = Complex32;
};
template <> struct SplitComplexOf<float> {
    using type = std::complex<float>;
};
template <> struct SplitComplexOf<double> {
    using type = std::complex<double>;
};
template <class T> using split_complex_t = typename SplitComplexOf<std::remove_cv_t<T>>::type;

// a * b, failing as a bad array length when the product leaves 64 bits.
inline std::uint64_t checked_element_product(std::uint64_t a, std::uint64_t b) {
    if (a != 0 && b > std::numeric_limits<std::uint64_t>::max() / a) throw std::bad_array_new_length();
    return a * b;
}

// Fails as a bad array length when count elements of `size` bytes cannot be addressed.
inline void check_array_bytes(std::uint64_t count, std::uint64_t size) {
    if (count > static_cast<std::uint64_t>(std::numeric_limits<std::ptrdiff_t>::max()) / size)
        throw std::bad_array_new_length();
}

} // namespace quillmark
