#pragma once
// Element arrays of owned host storage: contiguous, zero-initialised, cache-line aligned so
// that SIMD kernels can use aligned loads on whole arrays.
#include <cstddef>
#include <new>
#include <vector>

namespace quillmark {

inline constexpr std::size_t kHostArrayAlignment = 64;

template <class T> struct HostAllocator {
    using value_type = T;
    HostAllocator() noexcept = default;
    template <class U> HostAllocator(const HostAllocator<U>&) noexcept {}
    T* allocate(std::size_t n) {
        if (n > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_array_new_length();
        return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t{kHostArrayAlignment}));
    }
    void deallocate(T* p, std::size_t) noexcept {
        ::operator delete(p, std::align_val_t{kHostArrayAlignment});
    }
    template <class U> bool operator==(const HostAllocator<U>&) const noexcept { return true; }
};

template <class T> using HostArray = std::vector<T, HostAllocator<T>>;

} // namespace quillmark
