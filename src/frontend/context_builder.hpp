#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "catalogue/numerics.hpp"
#include "frontend/context.hpp"

namespace quillmark {

// A kernel declaration brought by a plugin, checked against the catalogue at build.
struct SourceKernel {
    struct Role {
        OperandKind kind;
        OperandAccess access;
        std::optional<OperandKind> family;
    };
    OperationId operation;
    std::vector<Role> roles;
};

// Gathers the catalogue, backends, adapters and plugins, validates them and seals them once.
class QuillmarkContextBuilder {
public:
    enum class CpuBackends { registered, omitted };

    // Installs the CPU layout adapters and the built-in operations, then (unless omitted, which
    // tests use to supply their own implementations) the CPU backends.
    explicit QuillmarkContextBuilder(CpuBackends cpu = CpuBackends::registered);

    void load_plugin(const std::string& path);
    void register_backend(BackendRegistryKey key, BackendMaterialiser materialiser,
                          RegistrationProvenance provenance,
                          std::shared_ptr<const ImplementationNumerics> numerics = nullptr);
    std::shared_ptr<const SealedCatalogue> build();

    bool sealed() const noexcept { return sealed_; }
    const OperationRegistry& catalogue() const noexcept { return catalogue_; }
    const BackendRegistry& backends() const noexcept { return backends_; }

    static RegistrationProvenance builtin_provenance() { return RegistrationProvenance(std::string("0.1.1")); }

private:
    void validate() const;

    OperationRegistry catalogue_;
    BackendRegistry backends_;
    BackendAdaptationRegistry adaptations_;
    std::vector<std::shared_ptr<const PluginLibrary>> libraries_;
    std::vector<SourceKernel> source_kernels_;
    bool sealed_ = false;
};

} // namespace quillmark
