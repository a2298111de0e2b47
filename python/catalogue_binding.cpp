// _Catalogue and ContextBuilder: building, sealing and describing operation catalogues.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <mutex>
#include <stdexcept>

#include "catalogue/description.hpp"
#include "frontend/context_builder.hpp"
#include "frontend/plugin_loader.hpp"
#include "module_parts.hpp"
#include "native_types.hpp"

namespace quillmark::python {
namespace {

using namespace nb::literals;

struct NativeContextBuilder {
    QuillmarkContextBuilder builder;
    bool built = false;
};

nb::object to_python(const Description& value) {
    if (value.is_null())
        return nb::none();
    if (value.is_bool())
        return nb::bool_(value.as_bool());
    if (value.is_int())
        return nb::int_(value.as_int());
    if (value.is_double())
        return nb::float_(value.as_double());
    if (value.is_string())
        return nb::str(value.as_string().c_str(), value.as_string().size());
    if (value.is_list()) {
        nb::list list;
        for (const Description& item : value.as_list())
            list.append(to_python(item));
        return list;
    }
    nb::dict dict;
    for (const auto& [key, item] : value.as_dict())
        dict[nb::str(key.c_str(), key.size())] = to_python(item);
    return dict;
}

// One operand of a registration key, with the access that the operation declares for its role.
Description describe_key_operand(OperandRole role, OperandAccess access, const BackendOperandKey& key) {
    const std::int8_t alternative = key.format_alternative();
    const StorageFormat format =
        alternative == BackendOperandKey::vector_format || alternative == BackendOperandKey::matrix_format
            ? static_cast<StorageFormat>(key.format)
            : StorageFormat::dense;
    return describe_operand(role, access, key.operand_kind(), key.storage_type(), key.compute_type(),
                            key.operand_location(), format, key.complex_layout(),
                            key.matrix_layout().value_or(MatrixLayout::none));
}

// Native registrations also name their plugin and its one-line description.
Description provenance_of(const SealedCatalogue& catalogue, const RegistrationProvenance& provenance) {
    Description d = describe_provenance(provenance);
    if (provenance.origin() == 0) return d;
    d.set("owner", provenance.owner_id());
    const NativePluginLibrary* plugin = find_native_plugin(catalogue.libraries, provenance);
    d.set("description", plugin ? Description(plugin->description()) : Description());
    return d;
}

Description describe_implementations(const SealedCatalogue& catalogue, const OperationSpec& spec) {
    const auto roles = spec.roles();
    const std::size_t inputs = spec.input_count();
    Description list = Description::list();
    for (const auto& [key, entry] : catalogue.backends.registrations_for(spec.handle())) {
        Description operands = Description::list();
        for (std::size_t i = 0; i < key->inputs().size(); ++i)
            operands.push_back(describe_key_operand(input_role(i), roles[i].access, key->inputs()[i]));
        for (std::size_t j = 0; j < key->outputs().size(); ++j)
            operands.push_back(
                describe_key_operand(output_role(j), roles[inputs + j].access, key->outputs()[j]));
        Description implementation = Description::dict();
        implementation.set("backend", backend_kind_name(key->backend()));
        implementation.set("operands", std::move(operands));
        implementation.set("numerics", entry->numerics() ? describe(*entry->numerics()) : Description());
        implementation.set("provenance", provenance_of(catalogue, entry->provenance()));
        list.push_back(std::move(implementation));
    }
    return list;
}

nb::object describe_by_id(const NativeCatalogue& self, const std::string& operation) {
    const OperationId id = OperationId::parse(operation);
    const OperationRegistry::Entry& entry = self.sealed->operations.entry(id);
    Description description = quillmark::describe_operation(entry);
    description.set("provenance", provenance_of(*self.sealed, entry.provenance));
    description.set("implementations", describe_implementations(*self.sealed, entry.spec));
    return to_python(description);
}

bool contains_operation(const NativeCatalogue& self, const std::string& operation) {
    try {
        return self.sealed->operations.contains(OperationId::parse(operation));
    } catch (const std::invalid_argument&) {
        return false; // a malformed identifier names nothing
    }
}

nb::tuple operations(const NativeCatalogue& self) {
    nb::list names;
    for (const OperationId& id : self.sealed->operations.operations())
        names.append(nb::str(id.to_string().c_str()));
    return nb::tuple(names);
}

NativeCatalogue build(NativeContextBuilder& self) {
    if (self.built)
        throw std::runtime_error("ContextBuilder has already been built");
    NativeCatalogue catalogue{self.builder.build()};
    self.built = true;
    return catalogue;
}

} // namespace

std::shared_ptr<const SealedCatalogue> builtin_catalogue() {
    // Built once per process and shared by every context made without a catalogue. Callers hold
    // the interpreter lock, so the build never waits on another Python thread.
    static std::mutex mutex;
    static std::shared_ptr<const SealedCatalogue> cached;
    std::lock_guard lock(mutex);
    if (!cached)
        cached = QuillmarkContextBuilder().build();
    return cached;
}

void bind_catalogue(nb::module_& m) {
    nb::class_<NativeCatalogue>(
        m, "_Catalogue",
        "A sealed operation catalogue with its backends, produced by ContextBuilder.build().")
        .def("contains_operation", &contains_operation, "operation"_a,
             "Whether the catalogue holds the operation named by its canonical identifier ('name@major').")
        .def("operations", &operations, nb::sig("def operations(self) -> tuple[str, ...]"),
             "The canonical identifiers of all operations, in registration order.")
        .def("describe", &describe_by_id, "operation"_a,
             nb::sig("def describe(self, operation: str) -> dict[str, typing.Any]"),
             "The machine-readable description of one operation: 'id', 'handle', 'roles', 'numerics',\n"
             "'provenance' and 'implementations' (one dict per backend registration with 'backend',\n"
             "'operands', 'numerics' and 'provenance'). Raises IndexError for an operation that is not\n"
             "registered and ValueError for a malformed identifier.");

    nb::class_<NativeContextBuilder>(
        m, "ContextBuilder",
        "Collects native plugins on top of the built-in operations and CPU backends,\n"
        "and seals them once into a _Catalogue.")
        .def(nb::init<>(), "A fresh builder holding the built-in catalogue and the CPU backends.")
        .def(
            "load_plugin",
            [](nb::pointer_and_handle<NativeContextBuilder> self, const std::string& path) -> nb::object {
                self.p->builder.load_plugin(path);
                return nb::borrow(self.h);
            },
            "path"_a, nb::sig("def load_plugin(self, path: str) -> ContextBuilder"),
            "Load one native plugin library into the builder and return the same builder. A plugin that\n"
            "fails leaves the builder as it was.")
        .def("build", &build,
             "Validate and seal the builder's registries and return the catalogue. A builder builds once.");
}

} // namespace quillmark::python
