#include "dispatch/layout_adaptation_tiled.hpp"

#include <algorithm>
#include <atomic>
#include <stdexcept>

#include "runtime/cpu_runtime_context.hpp"
#include "storage/buffer_access.hpp"

namespace quillmark {
namespace {

using u64 = std::uint64_t;

struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

// The memory an operand's buffers cover; at most two buffers are tiled (data, or two planes).
struct Footprint {
    std::array<Range, 2> ranges{};
    std::size_t count = 0;
    bool complete = true; // false: buffers this check cannot see, so nothing may be assumed

    bool overlaps(const Footprint& other) const noexcept {
        for (std::size_t i = 0; i < count; ++i)
            for (std::size_t j = 0; j < other.count; ++j)
                if (ranges[i].begin < other.ranges[j].end && other.ranges[j].begin < ranges[i].end) return true;
        return false;
    }
    bool same(const Footprint& other) const noexcept {
        if (count != other.count) return false;
        for (std::size_t i = 0; i < count; ++i)
            if (ranges[i].begin != other.ranges[i].begin || ranges[i].end != other.ranges[i].end) return false;
        return true;
    }
};

Footprint footprint_of(const OperandEntity& entity) {
    Footprint f;
    const ErasedBufferAccess& access = entity.erased_access();
    const std::size_t buffers = access.buffer_count();
    if (buffers > f.ranges.size()) {
        f.complete = false;
        return f;
    }
    for (std::size_t b = 0; b < buffers; ++b) {
        const BufferDescriptor d = access.buffer(b);
        const u64 bytes = d.element_count * d.element_size;
        if (d.data == nullptr || bytes == 0) continue;
        const auto begin = reinterpret_cast<std::uintptr_t>(d.data);
        f.ranges[f.count++] = {begin, begin + bytes};
    }
    return f;
}

std::atomic<void (*)(u64, const double*, double*) noexcept> installed_pack_x{nullptr};
std::atomic<void (*)(u64, u64, const double*, u64, const double*, double*) noexcept> installed_row_dot{nullptr};
using ComponentKernel = void (*)(u64, const double*, const double*, double*) noexcept;
std::atomic<ComponentKernel> installed_add{nullptr};
std::atomic<ComponentKernel> installed_subtract{nullptr};

// The interleaved complex128 data of an operand that is exactly `count` contiguous elements.
const double* interleaved_f64(const OperandEntity& entity, u64 count) {
    const DataTypeDescriptor& dtype = entity.dtype();
    if (entity.complex_layout() != ComplexLayout::interleaved || dtype.storage() != ScalarType::complex128 ||
        dtype.compute() != ScalarType::complex128 || entity.erased_access().buffer_count() != 1)
        return nullptr;
    const BufferDescriptor d = entity.erased_access().buffer(0);
    if (d.element_size != 2 * sizeof(double) || d.element_count != count) return nullptr;
    return static_cast<const double*>(d.data);
}

// Elements in one leading row: a vector's element, a matrix's row.
u64 row_width(const OperandEntity& entity) {
    return entity.kind() == OperandKind::matrix ? entity.extent()[1] : 1;
}

} // namespace

void install_interleaved_row_dot(const InterleavedRowDot& kernel) noexcept {
    installed_pack_x.store(kernel.pack_x, std::memory_order_relaxed);
    installed_row_dot.store(kernel.rows, std::memory_order_relaxed);
}

void install_component_kernels(const ComponentKernels& kernels) noexcept {
    installed_add.store(kernels.add, std::memory_order_relaxed);
    installed_subtract.store(kernels.subtract, std::memory_order_relaxed);
}

TiledKernelStep::TiledKernelStep(CpuKernelMaterialiser kernel, std::vector<Operand> operands, Steps ordinary)
    : kernel_(std::move(kernel)), operands_(std::move(operands)), ordinary_(std::move(ordinary)) {
    if (!kernel_.kernel || kernel_.tiling.empty() || kernel_.tiling.count != operands_.size())
        throw std::invalid_argument("TiledKernelStep - kernel must be tiled");
}

void TiledKernelStep::execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) {
    if (run_tiled(session, bindings)) return;
    for (auto& step : ordinary_) step->execute(session, bindings);
}

