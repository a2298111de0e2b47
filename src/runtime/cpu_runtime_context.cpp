#include "runtime/cpu_runtime_context.hpp"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "runtime/cpu_worker_pool.hpp"

namespace quillmark {
namespace {

// Non-zero while this thread runs a chunk; loops met there run inline instead of re-entering a pool.
thread_local std::uint64_t t_chunk_nesting = 0;

struct ChunkNesting {
    ChunkNesting() noexcept { ++t_chunk_nesting; }
    ~ChunkNesting() { --t_chunk_nesting; }
    ChunkNesting(const ChunkNesting&) = delete;
    ChunkNesting& operator=(const ChunkNesting&) = delete;
};

// Shared between one loop and its chunk tasks; the tasks hold it by reference count so a finishing
// chunk never touches state the woken caller has already released.
struct LoopCompletion {
    std::atomic<std::uint64_t> outstanding{0};
    std::mutex mutex;
    std::condition_variable done;
    std::exception_ptr error;

    void capture(std::exception_ptr e) {
        std::lock_guard lock(mutex);
        if (!error) error = std::move(e);
    }
    void finish_one() {
        {
            std::lock_guard lock(mutex);
            outstanding.fetch_sub(1, std::memory_order_acq_rel);
        }
        done.notify_all();
    }
    // Hands the captured exception to the caller, so the last reference to the exception object
    // stays on the caller's side even when a worker drops the completion state afterwards.
    std::exception_ptr wait() {
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return outstanding.load(std::memory_order_acquire) == 0; });
        return std::move(error);
    }
};

bool strict_worker_pinning_supported() noexcept { return false; }

void check_worker_pinning(CpuPolicy pinning, std::uint64_t threads) {
    if (pinning == CpuPolicy::strict && threads >= 2 && !strict_worker_pinning_supported())
        throw std::runtime_error("CpuRuntimeContext - strict CPU worker pinning is unsupported on this platform");
}

const CpuNumaNode* find_node(const std::vector<CpuNumaNode>& topology, std::uint32_t id) noexcept {
    for (const auto& node : topology)
        if (node.id == id) return &node;
    return nullptr;
}

bool topology_has_cpu(const std::vector<CpuNumaNode>& topology, std::uint64_t cpu) noexcept {
    for (const auto& node : topology)
        if (std::find(node.cpus.begin(), node.cpus.end(), cpu) != node.cpus.end()) return true;
    return false;
}

std::vector<std::uint64_t> all_cpus(const std::vector<CpuNumaNode>& topology) {
    std::vector<std::uint64_t> cpus;
    for (const auto& node : topology) cpus.insert(cpus.end(), node.cpus.begin(), node.cpus.end());
    return cpus;
}

std::vector<std::uint64_t> select_cpus(const std::vector<CpuNumaNode>& topology, CpuPolicy numa,
                                       const std::vector<std::uint32_t>& nodes, const std::vector<std::uint64_t>& cpus) {
    if (numa == CpuPolicy::strict)
        for (std::uint32_t id : nodes) {
            const CpuNumaNode* node = find_node(topology, id);
            if (node == nullptr || node->cpus.empty())
                throw std::invalid_argument("CpuRuntimeContext - requested NUMA node is unavailable");
        }

    std::vector<std::uint64_t> selection = all_cpus(topology);

    if (numa != CpuPolicy::disabled && !nodes.empty()) {
        std::vector<std::uint64_t> from_nodes;
        for (std::uint32_t id : nodes)
            if (const CpuNumaNode* node = find_node(topology, id))
                from_nodes.insert(from_nodes.end(), node->cpus.begin(), node->cpus.end());
        if (!from_nodes.empty())
            selection = std::move(from_nodes);
        else if (numa == CpuPolicy::strict)
            throw std::invalid_argument("CpuRuntimeContext - requested NUMA nodes contain no usable CPUs");
    }

    if (!cpus.empty()) {
        std::vector<std::uint64_t> kept;
        for (std::uint64_t cpu : cpus) {
            if (!topology_has_cpu(topology, cpu))
                throw std::invalid_argument("CpuRuntimeContext - requested logical CPU is unavailable");
            if (std::find(selection.begin(), selection.end(), cpu) != selection.end()) kept.push_back(cpu);
        }
        if (!kept.empty())
            selection = std::move(kept);
        else if (numa == CpuPolicy::strict)
            throw std::invalid_argument(
                "CpuRuntimeContext - requested logical CPUs do not intersect the selected NUMA nodes");
        else
            selection = cpus;
    }

    if (selection.empty()) selection.push_back(0);
    return selection;
}

