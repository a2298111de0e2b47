// NativeKernelStep over hand-made storages: what the kernel receives, and every marshalling
// refusal, which must come before the callback runs.
#include <gtest/gtest.h>

#include "test_support.hpp"

#include <vector>

#include "core/errors.hpp"
#include "frontend/plugin_kernel_step.hpp"

using namespace quillmark;
using quillmark::testing::message_of;

namespace {

// A vector whose buffers and storage format a test chooses.
class HandMadeVector final : public VectorEntity, public ErasedBufferAccess {
public:
    explicit HandMadeVector(std::vector<BufferDescriptor> buffers, StorageFormat format = StorageFormat::dense)
        : buffers_(std::move(buffers)), format_(format) {}
    const DataTypeDescriptor& dtype() const noexcept override { return dtype_; }
    StorageFormat storage_format() const noexcept override { return format_; }
    ComplexLayout complex_layout() const noexcept override { return ComplexLayout::none; }
    MatrixLayout matrix_layout() const noexcept override { return MatrixLayout::none; }
    std::array<std::uint64_t, 2> extent() const noexcept override { return {3, 0}; }
    const ErasedBufferAccess& erased_access() const noexcept override { return *this; }
    std::size_t buffer_count() const noexcept override { return buffers_.size(); }

protected:
    BufferDescriptor describe_buffer(std::size_t index) const noexcept override { return buffers_[index]; }

private:
    std::vector<BufferDescriptor> buffers_;
    StorageFormat format_;
    DataTypeDescriptor dtype_{ScalarType::float64, ScalarType::float64};
};

// How often the kernel ran, and the status it answers with.
struct Seen {
    int calls = 0;
    quillmark_status reply = QUILLMARK_STATUS_OK;
};
Seen seen;

quillmark_status record(void* user, const quillmark_kernel_invocation*, const quillmark_error_capture*) {
    EXPECT_EQ(user, &seen);
    ++seen.calls;
    return seen.reply;
}

std::shared_ptr<const plugin_abi::KernelSchema> kernel(BackendKind backend = BackendKind::cpu_scalar,
                                                       OperandKind kind = OperandKind::vector) {
    quillmark_backend_operand declaration{36, 0, QUILLMARK_ACCESS_WRITE, QUILLMARK_OPERAND_VECTOR,
                                          QUILLMARK_LOCATION_PAGEABLE_HOST, QUILLMARK_SCALAR_FLOAT64,
                                          QUILLMARK_COMPLEX_LAYOUT_NONE, QUILLMARK_MATRIX_LAYOUT_NONE,
                                          QUILLMARK_SCALAR_FLOAT64};
    plugin_abi::OperandSchema operand{declaration,
                                      OperandAccess::write,
                                      kind,
                                      Location::pageable_host,
                                      DataTypeDescriptor(ScalarType::float64, ScalarType::float64),
                                      ComplexLayout::none,
                                      kind == OperandKind::matrix ? MatrixLayout::row_major : MatrixLayout::none};
    return std::make_shared<const plugin_abi::KernelSchema>(
        plugin_abi::KernelSchema{OperationId("probe.fill", 1), backend, {operand}, &record, &seen});
}

void run(const std::shared_ptr<const plugin_abi::KernelSchema>& schema, HandMadeVector& operand) {
    BackendExecutionBindings bindings;
    bindings.bind_write(operand);
    BackendExecutionSession session;
    NativeKernelStep(schema, nullptr).execute(session, bindings);
}

double values[4];
BufferDescriptor buffer(BufferRole role = BufferRole::data, std::uint64_t count = 3, void* data = values) {
    BufferDescriptor d = BufferDescriptor::of(values, count, role, {count, 0});
    d.data = data;
    return d;
}

struct Refusal {
    std::vector<BufferDescriptor> buffers;
    const char* message;
    StorageFormat format = StorageFormat::dense;
    OperandKind schema_kind = OperandKind::vector;
    BackendKind backend = BackendKind::cpu_scalar;
};

} // namespace

TEST(NativeKernelStep, RefusesBeforeCallingTheKernel) {
    BufferDescriptor int_buffer = BufferDescriptor::of(reinterpret_cast<std::int32_t*>(values), 3);
    const std::vector<Refusal> refusals{
        {{buffer(BufferRole::data, 0, nullptr)}, ""}, // an empty buffer needs no data
        {{buffer()}, "native kernel invocation requires dense storage", StorageFormat::sparse},
        {{buffer()}, "native kernel binding family differs from its sealed signature", StorageFormat::dense,
         OperandKind::matrix},
        {{buffer(static_cast<BufferRole>(8))}, "native operand has an unknown storage buffer role"},
        {{buffer(), buffer(), buffer(), buffer()}, "native operand requires too many storage buffers"},
        {{buffer(BufferRole::real, 3, nullptr)}, "native kernel operand marshalling - real buffer is null"},
        {{buffer(), buffer()}, "native kernel operand marshalling - descriptor buffer count mismatch"},
        {{buffer(BufferRole::eigenvalues)}, "native kernel operand marshalling - descriptor disagrees with buffer role"},
        {{int_buffer}, "native kernel operand marshalling - descriptor disagrees with scalar type"},
        {{buffer()}, "native CUDA kernel reached a CPU-only build", StorageFormat::dense, OperandKind::vector,
         BackendKind::cuda}};
    for (const Refusal& r : refusals) {
        seen = {};
        HandMadeVector operand(r.buffers, r.format);
        EXPECT_EQ(message_of([&] { run(kernel(r.backend, r.schema_kind), operand); }), r.message);
        EXPECT_EQ(seen.calls, *r.message ? 0 : 1) << r.message;
    }
}

// Statuses with messages are run end to end by the plugin suite; a negative one without a message
// must still name a status and end without a colon.
TEST(NativeKernelStep, FailingStatusWithoutMessageBecomesTheLibraryError) {
    seen = {};
    seen.reply = -7;
    HandMadeVector operand({buffer()});
    try {
        run(kernel(BackendKind::cpu_simd), operand);
        FAIL() << "no error for status -7";
    } catch (const BackendLibraryError& e) {
        EXPECT_STREQ(e.what(), "native kernel on the CPU SIMD backend failed with plugin status -7");
        EXPECT_EQ(e.native_status(), -7);
        EXPECT_EQ(e.status_name(), "QUILLMARK_STATUS_UNKNOWN");
        EXPECT_EQ(e.operation(), "probe.fill@1");
    }
}
