#pragma once
// Worker threads behind CpuRuntimeContext::parallel_for_chunks, and the budget that caps how many
// worker tasks run at once across every pool sharing it.
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace quillmark::CpuWorkerPoolDetail {

class CpuWorkerBudget {
public:
    // A limit of 0 means no limit.
    explicit CpuWorkerBudget(std::uint64_t limit = 0) noexcept : limit_(limit) {}
    CpuWorkerBudget(const CpuWorkerBudget&) = delete;
    CpuWorkerBudget& operator=(const CpuWorkerBudget&) = delete;

    std::uint64_t limit() const noexcept { return limit_; }
    std::uint64_t running() const;

    // Blocks while the running count has reached the limit, then counts the caller in.
    void acquire();
    void release() noexcept;

private:
    mutable std::mutex mutex_;
    std::condition_variable available_;
    const std::uint64_t limit_;
    std::uint64_t running_ = 0;
};

class CpuWorkerPool {
public:
    using Task = std::function<void()>;

    CpuWorkerPool(std::uint64_t worker_count, std::shared_ptr<CpuWorkerBudget> budget);
    ~CpuWorkerPool();
    CpuWorkerPool(const CpuWorkerPool&) = delete;
    CpuWorkerPool& operator=(const CpuWorkerPool&) = delete;

    // Appends at the back of the FIFO queue; refused once stop() has begun.
    void enqueue(Task task);
    // Lets the workers drain the queue and joins them (a worker stopping its own pool is detached
    // instead). Safe to call more than once and from any thread.
    void stop() noexcept;

    bool stopping() const;
    std::uint64_t worker_count() const noexcept { return worker_count_; }

private:
    // Held by every worker too, so a worker that outlives the pool object (self-stop) stays valid.
    struct Shared;
    static void worker_main(std::shared_ptr<Shared> shared);

    std::shared_ptr<Shared> shared_;
    std::vector<std::thread> workers_; // guarded by the shared mutex
    std::uint64_t worker_count_ = 0;
};

} // namespace quillmark::CpuWorkerPoolDetail