bool TiledKernelStep::run_tiled(BackendExecutionSession& session, BackendExecutionBindings& bindings) const {
    const std::size_t n = operands_.size();
    if (bindings.size() != n) return false;

    // Every cut operand needs a window, and all of them the same rows.
    u64 rows = 0, width = 1;
    bool any_rows = false;
    std::array<Footprint, KernelTiling::kMaxOperands> footprints;
    for (std::size_t i = 0; i < n; ++i) {
        const OperandEntity& original = bindings.original(i);
        const bool cut = operands_[i].axis == TileAxis::rows;
        if (bindings.substituted(i)) return false;
        if (cut && !operands_[i].adapter) return false;
        if (!cut && bindings.mutable_original(i)) return false;
        if (cut) {
            const u64 r = original.extent()[0];
            if (any_rows && r != rows) return false;
            rows = r;
            any_rows = true;
            width = std::max(width, row_width(original));
        }
        footprints[i] = footprint_of(original);
        if (!footprints[i].complete) return false;
    }
    if (!any_rows || rows == 0) return false;

    // A tile's output is written back before later tiles read their inputs, so an output may
    // share memory with another operand only by being that same cut operand, element for element.
    for (std::size_t i = 0; i < n; ++i) {
        if (!bindings.mutable_original(i)) continue;
        for (std::size_t j = 0; j < n; ++j) {
            if (j == i || !footprints[i].overlaps(footprints[j])) continue;
            const OperandEntity& a = bindings.original(i);
            const OperandEntity& b = bindings.original(j);
            const bool alias = operands_[j].axis == TileAxis::rows && footprints[i].same(footprints[j]) &&
                               a.kind() == b.kind() && a.extent() == b.extent() && a.dtype() == b.dtype() &&
                               a.complex_layout() == b.complex_layout() && a.matrix_layout() == b.matrix_layout();
            if (!alias) return false;
        }
    }

    if (kernel_.tiling.row_dot && run_row_dot(session, bindings)) return true;
    if (kernel_.tiling.components != KernelTiling::Components::none && run_components(session, bindings))
        return true;

    // Adapted operands seen whole are converted once, up front, and shared by every tile.
    std::vector<TileWindowHandle> whole(n);
    for (std::size_t i = 0; i < n; ++i) {
        if (operands_[i].axis != TileAxis::whole || !operands_[i].adapter) continue;
        const OperandEntity& original = bindings.original(i);
        const u64 count = original.extent()[0];
        whole[i] = operands_[i].adapter->window(original, nullptr, count);
        if (!whole[i].entity) return false;
        whole[i].window->resize(count);
        whole[i].window->load(0, 0, count);
    }

    const u64 tile_rows = std::max<u64>(1, kTileElements / width);
    const u64 stream_rows = std::max<u64>(1, kStreamElements / width);
    const u64 tiles = (rows + tile_rows - 1) / tile_rows;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> pairs(bindings.values().begin(), bindings.values().end());

    // The operands one tile runs on: the bound ones, with windows where they are cut; `outputs`
    // are the windows written back.
    struct TileSet {
        BackendExecutionBindings bindings;
        std::array<TileWindow*, KernelTiling::kMaxOperands> windows{};
        std::array<TileWindow*, KernelTiling::kMaxOperands> outputs{};
    };
    auto make_set = [&](TileSet& set) {
        set.bindings.reserve(n);
        set.bindings.install_pairs(pairs);
        for (std::size_t i = 0; i < n; ++i) {
            OperandEntity* writable = bindings.mutable_original(i);
            const OperandEntity& original = bindings.original(i);
            if (whole[i].entity) set.bindings.bind_read(*whole[i].entity);
            else if (writable) set.bindings.bind_write(*writable);
            else set.bindings.bind_read(original);
            if (operands_[i].axis != TileAxis::rows) continue;
            TileWindowHandle handle = operands_[i].adapter->window(original, writable, std::min(tile_rows, rows));
            if (!handle.entity) throw std::logic_error("TiledKernelStep - operand cannot be tiled");
            set.windows[i] = handle.window;
            if (writable) set.outputs[i] = handle.window;
            set.bindings.substitute(i, std::move(handle.entity));
        }
    };
    // Writes tile `done` back while tile `next` is read in, a few rows of each operand at a time.
    // Outputs are written before the same window rows are read again, so a read-write output's
    // window serves both tiles.
    auto transfer = [&](TileSet& set, bool done, u64 done_first, bool next, u64 next_first) {
        const u64 done_rows = done ? std::min(tile_rows, rows - done_first) : 0;
        const u64 next_rows = next ? std::min(tile_rows, rows - next_first) : 0;
        for (u64 k = 0; k < std::max(done_rows, next_rows); k += stream_rows) {
            for (std::size_t i = 0; k < done_rows && i < n; ++i)
                if (set.outputs[i]) set.outputs[i]->store(k, done_first + k, std::min(stream_rows, done_rows - k));
            for (std::size_t i = 0; k < next_rows && i < n; ++i)
                if (set.windows[i]) set.windows[i]->load(k, next_first + k, std::min(stream_rows, next_rows - k));
        }
        if (next)
            for (TileWindow* w : set.windows)
                if (w) w->resize(next_rows);
    };

    auto run_tiles = [&](TileSet& set, u64 first_tile, u64 last_tile) {
        // Tiles run inside one worker each: the kernel's own loops stay serial.
        CpuExecutionContext context(kernel_.backend, nullptr);
        transfer(set, false, 0, true, first_tile * tile_rows);
        for (u64 t = first_tile; t < last_tile; ++t) {
            kernel_.kernel(context, set.bindings);
            transfer(set, true, t * tile_rows, t + 1 < last_tile, (t + 1) * tile_rows);
        }
    };

    // A failure depends on shapes only, so it surfaces in the first tile's kernel, before any
    // caller memory is written. In parallel runs the first tile runs alone for that reason, and
    // every worker's windows are allocated before it, so no later tile can fail on memory.
    with_cpu_context(session, kernel_.backend, bindings, [&](CpuExecutionContext& cpu, BackendExecutionBindings&) {
        const CpuRuntimeContext* runtime = cpu.runtime();
        const bool parallel = tiles > 1 && runtime && runtime->thread_count() > 1;
        std::vector<TileSet> sets(parallel ? 1 + std::min<u64>(runtime->thread_count(), tiles - 1) : 1);
        for (TileSet& set : sets) make_set(set);
        if (!parallel) {
            run_tiles(sets[0], 0, tiles);
            return;
        }
        run_tiles(sets[0], 0, 1);
        // Chunks never outnumber the workers, so each takes a set of its own.
        std::atomic<std::size_t> next{1};
        runtime->parallel_for_chunks(1, tiles, (rows - tile_rows) * width, ChunkBody([&](u64 first, u64 last) {
                                         const std::size_t index = next.fetch_add(1);
                                         if (index >= sets.size())
                                             throw std::logic_error("TiledKernelStep - more chunks than workers");
                                         run_tiles(sets[index], first, last);
                                     }));
    });
    return true;
}

