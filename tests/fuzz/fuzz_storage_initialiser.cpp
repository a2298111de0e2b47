// Owned storages are made from caller data described by erased buffer records, whose fields
// (sizes, types, roles, counts, alignment) may all disagree with the storage requested. Every
// combination must be refused with an argument or array-length error, or give a storage that
// holds exactly the caller's elements.
#include <algorithm>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <typeinfo>
#include <vector>

#include "core/low_precision.hpp"
#include "storage/buffer_access.hpp"
#include "storage/storage_factory.hpp"

namespace {

using namespace quillmark;

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    std::uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    const std::uint8_t* rest(std::size_t& n) const {
        n = size_ - pos_;
        return data_ + pos_;
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

// Extents: mostly small; some values whose element products overflow or exceed the address
// range, which must fail before any allocation is attempted.
std::uint64_t extent(Input& in) {
    static constexpr std::uint64_t huge[] = {1ull << 62, 1ull << 63, ~0ull, (1ull << 62) + 1};
    const std::uint8_t b = in.byte();
    return (b & 0x80) ? huge[b & 3] : (b & 0x1F);
}

struct ElementType {
    std::uint64_t size;
    ScalarType scalar;
    const std::type_info* identity;
};
template <class T> constexpr ElementType element_type() { return {sizeof(T), ScalarTraits<T>::type, &typeid(T)}; }
const ElementType kTypes[] = {element_type<float>(),         element_type<double>(),
                              element_type<Float16>(),       element_type<BFloat16>(),
                              element_type<std::int32_t>(),  element_type<std::int64_t>(),
                              element_type<Complex32>(),     element_type<std::complex<float>>(),
                              element_type<std::complex<double>>()};
constexpr std::size_t kTypeCount = sizeof(kTypes) / sizeof(kTypes[0]);

// A buffer record over `memory`, which always holds `count` elements of the largest type plus
// an offset: the record may lie about its element type, but never about the memory behind it.
BufferDescriptor buffer(Input& in, std::vector<unsigned char>& memory, std::uint64_t count) {
    const std::uint8_t how = in.byte();
    const ElementType& t = kTypes[in.byte() % kTypeCount];
    const std::size_t offset = how & 0x07; // misalignment of the data pointer
    memory.assign(offset + count * 16 + 16, 0);
    std::size_t n = 0;
    const std::uint8_t* fill = in.rest(n);
    std::memcpy(memory.data() + offset, fill, std::min<std::size_t>(n, count * t.size));
    BufferDescriptor d;
    d.data = (how & 0x08) ? nullptr : memory.data() + offset;
    d.element_count = count;
    d.element_size = (how & 0x10) ? t.size * 2 : t.size;
    d.scalar_type = (how & 0x20) ? kTypes[(in.byte()) % kTypeCount].scalar : t.scalar;
    d.element_type = (how & 0x40) ? &typeid(char) : t.identity;
    d.role = static_cast<BufferRole>(in.byte() % 8);
    return d;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    const auto storage = static_cast<ScalarType>(in.byte() % 13);
    const auto compute = static_cast<ScalarType>(in.byte() % 13);
    const auto kind = static_cast<OperandKind>(in.byte() % 5);
    const auto complex_layout = static_cast<ComplexLayout>(in.byte() % 3);
    const auto matrix_layout = static_cast<MatrixLayout>(in.byte() % 3);
    const std::array<std::uint64_t, 2> shape{extent(in), extent(in)};
    const std::uint8_t flags = in.byte();

    std::optional<StorageInitialiser> init;
    std::vector<unsigned char> real_memory, imag_memory;
    if (flags & 1) {
        init.emplace();
        init->split = (flags >> 1) & 1;
        // Counts near the shape's element count, so that matching ones are found often.
        const std::uint64_t base = std::min<std::uint64_t>(shape[0] * std::max<std::uint64_t>(shape[1], 1), 1024);
        init->element_count = base + (in.byte() % 3) - 1;
        if (flags & 4) init->real = buffer(in, real_memory, base + ((flags >> 4) & 1));
        if (flags & 8) init->imaginary = buffer(in, imag_memory, base + ((flags >> 5) & 1));
    }

    std::unique_ptr<OperandEntity> entity;
    try {
        entity = make_dense_host_storage(DataTypeDescriptor(storage, compute), kind, shape, complex_layout,
                                         matrix_layout, init);
    } catch (const std::invalid_argument&) {
        return 0;
    } catch (const std::bad_array_new_length&) {
        return 0;
    }
    if (!entity) return 0; // allocation failed
    if (entity->kind() != kind || !(entity->dtype() == DataTypeDescriptor(storage, compute))) std::abort();

    // The caller's elements arrive unchanged, plane by plane.
    if (init && init->real) {
        const ErasedBufferAccess& access = entity->erased_access();
        const BufferDescriptor* given[] = {&*init->real, init->imaginary ? &*init->imaginary : nullptr};
        for (std::size_t i = 0; i < 2 && i < access.buffer_count(); ++i) {
            const BufferDescriptor held = access.buffer(i);
            if (given[i] == nullptr || held.element_size != given[i]->element_size ||
                held.element_count != given[i]->element_count || held.element_count == 0)
                continue;
            if (std::memcmp(held.data, given[i]->data, held.element_count * held.element_size) != 0) std::abort();
        }
    }
    return 0;
}
