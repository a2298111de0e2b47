// Many callers on contexts that share one worker budget: the budget caps the chunks running at
// once, failing chunks give their slot back, and a context can go away while the others work.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "runtime/cpu_runtime_context.hpp"
#include "runtime/cpu_worker_pool.hpp"
#include "test_support.hpp"

using namespace quillmark;

namespace {

constexpr std::uint64_t kLimit = 2;

std::shared_ptr<const CpuRuntimeContext> sharing(const std::shared_ptr<CpuWorkerBudget>& budget) {
    CpuRuntimeOptions options = quillmark::testing::machine_options(5, 4);
    options.budget = budget;
    return std::make_shared<const CpuRuntimeContext>(std::move(options));
}

// Counts the chunks running at once and remembers the highest count.
struct Occupancy {
    std::atomic<int> now{0}, peak{0};
    void enter() {
        const int n = now.fetch_add(1) + 1;
        int seen = peak.load();
        while (n > seen && !peak.compare_exchange_weak(seen, n)) {
        }
    }
    void leave() { now.fetch_sub(1); }
};

// One caller's loop over [0, 64): fills the slots it owns, optionally failing in chunk 0.
bool loop_once(const CpuRuntimeContext& context, Occupancy& occupancy, std::uint64_t salt, bool fail) {
    std::vector<std::uint64_t> data(64, 0);
    try {
        context.parallel_for_chunks(0, data.size(), data.size(), [&](std::uint64_t b, std::uint64_t e) {
            occupancy.enter();
            for (std::uint64_t i = b; i < e; ++i) data[i] = i * 3 + salt;
            std::this_thread::yield();
            occupancy.leave();
            if (fail && b == 0) throw std::runtime_error("chunk failed");
        });
    } catch (const std::runtime_error&) {
        if (!fail) return false;
    }
    for (std::uint64_t i = 0; i < data.size(); ++i)
        if (data[i] != i * 3 + salt) return false;
    return true;
}

// A worker hands its slot back just after its chunk reports completion, so the count may lag
// the loop's return for a moment; a slot lost for good never comes back.
bool budget_drains(const CpuWorkerBudget& budget) {
    for (int i = 0; i < 5000 && budget.running() != 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return budget.running() == 0;
}

} // namespace

TEST(Concurrent, SharedBudgetCapsRunningChunksThroughFailures) {
    auto budget = std::make_shared<CpuWorkerBudget>(kLimit);
    std::vector<std::shared_ptr<const CpuRuntimeContext>> contexts{sharing(budget), sharing(budget), sharing(budget)};
    Occupancy occupancy;
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (int c = 0; c < 6; ++c)
        callers.emplace_back([&, c] {
            const auto& context = *contexts[static_cast<std::size_t>(c) % contexts.size()];
            for (int loop = 0; loop < 40; ++loop)
                if (!loop_once(context, occupancy, static_cast<std::uint64_t>(c * 100 + loop), loop % 5 == 0))
                    wrong.fetch_add(1);
        });
    for (auto& t : callers) t.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_LE(occupancy.peak.load(), static_cast<int>(kLimit));
    EXPECT_TRUE(budget_drains(*budget)); // every slot came back, failing chunks included
}

TEST(Concurrent, ContextDroppedWhileOthersRun) {
    auto budget = std::make_shared<CpuWorkerBudget>(kLimit);
    auto steady = sharing(budget);
    Occupancy occupancy;
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::thread worker([&] {
        for (std::uint64_t loop = 0; !stop.load(); ++loop)
            if (!loop_once(*steady, occupancy, loop, false)) wrong.fetch_add(1);
    });
    // Contexts come and go, each after starting its pool, while the steady caller holds slots.
    for (int round = 0; round < 30; ++round) {
        auto transient = sharing(budget);
        if (!loop_once(*transient, occupancy, 7, round % 3 == 0)) wrong.fetch_add(1);
    }
    stop.store(true);
    worker.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_TRUE(budget_drains(*budget));
}
