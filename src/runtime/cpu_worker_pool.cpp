#include "runtime/cpu_worker_pool.hpp"

#include <deque>
#include <stdexcept>
#include <utility>

namespace quillmark::CpuWorkerPoolDetail {

std::uint64_t CpuWorkerBudget::running() const {
    std::lock_guard lock(mutex_);
    return running_;
}

void CpuWorkerBudget::acquire() {
    if (limit_ == 0) return;
    std::unique_lock lock(mutex_);
    available_.wait(lock, [&] { return running_ < limit_; });
    ++running_;
}

void CpuWorkerBudget::release() noexcept {
    if (limit_ == 0) return;
    {
        std::lock_guard lock(mutex_);
        if (running_ > 0) --running_;
    }
    available_.notify_one();
}

struct CpuWorkerPool::Shared {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> queue;
    bool stopping = false;
    std::shared_ptr<CpuWorkerBudget> budget;
};

CpuWorkerPool::CpuWorkerPool(std::uint64_t worker_count, std::shared_ptr<CpuWorkerBudget> budget)
    : shared_(std::make_shared<Shared>()), worker_count_(worker_count) {
    shared_->budget = std::move(budget);
    workers_.reserve(worker_count);
    try {
        for (std::uint64_t i = 0; i < worker_count; ++i) workers_.emplace_back(worker_main, shared_);
    } catch (...) {
        stop();
        throw;
    }
}

CpuWorkerPool::~CpuWorkerPool() { stop(); }

void CpuWorkerPool::enqueue(Task task) {
    {
        std::lock_guard lock(shared_->mutex);
        if (shared_->stopping) throw std::runtime_error("CpuRuntimeContext::parallel_for - runtime is stopping");
        shared_->queue.push_back(std::move(task));
    }
    shared_->wake.notify_one();
}

bool CpuWorkerPool::stopping() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->stopping;
}

void CpuWorkerPool::stop() noexcept {
    // Taking the threads out under the lock lets concurrent stops (or a worker stopping its own
    // pool) each join a disjoint set, never the same thread twice.
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(shared_->mutex);
        shared_->stopping = true;
        threads.swap(workers_);
    }
    shared_->wake.notify_all();
    const auto self = std::this_thread::get_id();
    for (auto& thread : threads) {
        try {
            if (thread.get_id() == self)
                thread.detach();
            else if (thread.joinable())
                thread.join();
        } catch (...) {
            // A failed join leaves nothing to recover; stop must not throw.
        }
    }
}

namespace {

struct BudgetSlot {
    CpuWorkerBudget* budget;
    explicit BudgetSlot(CpuWorkerBudget* b) : budget(b) {
        if (budget) budget->acquire();
    }
    ~BudgetSlot() {
        if (budget) budget->release();
    }
    BudgetSlot(const BudgetSlot&) = delete;
    BudgetSlot& operator=(const BudgetSlot&) = delete;
};

} // namespace

void CpuWorkerPool::worker_main(std::shared_ptr<Shared> shared) {
    for (;;) {
        Task task;
        {
            std::unique_lock lock(shared->mutex);
            shared->wake.wait(lock, [&] { return shared->stopping || !shared->queue.empty(); });
            if (shared->queue.empty()) return; // stopping and drained
            task = std::move(shared->queue.front());
            shared->queue.pop_front();
        }
        CpuWorkerBudget* budget = shared->budget && shared->budget->limit() != 0 ? shared->budget.get() : nullptr;
        try {
            BudgetSlot slot(budget);
            task();
        } catch (...) {
            // Loop chunks capture their own failures; anything else must not end the worker.
        }
    }
}

} // namespace quillmark::CpuWorkerPoolDetail
