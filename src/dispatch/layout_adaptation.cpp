#include "dispatch/layout_adaptation.hpp"
#include "dispatch/layout_adaptation_tiled.hpp"

#include "storage/buffer_access.hpp"
#include "runtime/cpu_runtime_context.hpp"
#include "storage/host_storage_base.hpp"

#include <emmintrin.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace quillmark {
namespace {

using Key = BackendOperandKey;

constexpr std::uint32_t u(auto e) noexcept { return static_cast<std::uint32_t>(e); }

bool adaptable_policy(std::uint32_t storage, std::uint32_t compute) noexcept {
    return (storage == u(ScalarType::complex32) && compute == u(ScalarType::complex64)) ||
           (storage == u(ScalarType::complex64) && compute == u(ScalarType::complex64)) ||
           (storage == u(ScalarType::complex128) && compute == u(ScalarType::complex128));
}

bool holds_dense(const Key& key, std::int8_t alternative) noexcept {
    return key.format_alternative() == alternative && key.format == u(StorageFormat::dense);
}

// ---- typed copy loops ----

inline void parts(const Complex32& c, Float16& re, Float16& im) noexcept {
    re = c.real;
    im = c.imag;
}
template <class T> inline void parts(const std::complex<T>& c, T& re, T& im) noexcept {
    re = c.real();
    im = c.imag();
}
inline void join(Complex32& c, Float16 re, Float16 im) noexcept { c = Complex32(re, im); }
template <class T> inline void join(std::complex<T>& c, T re, T im) noexcept { c = std::complex<T>(re, im); }

template <class S, class T> void to_split(const S* src, T* re, T* im, std::uint64_t n) noexcept {
    std::uint64_t i = 0;
    for (; i + 4 <= n; i += 4) {
        parts(src[i], re[i], im[i]);
        parts(src[i + 1], re[i + 1], im[i + 1]);
        parts(src[i + 2], re[i + 2], im[i + 2]);
        parts(src[i + 3], re[i + 3], im[i + 3]);
    }
    for (; i < n; ++i) parts(src[i], re[i], im[i]);
}

template <class S, class T> void to_interleaved(const T* re, const T* im, S* dst, std::uint64_t n) noexcept {
    std::uint64_t i = 0;
    for (; i + 4 <= n; i += 4) {
        join(dst[i], re[i], im[i]);
        join(dst[i + 1], re[i + 1], im[i + 1]);
        join(dst[i + 2], re[i + 2], im[i + 2]);
        join(dst[i + 3], re[i + 3], im[i + 3]);
    }
    for (; i < n; ++i) join(dst[i], re[i], im[i]);
}

// Installed wider copies; read on every conversion, written when a context is built.
std::atomic<decltype(ComplexPlaneCopies::split_f64)> installed_split_f64{nullptr};
std::atomic<decltype(ComplexPlaneCopies::interleave_f64)> installed_interleave_f64{nullptr};
std::atomic<decltype(ComplexPlaneCopies::split_f32)> installed_split_f32{nullptr};
std::atomic<decltype(ComplexPlaneCopies::interleave_f32)> installed_interleave_f32{nullptr};

// The double and single precision copies are plain lane shuffles (bit-exact, NaN payloads
// included): the element loops above do not vectorise, and these conversions are memory-bound.
template <> void to_split(const std::complex<double>* src, double* re, double* im, std::uint64_t n) noexcept {
    const double* s = reinterpret_cast<const double*>(src);
    if (const auto wide = installed_split_f64.load(std::memory_order_relaxed)) return wide(n, s, re, im);
    std::uint64_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128d a = _mm_loadu_pd(s + 2 * i), b = _mm_loadu_pd(s + 2 * i + 2);
        const __m128d c = _mm_loadu_pd(s + 2 * i + 4), d = _mm_loadu_pd(s + 2 * i + 6);
        _mm_storeu_pd(re + i, _mm_unpacklo_pd(a, b));
        _mm_storeu_pd(re + i + 2, _mm_unpacklo_pd(c, d));
        _mm_storeu_pd(im + i, _mm_unpackhi_pd(a, b));
        _mm_storeu_pd(im + i + 2, _mm_unpackhi_pd(c, d));
    }
    for (; i < n; ++i) parts(src[i], re[i], im[i]);
}
template <> void to_interleaved(const double* re, const double* im, std::complex<double>* dst, std::uint64_t n) noexcept {
    double* d = reinterpret_cast<double*>(dst);
    if (const auto wide = installed_interleave_f64.load(std::memory_order_relaxed)) return wide(n, re, im, d);
    std::uint64_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128d r0 = _mm_loadu_pd(re + i), r1 = _mm_loadu_pd(re + i + 2);
        const __m128d m0 = _mm_loadu_pd(im + i), m1 = _mm_loadu_pd(im + i + 2);
        _mm_storeu_pd(d + 2 * i, _mm_unpacklo_pd(r0, m0));
        _mm_storeu_pd(d + 2 * i + 2, _mm_unpackhi_pd(r0, m0));
        _mm_storeu_pd(d + 2 * i + 4, _mm_unpacklo_pd(r1, m1));
        _mm_storeu_pd(d + 2 * i + 6, _mm_unpackhi_pd(r1, m1));
    }
    for (; i < n; ++i) join(dst[i], re[i], im[i]);
}
template <> void to_split(const std::complex<float>* src, float* re, float* im, std::uint64_t n) noexcept {
    const float* s = reinterpret_cast<const float*>(src);
    if (const auto wide = installed_split_f32.load(std::memory_order_relaxed)) return wide(n, s, re, im);
    std::uint64_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128 a = _mm_loadu_ps(s + 2 * i), b = _mm_loadu_ps(s + 2 * i + 4);
        _mm_storeu_ps(re + i, _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
        _mm_storeu_ps(im + i, _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
    }
    for (; i < n; ++i) parts(src[i], re[i], im[i]);
}
template <> void to_interleaved(const float* re, const float* im, std::complex<float>* dst, std::uint64_t n) noexcept {
    float* d = reinterpret_cast<float*>(dst);
    if (const auto wide = installed_interleave_f32.load(std::memory_order_relaxed)) return wide(n, re, im, d);
    std::uint64_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128 r = _mm_loadu_ps(re + i), m = _mm_loadu_ps(im + i);
        _mm_storeu_ps(d + 2 * i, _mm_unpacklo_ps(r, m));
        _mm_storeu_ps(d + 2 * i + 4, _mm_unpackhi_ps(r, m));
    }
    for (; i < n; ++i) join(dst[i], re[i], im[i]);
}