// Converting A's rows tile by tile costs about as much as the products; reading them in place
// leaves one pass over A. Runs only when every operand is interleaved complex128 of matching
// shape (the overlap checks have passed), so nothing here can fail after output is written.
bool TiledKernelStep::run_row_dot(BackendExecutionSession& session, BackendExecutionBindings& bindings) const {
    const auto pack_x = installed_pack_x.load(std::memory_order_relaxed);
    const auto row_dot = installed_row_dot.load(std::memory_order_relaxed);
    if (!pack_x || !row_dot || bindings.size() != 3) return false;
    const OperandEntity& a = bindings.original(0);
    const OperandEntity& x = bindings.original(1);
    OperandEntity* out = bindings.mutable_original(2);
    if (!out || a.kind() != OperandKind::matrix || a.matrix_layout() != MatrixLayout::row_major ||
        x.kind() != OperandKind::vector || out->kind() != OperandKind::vector)
        return false;
    const u64 m = a.extent()[0], n = a.extent()[1];
    if (x.extent()[0] != n || out->extent()[0] != m) return false;
    const double* ad = interleaved_f64(a, m * n);
    const double* xd = interleaved_f64(x, n);
    auto* od = const_cast<double*>(interleaved_f64(*out, m));
    if ((!ad && m * n != 0) || (!xd && n != 0) || !od) return false;

    std::vector<double> packed(2 * n);
    if (n != 0) pack_x(n, xd, packed.data());
    with_cpu_context(session, kernel_.backend, bindings, [&](CpuExecutionContext& cpu, BackendExecutionBindings&) {
        auto body = [&](u64 first, u64 last) { row_dot(last - first, n, ad + 2 * first * n, n, packed.data(), od + 2 * first); };
        const CpuRuntimeContext* runtime = cpu.runtime();
        if (!runtime || runtime->thread_count() <= 1) body(0, m);
        else runtime->parallel_for_chunks(0, m, 2 * m * n, ChunkBody(body));
    });
    return true;
}

// Add and subtract of interleaved complex128 vectors: one pass over the pairs, no conversion.
// Runs only when all three operands are such vectors of one length (the overlap checks have
// passed), so nothing here can fail after output is written.
bool TiledKernelStep::run_components(BackendExecutionSession& session, BackendExecutionBindings& bindings) const {
    const ComponentKernel op = (kernel_.tiling.components == KernelTiling::Components::add ? installed_add
                                                                                             : installed_subtract)
                                   .load(std::memory_order_relaxed);
    if (!op || bindings.size() != 3) return false;
    const OperandEntity& x = bindings.original(0);
    const OperandEntity& y = bindings.original(1);
    OperandEntity* out = bindings.mutable_original(2);
    if (!out || x.kind() != OperandKind::vector || y.kind() != OperandKind::vector ||
        out->kind() != OperandKind::vector)
        return false;
    const u64 count = x.extent()[0];
    if (y.extent()[0] != count || out->extent()[0] != count || count == 0) return false;
    const double* xd = interleaved_f64(x, count);
    const double* yd = interleaved_f64(y, count);
    auto* od = const_cast<double*>(interleaved_f64(*out, count));
    if (!xd || !yd || !od) return false;

    with_cpu_context(session, kernel_.backend, bindings, [&](CpuExecutionContext& cpu, BackendExecutionBindings&) {
        auto body = [&](u64 first, u64 last) { op(2 * (last - first), xd + 2 * first, yd + 2 * first, od + 2 * first); };
        const CpuRuntimeContext* runtime = cpu.runtime();
        if (!runtime || runtime->thread_count() <= 1) body(0, count);
        else runtime->parallel_for_chunks(0, count, count, ChunkBody(body));
    });
    return true;
}

} // namespace quillmark
