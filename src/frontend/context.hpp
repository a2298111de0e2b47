#pragma once
// The sealed result of a build and the execution context made over it.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "catalogue/operation_registry.hpp"
#include "dispatch/backend_dispatcher.hpp"
#include "dispatch/backend_registry.hpp"
#include "runtime/cpu_runtime_context.hpp"

namespace quillmark {

// Keeps a plugin's code loaded for as long as anything can call into it.
class PluginLibrary {
public:
    virtual ~PluginLibrary() = default;
};

// Read-only after the build; shared by every context made over it.
struct SealedCatalogue {
    OperationRegistry operations;
    BackendRegistry backends;
    BackendAdaptationRegistry adaptations;
    std::vector<std::shared_ptr<const PluginLibrary>> libraries;
};

class QuillmarkContext {
public:
    QuillmarkContext(std::shared_ptr<const SealedCatalogue> catalogue, CpuRuntimeOptions runtime_options);

    // Throws std::out_of_range "QuillmarkContext - operation '<id>' is not registered" when the
    // catalogue lacks the identifier (name and major version both).
    const OperationSpec& lookup(const OperationId& id) const;
    // The operation with a handle of the sealed catalogue; throws std::out_of_range
    // "QuillmarkContext - operation handle is not registered" otherwise.
    const OperationSpec& operation(std::uint32_t handle) const;

    const SealedCatalogue& catalogue() const noexcept { return *catalogue_; }
    const BackendDispatcher& dispatcher() const noexcept { return dispatcher_; }
    const std::shared_ptr<const CpuRuntimeContext>& runtime() const noexcept { return runtime_; }

private:
    std::shared_ptr<const SealedCatalogue> catalogue_;
    BackendDispatcher dispatcher_;
    std::vector<const OperationSpec*> by_handle_; // handle h at h - 1
    std::shared_ptr<const CpuRuntimeContext> runtime_;
};

} // namespace quillmark