// ---- scratch temporaries ----

// Planes of adapted operands are reused between calls: a fresh large allocation costs a page
// fault per page plus clearing, more than the conversion itself. The pool keeps a few blocks and
// hands them out uninitialised, since a temporary is always filled before it is read (by the
// conversion, or by the kernel for a write-only output).
class ScratchPool {
public:
    struct Block {
        void* data = nullptr;
        std::size_t bytes = 0;
    };
    static constexpr std::size_t kAlignment = 64;

    static ScratchPool& instance() {
        static ScratchPool* pool = new ScratchPool(); // never destroyed: temporaries may outlive statics
        return *pool;
    }

    // Throws std::bad_alloc.
    Block acquire(std::size_t bytes) {
        bytes = std::max(bytes, kAlignment);
        {
            std::lock_guard lock(mutex_);
            // The smallest block that fits, unless it would waste more than half of itself.
            auto best = free_.end();
            for (auto it = free_.begin(); it != free_.end(); ++it)
                if (it->bytes >= bytes && it->bytes / 2 <= bytes && (best == free_.end() || it->bytes < best->bytes))
                    best = it;
            if (best != free_.end()) {
                const Block block = *best;
                free_.erase(best);
                held_ -= block.bytes;
                return block;
            }
        }
        return {::operator new(bytes, std::align_val_t{kAlignment}), bytes};
    }

    void release(Block block) noexcept {
        if (!block.data) return;
        {
            std::lock_guard lock(mutex_);
            if (free_.size() < kMaxBlocks && held_ + block.bytes <= kMaxHeldBytes) {
                try {
                    free_.push_back(block);
                    held_ += block.bytes;
                    return;
                } catch (...) {
                }
            }
        }
        ::operator delete(block.data, std::align_val_t{kAlignment});
    }

private:
    static constexpr std::size_t kMaxBlocks = 8;
    static constexpr std::size_t kMaxHeldBytes = std::size_t{256} << 20;
    std::mutex mutex_;
    std::vector<Block> free_;
    std::size_t held_ = 0;
};

