// Context: CPU runtime options over a sealed catalogue, and execution of catalogue operations on
// NumPy arrays and structured operands.
#include <nanobind/nanobind.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>

#include <cstddef>
#include <cstring>
#include <memory_resource>
#include <stdexcept>
#include <string_view>

#include "catalogue/builtin_operations.hpp"
#include "dispatch/backend_registry.hpp"
#include "frontend/executor.hpp"
#include "frontend/operation_bindings.hpp"
#include "module_parts.hpp"
#include "native_types.hpp"
#include "storage/dense_host_storage.hpp"

namespace quillmark::python {
namespace {

using namespace nb::literals;

CpuPolicy parse_policy(const std::string& word, const char* message) {
    if (word == "disabled")
        return CpuPolicy::disabled;
    if (word == "auto")
        return CpuPolicy::auto_;
    if (word == "strict")
        return CpuPolicy::strict;
    throw std::invalid_argument(message);
}

void init_context(NativeContext* self, std::uint64_t thread_count, std::uint64_t min_parallel_work,
                  std::int64_t cuda_device, std::int64_t /*stream_pool_size*/,
                  std::optional<std::int64_t> /*external_stream*/, const std::string& numa_policy,
                  const std::string& pinning_policy, const std::string& /*scheduling*/,
                  const std::string& /*cross_device*/, const NativeCatalogue* catalogue) {
    CpuRuntimeOptions options;
    options.numa_policy = parse_policy(numa_policy, "Context - invalid NUMA policy");
    options.pinning_policy = parse_policy(pinning_policy, "Context - invalid thread-pinning policy");
    options.thread_count = thread_count;
    options.min_parallel_work = min_parallel_work;
    auto sealed = catalogue ? catalogue->sealed : builtin_catalogue();
    auto context = std::make_shared<const QuillmarkContext>(std::move(sealed), std::move(options));
    if (cuda_device >= 0)
        throw std::runtime_error("Context - this Quillmark wheel has no CUDA backend");
    new (self) NativeContext{std::move(context), min_parallel_work, cuda_device, {}};
}

// The memory of one bound array as marshalling placed it, for the overlap decision.
struct ArrayOperand {
    std::byte* data = nullptr;
    std::uint64_t bytes = 0; // 0: not an array (structured operand, bool scalar) or empty
    ScalarType storage = ScalarType::float64;
    OperandKind kind = OperandKind::scalar;
    std::array<std::uint64_t, 2> extent{};
    MatrixLayout layout = MatrixLayout::none;
    bool copied = false; // rebound to a private copy

    bool overlaps(const ArrayOperand& other) const noexcept {
        if (bytes == 0 || other.bytes == 0)
            return false;
        const auto a = reinterpret_cast<std::uintptr_t>(data), b = reinterpret_cast<std::uintptr_t>(other.data);
        return a < b + other.bytes && b < a + bytes;
    }
    bool same_array(const ArrayOperand& other) const noexcept {
        return data == other.data && bytes == other.bytes && storage == other.storage && kind == other.kind &&
               extent == other.extent && layout == other.layout;
    }
};

// What one execution binds, in role order; destroyed only once the interpreter lock is held again
// (the array exports are released then).
struct Marshalled {
    struct BoolResult {
        std::uint8_t* target;
        const BoundRealScalarEntity<PolicyI32>* value;
    };
    struct CopyBack {
        std::byte* target;
        const std::byte* source;
        std::uint64_t bytes;
    };
    explicit Marshalled(std::size_t roles) {
        arrays.reserve(roles);
        entities.reserve(roles);
        descriptors.reserve(roles);
        operands.reserve(roles);
        memory.reserve(roles);
        outputs.reserve(roles);
    }
    Marshalled(const Marshalled&) = delete;
    Marshalled& operator=(const Marshalled&) = delete;

    // Everything below lives in this arena, which a call with a few operands never outgrows: the
    // marshalling of a small call makes no heap allocation of its own.
    alignas(std::max_align_t) std::array<std::byte, 4096> buffer;
    std::pmr::monotonic_buffer_resource arena{buffer.data(), buffer.size()};

