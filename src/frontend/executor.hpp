#pragma once
#include "catalogue/operation_id.hpp"
#include "frontend/context.hpp"
#include "frontend/operation_bindings.hpp"

namespace quillmark {

// Runs one bound operation: checks the bindings, dispatches, and runs the process on the CPU
// runtime. Returns only after the run has completed.
class QuillmarkExecutor {
public:
    explicit QuillmarkExecutor(const QuillmarkContext& context) noexcept : context_(&context) {}
    // `fail_fast` skips the end-of-execution clean-up on a step failure.
    void execute(const OperationBindings& bindings, const OperationId& operation, bool fail_fast = false) const;

private:
    const QuillmarkContext* context_;
};

} // namespace quillmark