constexpr std::size_t round_to_line(std::size_t bytes) noexcept {
    return (bytes + ScratchPool::kAlignment - 1) / ScratchPool::kAlignment * ScratchPool::kAlignment;
}

template <class Base> class ScratchEntity final : public Base {
public:
    ScratchEntity(const DataTypeDescriptor& dtype, ComplexLayout complex, MatrixLayout layout,
                  std::array<std::uint64_t, 2> extent, std::uint64_t count, std::size_t element_bytes)
        : Base(dtype, complex, layout, extent) {
        if (count > static_cast<std::size_t>(-1) / 2 / element_bytes) throw std::bad_array_new_length();
        const std::size_t plane = round_to_line(count * element_bytes);
        if constexpr (requires(Base& b) { b.imag(); }) {
            using T = typename Base::component_type;
            block_ = ScratchPool::instance().acquire(2 * plane);
            T* re = static_cast<T*>(block_.data);
            this->attach(re, reinterpret_cast<T*>(static_cast<char*>(block_.data) + plane), count);
        } else {
            using S = typename Base::element_type;
            block_ = ScratchPool::instance().acquire(plane);
            this->attach(static_cast<S*>(block_.data), count);
        }
    }
    ~ScratchEntity() override { ScratchPool::instance().release(block_); }

private:
    ScratchPool::Block block_;
};

template <class Entity, class S, class T>
std::unique_ptr<OperandEntity> make_scratch(const OperandDescriptor& d, std::uint64_t count) {
    if (d.complex_layout == ComplexLayout::split)
        return std::make_unique<ScratchEntity<SplitBufferEntity<Entity, T>>>(
            d.dtype, d.complex_layout, d.matrix_layout, d.extent, count, sizeof(T));
    return std::make_unique<ScratchEntity<SingleBufferEntity<Entity, S>>>(
        d.dtype, d.complex_layout, d.matrix_layout, d.extent, count, sizeof(S));
}

template <class S, class T> std::unique_ptr<OperandEntity> make_scratch(const OperandDescriptor& d) {
    if (d.kind == OperandKind::vector) return make_scratch<VectorEntity, S, T>(d, d.extent[0]);
    if (d.extent[1] != 0 && d.extent[0] > static_cast<std::uint64_t>(-1) / d.extent[1])
        throw std::bad_array_new_length();
    return make_scratch<MatrixEntity, S, T>(d, d.extent[0] * d.extent[1]);
}

// Tiled so that both the reads and the strided writes stay in cache.
template <class S> void transpose_tiled(const S* src, S* dst, std::uint64_t rows, std::uint64_t cols) noexcept {
    constexpr std::uint64_t tile = 32;
    for (std::uint64_t ib = 0; ib < rows; ib += tile) {
        const std::uint64_t iend = std::min(rows, ib + tile);
        for (std::uint64_t jb = 0; jb < cols; jb += tile) {
            const std::uint64_t jend = std::min(cols, jb + tile);
            for (std::uint64_t i = ib; i < iend; ++i) {
                const S* row = src + i * cols;
                S* column = dst + i;
                std::uint64_t j = jb;
                for (; j + 4 <= jend; j += 4) {
                    column[j * rows] = row[j];
                    column[(j + 1) * rows] = row[j + 1];
                    column[(j + 2) * rows] = row[j + 2];
                    column[(j + 3) * rows] = row[j + 3];
                }
                for (; j < jend; ++j) column[j * rows] = row[j];
            }
        }
    }
}

std::atomic<Complex64Relayout> installed_relayout{nullptr};

template <class S> void relayout(const S* src, S* dst, std::uint64_t rows, std::uint64_t cols) noexcept {
    if constexpr (std::is_same_v<S, std::complex<float>>) {
        const Complex64Relayout kernel = installed_relayout.load(std::memory_order_acquire);
        if (kernel && kernel(src, dst, rows, cols)) return;
    }
    transpose_tiled(src, dst, rows, cols);
}

