#pragma once
// The CPU runtime: selected CPUs, worker count, NUMA and pinning policies, and the lazily
// created worker pool through which kernels run their large loops.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace quillmark {

enum class CpuPolicy : std::uint32_t { disabled = 0, auto_ = 1, strict = 2 };

namespace CpuWorkerPoolDetail {
class CpuWorkerPool;
class CpuWorkerBudget;
} // namespace CpuWorkerPoolDetail
using CpuWorkerPoolDetail::CpuWorkerBudget;
using CpuWorkerPoolDetail::CpuWorkerPool;

struct CpuNumaNode {
    std::uint32_t id = 0;
    std::vector<std::uint64_t> cpus;
};

struct CpuRuntimeOptions {
    std::uint64_t thread_count = 0;
    std::uint64_t min_parallel_work = 32768;
    CpuPolicy numa_policy = CpuPolicy::auto_;
    CpuPolicy pinning_policy = CpuPolicy::auto_;
    std::vector<std::uint32_t> numa_nodes;
    std::vector<std::uint64_t> logical_cpus;
    std::shared_ptr<CpuWorkerBudget> budget;
    // Logical CPU count of the topology; 0 asks std::thread::hardware_concurrency(). Lets tests
    // model machines other than the one they run on.
    std::uint64_t hardware_concurrency_override = 0;
};

// One node, id 0, holding CPUs 0..N-1 (N = the override, else the hardware concurrency, else 1).
std::vector<CpuNumaNode> build_cpu_topology(std::uint64_t hardware_concurrency_override = 0);

using ChunkBody = std::function<void(std::uint64_t, std::uint64_t)>;

class CpuRuntimeContext : public std::enable_shared_from_this<CpuRuntimeContext> {
public:
    explicit CpuRuntimeContext(CpuRuntimeOptions options);
    ~CpuRuntimeContext();
    CpuRuntimeContext(const CpuRuntimeContext&) = delete;
    CpuRuntimeContext& operator=(const CpuRuntimeContext&) = delete;

    std::uint64_t thread_count() const noexcept;
    std::uint64_t min_parallel_work() const noexcept;
    CpuPolicy numa_policy() const noexcept;
    CpuPolicy pinning_policy() const noexcept;
    const std::vector<CpuNumaNode>& topology() const noexcept;
    const std::vector<std::uint64_t>& selected_cpus() const noexcept;
    const std::shared_ptr<CpuWorkerBudget>& budget() const noexcept;
    const std::vector<std::uint32_t>& requested_numa_nodes() const noexcept;
    const std::vector<std::uint64_t>& requested_logical_cpus() const noexcept;

    // Splits [begin, end) into contiguous chunks run on the worker pool; the caller only waits.
    // Runs serially for small work, one thread, or when called from inside a chunk.
    // The first exception thrown by a chunk is rethrown once every chunk has finished.
    void parallel_for_chunks(std::uint64_t begin, std::uint64_t end, std::uint64_t work, const ChunkBody& body) const;

    // Runs a whole execution on the calling thread under a serial pin scope, so strict pinning
    // refuses it up front; the task's own loops fan out through parallel_for_chunks.
    void run(const std::function<void()>& task) const;

private:
    CpuWorkerPool& worker_pool() const;

    struct State;
    std::unique_ptr<State> state_;
};

// Guard taken before CPU work runs on the calling thread. Nothing is pinned on this platform, so
// under strict pinning its construction throws instead.
class CpuSerialPinScope {
public:
    explicit CpuSerialPinScope(const CpuRuntimeContext& context);
    CpuSerialPinScope(const CpuSerialPinScope&) = delete;
    CpuSerialPinScope& operator=(const CpuSerialPinScope&) = delete;
};

// The context a CPU process step runs on for an operand placed on `node` (negative: no node):
// `runtime` itself, or a context derived for that node (sharing `runtime`'s worker budget), or
// an std::invalid_argument when a strict context cannot honour the node or the node does not exist.
std::shared_ptr<const CpuRuntimeContext> runtime_for_operand_node(const std::shared_ptr<const CpuRuntimeContext>& runtime,
                                                                  std::int32_t node);

} // namespace quillmark
