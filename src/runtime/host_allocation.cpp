#include "runtime/host_allocation.hpp"

#include <new>
#include <stdexcept>

namespace quillmark {

HostAllocation allocate_host_bytes(std::size_t bytes, std::size_t alignment, std::optional<std::int32_t> node) {
    if (node.has_value()) throw std::invalid_argument("allocate_host_bytes - requested NUMA node is unavailable");
    if (alignment == 0 || (alignment & (alignment - 1)) != 0)
        throw std::invalid_argument("allocate_host_bytes - alignment must be a power of two");
    HostAllocation record;
    record.bytes = bytes;
    record.alignment = alignment;
    record.requested_node = node;
    if (bytes == 0) return record;
    record.pointer = ::operator new(bytes, std::align_val_t(alignment));
    record.kind = HostAllocationKind::aligned_heap;
    return record;
}

void free_host_bytes(const HostAllocation& allocation) noexcept {
    if (allocation.kind != HostAllocationKind::aligned_heap || allocation.pointer == nullptr) return;
    ::operator delete(allocation.pointer, std::align_val_t(allocation.alignment));
}

} // namespace quillmark