// ---- entity-level dispatch ----

enum class Conversion { to_split, to_interleaved, transpose, reverse_transpose };

[[noreturn]] void unsupported() {
    throw std::invalid_argument("CPU layout adaptation - unsupported policy or operand kind");
}

Conversion classify(const OperandEntity& src, const OperandEntity& dst) {
    const ComplexLayout sc = src.complex_layout(), dc = dst.complex_layout();
    const MatrixLayout sl = src.matrix_layout(), dl = dst.matrix_layout();
    using CL = ComplexLayout;
    using ML = MatrixLayout;
    if (src.kind() == OperandKind::vector) {
        if (sc == CL::interleaved && dc == CL::split) return Conversion::to_split;
        if (sc == CL::split && dc == CL::interleaved) return Conversion::to_interleaved;
        unsupported();
    }
    if (src.kind() == OperandKind::matrix) {
        if (sc == CL::interleaved && dc == CL::split && sl == ML::row_major && dl == ML::row_major)
            return Conversion::to_split;
        if (sc == CL::split && dc == CL::interleaved && sl == ML::row_major && dl == ML::row_major)
            return Conversion::to_interleaved;
        if (sc == CL::interleaved && dc == CL::interleaved) {
            if (sl == ML::row_major && dl == ML::column_major) return Conversion::transpose;
            if (sl == ML::column_major && dl == ML::row_major) return Conversion::reverse_transpose;
        }
    }
    unsupported();
}

// Element copies are independent, so large ones are spread over the runtime's workers.
template <class Body> void for_chunks(const CpuRuntimeContext* runtime, std::uint64_t count, Body&& body) {
    if (runtime == nullptr || count < 2) {
        body(std::uint64_t{0}, count);
        return;
    }
    runtime->parallel_for_chunks(0, count, count, ChunkBody([&body](std::uint64_t first, std::uint64_t last) {
                                     body(first, last);
                                 }));
}

template <class S, class T>
void run_conversion(Conversion conversion, const LayoutBuffers& in, const LayoutBuffers& out, std::uint64_t rows,
                    std::uint64_t cols, const CpuRuntimeContext* runtime) {
    const std::uint64_t count = rows * cols;
    switch (conversion) {
    case Conversion::to_split: {
        const S* src = static_cast<const S*>(in.data);
        T* re = static_cast<T*>(out.data);
        T* im = static_cast<T*>(out.imag);
        for_chunks(runtime, count, [&](std::uint64_t first, std::uint64_t last) {
            to_split(src + first, re + first, im + first, last - first);
        });
        return;
    }
    case Conversion::to_interleaved: {
        const T* re = static_cast<const T*>(in.data);
        const T* im = static_cast<const T*>(in.imag);
        S* dst = static_cast<S*>(out.data);
        for_chunks(runtime, count, [&](std::uint64_t first, std::uint64_t last) {
            to_interleaved(re + first, im + first, dst + first, last - first);
        });
        return;
    }
    case Conversion::transpose:
        relayout(static_cast<const S*>(in.data), static_cast<S*>(out.data), rows, cols);
        return;
    case Conversion::reverse_transpose:
        relayout(static_cast<const S*>(in.data), static_cast<S*>(out.data), cols, rows);
        return;
    }
}

void check_planes(const LayoutBuffers& b, bool split, std::uint64_t count, std::string_view label) {
    if (count == 0) return;
    if (!b.data || (split && !b.imag)) throw std::invalid_argument(std::string(label) + " - storage buffer is null");
}

// ---- tiles ----

// A split temporary for a window of leading rows of an interleaved caller operand (a vector's
// elements or a row-major matrix's rows): its extent follows the tile being processed.
template <class Base, class S, class T>
class SplitTileWindow final : public Base, public ErasedBufferAccess, public TileWindow {
public:
    SplitTileWindow(const OperandEntity& original, const S* source, S* destination, std::uint64_t capacity)
        : dtype_(original.dtype()), layout_(original.matrix_layout()), extent_(original.extent()),
          width_(original.kind() == OperandKind::matrix ? extent_[1] : 1), source_(source), destination_(destination) {
        if (width_ != 0 && capacity > static_cast<std::size_t>(-1) / 2 / sizeof(T) / width_)
            throw std::bad_array_new_length();
        const std::size_t plane = round_to_line(capacity * width_ * sizeof(T));
        block_ = ScratchPool::instance().acquire(2 * plane);
        re_ = static_cast<T*>(block_.data);
        im_ = reinterpret_cast<T*>(static_cast<char*>(block_.data) + plane);
        extent_[0] = 0;
    }
    ~SplitTileWindow() override { ScratchPool::instance().release(block_); }