std::uint64_t resolve_thread_count(std::uint64_t requested, std::size_t selected) {
    // One selected CPU is held back for the caller, which only waits on its loops.
    const std::uint64_t capacity = selected > 1 ? selected - 1 : 1;
    if (requested == 0) return capacity;
    if (requested > capacity)
        throw std::invalid_argument("CpuRuntimeContext - requested CPU thread count exceeds selected CPU capacity "
                                    "after reserving one logical CPU for the caller");
    return requested;
}

} // namespace

std::vector<CpuNumaNode> build_cpu_topology(std::uint64_t hardware_concurrency_override) {
    std::uint64_t count = hardware_concurrency_override;
    if (count == 0) count = std::thread::hardware_concurrency();
    if (count == 0) count = 1;
    CpuNumaNode node;
    node.id = 0;
    node.cpus.reserve(count);
    for (std::uint64_t cpu = 0; cpu < count; ++cpu) node.cpus.push_back(cpu);
    return {std::move(node)};
}

struct CpuRuntimeContext::State {
    std::vector<CpuNumaNode> topology;
    std::uint64_t thread_count = 0;
    CpuPolicy numa_policy = CpuPolicy::auto_;
    CpuPolicy pinning_policy = CpuPolicy::auto_;
    std::vector<std::uint32_t> requested_nodes;
    std::vector<std::uint64_t> requested_cpus;
    std::vector<std::uint64_t> selected_cpus;
    std::shared_ptr<CpuWorkerBudget> budget;
    std::unique_ptr<CpuWorkerPool> pool;
    std::once_flag pool_once;
    std::uint64_t min_parallel_work = 0;
};

CpuRuntimeContext::CpuRuntimeContext(CpuRuntimeOptions options) {
    auto topology = build_cpu_topology(options.hardware_concurrency_override);
    auto selected = select_cpus(topology, options.numa_policy, options.numa_nodes, options.logical_cpus);
    const std::uint64_t threads = resolve_thread_count(options.thread_count, selected.size());
    check_worker_pinning(options.pinning_policy, threads);

    auto state = std::make_unique<State>();
    state->topology = std::move(topology);
    state->thread_count = threads;
    state->numa_policy = options.numa_policy;
    state->pinning_policy = options.pinning_policy;
    state->requested_nodes = std::move(options.numa_nodes);
    state->requested_cpus = std::move(options.logical_cpus);
    state->selected_cpus = std::move(selected);
    state->budget = options.budget ? std::move(options.budget) : std::make_shared<CpuWorkerBudget>(threads);
    state->min_parallel_work = options.min_parallel_work;
    state_ = std::move(state);
}

CpuRuntimeContext::~CpuRuntimeContext() {
    if (state_ && state_->pool) state_->pool->stop();
}

std::uint64_t CpuRuntimeContext::thread_count() const noexcept { return state_->thread_count; }
std::uint64_t CpuRuntimeContext::min_parallel_work() const noexcept { return state_->min_parallel_work; }
CpuPolicy CpuRuntimeContext::numa_policy() const noexcept { return state_->numa_policy; }
CpuPolicy CpuRuntimeContext::pinning_policy() const noexcept { return state_->pinning_policy; }
const std::vector<CpuNumaNode>& CpuRuntimeContext::topology() const noexcept { return state_->topology; }
const std::vector<std::uint64_t>& CpuRuntimeContext::selected_cpus() const noexcept { return state_->selected_cpus; }
const std::shared_ptr<CpuWorkerBudget>& CpuRuntimeContext::budget() const noexcept { return state_->budget; }
const std::vector<std::uint32_t>& CpuRuntimeContext::requested_numa_nodes() const noexcept {
    return state_->requested_nodes;
}
const std::vector<std::uint64_t>& CpuRuntimeContext::requested_logical_cpus() const noexcept {
    return state_->requested_cpus;
}

CpuWorkerPool& CpuRuntimeContext::worker_pool() const {
    // A throwing builder leaves the flag unset, so a later loop tries again.
    std::call_once(state_->pool_once, [this] {
        check_worker_pinning(state_->pinning_policy, state_->thread_count);
        state_->pool = std::make_unique<CpuWorkerPool>(state_->thread_count, state_->budget);
    });
    return *state_->pool;
}

