#include "frontend/plugin_loader.hpp"

#include <dlfcn.h>

#include <cstring>
#include <optional>
#include <stdexcept>

#include "frontend/plugin_abi.hpp"
#include "frontend/plugin_kernel_step.hpp"

namespace quillmark {
namespace {

using plugin_abi::KernelSchema;
using plugin_abi::OperandSchema;

constexpr std::uint32_t kMetadataSize = 64;
constexpr std::uint32_t kKernelSpecSize = 80;
constexpr std::uint32_t kOperationIdSize = 32;
constexpr std::uint32_t kOperandSize = 36; // also the stride of operand arrays, whatever struct_size says

[[noreturn]] void refuse(const std::string& message) { throw std::invalid_argument(message); }

std::string quoted(const OperationId& id) { return "'" + id.to_string() + "'"; }

OperandSchema decode_operand(const quillmark_backend_operand& raw) {
    if (raw.struct_size < kOperandSize) refuse("quillmark_backend_operand has an invalid struct_size");
    const auto kind = plugin_abi::kind(raw.kind);
    if (!kind) refuse("native plugin declared an invalid operand kind");
    const auto location = plugin_abi::location(raw.location);
    if (!location) refuse("native plugin declared an invalid location");
    const auto storage = plugin_abi::scalar_type(raw.storage_type);
    const auto compute = plugin_abi::scalar_type(raw.compute_type);
    if (!storage || !compute) refuse("native plugin declared an invalid scalar type");
    const auto complex = plugin_abi::complex_layout(raw.complex_layout);
    if (!complex) refuse("native plugin declared an invalid complex layout");
    const auto layout = plugin_abi::matrix_layout(raw.matrix_layout);
    if (!layout) refuse("native plugin declared an invalid matrix layout");
    const auto access = plugin_abi::access(raw.access);
    if (!access) refuse("native plugin declared an invalid access");
    const DataTypeDescriptor dtype(*storage, *compute);

    const bool complex_storage = is_complex_category(scalar_metadata(*storage).category);
    const bool layout_agrees = *kind == OperandKind::scalar ? *complex == ComplexLayout::none
                                                            : (*complex != ComplexLayout::none) == complex_storage;
    if (!layout_agrees) refuse("native plugin operand complex layout disagrees with its logical dtype");
    if ((*kind == OperandKind::scalar || *kind == OperandKind::vector) && *layout != MatrixLayout::none)
        refuse("native plugin scalar and vector kernels require QUILLMARK_MATRIX_LAYOUT_NONE");
    if (*kind == OperandKind::matrix && *layout == MatrixLayout::none)
        refuse("native plugin matrix kernels require row-major or column-major layout");

    quillmark_backend_operand declaration = raw;
    declaration.struct_size = kOperandSize;
    // LU and eigen storages keep their matrices column-major; an open declaration means that.
    const bool structured = *kind == OperandKind::lu || *kind == OperandKind::eigen;
    const MatrixLayout schema_layout = structured && *layout == MatrixLayout::none ? MatrixLayout::column_major : *layout;
    return OperandSchema{declaration, *access, *kind, *location, dtype, *complex, schema_layout};
}

// The roles an operation declared by this kernel would have: operands in role order, inputs
// (read) before outputs. nullopt when the operands cannot form such a signature.
std::optional<std::vector<RoleDeclaration>> declared_roles(const std::vector<OperandSchema>& operands) {
    std::vector<RoleDeclaration> roles;
    std::size_t inputs = 0;
    for (std::size_t i = 0; i < operands.size(); ++i) {
        const OperandSchema& operand = operands[i];
        const bool input = operand.access == OperandAccess::read;
        if (operand.declaration.role_index != i || (input && inputs != i)) return std::nullopt;
        roles.push_back({input ? input_role(i) : output_role(i - inputs), operand.access, operand.kind});
        if (input) ++inputs;
    }
    return roles;
}

struct Declaration {
    OperationId operation;
    std::vector<RoleDeclaration> roles;
};

// The host context of one quillmark_plugin_init call.
class Registration {
public:
    Registration(const OperationRegistry& catalogue, const quillmark_plugin_metadata& metadata,
                 plugin_abi::ErrorCapture& capture) noexcept
        : catalogue_(catalogue), metadata_(metadata), capture_(capture) {}

    static quillmark_status entry(void* context, const quillmark_kernel_spec* spec) noexcept {
        if (!context) return QUILLMARK_STATUS_INVALID_ARGUMENT;
        return static_cast<Registration*>(context)->accept(spec);
    }

    std::vector<KernelSchema> kernels;
    std::vector<Declaration> declarations; // operations of the plugin's namespace, in first-use order
    std::optional<std::string> first_failure;

private:
    quillmark_status accept(const quillmark_kernel_spec* spec) noexcept {
        try {
            take(spec);
            return QUILLMARK_STATUS_OK;
        } catch (const std::exception& e) {
            return fail(e.what(), dynamic_cast<const std::logic_error*>(&e) ? QUILLMARK_STATUS_INVALID_ARGUMENT
                                                                          : QUILLMARK_STATUS_INTERNAL_ERROR);
        } catch (...) {
            return fail("native plugin registration failed", QUILLMARK_STATUS_INTERNAL_ERROR);
        }
    }