    const DataTypeDescriptor& dtype() const noexcept override { return dtype_; }
    ComplexLayout complex_layout() const noexcept override { return ComplexLayout::split; }
    MatrixLayout matrix_layout() const noexcept override { return layout_; }
    std::array<std::uint64_t, 2> extent() const noexcept override { return extent_; }
    const ErasedBufferAccess& erased_access() const noexcept override { return *this; }
    std::size_t buffer_count() const noexcept override { return 2; }

    void resize(std::uint64_t rows) override { extent_[0] = rows; }
    void load(std::uint64_t offset, std::uint64_t first, std::uint64_t rows) override {
        const std::uint64_t at = offset * width_;
        if (source_) to_split(source_ + first * width_, re_ + at, im_ + at, rows * width_);
    }
    void store(std::uint64_t offset, std::uint64_t first, std::uint64_t rows) override {
        const std::uint64_t at = offset * width_;
        if (destination_) to_interleaved(re_ + at, im_ + at, destination_ + first * width_, rows * width_);
    }

private:
    BufferDescriptor describe_buffer(std::size_t index) const noexcept override {
        return BufferDescriptor::of(index == 0 ? re_ : im_, extent_[0] * width_,
                                    index == 0 ? BufferRole::real : BufferRole::imaginary, extent_, layout_);
    }

    DataTypeDescriptor dtype_;
    MatrixLayout layout_;
    std::array<std::uint64_t, 2> extent_;
    std::uint64_t width_;
    const S* source_;
    S* destination_;
    ScratchPool::Block block_;
    T* re_ = nullptr;
    T* im_ = nullptr;
};

template <class Base, class S, class T>
TileWindowHandle make_window(const OperandEntity& original, const LayoutBuffers& in, const LayoutBuffers& out,
                             std::uint64_t capacity) {
    auto window = std::make_unique<SplitTileWindow<Base, S, T>>(original, static_cast<const S*>(in.data),
                                                                 static_cast<S*>(out.data), capacity);
    TileWindow* raw = window.get();
    return {std::move(window), raw};
}

template <class Base> TileWindowHandle make_window(const OperandEntity& original, const LayoutBuffers& in,
                                                   const LayoutBuffers& out, std::uint64_t capacity) {
    switch (original.dtype().storage()) {
    case ScalarType::complex32: return make_window<Base, Complex32, Float16>(original, in, out, capacity);
    case ScalarType::complex64: return make_window<Base, std::complex<float>, float>(original, in, out, capacity);
    case ScalarType::complex128: return make_window<Base, std::complex<double>, double>(original, in, out, capacity);
    default: return {};
    }
}

// The interleaved -> split bridges in tiled form; the matrix-order bridges have none, since a
// column-major operand's rows are not contiguous.
class CpuLayoutTileAdapter final : public TileAdapter {
public:
    CpuLayoutTileAdapter(LayoutBufferResolver buffers, bool output, bool carry_in)
        : buffers_(std::move(buffers)), output_(output), carry_in_(carry_in) {}

    TileWindowHandle window(const OperandEntity& original, OperandEntity* writable,
                            std::uint64_t capacity) const override {
        const bool matrix = original.kind() == OperandKind::matrix;
        if (original.complex_layout() != ComplexLayout::interleaved || (output_ && !writable) ||
            (matrix && original.matrix_layout() != MatrixLayout::row_major) ||
            (!matrix && original.kind() != OperandKind::vector) ||
            !adaptable_policy(u(original.dtype().storage()), u(original.dtype().compute())))
            return {};
        const std::uint64_t count = original.extent()[0] * (matrix ? original.extent()[1] : 1);
        LayoutBuffers in, out;
        if (carry_in_) {
            in = buffers_(original, "CPU layout input");
            check_planes(in, false, count, "CPU layout input");
        }
        if (output_) {
            out = buffers_(*writable, "CPU layout output");
            check_planes(out, false, count, "CPU layout output");
        }
        return matrix ? make_window<MatrixEntity>(original, in, out, capacity)
                      : make_window<VectorEntity>(original, in, out, capacity);
    }

private:
    LayoutBufferResolver buffers_;
    bool output_;
    bool carry_in_;
};