CpuSerialPinScope::CpuSerialPinScope(const CpuRuntimeContext& context) {
    if (!context.selected_cpus().empty() && context.pinning_policy() == CpuPolicy::strict)
        throw std::runtime_error("CpuRuntimeContext - strict serial CPU pinning is unsupported on this platform");
}

void CpuRuntimeContext::run(const std::function<void()>& task) const {
    CpuSerialPinScope pin(*this);
    task();
}

void CpuRuntimeContext::parallel_for_chunks(std::uint64_t begin, std::uint64_t end, std::uint64_t work,
                                            const ChunkBody& body) const {
    if (end <= begin) return;
    if (t_chunk_nesting != 0) {
        body(begin, end);
        return;
    }
    const std::uint64_t n = end - begin;
    const std::uint64_t threads = state_->thread_count;
    if (threads < 2 || n < 2 || work < state_->min_parallel_work) {
        CpuSerialPinScope pin(*this);
        body(begin, end);
        return;
    }

    CpuWorkerPool& pool = worker_pool();
    const std::uint64_t chunks = std::min(n, threads);
    // floor(n*i/C) without overflow: n = q*C + r, and r*i < C*C stays small.
    const std::uint64_t q = n / chunks, r = n % chunks;
    auto offset = [&](std::uint64_t i) { return q * i + r * i / chunks; };

    auto completion = std::make_shared<LoopCompletion>();
    std::exception_ptr enqueue_error;
    for (std::uint64_t i = 0; i < chunks; ++i) {
        const std::uint64_t chunk_begin = begin + offset(i), chunk_end = begin + offset(i + 1);
        completion->outstanding.fetch_add(1, std::memory_order_acq_rel);
        try {
            pool.enqueue([completion, &body, chunk_begin, chunk_end] {
                try {
                    ChunkNesting nesting;
                    body(chunk_begin, chunk_end);
                } catch (...) {
                    completion->capture(std::current_exception());
                }
                completion->finish_one();
            });
        } catch (...) {
            // Chunks already queued still reference body: wait for them before reporting.
            completion->finish_one();
            enqueue_error = std::current_exception();
            break;
        }
    }
    std::exception_ptr chunk_error = completion->wait();
    if (enqueue_error) std::rethrow_exception(enqueue_error);
    if (chunk_error) std::rethrow_exception(chunk_error);
}

std::shared_ptr<const CpuRuntimeContext> runtime_for_operand_node(const std::shared_ptr<const CpuRuntimeContext>& runtime,
                                                                  std::int32_t node) {
    if (!runtime || node < 0 || runtime->numa_policy() == CpuPolicy::disabled) return runtime;
    const auto id = static_cast<std::uint32_t>(node);
    const bool strict = runtime->numa_policy() == CpuPolicy::strict;

    const CpuNumaNode* topology_node = find_node(runtime->topology(), id);
    if (topology_node == nullptr)
        throw std::invalid_argument("CpuProcessStep - requested operand NUMA node is unavailable: " +
                                    std::to_string(node));

    const auto& requested = runtime->requested_numa_nodes();
    if (!topology_node->cpus.empty() && !requested.empty()) {
        if (std::find(requested.begin(), requested.end(), id) == requested.end()) {
            if (!strict) return runtime;
            throw std::invalid_argument("CpuProcessStep - operand NUMA node is outside the strict runtime node set: " +
                                        std::to_string(node));
        }
        if (requested.size() == 1) return runtime;
    }

    std::uint64_t on_node = 0;
    for (std::uint64_t cpu : runtime->selected_cpus())
        if (std::find(topology_node->cpus.begin(), topology_node->cpus.end(), cpu) != topology_node->cpus.end())
            ++on_node;
    if (on_node == 0) {
        if (!strict) return runtime;
        throw std::invalid_argument("CpuProcessStep - operand NUMA node has no selected logical CPUs: " +
                                    std::to_string(node));
    }

    CpuRuntimeOptions options;
    options.thread_count = std::min(std::max<std::uint64_t>(on_node - 1, 1), runtime->thread_count());
    options.min_parallel_work = runtime->min_parallel_work();
    options.numa_policy = runtime->numa_policy();
    options.pinning_policy = runtime->pinning_policy();
    options.numa_nodes = {id};
    options.logical_cpus = runtime->requested_logical_cpus();
    // The derived context draws on the parent's budget so both together stay within its cap.
    options.budget = runtime->budget();
    // Same topology as the parent, whatever the machine reports now.
    options.hardware_concurrency_override = all_cpus(runtime->topology()).size();
    return std::make_shared<const CpuRuntimeContext>(std::move(options));
}

} // namespace quillmark
