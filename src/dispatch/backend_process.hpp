#pragma once
// Backend processes: the ordered steps that one execution runs, the per-execution bindings the
// steps work on, and the session that hands CPU steps their execution context.
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "dispatch/backend_kind.hpp"
#include "storage/operand_entity.hpp"

namespace quillmark {

class CpuRuntimeContext;
class BackendExecutionSession;
class BackendExecutionBindings;

class BackendProcessStep {
public:
    virtual ~BackendProcessStep() = default;
    // Failure is reported by throwing.
    virtual void execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) = 0;
};

// The operands of one execution by position (inputs in role order, then outputs in role order),
// the key/value pairs installed from the execution plan, and work deferred to the end of the run.
// Operands are not owned, except the temporaries that adaptation steps substitute.
class BackendExecutionBindings {
public:
    using ValuePair = std::pair<std::uint32_t, std::uint32_t>;
    using DeferredWork = std::function<void()>;

    BackendExecutionBindings() = default;
    BackendExecutionBindings(const BackendExecutionBindings&) = delete;
    BackendExecutionBindings& operator=(const BackendExecutionBindings&) = delete;
    BackendExecutionBindings(BackendExecutionBindings&&) noexcept = default;
    BackendExecutionBindings& operator=(BackendExecutionBindings&&) noexcept = default;
    ~BackendExecutionBindings() = default;

    void reserve(std::size_t positions) { slots_.reserve(positions); }
    // Append the next position; the return value is that position.
    std::size_t bind_read(const OperandEntity& operand);
    std::size_t bind_write(OperandEntity& operand);
    std::size_t size() const noexcept { return slots_.size(); }

    // What a kernel sees: the substituted temporary when there is one, else the caller's operand.
    // Positions out of range throw std::out_of_range.
    const OperandEntity& operand(std::size_t position) const;
    // Writable form of operand(); nullptr when the caller's operand is read-only and not substituted.
    OperandEntity* mutable_operand(std::size_t position);
    // The caller's operand, whatever was substituted; mutable_original is nullptr for read-only bindings.
    const OperandEntity& original(std::size_t position) const;
    OperandEntity* mutable_original(std::size_t position);
    // The temporary substituted at a position, or nullptr.
    OperandEntity* temporary(std::size_t position);
    bool substituted(std::size_t position) const;
    // Makes `temporary` the operand seen at `position` for the rest of the execution. A position
    // holds at most one temporary; null is refused.
    void substitute(std::size_t position, std::unique_ptr<OperandEntity> temporary);

    // Grows the map for the pairs first, then inserts each pair whose key is not yet present.
    void install_pairs(std::span<const ValuePair> pairs);
    std::optional<std::uint32_t> value(std::uint32_t key) const;
    const std::unordered_map<std::uint32_t, std::uint32_t>& values() const noexcept { return values_; }

    // Deferred work runs once, in recording order, when the process finishes without fail_fast.
    void defer(DeferredWork work);
    bool has_deferred_work() const noexcept { return !deferred_.empty(); }
    // Runs every item even if one throws, clears the list, then rethrows the first failure.
    void complete_deferred_work();

private:
    struct Slot {
        const OperandEntity* operand = nullptr;
        OperandEntity* writable = nullptr;
        std::unique_ptr<OperandEntity> temporary;
    };
    const Slot& slot(std::size_t position) const;
    Slot& slot(std::size_t position);

    std::vector<Slot> slots_;
    std::unordered_map<std::uint32_t, std::uint32_t> values_;
    std::vector<DeferredWork> deferred_;
};

class BackendExecutionContext {
public:
    virtual ~BackendExecutionContext() = default;
    virtual BackendKind backend() const noexcept = 0;
};

// A CPU step's handle to the runtime. The runtime may be null where no parallel work is needed.
class CpuExecutionContext final : public BackendExecutionContext {
public:
    CpuExecutionContext(BackendKind backend, std::shared_ptr<const CpuRuntimeContext> runtime) noexcept
        : backend_(backend), runtime_(std::move(runtime)) {}
    BackendKind backend() const noexcept override { return backend_; }
    const CpuRuntimeContext* runtime() const noexcept { return runtime_.get(); }
    const std::shared_ptr<const CpuRuntimeContext>& runtime_ptr() const noexcept { return runtime_; }

private:
    BackendKind backend_;
    std::shared_ptr<const CpuRuntimeContext> runtime_;
};

// One per execution of a process; refuses re-entry instead of locking.
class BackendExecutionSession {
public:
    explicit BackendExecutionSession(std::shared_ptr<const CpuRuntimeContext> runtime = nullptr);
    BackendExecutionSession(const BackendExecutionSession&) = delete;
    BackendExecutionSession& operator=(const BackendExecutionSession&) = delete;

    bool active() const noexcept { return active_; }
    // Throws std::logic_error "BackendExecutionSession::cpu - non-CPU backend requested".
    CpuExecutionContext& cpu(BackendKind kind);
    // Throws std::logic_error "BackendExecutionSession - nested process execution is unsupported".
    void enter();
    void leave() noexcept { active_ = false; }

private:
    bool active_ = false;
    CpuExecutionContext scalar_;
    CpuExecutionContext simd_;
};