// ---- steps ----

template <class Entity>
AdaptationSteps build_steps(bool output, bool write_only, const CpuLayoutStorage& storage, std::size_t position,
                            const OperandDescriptor& descriptor, const Key& registered) {
    const ComplexLayout complex = registered.complex_layout();
    const MatrixLayout layout = registered.matrix_layout().value_or(MatrixLayout::none);
    const OperandRole role = descriptor.role;

    typename AdaptOperandStep<Entity>::Construct construct;
    if (storage.make_temporary) {
        construct = [make = storage.make_temporary, role, complex, layout](const Entity& source) -> std::unique_ptr<Entity> {
            OperandDescriptor target = describe_operand(source, role);
            target.complex_layout = complex;
            target.matrix_layout = layout;
            std::unique_ptr<OperandEntity> made = make(target);
            if (!made) return nullptr;
            auto* typed = dynamic_cast<Entity*>(made.get());
            if (!typed) throw std::logic_error("AdaptOperandStep::execute - temporary has another operand kind");
            made.release();
            return std::unique_ptr<Entity>(typed);
        };
    }
    typename AdaptOperandStep<Entity>::Adapt adapt;
    RestoreAdaptedStep::Restore restore;
    if (write_only) {
        // The kernel overwrites every element, so the caller's contents are not carried in.
        adapt = [](CpuExecutionContext&, const Entity&, Entity&) {};
    } else if (storage.buffers) {
        adapt = [buffers = storage.buffers](CpuExecutionContext& context, const Entity& source, Entity& temporary) {
            convert_cpu_layout(source, temporary, buffers, context.runtime());
        };
    }
    if (storage.buffers) {
        restore = [buffers = storage.buffers](CpuExecutionContext& context, const OperandEntity& temporary,
                                              OperandEntity& original) {
            convert_cpu_layout(temporary, original, buffers, context.runtime());
        };
    }

    AdaptationSteps steps;
    steps.before.push_back(
        std::make_unique<AdaptOperandStep<Entity>>(position, std::move(construct), std::move(adapt)));
    if (output) steps.after.push_back(std::make_unique<RestoreAdaptedStep>(position, std::move(restore)));
    return steps;
}

BackendAdapter::Builder make_builder(bool output, bool write_only, CpuLayoutStorage storage) {
    return [output, write_only, storage = std::move(storage)](std::size_t position, const OperandDescriptor& descriptor,
                                                              const Key& /*requested*/, const Key& registered) {
        switch (registered.operand_kind()) {
        case OperandKind::vector:
            return build_steps<VectorEntity>(output, write_only, storage, position, descriptor, registered);
        case OperandKind::matrix:
            return build_steps<MatrixEntity>(output, write_only, storage, position, descriptor, registered);
        default: unsupported();
        }
    };
}

BackendAdapter make_adapter(bool output, const CpuLayoutStorage& storage) {
    BackendAdapter adapter;
    adapter.can_adapt = cpu_layout_can_adapt;
    adapter.build = make_builder(output, false, storage);
    if (output) adapter.build_write_only = make_builder(true, true, storage);
    if (storage.buffers)
        adapter.tile = [buffers = storage.buffers](const OperandDescriptor&, const Key&, const Key& registered,
                                                   bool output, bool write_only) -> std::shared_ptr<const TileAdapter> {
            if (registered.complex != u(ComplexLayout::split)) return nullptr;
            return std::make_shared<CpuLayoutTileAdapter>(buffers, output, !write_only);
        };
    return adapter;
}

} // namespace

