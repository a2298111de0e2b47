#pragma once
// NativeKernelStep: one execution of a plugin kernel, with the bound operands described to the
// plugin in the C records of the plugin interface.
#include <memory>

#include "dispatch/backend_process.hpp"
#include "frontend/plugin_abi.hpp"

namespace quillmark {

class PluginLibrary;

class NativeKernelStep final : public BackendProcessStep {
public:
    // The library handle keeps the kernel's code loaded while the step exists.
    NativeKernelStep(std::shared_ptr<const plugin_abi::KernelSchema> kernel,
                     std::shared_ptr<const PluginLibrary> library) noexcept;

    // Operands are read from the bindings by position, in the kernel's operand order. Marshalling
    // faults throw before the callback is called; a non-OK status throws BackendLibraryError.
    void execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) override;

private:
    std::shared_ptr<const plugin_abi::KernelSchema> kernel_;
    std::shared_ptr<const PluginLibrary> library_;
};

// A materialiser whose process is the single NativeKernelStep of `kernel`.
BackendMaterialiser native_kernel_materialiser(std::shared_ptr<const plugin_abi::KernelSchema> kernel,
                                               std::shared_ptr<const PluginLibrary> library);

} // namespace quillmark
