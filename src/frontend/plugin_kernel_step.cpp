#include "frontend/plugin_kernel_step.hpp"

#include <stdexcept>
#include <string>

namespace quillmark {
namespace {

using plugin_abi::kMaxOperandBuffers;
using plugin_abi::OperandSchema;

constexpr const char* kMarshalling = "native kernel operand marshalling - ";

struct MarshalledOperand {
    std::array<quillmark_buffer_descriptor, kMaxOperandBuffers> buffers{};
    std::size_t count = 0;
};

void marshal(const OperandEntity& operand, const OperandSchema& schema, MarshalledOperand& out) {
    if (operand.storage_format() != StorageFormat::dense)
        throw std::logic_error("native kernel invocation requires dense storage");
    if (operand.kind() != schema.kind)
        throw std::logic_error("native kernel binding family differs from its sealed signature");
    const ErasedBufferAccess& storage = operand.erased_access();
    for (std::size_t index = 0; index < storage.buffer_count(); ++index) {
        const BufferDescriptor buffer = storage.buffer(index);
        if (static_cast<std::uint32_t>(buffer.role) > static_cast<std::uint32_t>(BufferRole::eigenvectors))
            throw std::logic_error("native operand has an unknown storage buffer role");
        if (index >= kMaxOperandBuffers) throw std::logic_error("native operand requires too many storage buffers");
        if (buffer.element_count != 0 && !buffer.data)
            throw std::invalid_argument(std::string(kMarshalling) + std::string(buffer_role_name(buffer.role)) +
                                        " buffer is null");
        out.buffers[index] = {sizeof(quillmark_buffer_descriptor),
                              static_cast<std::uint32_t>(buffer.role) + 1,
                              buffer.element_count,
                              buffer.data,
                              {buffer.shape[0], buffer.shape[1]},
                              plugin_abi::scalar_code(buffer.scalar_type)};
        out.count = index + 1;
    }

    const std::vector<OperandSchema::Buffer> expected = schema.buffers();
    if (expected.size() != out.count)
        throw std::logic_error(std::string(kMarshalling) + "descriptor buffer count mismatch");
    for (std::size_t index = 0; index < out.count; ++index) {
        const BufferDescriptor buffer = storage.buffer(index);
        const char* disagreement = nullptr;
        if (buffer.role != expected[index].role) disagreement = "buffer role";
        else if (buffer.scalar_type != expected[index].scalar_type) disagreement = "scalar type";
        else if (expected[index].layout != MatrixLayout::none && buffer.element_count != 0 &&
                 buffer.layout != expected[index].layout)
            disagreement = "matrix layout";
        if (disagreement)
            throw std::invalid_argument(std::string(kMarshalling) + "descriptor disagrees with " + disagreement);
    }
}

} // namespace

NativeKernelStep::NativeKernelStep(std::shared_ptr<const plugin_abi::KernelSchema> kernel,
                                   std::shared_ptr<const PluginLibrary> library) noexcept
    : kernel_(std::move(kernel)), library_(std::move(library)) {}

void NativeKernelStep::execute(BackendExecutionSession&, BackendExecutionBindings& bindings) {
    const plugin_abi::KernelSchema& kernel = *kernel_;
    if (kernel.backend == BackendKind::cuda) throw std::logic_error("native CUDA kernel reached a CPU-only build");

    const std::size_t count = kernel.operands.size();
    std::vector<MarshalledOperand> buffers(count);
    std::vector<quillmark_operand_entry> entries(count);
    for (std::size_t i = 0; i < count; ++i) {
        const OperandSchema& schema = kernel.operands[i];
        marshal(bindings.operand(i), schema, buffers[i]);
        quillmark_operand_entry& entry = entries[i];
        entry.struct_size = sizeof(quillmark_operand_entry);
        entry.declaration_size = sizeof(quillmark_backend_operand);
        entry.declaration = schema.declaration;
        entry.buffers = buffers[i].buffers.data();
        entry.buffer_count = buffers[i].count;
    }

    const auto backend = static_cast<std::uint32_t>(kernel.backend) + 1;
    const quillmark_kernel_invocation invocation{
        sizeof(quillmark_kernel_invocation), backend, -1, 0, nullptr, entries.data(), count};
    plugin_abi::ErrorCapture capture;
    const quillmark_status status = kernel.callback(kernel.user_data, &invocation, capture.record());
    if (status != QUILLMARK_STATUS_OK)
        throw plugin_abi::plugin_error(kernel.operation.to_string(), "native kernel", kernel.backend, status,
                                       capture.message());
}

BackendMaterialiser native_kernel_materialiser(std::shared_ptr<const plugin_abi::KernelSchema> kernel,
                                               std::shared_ptr<const PluginLibrary> library) {
    return [kernel = std::move(kernel), library = std::move(library)] {
        BackendProcess process;
        process.push_back(std::make_unique<NativeKernelStep>(kernel, library));
        return process;
    };
}

} // namespace quillmark
