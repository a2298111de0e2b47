#pragma once
// Aligned host memory for owned operand storage. This platform offers no NUMA placement, so a
// request that names a node is refused rather than silently ignored.
#include <cstddef>
#include <cstdint>
#include <optional>

namespace quillmark {

enum class HostAllocationKind : std::uint32_t {
    none = 0,         // zero bytes: nothing was allocated
    aligned_heap = 1, // ordinary aligned operator new
};

struct HostAllocation {
    void* pointer = nullptr;
    std::size_t bytes = 0;
    std::size_t alignment = 0;
    std::optional<std::int32_t> requested_node;
    std::int32_t node = -1; // node actually used; -1 for none
    HostAllocationKind kind = HostAllocationKind::none;
};

// alignment must be a power of two. Any engaged node (even a negative one) is refused.
HostAllocation allocate_host_bytes(std::size_t bytes, std::size_t alignment,
                                   std::optional<std::int32_t> node = std::nullopt);
// Releases what allocate_host_bytes returned; a record of kind none is ignored.
void free_host_bytes(const HostAllocation& allocation) noexcept;

// Sole owner of one allocation.
class OwnedHostBytes {
public:
    OwnedHostBytes() noexcept = default;
    explicit OwnedHostBytes(HostAllocation allocation) noexcept : allocation_(allocation) {}
    OwnedHostBytes(std::size_t bytes, std::size_t alignment, std::optional<std::int32_t> node = std::nullopt)
        : allocation_(allocate_host_bytes(bytes, alignment, node)) {}
    ~OwnedHostBytes() { free_host_bytes(allocation_); }
    OwnedHostBytes(OwnedHostBytes&& other) noexcept : allocation_(other.allocation_) { other.allocation_ = {}; }
    OwnedHostBytes& operator=(OwnedHostBytes&& other) noexcept {
        if (this != &other) {
            free_host_bytes(allocation_);
            allocation_ = other.allocation_;
            other.allocation_ = {};
        }
        return *this;
    }
    OwnedHostBytes(const OwnedHostBytes&) = delete;
    OwnedHostBytes& operator=(const OwnedHostBytes&) = delete;

    void* data() const noexcept { return allocation_.pointer; }
    std::size_t size() const noexcept { return allocation_.bytes; }
    const HostAllocation& allocation() const noexcept { return allocation_; }

private:
    HostAllocation allocation_;
};

} // namespace quillmark