bool cpu_layout_can_adapt(const Key& a, const Key& b) noexcept {
    if (a.location != u(Location::pageable_host) || b.location != u(Location::pageable_host)) return false;
    if (a.kind != b.kind) return false;
    const std::int8_t alternative = a.format_alternative();
    if (alternative != b.format_alternative()) return false;
    if (alternative != Key::no_format && alternative != Key::scalar_format && a.format != b.format) return false;
    if (a.storage != b.storage || a.compute != b.compute || !adaptable_policy(a.storage, a.compute)) return false;
    if (a.complex != u(ComplexLayout::interleaved)) return false;
    switch (a.operand_kind()) {
    case OperandKind::vector:
        return holds_dense(a, Key::vector_format) && b.complex == u(ComplexLayout::split);
    case OperandKind::matrix:
        if (!holds_dense(a, Key::matrix_format) || !a.has_layout() || !b.has_layout()) return false;
        if (b.complex == u(ComplexLayout::split))
            return a.layout == u(MatrixLayout::row_major) && b.layout == u(MatrixLayout::row_major);
        return b.complex == u(ComplexLayout::interleaved) && a.layout != b.layout;
    default:
        return false;
    }
}

template <class Entity>
void AdaptOperandStep<Entity>::execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) {
    if (!construct_) throw std::logic_error("AdaptOperandStep::execute - construct not set");
    if (!adapt_) throw std::logic_error("AdaptOperandStep::execute - adapt not set");
    const auto* source = dynamic_cast<const Entity*>(&bindings.original(position_));
    if (!source) throw std::logic_error("AdaptOperandStep::execute - operand kind does not match the adaptation");
    std::unique_ptr<Entity> temporary = construct_(*source);
    if (!temporary) throw std::runtime_error("AdaptOperandStep::execute - temporary storage could not be allocated");
    with_cpu_context(session, BackendKind::cpu_simd, bindings,
                     [&](CpuExecutionContext& context, BackendExecutionBindings&) { adapt_(context, *source, *temporary); });
    bindings.substitute(position_, std::move(temporary));
}

template class AdaptOperandStep<VectorEntity>;
template class AdaptOperandStep<MatrixEntity>;

void RestoreAdaptedStep::execute(BackendExecutionSession& session, BackendExecutionBindings& bindings) {
    if (!restore_) throw std::logic_error("RestoreAdaptedStep::execute - restore not set");
    OperandEntity* temporary = bindings.temporary(position_);
    if (!temporary) throw std::logic_error("RestoreAdaptedStep::execute - operand was not adapted");
    OperandEntity* original = bindings.mutable_original(position_);
    if (!original) throw std::logic_error("RestoreAdaptedStep::execute - operand is not writable");
    with_cpu_context(session, BackendKind::cpu_simd, bindings,
                     [&](CpuExecutionContext& context, BackendExecutionBindings&) { restore_(context, *temporary, *original); });
}

// ---- raw conversions ----

void interleaved_to_split(const Complex32* s, Float16* re, Float16* im, std::uint64_t n) noexcept { to_split(s, re, im, n); }
void interleaved_to_split(const std::complex<float>* s, float* re, float* im, std::uint64_t n) noexcept {
    to_split(s, re, im, n);
}
void interleaved_to_split(const std::complex<double>* s, double* re, double* im, std::uint64_t n) noexcept {
    to_split(s, re, im, n);
}
void split_to_interleaved(const Float16* re, const Float16* im, Complex32* d, std::uint64_t n) noexcept {
    to_interleaved(re, im, d, n);
}
void split_to_interleaved(const float* re, const float* im, std::complex<float>* d, std::uint64_t n) noexcept {
    to_interleaved(re, im, d, n);
}
void split_to_interleaved(const double* re, const double* im, std::complex<double>* d, std::uint64_t n) noexcept {
    to_interleaved(re, im, d, n);
}
void transpose_copy(const Complex32* s, Complex32* d, std::uint64_t rows, std::uint64_t cols) noexcept {
    transpose_tiled(s, d, rows, cols);
}
void transpose_copy(const std::complex<float>* s, std::complex<float>* d, std::uint64_t rows,
                    std::uint64_t cols) noexcept {
    transpose_tiled(s, d, rows, cols);
}
void transpose_copy(const std::complex<double>* s, std::complex<double>* d, std::uint64_t rows,
                    std::uint64_t cols) noexcept {
    transpose_tiled(s, d, rows, cols);
}

