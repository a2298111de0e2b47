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
};

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

    // Splits [begin, end) into contiguous chunks run on the worker pool; the caller only waits.
    // Runs serially for small work, one thread, or when called from inside a chunk.
    void parallel_for_chunks(std::uint64_t begin, std::uint64_t end, std::uint64_t work, const ChunkBody& body) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace quillmark
