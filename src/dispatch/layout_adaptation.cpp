#include "dispatch/layout_adaptation.hpp"

#include "storage/buffer_access.hpp"
#include "storage/storage_factory.hpp"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>

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

template <class S, class T>
void run_conversion(Conversion conversion, const LayoutBuffers& in, const LayoutBuffers& out, std::uint64_t rows,
                    std::uint64_t cols) {
    const std::uint64_t count = rows * cols;
    switch (conversion) {
    case Conversion::to_split:
        to_split(static_cast<const S*>(in.data), static_cast<T*>(out.data), static_cast<T*>(out.imag), count);
        return;
    case Conversion::to_interleaved:
        to_interleaved(static_cast<const T*>(in.data), static_cast<const T*>(in.imag), static_cast<S*>(out.data),
                       count);
        return;
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

// ---- steps ----

template <class Entity>
AdaptationSteps build_steps(bool output, const CpuLayoutStorage& storage, std::size_t position,
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
    if (storage.buffers) {
        adapt = [buffers = storage.buffers](CpuExecutionContext&, const Entity& source, Entity& temporary) {
            convert_cpu_layout(source, temporary, buffers);
        };
        restore = [buffers = storage.buffers](CpuExecutionContext&, const OperandEntity& temporary,
                                              OperandEntity& original) {
            convert_cpu_layout(temporary, original, buffers);
        };
    }

    AdaptationSteps steps;
    steps.before.push_back(
        std::make_unique<AdaptOperandStep<Entity>>(position, std::move(construct), std::move(adapt)));
    if (output) steps.after.push_back(std::make_unique<RestoreAdaptedStep>(position, std::move(restore)));
    return steps;
}

BackendAdapter make_adapter(bool output, CpuLayoutStorage storage) {
    BackendAdapter adapter;
    adapter.can_adapt = cpu_layout_can_adapt;
    adapter.build = [output, storage = std::move(storage)](std::size_t position, const OperandDescriptor& descriptor,
                                                           const Key& /*requested*/, const Key& registered) {
        switch (registered.operand_kind()) {
        case OperandKind::vector: return build_steps<VectorEntity>(output, storage, position, descriptor, registered);
        case OperandKind::matrix: return build_steps<MatrixEntity>(output, storage, position, descriptor, registered);
        default: unsupported();
        }
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

void install_complex64_relayout(Complex64Relayout kernel) noexcept {
    installed_relayout.store(kernel, std::memory_order_release);
}

void convert_cpu_layout(const OperandEntity& source, OperandEntity& destination, const LayoutBufferResolver& buffers) {
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
    case ScalarType::complex32: run_conversion<Complex32, Float16>(conversion, in, out, rows, cols); return;
    case ScalarType::complex64: run_conversion<std::complex<float>, float>(conversion, in, out, rows, cols); return;
    case ScalarType::complex128: run_conversion<std::complex<double>, double>(conversion, in, out, rows, cols); return;
    default: unsupported();
    }
}

CpuLayoutStorage default_cpu_layout_storage() {
    CpuLayoutStorage storage;
    storage.make_temporary = [](const OperandDescriptor& d) {
        return make_dense_host_storage(d.dtype, d.kind, d.extent, d.complex_layout, d.matrix_layout);
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
    BackendAdapter output = make_adapter(true, std::move(storage));
    registry.add_input_adapter(std::move(input));
    registry.add_output_adapter(std::move(output));
}

} // namespace quillmark