    std::pmr::vector<ArrayFacts> arrays{&arena};
    std::pmr::vector<BorrowedEntity> entities{&arena};
    std::pmr::vector<OperandDescriptor> descriptors{&arena};
    std::pmr::vector<OperationBindings::Binding> operands{&arena};
    std::pmr::vector<ArrayOperand> memory{&arena};
    std::pmr::vector<nb::object> outputs{&arena};
    std::pmr::vector<BoolResult> bools{&arena};
    std::pmr::vector<std::unique_ptr<std::byte[]>> scratch{&arena}; // private copies of overlapping arrays
    std::pmr::vector<CopyBack> copy_backs{&arena};                  // outputs computed in scratch, in role order
};

std::invalid_argument failure(const std::string& text) {
    return std::invalid_argument("Context.execute - " + text);
}

OperandKind kind_of_rank(std::size_t rank) noexcept {
    return rank == 0 ? OperandKind::scalar : rank == 1 ? OperandKind::vector : OperandKind::matrix;
}

// The matrix layout a contiguous array is read in; vectors and scalars carry none.
MatrixLayout array_layout(const ArrayFacts& facts) {
    if (facts.ndim == 2) {
        if (facts.c_contiguous)
            return MatrixLayout::row_major;
        if (facts.f_contiguous)
            return MatrixLayout::column_major;
    } else if (facts.ndim < 2 && facts.c_contiguous) {
        return MatrixLayout::none;
    }
    throw failure("array binding must be contiguous");
}

std::array<std::uint64_t, 2> array_extent(const ArrayFacts& facts) {
    if (facts.ndim == 0)
        return {0, 0};
    if (facts.ndim == 1)
        return {facts.shape[0], 0};
    return facts.shape;
}

void check_rank(const ArrayFacts& facts, OperandKind kind) {
    if (facts.ndim > 2)
        throw failure("array binding rank must be zero, one or two");
    switch (kind) {
    case OperandKind::scalar:
        if (facts.ndim != 0)
            throw failure("scalar binding must have rank zero");
        break;
    case OperandKind::vector:
        if (facts.ndim != 1)
            throw failure("vector binding must have rank one");
        break;
    case OperandKind::matrix:
        if (facts.ndim != 2)
            throw failure("matrix binding must have rank two");
        break;
    default:
        throw failure("structured binding requires LUOperand or EigenOperand");
    }
}

std::invalid_argument uncompiled(const std::string& compute, const std::string& storage) {
    return failure("uncompiled storage/compute dtype policy (compute=" + compute +
                   "); array storage dtypes: " + storage);
}

[[noreturn]] void refuse_low_precision() {
    throw std::invalid_argument(
        "low-precision binding requires aligned, native-endian contiguous storage and writable output");
}

StructuredOperand* structured_operand(nb::handle object) {
    if (nb::isinstance<NativeLUOperand>(object))
        return nb::inst_ptr<NativeLUOperand>(object);
    if (nb::isinstance<NativeEigenOperand>(object))
        return nb::inst_ptr<NativeEigenOperand>(object);
    return nullptr;
}

// The dict key of a role ("Input0", "Output1"); the common ones are made once.
nb::str role_key(OperandRole role) {
    constexpr std::uint32_t kCached = 8;
    static PyObject* cached[2][kCached] = {};
    const bool output = is_output_role(role);
    const std::uint32_t index = role_index(role);
    if (index >= kCached) {
        const std::string text = role_text(role);
        return nb::str(text.c_str(), text.size());
    }
    PyObject*& key = cached[output][index];
    if (!key)
        key = PyUnicode_InternFromString(role_text(role).c_str());
    return nb::borrow<nb::str>(key);
}

// A borrowed value, or null when the key is absent; a failing key comparison propagates.
PyObject* dict_item(PyObject* dict, PyObject* key) {
    PyObject* value = PyDict_GetItemWithError(dict, key);
    if (!value && PyErr_Occurred())
        throw nb::python_error();
    return value;
}

// The descriptor of a borrowed array entity, from what marshalling already knows.
OperandDescriptor describe_array(OperandRole role, const OperandEntity& entity, OperandKind kind,
                                 std::array<std::uint64_t, 2> extent, MatrixLayout layout) {
    OperandDescriptor d;
    d.role = role;
    d.kind = kind;
    d.dtype = entity.dtype();
    d.complex_layout = entity.complex_layout();
    d.matrix_layout = layout;
    d.extent = extent;
    return d;
}

// `word` is an interned constant: the usual literal matches by identity.
bool is_word(PyObject* object, PyObject* word) {
    return object == word || (PyUnicode_Check(object) && PyUnicode_Compare(object, word) == 0);
}

PyObject* interned(const char* text) { return PyUnicode_InternFromString(text); }

void bind(Marshalled& out, const RoleDeclaration& role, OperandEntity& entity, const OperandDescriptor& descriptor) {
    out.descriptors.push_back(descriptor);
    if (role.access == OperandAccess::read)
        out.operands.push_back({&entity, nullptr});
    else
        out.operands.push_back({&entity, &entity});
}

void bind(Marshalled& out, const RoleDeclaration& role, OperandEntity& entity) {
    bind(out, role, entity, describe_operand(entity, role.role));
}

void marshal_role(const RoleDeclaration& role, const nb::dict& bindings, const nb::dict& locations,
                  const nb::dict& compute_dtypes, Marshalled& out) {
    const nb::str key = role_key(role.role);
    PyObject* bound = dict_item(bindings.ptr(), key.ptr());
    if (!bound)
        throw failure("missing binding " + role_text(role.role));
    PyObject* location = dict_item(locations.ptr(), key.ptr());
    if (!location)
        throw failure("missing location for " + role_text(role.role));
    static PyObject* const host = interned("host");
    static PyObject* const cuda_word = interned("cuda");
    const bool cuda = is_word(location, cuda_word);
    if (!cuda && !is_word(location, host))
        throw failure("invalid location for " + role_text(role.role));
    PyObject* compute = PyDict_GET_SIZE(compute_dtypes.ptr()) ? dict_item(compute_dtypes.ptr(), key.ptr()) : nullptr;

    const nb::handle object(bound);
    if (is_output_role(role.role))
        out.outputs.push_back(nb::borrow(object));
    const bool writes = role.access != OperandAccess::read;
    out.memory.emplace_back();

    // Structured roles. A role without a declared kind takes the kind of what is bound to it.
    const bool array = is_ndarray(object);
    const bool is_lu = !array && nb::isinstance<NativeLUOperand>(object);
    const bool is_eigen = !array && nb::isinstance<NativeEigenOperand>(object);
    const bool lu_role = role.kind ? *role.kind == OperandKind::lu : is_lu;
    const bool eigen_role = role.kind ? *role.kind == OperandKind::eigen : is_eigen;
    if (eigen_role) {
        if (cuda)
            throw failure("CUDA eigen binding requires CudaEigenOperand");
        if (!is_eigen)
            throw failure("host eigen binding requires EigenOperand");
    }
    if ((is_lu || is_eigen || lu_role || eigen_role) && compute)
        throw failure("structured operand compute dtype is fixed at construction");
    if (lu_role) {
        if (!is_lu)
            throw failure("LU binding requires LUOperand");
        if (cuda)
            throw failure("LUOperand must use host residency");
    }
    if (lu_role || eigen_role) {
        // Structured operands live in their own storage, which no array can share.
        out.arrays.emplace_back();
        bind(out, role, *structured_operand(object)->entity);
        return;
    }
    if (cuda)
        throw failure("CUDA binding requires a CUDA-enabled build");

    // Arrays.
    if (!array)
        throw std::invalid_argument("host binding requires a NumPy ndarray");
    const ArrayFacts& facts = out.arrays.emplace_back(object);
    if (facts.ndim > 2)
        throw failure("array binding rank must be zero, one or two");
    const OperandKind kind = role.kind.value_or(kind_of_rank(facts.ndim));
    check_rank(facts, kind);

    std::optional<ScalarType> compute_type;
    std::string compute_name;
    if (compute) {
        if (!PyUnicode_Check(compute))
            throw nb::type_error("Context.execute - compute dtypes must be strings");
        compute_name = nb::cast<std::string>(nb::handle(compute));
        compute_type = scalar_type_from_name(compute_name);
    } else if (facts.is_bool) {
        compute_type = ScalarType::int32;
    } else if (facts.storage) {
        compute_type = default_compute(*facts.storage);
    }
    const auto compute_text = [&] {
        return compute ? compute_name : compute_type ? std::string(scalar_name(*compute_type)) : facts.dtype_name();
    };

    if (facts.is_bool) {
        // The kernel writes an int32 scalar; the array receives value != 0 after the run.
        if (!is_output_role(role.role) || kind != OperandKind::scalar)
            throw failure("bool arrays are supported only for scalar outputs");
        if (compute_type != ScalarType::int32)
            throw failure("bool outputs require int32 compute dtype");
        if (!facts.writeable)
            throw failure("bool scalar bindings must be writable");
        auto* target = static_cast<std::uint8_t*>(facts.data);
        auto scalar = std::make_unique<BoundRealScalarEntity<PolicyI32>>(*target != 0 ? 1 : 0);
        out.bools.push_back({target, scalar.get()});
        bind(out, role, *scalar);
        out.entities.emplace_back(scalar.release());
        return;
    }

    if (!facts.storage || !compute_type || !is_compiled_policy(*facts.storage, *compute_type))
        throw uncompiled(compute_text(), facts.dtype_name());

    if (facts.low_precision() && (!facts.c_contiguous || !facts.native || (writes && !facts.writeable)))
        refuse_low_precision();
    // The 16-bit element types are reached through 2-byte references: an odd address is refused
    // with the same message for float16 as for the two low-precision types.
    if (!facts.aligned && (facts.low_precision() || *facts.storage == ScalarType::float16))
        refuse_low_precision();
    const MatrixLayout layout = array_layout(facts);
    if (!facts.aligned || !facts.native)
        throw failure("array binding must be aligned and native-endian");
    if (writes && !facts.writeable)
        throw failure("output binding must be writable");

    const auto extent = array_extent(facts);
    auto entity = borrow_storage(*facts.storage, kind, facts.data, extent, layout, &out.arena);
    bind(out, role, *entity, describe_array(role.role, *entity, kind, extent, layout));
    out.entities.push_back(std::move(entity));
    out.memory.back() = {static_cast<std::byte*>(facts.data), facts.byte_size(), *facts.storage, kind, extent,
                         layout, false};
}

// Rebinds position `i` to a private copy of its array's current contents.
std::byte* privatise(Marshalled& m, std::size_t i) {
    ArrayOperand& array = m.memory[i];
    auto& copy = m.scratch.emplace_back(new std::byte[array.bytes]);
    std::memcpy(copy.get(), array.data, array.bytes);
    auto entity = borrow_storage(array.storage, array.kind, copy.get(), array.extent, array.layout, &m.arena);
    OperationBindings::Binding& binding = m.operands[i];
    binding = {entity.get(), binding.writable ? entity.get() : nullptr};
    m.entities.push_back(std::move(entity));
    array.copied = true;
    return copy.get();
}

// Makes the call behave as if every input had been read before any output is written, as NumPy
// does: an input that shares memory with an output is read from a private copy, unless the output
// is exactly that input and the operation works element by element. Outputs that share memory
// with each other are computed in private copies and written back in role order.
void separate_overlaps(Marshalled& m, std::size_t inputs, bool elementwise) {
    const std::size_t count = m.memory.size();
    for (std::size_t j = inputs; j < count; ++j) {
        for (std::size_t i = 0; i < inputs; ++i) {
            if (m.memory[i].copied || !m.memory[j].overlaps(m.memory[i]))
                continue;
            if (elementwise && m.memory[j].same_array(m.memory[i]))
                continue;
            privatise(m, i);
        }
    }
    for (std::size_t j = inputs; j < count; ++j) {
        bool shared = false;
        for (std::size_t k = inputs; k < count && !shared; ++k)
            shared = k != j && m.memory[j].overlaps(m.memory[k]);
        if (shared)
            m.copy_backs.push_back({m.memory[j].data, privatise(m, j), m.memory[j].bytes});
    }
}

// The operation a text names, resolved once per text and context and then found by handle.
struct Resolved {
    const OperationSpec* spec;
    bool elementwise;
};

Resolved resolve(const NativeContext& self, nb::handle operation) {
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(operation.ptr(), &size);
    if (!text)
        throw nb::python_error();
    const std::string_view name(text, static_cast<std::size_t>(size));
    for (const auto& known : self.resolved)
        if (known.text == name)
            return {&self.context->operation(known.handle), known.elementwise};
    const OperationSpec& spec = self.context->lookup(OperationId::parse(std::string(name)));
    const bool elementwise = builtin_elementwise(spec.id());
    if (self.resolved.size() < NativeContext::kResolvedTexts)
        self.resolved.push_back({std::string(name), spec.handle(), elementwise});
    return {&spec, elementwise};
}

nb::object execute(const NativeContext& self, const nb::str& operation, const nb::dict& bindings,
                   const nb::dict& locations, const nb::dict& compute_dtypes) {
    const Resolved resolved = resolve(self, operation);
    const OperationSpec& spec = *resolved.spec;
    const auto roles = spec.roles();
    if (nb::len(bindings) != roles.size() || nb::len(locations) != roles.size())
        throw failure("binding count does not match operation");
    for (auto [key, value] : compute_dtypes)
        if (!bindings.contains(key))
            throw failure("compute dtype role has no binding");

    Marshalled marshalled(roles.size());
    for (const RoleDeclaration& role : roles)
        marshal_role(role, bindings, locations, compute_dtypes, marshalled);
    if (marshalled.operands.size() != roles.size())
        throw std::logic_error("Context.execute - failed to marshal every binding");
    separate_overlaps(marshalled, spec.input_count(), resolved.elementwise);

    {
        nb::gil_scoped_release release;
        QuillmarkExecutor(*self.context).execute(spec, marshalled.descriptors, marshalled.operands);
        for (const auto& result : marshalled.bools)
            *result.target = result.value->value() != 0 ? 1 : 0;
        for (const auto& back : marshalled.copy_backs)
            std::memcpy(back.target, back.source, back.bytes);
    }

    if (marshalled.outputs.size() == 1)
        return std::move(marshalled.outputs.front());
    nb::list outputs;
    for (const nb::object& output : marshalled.outputs)
        outputs.append(output);
    return nb::tuple(outputs);
}

// An input as dispatch would see it when bound to `role` for execution on the host.
OperandDescriptor describe_input(nb::handle object, OperandRole role) {
    if (StructuredOperand* structured = structured_operand(object))
        return describe_operand(*structured->entity, role);
    if (!is_ndarray(object))
        throw std::invalid_argument("host binding requires a NumPy ndarray");
    const ArrayFacts facts = inspect_array(object);
    if (facts.ndim > 2)
        throw failure("array binding rank must be zero, one or two");
    const std::string compute = facts.is_bool   ? "int32"
                                : facts.storage ? std::string(scalar_name(default_compute(*facts.storage)))
                                                : facts.dtype_name();
    if (!facts.storage || !is_compiled_policy(*facts.storage, default_compute(*facts.storage)))
        throw uncompiled(compute, facts.dtype_name());
    auto entity = borrow_storage(*facts.storage, kind_of_rank(facts.ndim), facts.data, array_extent(facts),
                                 array_layout(facts));
    return describe_operand(*entity, role);
}

nb::tuple result_policy(const NativeContext& self, const std::string& operation, const nb::list& inputs,
                        const nb::tuple& output_shape, const std::string& output_dtype) {
    const OperationId id = OperationId::parse(operation);
    const OperationSpec& spec = self.context->lookup(id);

    std::vector<BackendOperandKey> keys;
    for (std::size_t i = 0; i < nb::len(inputs); ++i)
        keys.push_back(operand_key(describe_input(inputs[i], input_role(i))));

    DenseResultRequest request;
    switch (nb::len(output_shape)) {
    case 0:
        request.kind = OperandKind::scalar;
        break;
    case 1:
        request.kind = OperandKind::vector;
        break;
    case 2:
        request.kind = OperandKind::matrix;
        request.layout = MatrixLayout::row_major;
        break;
    default:
        throw std::invalid_argument("result policy - expected a dense scalar, vector or matrix");
    }
    if (!output_dtype.empty()) {
        request.output_dtype = scalar_type_from_name(output_dtype);
        if (!request.output_dtype)
            throw std::invalid_argument("scalar_metadata - unknown scalar type");
    }
    static constexpr BackendKind backends[] = {BackendKind::cpu_scalar, BackendKind::cpu_simd};
    const SealedCatalogue& catalogue = self.context->catalogue();
    const DataTypeDescriptor policy = catalogue.backends.infer_dense_result_policy(
        spec.handle(), backends, keys, request, catalogue.adaptations);
    return nb::make_tuple(std::string(scalar_name(policy.storage())),
                          std::string(scalar_name(policy.compute())));
}

} // namespace

void bind_context(nb::module_& m) {
    nb::class_<NativeContext>(
        m, "Context",
        "An execution context: the CPU runtime (threads, NUMA and pinning policies) over a\n"
        "sealed catalogue.\n\n"
        "Contexts are read-only once made and may be shared between threads; each execution\n"
        "runs on the calling thread with the interpreter lock released.")
        .def("__init__", &init_context, "thread_count"_a = 0, "min_parallel_work"_a = 32768,
             "cuda_device"_a = -1, "stream_pool_size"_a = 32, "external_stream"_a = nb::none(),
             "numa_policy"_a = "auto", "pinning_policy"_a = "auto", "scheduling"_a = "auto",
             "cross_device"_a = "reject", "catalogue"_a.none() = nb::none(),
             "Create a context.\n\n"
             "thread_count 0 lets the runtime choose; min_parallel_work is the smallest amount of\n"
             "work split across threads; numa_policy and pinning_policy are 'disabled', 'auto' or\n"
             "'strict'. A catalogue of None uses the built-in catalogue. cuda_device,\n"
             "stream_pool_size, external_stream, scheduling and cross_device belong to the CUDA\n"
             "path, which this build lacks: any cuda_device >= 0 is refused.")
        .def_prop_ro(
            "thread_count", [](const NativeContext& self) { return self.context->runtime()->thread_count(); },
            "The number of CPU threads in force.")
        .def_prop_ro(
            "min_parallel_work", [](const NativeContext& self) { return self.min_parallel_work; },
            "The smallest amount of work that is split across threads.")
        .def_prop_ro(
            "cuda_device", [](const NativeContext& self) { return self.cuda_device; },
            "The CUDA device requested (-1: none).")
        .def(
            "synchronise", [](const NativeContext&) {},
            "Wait for outstanding work. CPU executions complete before execute returns, so\n"
            "this returns at once.")
        .def("execute", &execute, "operation"_a, "bindings"_a, "locations"_a, "compute_dtypes"_a = nb::dict(),
             nb::sig("def execute(self, operation: str, bindings: dict[str, typing.Any], "
                     "locations: dict[str, str], compute_dtypes: dict[str, str] = {}) -> typing.Any"),
             "Run one catalogue operation.\n\n"
             "bindings maps role names ('Input0', 'Output0', ...) to NumPy arrays (rank 0 for\n"
             "scalars) or structured operands; locations maps every role to 'host' or 'cuda';\n"
             "compute_dtypes optionally names a compute dtype per array role. Arrays are used in\n"
             "place, never copied; outputs are written into them. Returns the single output\n"
             "object, or a tuple of the outputs in role order.")
        .def("_result_policy", &result_policy, "operation"_a, "inputs"_a, "output_shape"_a,
             "output_dtype"_a = "",
             nb::sig("def _result_policy(self, operation: str, inputs: list[typing.Any], "
                     "output_shape: tuple[int, ...], output_dtype: str = '') -> tuple[str, str]"),
             "The (dtype, compute_dtype) names of the dense result that the registered implementations\n"
             "would produce for these inputs (in role order); len(output_shape) gives the result kind\n"
             "(0 scalar, 1 vector, 2 row-major matrix). An empty output_dtype leaves the dtype open.");
}

} // namespace quillmark::python
