#include <gtest/gtest.h>

#include "test_support.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/cpu_runtime_context.hpp"
#include "runtime/cpu_worker_pool.hpp"
#include "runtime/host_allocation.hpp"

using namespace quillmark;
using quillmark::testing::machine_options;
using quillmark::testing::message_of;

namespace {

using Range = std::pair<std::uint64_t, std::uint64_t>;

constexpr const char* kCapacity = "CpuRuntimeContext - requested CPU thread count exceeds selected CPU capacity after "
                                  "reserving one logical CPU for the caller";
constexpr const char* kWorkerPinning = "CpuRuntimeContext - strict CPU worker pinning is unsupported on this platform";
constexpr const char* kSerialPinning = "CpuRuntimeContext - strict serial CPU pinning is unsupported on this platform";

std::shared_ptr<const CpuRuntimeContext> make(CpuRuntimeOptions options) {
    return std::make_shared<const CpuRuntimeContext>(std::move(options));
}

// Records every chunk with the thread that ran it.
struct ChunkLog {
    std::mutex mutex;
    std::vector<Range> ranges;
    std::vector<std::thread::id> threads;
    ChunkBody body() {
        return [this](std::uint64_t b, std::uint64_t e) {
            std::lock_guard lock(mutex);
            ranges.emplace_back(b, e);
            threads.push_back(std::this_thread::get_id());
        };
    }
    std::vector<Range> sorted() {
        auto r = ranges;
        std::sort(r.begin(), r.end());
        return r;
    }
};

} // namespace

// ---- CPU selection and thread count ----

struct SelectionCase {
    const char* name;
    std::uint64_t cpus;
    CpuPolicy numa;
    std::vector<std::uint32_t> nodes;
    std::vector<std::uint64_t> logical;
    std::uint64_t threads;
    std::vector<std::uint64_t> selected; // empty: expect `error`
    std::uint64_t resolved_threads;
    const char* error;
};

class CpuSelection : public ::testing::TestWithParam<SelectionCase> {};

TEST_P(CpuSelection, SelectsOrRefuses) {
    const auto& c = GetParam();
    auto options = machine_options(c.cpus, c.threads);
    options.numa_policy = c.numa;
    options.numa_nodes = c.nodes;
    options.logical_cpus = c.logical;
    if (c.selected.empty()) {
        EXPECT_EQ(message_of<std::invalid_argument>([&] { make(options); }), c.error);
        return;
    }
    auto context = make(options);
    EXPECT_EQ(context->selected_cpus(), c.selected);
    EXPECT_EQ(context->thread_count(), c.resolved_threads);
}

const std::vector<std::uint64_t> kEight{0, 1, 2, 3, 4, 5, 6, 7};

