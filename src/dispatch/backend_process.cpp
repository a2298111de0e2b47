#include "dispatch/backend_process.hpp"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string>

namespace quillmark {

// ---- BackendExecutionBindings ----

std::size_t BackendExecutionBindings::bind_read(const OperandEntity& operand) {
    slots_.push_back(Slot{&operand, nullptr, nullptr});
    return slots_.size() - 1;
}

std::size_t BackendExecutionBindings::bind_write(OperandEntity& operand) {
    slots_.push_back(Slot{&operand, &operand, nullptr});
    return slots_.size() - 1;
}

const BackendExecutionBindings::Slot& BackendExecutionBindings::slot(std::size_t position) const {
    if (position >= slots_.size())
        throw std::out_of_range("BackendExecutionBindings - operand position is out of range");
    return slots_[position];
}

BackendExecutionBindings::Slot& BackendExecutionBindings::slot(std::size_t position) {
    return const_cast<Slot&>(std::as_const(*this).slot(position));
}

const OperandEntity& BackendExecutionBindings::operand(std::size_t position) const {
    const Slot& s = slot(position);
    return s.temporary ? *s.temporary : *s.operand;
}

OperandEntity* BackendExecutionBindings::mutable_operand(std::size_t position) {
    Slot& s = slot(position);
    return s.temporary ? s.temporary.get() : s.writable;
}

const OperandEntity& BackendExecutionBindings::original(std::size_t position) const { return *slot(position).operand; }

OperandEntity* BackendExecutionBindings::mutable_original(std::size_t position) { return slot(position).writable; }

OperandEntity* BackendExecutionBindings::temporary(std::size_t position) { return slot(position).temporary.get(); }

bool BackendExecutionBindings::substituted(std::size_t position) const {
    return slot(position).temporary != nullptr;
}

void BackendExecutionBindings::substitute(std::size_t position, std::unique_ptr<OperandEntity> temporary) {
    Slot& s = slot(position);
    if (!temporary) throw std::invalid_argument("BackendExecutionBindings::substitute - temporary must not be null");
    if (s.temporary) throw std::logic_error("BackendExecutionBindings::substitute - operand is already substituted");
    s.temporary = std::move(temporary);
}

void BackendExecutionBindings::install_pairs(std::span<const ValuePair> pairs) {
    if (pairs.empty()) return;
    values_.reserve(values_.size() + pairs.size());
    for (const auto& [key, value] : pairs) values_.emplace(key, value);
}

std::optional<std::uint32_t> BackendExecutionBindings::value(std::uint32_t key) const {
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

void BackendExecutionBindings::defer(DeferredWork work) {
    if (!work) throw std::invalid_argument("BackendExecutionBindings::defer - deferred work must not be empty");
    deferred_.push_back(std::move(work));
}

void BackendExecutionBindings::complete_deferred_work() {
    std::vector<DeferredWork> items = std::move(deferred_);
    deferred_.clear();
    std::exception_ptr first;
    for (auto& item : items) {
        try {
            item();
        } catch (...) {
            if (!first) first = std::current_exception();
        }
    }
    if (first) std::rethrow_exception(first);
}

// ---- Session and CPU contexts ----

BackendExecutionSession::BackendExecutionSession(std::shared_ptr<const CpuRuntimeContext> runtime)
    : scalar_(BackendKind::cpu_scalar, runtime), simd_(BackendKind::cpu_simd, std::move(runtime)) {}

CpuExecutionContext& BackendExecutionSession::cpu(BackendKind kind) {
    if (kind == BackendKind::cpu_scalar) return scalar_;
    if (kind == BackendKind::cpu_simd) return simd_;
    throw std::logic_error("BackendExecutionSession::cpu - non-CPU backend requested");
}

void BackendExecutionSession::enter() {
    if (active_) throw std::logic_error("BackendExecutionSession - nested process execution is unsupported");
    active_ = true;
}

CpuExecutionContext& CpuProcessStepDetail::cpu_context(BackendExecutionSession& session, BackendKind kind) {
    if (!is_cpu_backend(kind))
        throw std::invalid_argument("CpuProcessStepDetail::with_cpu_context - CPU backend required");
    return session.cpu(kind);
}

LaunchCpuKernelStep::LaunchCpuKernelStep(BackendKind backend, Kernel kernel)
    : backend_(backend), kernel_(std::move(kernel)) {
    if (!kernel_) throw std::invalid_argument("LaunchCpuKernelStep - kernel must not be empty");
}

void LaunchCpuKernelStep::execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) {
    with_cpu_context(session, backend_, bindings, kernel_);
}

KernelTiling::KernelTiling(std::initializer_list<TileAxis> list) {
    if (list.size() > kMaxOperands) throw std::invalid_argument("KernelTiling - too many operands");
    std::copy(list.begin(), list.end(), axes.begin());
    count = list.size();
}

BackendMaterialiser cpu_kernel_materialiser(BackendKind backend, LaunchCpuKernelStep::Kernel kernel,
                                            KernelTiling tiling) {
    if (!kernel) throw std::invalid_argument("LaunchCpuKernelStep - kernel must not be empty");
    return CpuKernelMaterialiser{backend, std::move(kernel), tiling};
}

BackendProcess CpuKernelMaterialiser::operator()() const {
    BackendProcess process;
    process.push_back(std::make_unique<LaunchCpuKernelStep>(backend, kernel));
    return process;
}

// ---- BackendProcess ----

namespace {
constexpr const char* kUnusableSuffix = " - process is unusable after CUDA completion could not be confirmed";

struct SessionScope {
    BackendExecutionSession& session;
    explicit SessionScope(BackendExecutionSession& s) : session(s) { session.enter(); }
    ~SessionScope() { session.leave(); }
    SessionScope(const SessionScope&) = delete;
    SessionScope& operator=(const SessionScope&) = delete;
};

// Runs the steps inside the session; unless fail_fast, deferred work then completes, on success and
// on failure alike, and a failure of the steps is rethrown after it.
template <class Steps>
void run_in_session(BackendExecutionSession& session, BackendExecutionBindings& bindings, bool fail_fast,
                    Steps&& steps) {
    std::exception_ptr failure;
    {
        SessionScope scope(session);
        try {
            steps();
        } catch (...) {
            failure = std::current_exception();
        }
    }

    if (fail_fast) {
        if (failure) std::rethrow_exception(failure);
        return;
    }
    if (!failure && !bindings.has_deferred_work()) return;
    bindings.complete_deferred_work(); // a failure here replaces the step's
    if (failure) std::rethrow_exception(failure);
}
} // namespace

void CpuKernelMaterialiser::launch(BackendExecutionSession& session, BackendExecutionBindings& bindings,
                                   bool fail_fast) const {
    run_in_session(session, bindings, fail_fast, [&] { with_cpu_context(session, backend, bindings, kernel); });
}

void BackendProcess::check_usable(const char* operation) const {
    if (unusable_) throw std::logic_error(std::string(operation) + kUnusableSuffix);
}

void BackendProcess::insert(std::unique_ptr<BackendProcessStep> step, bool front) {
    check_usable(front ? "BackendProcess::push_front" : "BackendProcess::push_back");
    if (!step)
        throw std::invalid_argument(front ? "BackendProcess::push_front - null step" : "BackendProcess::push_back - null step");
    if (front) steps_.insert(steps_.begin(), std::move(step));
    else steps_.push_back(std::move(step));
}

void BackendProcess::push_front(std::unique_ptr<BackendProcessStep> step) { insert(std::move(step), true); }
void BackendProcess::push_back(std::unique_ptr<BackendProcessStep> step) { insert(std::move(step), false); }

void BackendProcess::set_execution_plan(BackendExecutionPlan plan) {
    check_usable("BackendProcess::set_execution_plan");
    if (plan.device && *plan.device < 0)
        throw std::invalid_argument("BackendProcess::set_execution_plan - CUDA device id must be non-negative");
    if (plan.target != BackendKind::cuda && (plan.device || plan.cuda_options != 0))
        throw std::invalid_argument("BackendProcess::set_execution_plan - CPU plan cannot specify CUDA execution options");
    plan_ = std::move(plan);
}

const BackendProcessStep& BackendProcess::step(std::size_t index) const {
    if (index >= step_count()) throw std::out_of_range("BackendProcess::step - step index is out of range");
    return *steps_[index];
}

void BackendProcess::execute(BackendExecutionSession& session, BackendExecutionBindings& bindings, bool fail_fast) {
    check_usable("BackendProcess::execute");
    if (plan_) {
        if (plan_->target == BackendKind::cuda)
            throw std::invalid_argument("BackendProcess::execute - CUDA plan requires a CUDA-enabled build");
        bindings.install_pairs(plan_->pairs);
    }

    run_in_session(session, bindings, fail_fast, [&] {
        for (auto& step : steps_) step->execute(session, bindings);
    });
}

void BackendProcess::mark_unusable() noexcept {
    unusable_ = true;
    for (auto& step : steps_) (void)step.release();
    steps_.clear();
}

} // namespace quillmark