    quillmark_status fail(const char* message, quillmark_status status) noexcept {
        try {
            capture_.set_message(message);
            if (!first_failure) first_failure = message;
        } catch (...) {
        }
        return status;
    }

    void take(const quillmark_kernel_spec* spec) {
        if (!spec) refuse("native plugin supplied a null kernel registration");
        if (spec->struct_size < kKernelSpecSize) refuse("quillmark_kernel_spec has an invalid struct_size");
        if (spec->operation.struct_size < kOperationIdSize) refuse("quillmark_operation_id has an invalid struct_size");
        OperationId operation(plugin_abi::read_string(spec->operation.name, "operation name"), spec->operation.major);
        if (spec->backend == QUILLMARK_BACKEND_CUDA) refuse("native plugin registered CUDA code with CUDA disabled");
        if (spec->backend != QUILLMARK_BACKEND_CPU_SCALAR && spec->backend != QUILLMARK_BACKEND_CPU_SIMD)
            refuse("native plugin declared an invalid backend");
        if (!spec->kernel) refuse("native kernel callback must not be null");
        if (!spec->operands || spec->operand_count == 0) refuse("native kernel operand array is malformed");

        std::vector<OperandSchema> operands;
        const auto* records = reinterpret_cast<const unsigned char*>(spec->operands);
        for (std::uint64_t i = 0; i < spec->operand_count; ++i) {
            quillmark_backend_operand raw;
            std::memcpy(&raw, records + i * kOperandSize, sizeof raw);
            operands.push_back(decode_operand(raw));
        }

        // Compare with the operation, declaring it first when it is new and in the namespace.
        std::optional<Declaration> declaration;
        std::span<const RoleDeclaration> roles;
        if (catalogue_.contains(operation)) {
            roles = catalogue_.lookup(operation).roles();
        } else if (const Declaration* known = declared(operation)) {
            roles = known->roles;
        } else if (in_namespace(operation)) {
            auto declared = declared_roles(operands);
            if (!declared)
                refuse("native kernel role/access/family does not match operation " + quoted(operation));
            declaration = Declaration{operation, std::move(*declared)};
            roles = declaration->roles;
        } else {
            refuse("native kernel refers to unregistered operation " + quoted(operation));
        }
        if (operands.size() != roles.size())
            refuse("native kernel arity does not match operation " + quoted(operation));
        for (std::size_t i = 0; i < operands.size(); ++i) {
            const OperandSchema& operand = operands[i];
            if (operand.declaration.role_index != i || operand.access != roles[i].access ||
                (roles[i].kind && *roles[i].kind != operand.kind))
                refuse("native kernel role/access/family does not match operation " + quoted(operation));
        }

        bool writes = false;
        for (const OperandSchema& operand : operands) {
            writes = writes || operand.access != OperandAccess::read;
            if (operand.buffers().size() > plugin_abi::kMaxOperandBuffers)
                refuse("native kernel operand schema has too many storage buffers");
        }
        if (!writes) refuse("native kernel must have at least one write or read-write operand");

        const auto backend = static_cast<BackendKind>(spec->backend - 1);
        kernels.push_back({operation, backend, std::move(operands), spec->kernel, spec->user_data});
        if (declaration) declarations.push_back(std::move(*declaration));
    }

    const Declaration* declared(const OperationId& operation) const noexcept {
        for (const Declaration& d : declarations)
            if (d.operation == operation) return &d;
        return nullptr;
    }

    // Whether the operation lies in the namespace the metadata names right now.
    bool in_namespace(const OperationId& operation) const {
        const quillmark_string& id = metadata_.plugin_id;
        if (id.size == 0 || !id.data) return false;
        const std::string_view name = operation.name();
        return name.size() > id.size && name.compare(0, id.size, std::string_view(id.data, id.size)) == 0 &&
               name[id.size] == '.';
    }

