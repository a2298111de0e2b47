#pragma once
// CPU layout adaptation of complex operands: interleaved <-> split vectors and row-major
// matrices, and interleaved matrices between row-major and column-major order.
#include <complex>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "core/low_precision.hpp"
#include "core/operand_types.hpp"
#include "dispatch/backend_dispatcher.hpp"
#include "dispatch/backend_process.hpp"
#include "dispatch/backend_registry.hpp"
#include "storage/operand_entity.hpp"

namespace quillmark {

// A row-major -> column-major copy of rows x cols complex64 matrices (dst[j*rows + i] =
// src[i*cols + j]) that the CPU backend installs, since dispatch cannot reach its vector
// engines. It answers false when it cannot run here, and the portable loop copies instead.
using Complex64Relayout = bool (*)(const std::complex<float>* src, std::complex<float>* dst, std::uint64_t rows,
                                   std::uint64_t cols) noexcept;
void install_complex64_relayout(Complex64Relayout kernel) noexcept;

// Interleaved <-> split copies of complex double and single data that the CPU backend installs
// from its vector engines; a null member keeps the portable loop. Exact copies, count first.
struct ComplexPlaneCopies {
    void (*split_f64)(std::uint64_t n, const double* interleaved, double* re, double* im) noexcept = nullptr;
    void (*interleave_f64)(std::uint64_t n, const double* re, const double* im, double* interleaved) noexcept = nullptr;
    void (*split_f32)(std::uint64_t n, const float* interleaved, float* re, float* im) noexcept = nullptr;
    void (*interleave_f32)(std::uint64_t n, const float* re, const float* im, float* interleaved) noexcept = nullptr;
};
void install_complex_plane_copies(const ComplexPlaneCopies& copies) noexcept;

// Whether the CPU adapters bridge requested key A to registered key B.
bool cpu_layout_can_adapt(const BackendOperandKey& requested, const BackendOperandKey& registered) noexcept;

// Builds an adapted copy of the operand at `position` and substitutes it in the bindings.
// One instantiation per adapted entity kind (VectorEntity, MatrixEntity).
template <class Entity> class AdaptOperandStep final : public BackendProcessStep {
public:
    // Creates the temporary in the registered layout; null means the allocation failed.
    using Construct = std::function<std::unique_ptr<Entity>(const Entity& source)>;
    // Converts the caller's data into the temporary.
    using Adapt = std::function<void(CpuExecutionContext&, const Entity& source, Entity& temporary)>;

    AdaptOperandStep(std::size_t position, Construct construct, Adapt adapt)
        : position_(position), construct_(std::move(construct)), adapt_(std::move(adapt)) {}
    void execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) override;
    std::size_t position() const noexcept { return position_; }

private:
    std::size_t position_;
    Construct construct_;
    Adapt adapt_;
};
using AdaptVectorStep = AdaptOperandStep<VectorEntity>;
using AdaptMatrixStep = AdaptOperandStep<MatrixEntity>;
extern template class AdaptOperandStep<VectorEntity>;
extern template class AdaptOperandStep<MatrixEntity>;

// Converts the temporary at `position` back into the caller's (writable) operand.
class RestoreAdaptedStep final : public BackendProcessStep {
public:
    using Restore = std::function<void(CpuExecutionContext&, const OperandEntity& temporary, OperandEntity& original)>;
    RestoreAdaptedStep(std::size_t position, Restore restore) : position_(position), restore_(std::move(restore)) {}
    void execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) override;
    std::size_t position() const noexcept { return position_; }

private:
    std::size_t position_;
    Restore restore_;
};

// ---- Conversions on raw buffers (exact copies, unrolled by four with a scalar tail) ----

void interleaved_to_split(const Complex32* source, Float16* re, Float16* im, std::uint64_t count) noexcept;
void interleaved_to_split(const std::complex<float>* source, float* re, float* im, std::uint64_t count) noexcept;
void interleaved_to_split(const std::complex<double>* source, double* re, double* im, std::uint64_t count) noexcept;
void split_to_interleaved(const Float16* re, const Float16* im, Complex32* destination, std::uint64_t count) noexcept;
void split_to_interleaved(const float* re, const float* im, std::complex<float>* destination,
                          std::uint64_t count) noexcept;
void split_to_interleaved(const double* re, const double* im, std::complex<double>* destination,
                          std::uint64_t count) noexcept;
// destination[j * rows + i] = source[i * cols + j]: row-major rows x cols to column-major. The
// reverse direction is the same call with rows and cols exchanged.
void transpose_copy(const Complex32* source, Complex32* destination, std::uint64_t rows, std::uint64_t cols) noexcept;
void transpose_copy(const std::complex<float>* source, std::complex<float>* destination, std::uint64_t rows,
                    std::uint64_t cols) noexcept;
void transpose_copy(const std::complex<double>* source, std::complex<double>* destination, std::uint64_t rows,
                    std::uint64_t cols) noexcept;

// ---- Entity-level conversion ----

// The raw planes of an entity: `data` is the only (or real) buffer, `imag` the imaginary plane of
// split data (null otherwise).
struct LayoutBuffers {
    void* data = nullptr;
    void* imag = nullptr;
};
// Resolves an entity's buffers through its typed buffer access; `label` ("CPU layout input" or
// "CPU layout output") names the side in buffer-access failures.
using LayoutBufferResolver = std::function<LayoutBuffers(const OperandEntity& entity, std::string_view label)>;

// Converts `source` into `destination`, which must have the same kind, extent and dtype (else
// std::logic_error "CPU layout adaptation - shape or numerical policy mismatch"). Combinations the
// conversion does not cover fail with std::invalid_argument
// "CPU layout adaptation - unsupported policy or operand kind". Plane conversions spread over
// `runtime`'s workers when one is given.
void convert_cpu_layout(const OperandEntity& source, OperandEntity& destination, const LayoutBufferResolver& buffers,
                        const CpuRuntimeContext* runtime = nullptr);

// How the adapters reach storage. `make_temporary` creates owned storage for the descriptor (kind,
// dtype, layouts, extent) whose contents may be anything, since a temporary is fully written
// before it is read; null means the allocation failed. `buffers` resolves raw planes.
struct CpuLayoutStorage {
    std::function<std::unique_ptr<OperandEntity>(const OperandDescriptor& descriptor)> make_temporary;
    LayoutBufferResolver buffers;
};

// Integration point with dense host storage: the hooks that the one-argument installer uses.
// Until it is wired, the adapters' steps have no construct/adapt functions and fail when run.
CpuLayoutStorage default_cpu_layout_storage();

// Adds one input and one output adapter sharing cpu_layout_can_adapt. Input adaptation builds an
// AdaptOperandStep; output adaptation builds an AdaptOperandStep (ahead of the kernel) and a
// RestoreAdaptedStep (behind it). For a write-only output the AdaptOperandStep only creates the
// temporary: the caller's prior contents are not converted in.
void install_cpu_layout_adapters(BackendAdaptationRegistry& registry);
void install_cpu_layout_adapters(BackendAdaptationRegistry& registry, CpuLayoutStorage storage);

} // namespace quillmark
