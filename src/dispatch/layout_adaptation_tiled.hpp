#pragma once
// Adaptation fused with a tiled kernel (KernelTiling): instead of converting whole operands
// before the kernel and after it, each tile of rows is converted into a small temporary, run
// through the kernel and converted back while it is still in cache. The caller's memory is then
// read and written once, as by a kernel that took the caller's layout.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "dispatch/backend_process.hpp"

namespace quillmark {

// out = A x over interleaved complex128 rows read in place, installed by the CPU backend from its
// vector engines (dispatch cannot reach them): `pack_x` arranges x (n interleaved pairs) into 2n
// reals, `rows` computes rows of out (interleaved) from rows of A (row r at a + 2*r*lda) with the
// bits of the split kernel. Null members keep the tile-by-tile conversion.
struct InterleavedRowDot {
    void (*pack_x)(std::uint64_t n, const double* x, double* packed) noexcept = nullptr;
    void (*rows)(std::uint64_t rows, std::uint64_t n, const double* a, std::uint64_t lda, const double* packed_x,
                 double* out) noexcept = nullptr;
};
void install_interleaved_row_dot(const InterleavedRowDot& kernel) noexcept;

// out = x + y and out = x - y over n reals, installed by the CPU backend; they serve add and
// subtract of interleaved complex128 vectors, whose components take exactly these operations.
struct ComponentKernels {
    void (*add)(std::uint64_t n, const double* x, const double* y, double* out) noexcept = nullptr;
    void (*subtract)(std::uint64_t n, const double* x, const double* y, double* out) noexcept = nullptr;
};
void install_component_kernels(const ComponentKernels& kernels) noexcept;

// A temporary in the registered layout that holds up to `capacity` leading rows of one caller
// operand at a time.
class TileWindow {
public:
    virtual ~TileWindow() = default;
    // The window's extent becomes `rows` (<= capacity) leading rows.
    virtual void resize(std::uint64_t rows) = 0;
    // Converts caller rows [first, first + rows) into window rows from `offset` on; nothing for
    // a write-only output.
    virtual void load(std::uint64_t offset, std::uint64_t first, std::uint64_t rows) = 0;
    // Converts window rows from `offset` on back into caller rows [first, first + rows) (outputs).
    virtual void store(std::uint64_t offset, std::uint64_t first, std::uint64_t rows) = 0;
};

struct TileWindowHandle {
    std::unique_ptr<OperandEntity> entity; // what the kernel sees; null when the operand cannot be tiled
    TileWindow* window = nullptr;          // the same object as `entity`
};

// One adaptation in tiled form, built by an adapter for one operand position.
class TileAdapter {
public:
    virtual ~TileAdapter() = default;
    // A window over `original` (`writable` is the same operand for outputs, else null). Throws
    // std::bad_alloc, or the buffer-access failures of the whole-operand conversion.
    virtual TileWindowHandle window(const OperandEntity& original, OperandEntity* writable,
                                    std::uint64_t capacity) const = 0;
};

// Runs a tiled CPU kernel with its adaptations. It carries the ordinary steps (adaptations, the
// kernel, restores) and runs those instead when tiling cannot keep the results and failure
// behaviour of the ordinary path: operands whose row counts differ, an untiled operand that would
// need cutting, or an output whose memory overlaps another operand other than by being it.
class TiledKernelStep final : public BackendProcessStep {
public:
    struct Operand {
        TileAxis axis = TileAxis::whole;
        std::shared_ptr<const TileAdapter> adapter; // null: the operand is used as bound
    };
    using Steps = std::vector<std::unique_ptr<BackendProcessStep>>;

    // Throws std::invalid_argument "TiledKernelStep - kernel must be tiled" unless `kernel` has a
    // tiling that covers `operands`.
    TiledKernelStep(CpuKernelMaterialiser kernel, std::vector<Operand> operands, Steps ordinary);
    void execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) override;

    // Elements of the widest tiled operand per tile: the temporaries of one tile stay in the
    // second-level cache.
    static constexpr std::uint64_t kTileElements = 2048;
    // Conversions move this many elements of one operand before turning to the next, so that the
    // caller's arrays stream in and out together, as in a loop over the caller's layout.
    static constexpr std::uint64_t kStreamElements = 32;

private:
    bool run_tiled(BackendExecutionSession& session, BackendExecutionBindings& bindings) const;
    bool run_row_dot(BackendExecutionSession& session, BackendExecutionBindings& bindings) const;
    bool run_components(BackendExecutionSession& session, BackendExecutionBindings& bindings) const;

    CpuKernelMaterialiser kernel_;
    std::vector<Operand> operands_;
    Steps ordinary_;
};

} // namespace quillmark