    const OperationRegistry& catalogue_;
    const quillmark_plugin_metadata& metadata_;
    plugin_abi::ErrorCapture& capture_;
};

BackendOperandKey operand_key(const OperandSchema& operand) {
    std::optional<MatrixLayout> layout;
    if (operand.layout != MatrixLayout::none) layout = operand.layout;
    return BackendOperandKey::make(operand.kind, operand.location, operand.dtype.storage(), operand.dtype.compute(),
                                   operand.complex, layout);
}

} // namespace

// A path with a NUL names no file; dlopen would read only the part before it.
NativePluginLibrary::NativePluginLibrary(std::string path)
    : path_(std::move(path)),
      handle_(path_.find('\0') == std::string::npos ? dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr) {
    if (handle_) return;
    std::string shown; // what() ends at a NUL, so the message spells it out
    for (char c : path_) shown += c == '\0' ? std::string("\\0") : std::string(1, c);
    throw std::invalid_argument("failed to load native plugin '" + shown + "'");
}

NativePluginLibrary::~NativePluginLibrary() { dlclose(handle_); }

void* NativePluginLibrary::symbol(const char* name) const noexcept { return dlsym(handle_, name); }

void NativePluginLibrary::set_identity(std::string id, std::string version, std::string description) {
    id_ = std::move(id);
    version_ = std::move(version);
    description_ = std::move(description);
}

LoadedPlugin load_native_plugin(const std::string& path, const OperationRegistry& catalogue,
                                const BackendRegistry& backends) {
    auto library = std::make_shared<NativePluginLibrary>(path);
    constexpr const char* entry_name = "quillmark_plugin_init";
    const auto init = reinterpret_cast<quillmark_plugin_init_fn>(library->symbol(entry_name));
    if (!init)
        refuse(std::string("failed to resolve '") + entry_name + "' in native plugin '" + path + "'");

    quillmark_plugin_metadata metadata{};
    metadata.struct_size = kMetadataSize;
    plugin_abi::ErrorCapture capture;
    Registration registration(catalogue, metadata, capture);
    const quillmark_host host{sizeof(quillmark_host), QUILLMARK_ABI_REVISION, &registration, &Registration::entry};
    const quillmark_status status = init(&host, &metadata, capture.record());

    if (status != QUILLMARK_STATUS_OK)
        throw plugin_abi::plugin_error("QuillmarkContextBuilder::load_plugin", "native plugin initialisation",
                                       std::nullopt, status, capture.message());
    if (metadata.struct_size < kMetadataSize) refuse("quillmark_plugin_metadata has an invalid struct_size");
    if (registration.first_failure)
        refuse("native plugin ignored a failed host registration: " + *registration.first_failure);
    if (metadata.abi_revision != QUILLMARK_ABI_REVISION)
        refuse("native plugin ABI revision mismatch: expected " + std::to_string(QUILLMARK_ABI_REVISION) +
               ", received " + std::to_string(metadata.abi_revision));
    std::string id = plugin_abi::read_string(metadata.plugin_id, "plugin ID");
    std::string version = plugin_abi::read_string(metadata.plugin_version, "plugin version");
    if (version.empty()) refuse("native plugin version must not be empty");
    std::string description = plugin_abi::read_string(metadata.description, "plugin description");

    bool cuda = false;
    for (const KernelSchema& kernel : registration.kernels) cuda = cuda || kernel.backend == BackendKind::cuda;
    const std::uint32_t lowest = metadata.cuda_runtime_min, highest = metadata.cuda_runtime_max;
    if (cuda) {
        if (lowest != 0 && highest != 0 && lowest > highest) refuse("native plugin CUDA runtime range is malformed");
        refuse("native plugin requires CUDA but Quillmark was built without CUDA");
    }
    if (lowest != 0 || highest != 0) refuse("native CPU plugin declared CUDA runtime requirements");

    OperationId::validate_name(id + ".probe");
    if (id == "quillmark" || id.starts_with("quillmark."))
        refuse("native plugin may not use the reserved 'quillmark' namespace");
    if (registration.kernels.empty()) refuse("native plugin must register at least one kernel");
    for (const KernelSchema& kernel : registration.kernels)
        if (!kernel.operation.name().starts_with(id + "."))
            refuse("native kernel operation " + quoted(kernel.operation) + " is outside plugin namespace '" + id + "'");

    library->set_identity(id, version, std::move(description));
    LoadedPlugin loaded{catalogue, backends, library, {}};
    const RegistrationProvenance provenance(id, version);
    for (Declaration& declaration : registration.declarations)
        loaded.catalogue.register_operation(OperationSpec(declaration.operation, std::move(declaration.roles)),
                                            provenance);
    for (KernelSchema& kernel : registration.kernels) {
        const OperationSpec& spec = loaded.catalogue.lookup(kernel.operation);
        std::vector<BackendOperandKey> inputs, outputs;
        SourceKernel source{kernel.operation, {}};
        for (std::size_t i = 0; i < kernel.operands.size(); ++i) {
            const OperandSchema& operand = kernel.operands[i];
            (i < spec.input_count() ? inputs : outputs).push_back(operand_key(operand));
            source.roles.push_back({operand.kind, operand.access, operand.kind});
        }
        BackendRegistryKey key(kernel.backend, kernel.operation, std::move(inputs), std::move(outputs));
        auto schema = std::make_shared<const KernelSchema>(std::move(kernel));
        loaded.backends.register_backend(std::move(key), native_kernel_materialiser(std::move(schema), library),
                                         provenance);
        loaded.kernels.push_back(std::move(source));
    }
    return loaded;
}

const NativePluginLibrary* find_native_plugin(std::span<const std::shared_ptr<const PluginLibrary>> libraries,
                                              const RegistrationProvenance& provenance) noexcept {
    for (const auto& library : libraries) {
        const auto* plugin = dynamic_cast<const NativePluginLibrary*>(library.get());
        if (plugin && plugin->id() == provenance.owner_id() && plugin->version() == provenance.version())
            return plugin;
    }
    return nullptr;
}

} // namespace quillmark
