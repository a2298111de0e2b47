#pragma once
// Loading a native plugin library: the entry point call, the host's registration function and
// every check made on what the plugin hands over.
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "frontend/context.hpp"
#include "frontend/context_builder.hpp"

namespace quillmark {

// One dlopen'ed plugin; dlclose'd when the last owner lets go. Registry entries of the plugin's
// kernels hold it, so it outlives every catalogue that can call into it.
class NativePluginLibrary final : public PluginLibrary {
public:
    // Throws std::invalid_argument "failed to load native plugin '<path>'".
    explicit NativePluginLibrary(std::string path);
    ~NativePluginLibrary() override;
    NativePluginLibrary(const NativePluginLibrary&) = delete;
    NativePluginLibrary& operator=(const NativePluginLibrary&) = delete;

    void* symbol(const char* name) const noexcept;
    const std::string& path() const noexcept { return path_; }
    // Filled from the metadata once the plugin has passed every check.
    const std::string& id() const noexcept { return id_; }
    const std::string& version() const noexcept { return version_; }
    const std::string& description() const noexcept { return description_; }
    void set_identity(std::string id, std::string version, std::string description);

private:
    std::string path_;
    void* handle_;
    std::string id_;
    std::string version_;
    std::string description_;
};

// What a plugin adds, on copies of the builder's registries; the builder installs it whole.
struct LoadedPlugin {
    OperationRegistry catalogue;
    BackendRegistry backends;
    std::shared_ptr<const NativePluginLibrary> library;
    std::vector<SourceKernel> kernels;
};

// Loads, lets the plugin register and checks it; the caller has checked the path. Validation
// failures throw std::invalid_argument; a failing plugin status throws BackendLibraryError.
LoadedPlugin load_native_plugin(const std::string& path, const OperationRegistry& catalogue,
                                const BackendRegistry& backends);

// The loaded plugin that registered under this provenance, or nullptr.
const NativePluginLibrary* find_native_plugin(std::span<const std::shared_ptr<const PluginLibrary>> libraries,
                                              const RegistrationProvenance& provenance) noexcept;

} // namespace quillmark