INSTANTIATE_TEST_SUITE_P(
    Runtime, CpuSelection,
    ::testing::Values(
        SelectionCase{"OneCpuDefault", 1, CpuPolicy::auto_, {}, {}, 0, {0}, 1, nullptr},
        SelectionCase{"OneCpuTwoThreads", 1, CpuPolicy::auto_, {}, {}, 2, {}, 0, kCapacity},
        SelectionCase{"EightCpusDefault", 8, CpuPolicy::auto_, {}, {}, 0, kEight, 7, nullptr},
        SelectionCase{"EightCpusEight", 8, CpuPolicy::auto_, {}, {}, 8, {}, 0, kCapacity},
        SelectionCase{"RequestOrderKept", 8, CpuPolicy::auto_, {}, {3, 1}, 0, {3, 1}, 1, nullptr},
        SelectionCase{"RequestedCpusBoundCapacity", 8, CpuPolicy::auto_, {}, {3, 1}, 2, {}, 0, kCapacity},
        SelectionCase{"CpuOnePastTheEnd", 8, CpuPolicy::auto_, {}, {8}, 0, {}, 0,
                      "CpuRuntimeContext - requested logical CPU is unavailable"},
        SelectionCase{"StrictMissingNode", 8, CpuPolicy::strict, {0, 1}, {}, 0, {}, 0,
                      "CpuRuntimeContext - requested NUMA node is unavailable"},
        SelectionCase{"AutoMissingNodeFallsBack", 8, CpuPolicy::auto_, {1}, {}, 0, kEight, 7, nullptr},
        SelectionCase{"StrictNodeThenCpus", 8, CpuPolicy::strict, {0}, {6, 2, 4}, 0, {6, 2, 4}, 2, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- pinning ----

TEST(CpuRuntime, StrictPinning) {
    auto one = machine_options(8, 1);
    one.pinning_policy = CpuPolicy::strict;
    auto context = make(one);
    bool ran = false;
    EXPECT_EQ(message_of<std::runtime_error>([&] { context->run([&] { ran = true; }); }), kSerialPinning);
    EXPECT_FALSE(ran);

    for (std::uint64_t threads : {0u, 2u}) {
        auto many = machine_options(8, threads);
        many.pinning_policy = CpuPolicy::strict;
        EXPECT_EQ(message_of<std::runtime_error>([&] { make(many); }), kWorkerPinning) << threads;
    }

    // auto pins nothing and refuses nothing.
    auto options = machine_options(8, 4);
    options.pinning_policy = CpuPolicy::auto_;
    make(options)->run([&] { ran = true; });
    EXPECT_TRUE(ran);
}

// ---- parallel_for_chunks ----

TEST(ParallelFor, ChunksCoverTheRangeAndRunOffTheCaller) {
    auto context = make(machine_options(5, 4));
    ChunkLog log;
    context->parallel_for_chunks(0, 10, 1, log.body());
    EXPECT_EQ(log.sorted(), (std::vector<Range>{{0, 2}, {2, 5}, {5, 7}, {7, 10}}));
    for (auto id : log.threads) EXPECT_NE(id, std::this_thread::get_id());

    ChunkLog offset;
    context->parallel_for_chunks(100, 103, 1, offset.body()); // fewer elements than threads
    EXPECT_EQ(offset.sorted(), (std::vector<Range>{{100, 101}, {101, 102}, {102, 103}}));
}

TEST(ParallelFor, EmptyOrSmallLoopsRunOnceOnTheCaller) {
    struct Case {
        std::uint64_t threads, begin, end, work, min_work;
    };
    for (const Case& c : {Case{4, 5, 5, 1000, 1}, Case{4, 9, 3, 1000, 1}, // empty, reversed
                          Case{7, 0, 1000, 32767, 32768}, Case{1, 0, 1000, 1u << 30, 1}}) {
        auto options = machine_options(8, c.threads);
        options.min_parallel_work = c.min_work;
        ChunkLog log;
        make(options)->parallel_for_chunks(c.begin, c.end, c.work, log.body());
        if (c.end <= c.begin) {
            EXPECT_TRUE(log.ranges.empty());
            continue;
        }
        ASSERT_EQ(log.ranges, (std::vector<Range>{{c.begin, c.end}})) << c.threads;
        EXPECT_EQ(log.threads[0], std::this_thread::get_id());
    }
}

TEST(ParallelFor, NestedLoopRunsSeriallyOnTheWorker) {
    auto context = make(machine_options(5, 4));
    std::mutex mutex;
    std::vector<std::pair<std::thread::id, std::thread::id>> inner_vs_outer;
    std::vector<Range> inner_ranges;
    context->parallel_for_chunks(0, 4, 1, [&](std::uint64_t, std::uint64_t) {
        const auto outer = std::this_thread::get_id();
        context->parallel_for_chunks(10, 50, 1u << 30, [&](std::uint64_t b, std::uint64_t e) {
            std::lock_guard lock(mutex);
            inner_vs_outer.emplace_back(std::this_thread::get_id(), outer);
            inner_ranges.emplace_back(b, e);
        });
    });
    ASSERT_EQ(inner_ranges.size(), 4u);
    for (const auto& r : inner_ranges) EXPECT_EQ(r, (Range{10, 50}));
    for (const auto& [inner, outer] : inner_vs_outer) EXPECT_EQ(inner, outer);
}

TEST(ParallelFor, OneExceptionAfterEveryChunkFinished) {
    auto context = make(machine_options(5, 4));
    std::atomic<int> finished{0};
    int caught = 0;
    try {
        context->parallel_for_chunks(0, 8, 1, [&](std::uint64_t b, std::uint64_t) {
            if (b == 0) throw std::out_of_range("chunk zero failed");
            // The others outlast the failing chunk, so an early rethrow would leave them running.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            finished.fetch_add(1);
        });
    } catch (const std::out_of_range& e) {
        ++caught;
        EXPECT_STREQ(e.what(), "chunk zero failed");
        EXPECT_EQ(finished.load(), 3);
    }
    EXPECT_EQ(caught, 1);
}

// ---- worker pool ----

TEST(CpuWorkerPool, StopDrainsQueueThenRefuses) {
    CpuWorkerPool pool(1, nullptr);
    std::atomic<bool> release{false};
    std::atomic<int> done{0};
    pool.enqueue([&] {
        while (!release.load()) std::this_thread::yield();
    });
    for (int i = 0; i < 10; ++i) pool.enqueue([&] { done.fetch_add(1); });

    std::thread stopper([&] { pool.stop(); });
    while (!pool.stopping()) std::this_thread::yield();
    EXPECT_EQ(message_of<std::runtime_error>([&] { pool.enqueue([] {}); }),
              "CpuRuntimeContext::parallel_for - runtime is stopping");
    release.store(true);
    stopper.join();
    EXPECT_EQ(done.load(), 10); // queued before the stop, so still run
    pool.stop();                // a second stop is harmless
}

// ---- operand NUMA check ----

TEST(OperandNuma, UsesContextAsIsDerivesOrRefuses) {
    auto context = make(machine_options(8));
    EXPECT_EQ(runtime_for_operand_node(context, -1), context);
    auto options = machine_options(8);
    options.numa_policy = CpuPolicy::disabled;
    auto disabled = make(options);
    EXPECT_EQ(runtime_for_operand_node(disabled, 5), disabled); // not even checked
    // Non-strict with a requested node that is not the operand's: used as it is.
    options = machine_options(4);
    options.numa_nodes = {2};
    auto elsewhere = make(options);
    EXPECT_EQ(runtime_for_operand_node(elsewhere, 0), elsewhere);
    EXPECT_EQ(message_of<std::invalid_argument>([&] { runtime_for_operand_node(elsewhere, 3); }),
              "CpuProcessStep - requested operand NUMA node is unavailable: 3");

    // No requested nodes: a context pinned to the operand's node, one CPU again held back.
    auto derived = runtime_for_operand_node(context, 0);
    ASSERT_TRUE(derived);
    EXPECT_NE(derived, context);
    EXPECT_EQ(derived->requested_numa_nodes(), (std::vector<std::uint32_t>{0}));
    EXPECT_EQ(derived->thread_count(), 7u);
    EXPECT_EQ(derived->budget(), context->budget());
}

// ---- host allocation ----

TEST(HostAllocation, AnyNamedNodeIsRefused) {
    for (std::int32_t node : {0, 1, -1})
        for (std::size_t bytes : {std::size_t{0}, std::size_t{64}})
            EXPECT_EQ(message_of<std::invalid_argument>([&] { allocate_host_bytes(bytes, 64, node); }),
                      "allocate_host_bytes - requested NUMA node is unavailable")
                << node << " " << bytes;
}

TEST(HostAllocation, AlignedAndEmptyAllocations) {
    for (std::size_t alignment : {std::size_t{8}, std::size_t{4096}}) {
        OwnedHostBytes owned(1000, alignment);
        ASSERT_NE(owned.data(), nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(owned.data()) % alignment, 0u);
        std::fill_n(static_cast<unsigned char*>(owned.data()), 1000, 0xAB);
        OwnedHostBytes moved(std::move(owned));
        EXPECT_EQ(owned.data(), nullptr); // the moved-from owner frees nothing
    }
    const auto empty = allocate_host_bytes(0, 256);
    EXPECT_EQ(empty.pointer, nullptr);
    free_host_bytes(empty);
    for (std::size_t bad : {std::size_t{0}, std::size_t{24}})
        EXPECT_EQ(message_of<std::invalid_argument>([&] { allocate_host_bytes(16, bad); }),
                  "allocate_host_bytes - alignment must be a power of two");
}