void install_complex_plane_copies(const ComplexPlaneCopies& copies) noexcept {
    installed_split_f64.store(copies.split_f64, std::memory_order_relaxed);
    installed_interleave_f64.store(copies.interleave_f64, std::memory_order_relaxed);
    installed_split_f32.store(copies.split_f32, std::memory_order_relaxed);
    installed_interleave_f32.store(copies.interleave_f32, std::memory_order_relaxed);
}

void install_complex64_relayout(Complex64Relayout kernel) noexcept {
    installed_relayout.store(kernel, std::memory_order_release);
}

void convert_cpu_layout(const OperandEntity& source, OperandEntity& destination, const LayoutBufferResolver& buffers,
                        const CpuRuntimeContext* runtime) {
    if (source.kind() != destination.kind() || source.extent() != destination.extent() ||
        !(source.dtype() == destination.dtype()))
        throw std::logic_error("CPU layout adaptation - shape or numerical policy mismatch");
    const DataTypeDescriptor& dtype = source.dtype();
    if (!adaptable_policy(u(dtype.storage()), u(dtype.compute()))) unsupported();
    const Conversion conversion = classify(source, destination);
    if (!buffers) throw std::logic_error("CPU layout adaptation - buffer access not set");

    const auto extent = source.extent();
    const std::uint64_t rows = extent[0];
    const std::uint64_t cols = source.kind() == OperandKind::vector ? 1 : extent[1];
    const LayoutBuffers in = buffers(source, "CPU layout input");
    const LayoutBuffers out = buffers(destination, "CPU layout output");
    check_planes(in, source.complex_layout() == ComplexLayout::split, rows * cols, "CPU layout input");
    check_planes(out, destination.complex_layout() == ComplexLayout::split, rows * cols, "CPU layout output");

    switch (dtype.storage()) {
    case ScalarType::complex32: run_conversion<Complex32, Float16>(conversion, in, out, rows, cols, runtime); return;
    case ScalarType::complex64: run_conversion<std::complex<float>, float>(conversion, in, out, rows, cols, runtime); return;
    case ScalarType::complex128: run_conversion<std::complex<double>, double>(conversion, in, out, rows, cols, runtime); return;
    default: unsupported();
    }
}

CpuLayoutStorage default_cpu_layout_storage() {
    CpuLayoutStorage storage;
    storage.make_temporary = [](const OperandDescriptor& d) -> std::unique_ptr<OperandEntity> {
        if (d.kind != OperandKind::vector && d.kind != OperandKind::matrix) unsupported();
        try {
            switch (d.dtype.storage()) {
            case ScalarType::complex32: return make_scratch<Complex32, Float16>(d);
            case ScalarType::complex64: return make_scratch<std::complex<float>, float>(d);
            case ScalarType::complex128: return make_scratch<std::complex<double>, double>(d);
            default: unsupported();
            }
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    };
    storage.buffers = [](const OperandEntity& entity, std::string_view label) {
        const ErasedBufferAccess& access = entity.erased_access();
        LayoutBuffers buffers;
        if (access.buffer_count() == 0)
            throw std::invalid_argument(std::string(label) + " - storage buffer type, alignment or count mismatch");
        buffers.data = access.buffer(0).data;
        if (entity.complex_layout() == ComplexLayout::split) {
            if (access.buffer_count() < 2)
                throw std::invalid_argument(std::string(label) + " - storage buffer type, alignment or count mismatch");
            buffers.imag = access.buffer(1).data;
        }
        return buffers;
    };
    return storage;
}

void install_cpu_layout_adapters(BackendAdaptationRegistry& registry) {
    install_cpu_layout_adapters(registry, default_cpu_layout_storage());
}

void install_cpu_layout_adapters(BackendAdaptationRegistry& registry, CpuLayoutStorage storage) {
    BackendAdapter input = make_adapter(false, storage);
    BackendAdapter output = make_adapter(true, storage);
    registry.add_input_adapter(std::move(input));
    registry.add_output_adapter(std::move(output));
}

} // namespace quillmark