namespace CpuProcessStepDetail {
// Throws std::invalid_argument "CpuProcessStepDetail::with_cpu_context - CPU backend required".
CpuExecutionContext& cpu_context(BackendExecutionSession& session, BackendKind kind);

template <class Action>
decltype(auto) with_cpu_context(BackendExecutionSession& session, BackendKind kind, BackendExecutionBindings& bindings,
                                Action&& action) {
    CpuExecutionContext& context = cpu_context(session, kind);
    return std::forward<Action>(action)(context, bindings);
}
} // namespace CpuProcessStepDetail
using CpuProcessStepDetail::with_cpu_context;

// Calls one CPU kernel on the session's context for the registration's backend kind. The kernel
// reads its operands from the bindings by position.
class LaunchCpuKernelStep final : public BackendProcessStep {
public:
    using Kernel = std::function<void(CpuExecutionContext&, BackendExecutionBindings&)>;
    // Throws std::invalid_argument "LaunchCpuKernelStep - kernel must not be empty".
    LaunchCpuKernelStep(BackendKind backend, Kernel kernel);
    void execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) override;
    BackendKind backend() const noexcept { return backend_; }

private:
    BackendKind backend_;
    Kernel kernel_;
};

struct BackendExecutionPlan {
    BackendKind target = BackendKind::cpu_scalar;
    std::optional<std::int32_t> device;
    std::uint32_t cuda_options = 0;
    std::vector<BackendExecutionBindings::ValuePair> pairs;
};

// A single-use, move-only list of steps with an optional plan.
class BackendProcess {
public:
    // Processes hold a handful of steps: a vector, with the rare front insertion shifting them.
    using StepList = std::vector<std::unique_ptr<BackendProcessStep>>;

    BackendProcess() = default;
    BackendProcess(const BackendProcess&) = delete;
    BackendProcess& operator=(const BackendProcess&) = delete;
    BackendProcess(BackendProcess&&) noexcept = default;
    BackendProcess& operator=(BackendProcess&&) noexcept = default;
    ~BackendProcess() = default;

    void push_front(std::unique_ptr<BackendProcessStep> step);
    void push_back(std::unique_ptr<BackendProcessStep> step);
    void set_execution_plan(BackendExecutionPlan plan);
    void execute(BackendExecutionSession& session, BackendExecutionBindings& bindings, bool fail_fast);
    // Leaks the steps on purpose: a device may still use memory they own.
    void mark_unusable() noexcept;

    bool unusable() const noexcept { return unusable_; }
    std::size_t step_count() const noexcept { return steps_.size(); }
    bool empty() const noexcept { return step_count() == 0; }
    const std::optional<BackendExecutionPlan>& plan() const noexcept { return plan_; }
    // The step at an index (front is 0); for inspection only.
    const BackendProcessStep& step(std::size_t index) const;

private:
    void check_usable(const char* operation) const;
    void insert(std::unique_ptr<BackendProcessStep> step, bool front);

    StepList steps_;
    std::optional<BackendExecutionPlan> plan_;
    bool unusable_ = false;
};

// Produces a fresh process for one execution.
using BackendMaterialiser = std::function<BackendProcess()>;

// How a kernel's operands divide into independent tiles, by position: the `rows` operands (a
// vector's elements, a row-major matrix's rows) are cut into the same leading ranges and each
// range of the outputs depends only on the same ranges of the inputs; `whole` operands are seen
// entire by every tile. A kernel declares this only if its failures depend on shapes alone, so
// that a failure surfaces in the first tile, before any output is written. Empty: not tiled.
enum class TileAxis : std::uint8_t { whole, rows };
struct KernelTiling {
    static constexpr std::size_t kMaxOperands = 4;
    std::array<TileAxis, kMaxOperands> axes{};
    std::size_t count = 0;
    // The kernel is out = A x (A row-major, x whole, out cut like A's rows) with the split row dot,
    // so tiled dispatch may run an installed kernel on interleaved rows in place instead.
    bool row_dot = false;
    // The kernel is out = x + y or x - y on vectors; on interleaved complex operands that is the
    // same real operation on every component, so tiled dispatch may run it on the pairs in place.
    enum class Components : std::uint8_t { none, add, subtract };
    Components components = Components::none;

    KernelTiling() = default;
    KernelTiling(std::initializer_list<TileAxis> list);
    bool empty() const noexcept { return count == 0; }
};

// The materialiser of a process that is one LaunchCpuKernelStep. It is a named type so that a
// dispatcher can recognise such a registration (std::function::target) and launch its kernel
// directly, with the same session, failure and deferred-work handling as the process would have.
struct CpuKernelMaterialiser {
    BackendKind backend;
    LaunchCpuKernelStep::Kernel kernel;
    KernelTiling tiling{};

    BackendProcess operator()() const;
    void launch(BackendExecutionSession& session, BackendExecutionBindings& bindings, bool fail_fast) const;
};

// A materialiser whose process is the single LaunchCpuKernelStep of `kernel`.
BackendMaterialiser cpu_kernel_materialiser(BackendKind backend, LaunchCpuKernelStep::Kernel kernel,
                                            KernelTiling tiling = {});

} // namespace quillmark
