#include "frontend/context_builder.hpp"

#include <iterator>
#include <stdexcept>
#include <unordered_set>

#include "backend/cpu/cpu_kernel_registration.hpp"
#include "catalogue/builtin_operations.hpp"
#include "dispatch/layout_adaptation.hpp"
#include "frontend/plugin_loader.hpp"

namespace quillmark {
namespace {

std::string quoted(const OperationId& id) {
    std::string text = id.to_string();
    text.insert(text.begin(), '\'');
    text.push_back('\'');
    return text;
}

} // namespace

QuillmarkContextBuilder::QuillmarkContextBuilder(CpuBackends cpu) {
    install_cpu_layout_adapters(adaptations_);
    const RegistrationProvenance provenance = builtin_provenance();
    register_builtin_operations(catalogue_, provenance);
    if (cpu == CpuBackends::registered) register_cpu_backends(backends_, provenance);
}

void QuillmarkContextBuilder::register_backend(BackendRegistryKey key, BackendMaterialiser materialiser,
                                               RegistrationProvenance provenance,
                                               std::shared_ptr<const ImplementationNumerics> numerics) {
    if (sealed_) throw std::logic_error("QuillmarkContextBuilder::register_backend - builder has already been sealed");
    backends_.register_backend(std::move(key), std::move(materialiser), std::move(provenance), std::move(numerics));
}

void QuillmarkContextBuilder::load_plugin(const std::string& path) {
    if (sealed_) throw std::logic_error("QuillmarkContextBuilder::load_plugin - builder has already been sealed");
    if (path.empty()) throw std::invalid_argument("QuillmarkContextBuilder::load_plugin - path must not be empty");
    LoadedPlugin plugin = load_native_plugin(path, catalogue_, backends_);
    // Reserve first so that nothing can fail once the first copy is installed.
    libraries_.reserve(libraries_.size() + 1);
    source_kernels_.reserve(source_kernels_.size() + plugin.kernels.size());
    catalogue_ = std::move(plugin.catalogue);
    backends_ = std::move(plugin.backends);
    libraries_.push_back(std::move(plugin.library));
    std::move(plugin.kernels.begin(), plugin.kernels.end(), std::back_inserter(source_kernels_));
}

void QuillmarkContextBuilder::validate() const {
    const std::string prefix = "QuillmarkContextBuilder::build - ";
    for (const SourceKernel& kernel : source_kernels_) {
        if (!catalogue_.contains(kernel.operation))
            throw std::invalid_argument(prefix + "source kernel refers to unregistered operation " +
                                        quoted(kernel.operation));
        const OperationSpec& spec = catalogue_.lookup(kernel.operation);
        if (kernel.roles.size() != spec.roles().size())
            throw std::invalid_argument(prefix + "source kernel arity does not match operation " +
                                        quoted(kernel.operation));
        for (std::size_t i = 0; i < kernel.roles.size(); ++i) {
            const RoleDeclaration& declared = spec.roles()[i];
            const SourceKernel::Role& role = kernel.roles[i];
            const bool kind_ok = !declared.kind || role.kind == *declared.kind;
            const bool family_ok = !declared.kind || (role.family && *role.family == *declared.kind);
            if (!kind_ok || role.access != declared.access || !family_ok)
                throw std::invalid_argument(prefix + "source kernel role/access/family does not match operation " +
                                            quoted(kernel.operation));
        }
    }

    std::unordered_set<OperationId> implemented;
    for (const auto& [key, entry] : backends_.registrations()) {
        const OperationId& id = key.operation();
        if (!catalogue_.contains(id))
            throw std::invalid_argument(prefix + "backend refers to unregistered operation " + quoted(id));
        const OperationSpec& spec = catalogue_.lookup(id);
        if (key.inputs().size() != spec.input_count() || key.outputs().size() != spec.output_count())
            throw std::invalid_argument(prefix + "backend arity does not match operation " + quoted(id));
        const OperationNumerics* numerics = spec.numerics();
        auto check_rank = [&](OperandRole role, const BackendOperandKey& operand) {
            if (!numerics || numerics->shapes.empty()) return;
            const OperandShape* shape = numerics->shape(role);
            if (!shape) throw std::logic_error(prefix + "numerical shape is missing for " + quoted(id));
            if (shape->rank() != operand_rank(operand.operand_kind()))
                throw std::invalid_argument(prefix +
                                            "backend family rank does not match the numerical shape for operation " +
                                            quoted(id));
        };
        for (std::size_t i = 0; i < key.inputs().size(); ++i) check_rank(input_role(i), key.inputs()[i]);
        for (std::size_t j = 0; j < key.outputs().size(); ++j) check_rank(output_role(j), key.outputs()[j]);
        if (entry.materialise().empty())
            throw std::invalid_argument(prefix + "backend materialised an empty process for " + quoted(id));
        implemented.insert(id);
    }
    for (const OperationId& id : catalogue_.operations())
        if (!implemented.contains(id))
            throw std::invalid_argument(prefix + "operation has no implementation: " + quoted(id));
}

std::shared_ptr<const SealedCatalogue> QuillmarkContextBuilder::build() {
    if (sealed_) throw std::logic_error("QuillmarkContextBuilder::build - builder has already been sealed");
    validate();
    auto sealed = std::make_shared<SealedCatalogue>(
        SealedCatalogue{catalogue_, backends_, adaptations_, std::move(libraries_)});
    sealed->operations.seal();
    sealed->backends.seal(sealed->operations);
    sealed_ = true;
    return sealed;
}

} // namespace quillmark
