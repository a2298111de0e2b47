#pragma once
// The common body of owned and borrowed dense host storages: an entity that describes itself
// and exposes its element buffers. Owned and borrowed classes differ only in who holds the
// memory the buffer pointers point at.
#include <array>
#include <cstdint>

#include "storage/buffer_access.hpp"
#include "storage/operand_entity.hpp"
#include "storage/storage_traits.hpp"

namespace quillmark {

template <class Entity> class HostEntityBase : public Entity, public ErasedBufferAccess {
public:
    // Buffer pointers refer to the storage's own members or to fixed caller memory.
    HostEntityBase(const HostEntityBase&) = delete;
    HostEntityBase& operator=(const HostEntityBase&) = delete;

    const DataTypeDescriptor& dtype() const noexcept final { return dtype_; }
    ComplexLayout complex_layout() const noexcept final { return complex_layout_; }
    MatrixLayout matrix_layout() const noexcept final { return matrix_layout_; }
    std::array<std::uint64_t, 2> extent() const noexcept final { return extent_; }
    const ErasedBufferAccess& erased_access() const noexcept final { return *this; }

protected:
    HostEntityBase(const DataTypeDescriptor& dtype, ComplexLayout complex_layout, MatrixLayout matrix_layout,
                   std::array<std::uint64_t, 2> extent) noexcept
        : dtype_(dtype), complex_layout_(complex_layout), matrix_layout_(matrix_layout), extent_(extent) {}
    ~HostEntityBase() override = default;

private:
    DataTypeDescriptor dtype_;
    ComplexLayout complex_layout_;
    MatrixLayout matrix_layout_;
    std::array<std::uint64_t, 2> extent_;
};

template <class P> DataTypeDescriptor policy_dtype() {
    return DataTypeDescriptor(P::storage_scalar, P::compute_scalar);
}

// One array of S: real data or interleaved complex data.
template <class Entity, class S> class SingleBufferEntity : public HostEntityBase<Entity> {
public:
    using element_type = S;
    std::size_t buffer_count() const noexcept final { return 1; }
    S* data() noexcept { return data_; }
    const S* data() const noexcept { return data_; }
    std::uint64_t element_count() const noexcept { return count_; }

protected:
    using HostEntityBase<Entity>::HostEntityBase;
    void attach(S* data, std::uint64_t count) noexcept {
        data_ = data;
        count_ = count;
    }
    BufferDescriptor describe_buffer(std::size_t) const noexcept final {
        return BufferDescriptor::of(data_, count_, BufferRole::data, this->extent(), this->matrix_layout());
    }

private:
    S* data_ = nullptr;
    std::uint64_t count_ = 0;
};

// Two planes of component type T: real parts, then imaginary parts.
template <class Entity, class T> class SplitBufferEntity : public HostEntityBase<Entity> {
public:
    using component_type = T;
    std::size_t buffer_count() const noexcept final { return 2; }
    T* real() noexcept { return re_; }
    const T* real() const noexcept { return re_; }
    T* imag() noexcept { return im_; }
    const T* imag() const noexcept { return im_; }
    std::uint64_t element_count() const noexcept { return count_; }

protected:
    using HostEntityBase<Entity>::HostEntityBase;
    void attach(T* re, T* im, std::uint64_t count) noexcept {
        re_ = re;
        im_ = im;
        count_ = count;
    }
    BufferDescriptor describe_buffer(std::size_t index) const noexcept final {
        return BufferDescriptor::of(index == 0 ? re_ : im_, count_,
                                    index == 0 ? BufferRole::real : BufferRole::imaginary, this->extent(),
                                    this->matrix_layout());
    }

private:
    T* re_ = nullptr;
    T* im_ = nullptr;
    std::uint64_t count_ = 0;
};

} // namespace quillmark
