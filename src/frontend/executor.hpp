#pragma once
#include <span>

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
    // The same for a caller that has resolved the operation and described every operand already:
    // one descriptor and one binding per role of `spec`, both in role order. The descriptors are
    // the ones dispatch and the shape rule see, so they must describe the bound operands.
    void execute(const OperationSpec& spec, std::span<const OperandDescriptor> descriptors,
                 std::span<const OperationBindings::Binding> operands, bool fail_fast = false) const;

private:
    void run(const OperationSpec& spec, std::span<const OperandDescriptor> descriptors,
             std::span<const OperationBindings::Binding* const> operands, bool fail_fast) const;
    const QuillmarkContext* context_;
};

} // namespace quillmark
