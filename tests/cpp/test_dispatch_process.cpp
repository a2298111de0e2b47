#include <gtest/gtest.h>

#include "test_support.hpp"

#include <atomic>
#include <complex>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "backend/cpu/vector_kernels.hpp"
#include "catalogue/operation_registry.hpp"
#include "core/errors.hpp"
#include "dispatch/backend_dispatcher.hpp"
#include "dispatch/backend_process.hpp"
#include "dispatch/layout_adaptation.hpp"
#include "runtime/cpu_runtime_context.hpp"
#include "storage/access.hpp"
#include "storage/borrowed_host_storage.hpp"
#include "storage/storage_factory.hpp"

using namespace quillmark;
using quillmark::testing::message_of;

namespace {

using Key = BackendOperandKey;
using Log = std::vector<std::string>;
using cf = std::complex<float>;
using cd = std::complex<double>;
using enum ScalarType;
constexpr auto IL = ComplexLayout::interleaved;
constexpr auto SP = ComplexLayout::split;
constexpr auto RM = MatrixLayout::row_major;
constexpr auto CM = MatrixLayout::column_major;

// Logs its name, then runs its action; reports its destruction when asked to.
struct RecordingStep final : BackendProcessStep {
    std::function<void(BackendExecutionBindings&)> action;
    bool* destroyed = nullptr;
    ~RecordingStep() override {
        if (destroyed) *destroyed = true;
    }
    void execute(BackendExecutionSession&, BackendExecutionBindings& b) override { action(b); }
};

std::unique_ptr<RecordingStep> step(Log* log, std::string name, std::function<void(BackendExecutionBindings&)> a = {}) {
    auto s = std::make_unique<RecordingStep>();
    s->action = [log, name = std::move(name), a = std::move(a)](BackendExecutionBindings& b) {
        log->push_back(name);
        if (a) a(b);
    };
    return s;
}

// Runs `p` on fresh bindings (with `bind` applied) in `session`.
void run(BackendProcess& p, BackendExecutionSession& session, bool fail_fast = true,
         const std::function<void(BackendExecutionBindings&)>& bind = {}) {
    BackendExecutionBindings bindings;
    if (bind) bind(bindings);
    p.execute(session, bindings, fail_fast);
}

std::unique_ptr<OperandEntity> dense(ScalarType s, ScalarType c, std::array<std::uint64_t, 2> extent, ComplexLayout cl,
                                     MatrixLayout ml = MatrixLayout::none) {
    const OperandKind kind = ml == MatrixLayout::none ? OperandKind::vector : OperandKind::matrix;
    return make_dense_host_storage(DataTypeDescriptor(s, c), kind, extent, cl, ml, std::nullopt);
}

} // namespace

// ---- Process execution ----

class ProcessFailure : public ::testing::TestWithParam<bool> {};
TEST_P(ProcessFailure, SecondStepStopsTheRunAndLeavesTheSession) {
    const bool fail_fast = GetParam();
    Log log;
    BackendProcess p;
    p.push_back(step(&log, "1", [&](BackendExecutionBindings& b) { b.defer([&] { log.push_back("deferred"); }); }));
    p.push_back(step(&log, "2", [](BackendExecutionBindings&) { throw std::runtime_error("boom"); }));
    p.push_back(step(&log, "3"));
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    EXPECT_EQ(message_of<std::runtime_error>([&] { p.execute(session, bindings, fail_fast); }), "boom");
    EXPECT_FALSE(session.active());
    // Fail-fast leaves deferred work to the caller; otherwise it runs before the failure surfaces.
    EXPECT_EQ(log, fail_fast ? (Log{"1", "2"}) : (Log{"1", "2", "deferred"}));
    EXPECT_EQ(bindings.has_deferred_work(), fail_fast);
}
INSTANTIATE_TEST_SUITE_P(FailFast, ProcessFailure, ::testing::Bool());

TEST(BackendProcess, DeferredWorkRunsAfterTheStepsAndItsFailureWins) {
    Log log;
    BackendExecutionSession session;
    BackendProcess ok;
    ok.push_back(step(&log, "a", [&](BackendExecutionBindings& b) { b.defer([&] { log.push_back("later"); }); }));
    ok.push_back(step(&log, "b"));
    run(ok, session, false);
    EXPECT_EQ(log, (Log{"a", "b", "later"}));

    BackendProcess failing;
    failing.push_back(
        step(&log, "1", [](BackendExecutionBindings& b) { b.defer([] { throw std::invalid_argument("cleanup"); }); }));
    failing.push_back(step(&log, "2", [](BackendExecutionBindings&) { throw std::runtime_error("boom"); }));
    EXPECT_EQ(message_of<std::invalid_argument>([&] { run(failing, session, false); }), "cleanup");
}

TEST(BackendProcess, NestedExecutionInOneSessionIsRefused) {
    Log log;
    BackendExecutionSession session;
    BackendProcess inner;
    BackendProcess outer;
    outer.push_back(step(&log, "outer", [&](BackendExecutionBindings& b) { inner.execute(session, b, true); }));
    EXPECT_EQ(message_of<std::logic_error>([&] { run(outer, session); }),
              "BackendExecutionSession - nested process execution is unsupported");
    EXPECT_FALSE(session.active());
    EXPECT_NO_THROW(run(inner, session));
}

TEST(BackendProcess, ExecutionPlanRulesInOrder) {
    const char* device = "BackendProcess::set_execution_plan - CUDA device id must be non-negative";
    const char* cpu = "BackendProcess::set_execution_plan - CPU plan cannot specify CUDA execution options";
    const std::tuple<BackendKind, std::optional<std::int32_t>, std::uint32_t, const char*> cases[] = {
        {BackendKind::cpu_scalar, 0, 0, cpu},      {BackendKind::cpu_simd, std::nullopt, 1, cpu},
        {BackendKind::cuda, -1, 0, device},        {BackendKind::cpu_scalar, -1, 4, device}, // device first
        {BackendKind::cuda, 0, 5, ""}};
    for (const auto& [target, device_id, options, error] : cases) {
        BackendProcess p;
        EXPECT_EQ(message_of<std::invalid_argument>([&] { p.set_execution_plan({target, device_id, options, {}}); }),
                  error);
        EXPECT_EQ(p.plan().has_value(), *error == 0);
    }
}

TEST(BackendProcess, UnusableProcessLeaksItsStepsAndRefusesEverything) {
    BackendProcess p;
    EXPECT_EQ(message_of<std::invalid_argument>([&] { p.push_back(nullptr); }), "BackendProcess::push_back - null step");
    Log log;
    bool destroyed = false;
    auto owned = step(&log, "leaked");
    RecordingStep* raw = owned.get();
    raw->destroyed = &destroyed;
    p.push_back(std::move(owned));
    p.mark_unusable();
    EXPECT_TRUE(p.unusable());
    EXPECT_EQ(p.step_count(), 0u);
    EXPECT_FALSE(destroyed);
    const std::string suffix = " - process is unusable after CUDA completion could not be confirmed";
    EXPECT_EQ(message_of<std::logic_error>([&] { p.push_back(step(&log, "x")); }), "BackendProcess::push_back" + suffix);
    EXPECT_EQ(message_of<std::logic_error>([&] { p.push_front(nullptr); }), "BackendProcess::push_front" + suffix);
    EXPECT_EQ(message_of<std::logic_error>([&] { p.set_execution_plan({}); }),
              "BackendProcess::set_execution_plan" + suffix);
    BackendExecutionSession session;
    EXPECT_EQ(message_of<std::logic_error>([&] { run(p, session); }), "BackendProcess::execute" + suffix);
    EXPECT_TRUE(log.empty());
    delete raw; // the process gave it up; the test owns it now
}

// ---- Adaptation ----

TEST(BackendDispatcher, InputStepsKeepBuildOrderAndRestoresFollowTheKernel) {
    OperationRegistry catalogue;
    const OperationId op{"test.op", 1};
    catalogue.register_operation(OperationSpec(op, {{input_role(0), OperandAccess::read, OperandKind::vector},
                                                    {input_role(1), OperandAccess::read, OperandKind::vector},
                                                    {output_role(0), OperandAccess::write, OperandKind::vector}}),
                                 RegistrationProvenance());
    catalogue.seal();
    Log log;
    BackendAdaptationRegistry adapters;
    auto builder = [&log](bool output) {
        return [&log, output](std::size_t position, const OperandDescriptor&, const Key&, const Key&) {
            AdaptationSteps s;
            const std::string p = std::to_string(position);
            s.before.push_back(step(&log, "prepare" + p));
            if (output) s.after.push_back(step(&log, "restore" + p));
            return s;
        };
    };
    auto same_kind = [](const Key& a, const Key& b) { return a.kind == b.kind; };
    adapters.add_input_adapter({same_kind, builder(false)});
    adapters.add_output_adapter({same_kind, builder(true)});

    const Key registered = Key::make(OperandKind::vector, Location::pageable_host, complex64, complex64, SP);
    BackendRegistry registry;
    registry.register_backend({BackendKind::cpu_simd, op, {registered, registered}, {registered}},
                              [&log] {
                                  BackendProcess p;
                                  p.push_back(step(&log, "kernel"));
                                  return p;
                              },
                              RegistrationProvenance());
    registry.seal(catalogue);
    BackendDispatcher dispatcher(registry, adapters);
    auto v = dense(complex64, complex64, {2, 0}, IL);
    const OperandDescriptor d = describe_operand(*v, input_role(0));
    BackendProcess p = dispatcher.dispatch(1, std::vector{d, d}, std::vector{d});
    BackendExecutionSession session;
    run(p, session);
    EXPECT_EQ(log, (Log{"prepare2", "prepare0", "prepare1", "kernel", "restore2"}));
}

namespace {
Key cvec(ScalarType s, ScalarType c, ComplexLayout l, Location loc = Location::pageable_host) {
    return Key::make(OperandKind::vector, loc, s, c, l);
}
Key cmat(ScalarType s, ComplexLayout l, MatrixLayout m, ScalarType c = complex64) {
    return Key::make(OperandKind::matrix, Location::pageable_host, s, c, l, m);
}
} // namespace

TEST(CpuLayoutAdaptation, PredicateBridgesHostComplexLayoutsOnly) {
    constexpr auto pinned = Location::pinned_host;
    const std::tuple<Key, Key, bool> cases[] = {
        {cvec(complex64, complex64, IL), cvec(complex64, complex64, SP), true},
        {cvec(complex64, complex64, IL, pinned), cvec(complex64, complex64, SP, pinned), false},
        {cvec(complex32, complex32, IL), cvec(complex32, complex32, SP), false}, // native half compute
        {cvec(complex32, complex64, IL), cvec(complex32, complex64, SP), true},
        {cmat(complex64, IL, CM), cmat(complex64, IL, RM), true},
        {cmat(float64, ComplexLayout::none, CM, float64), cmat(float64, ComplexLayout::none, RM, float64), false}};
    for (const auto& [requested, registered, adaptable] : cases)
        EXPECT_EQ(cpu_layout_can_adapt(requested, registered), adaptable) << requested.to_string();
}

struct Dims {
    std::uint64_t rows;
    std::uint64_t cols;
};
class MatrixRelayout : public ::testing::TestWithParam<Dims> {};
TEST_P(MatrixRelayout, TransposesExactly) {
    const auto [rows, cols] = GetParam();
    const auto buffers = default_cpu_layout_storage().buffers;
    auto row = dense(complex128, complex128, {rows, cols}, IL, RM);
    auto column = dense(complex128, complex128, {rows, cols}, IL, CM);
    auto back = dense(complex128, complex128, {rows, cols}, IL, RM);
    auto* src = dense_matrix_view<cd>(*row).data;
    for (std::uint64_t k = 0; k < rows * cols; ++k) src[k] = {double(k) + 0.25, -double(k)};
    convert_cpu_layout(*row, *column, buffers);
    const auto* col = dense_matrix_view<cd>(std::as_const(*column)).data;
    for (std::uint64_t i = 0; i < rows; ++i)
        for (std::uint64_t j = 0; j < cols; ++j) ASSERT_EQ(col[j * rows + i], src[i * cols + j]) << i << "," << j;
    convert_cpu_layout(*column, *back, buffers);
    const auto* round = dense_matrix_view<cd>(std::as_const(*back)).data;
    EXPECT_TRUE(std::equal(src, src + rows * cols, round));
}
INSTANTIATE_TEST_SUITE_P(Shapes, MatrixRelayout,
                         ::testing::Values(Dims{1, 1}, Dims{3, 5}, Dims{7, 6}, Dims{33, 35}, Dims{2, 70}));

TEST(CpuLayoutAdaptation, ConversionRejectsMismatchesAndUnsupportedCombinations) {
    const auto buffers = default_cpu_layout_storage().buffers;
    auto a = dense(complex64, complex64, {4, 0}, IL);
    const std::string mismatch = "CPU layout adaptation - shape or numerical policy mismatch";
    const std::string unsupported = "CPU layout adaptation - unsupported policy or operand kind";
    auto convert = [&](const std::unique_ptr<OperandEntity>& from, std::unique_ptr<OperandEntity> to) {
        return [&, to = std::shared_ptr<OperandEntity>(std::move(to))] { convert_cpu_layout(*from, *to, buffers); };
    };
    EXPECT_EQ(message_of<std::logic_error>(convert(a, dense(complex64, complex64, {3, 0}, SP))), mismatch);
    auto split = dense(complex64, complex64, {4, 0}, SP);
    EXPECT_EQ(message_of<std::invalid_argument>(convert(split, dense(complex64, complex64, {4, 0}, SP))),
              unsupported);
}

// ---- Tiled adaptation ----

namespace {

// One operation over complex double operands, served only by a split registration whose kernel
// runs tile by tile; the kernel counts its calls and can be made to fail.
struct TiledFixture {
    OperationRegistry operations;
    OperationId op{"test.tiled", 1};
    BackendAdaptationRegistry adapters;
    BackendRegistry registry;
    std::atomic<int> calls = 0; // tiles may run on workers
    bool fail = false;

    TiledFixture(std::vector<OperandKind> inputs, KernelTiling tiling, LaunchCpuKernelStep::Kernel body) {
        std::vector<RoleDeclaration> roles;
        std::vector<Key> in;
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            roles.push_back({input_role(std::uint32_t(i)), OperandAccess::read, inputs[i]});
            in.push_back(split_key(inputs[i]));
        }
        roles.push_back({output_role(0), OperandAccess::write, OperandKind::vector});
        operations.register_operation(OperationSpec(op, roles), RegistrationProvenance());
        operations.seal();
        install_cpu_layout_adapters(adapters);
        auto kernel = [this, body = std::move(body)](CpuExecutionContext& c, BackendExecutionBindings& b) {
            ++calls;
            if (fail) throw std::invalid_argument("test kernel - operand shape mismatch");
            body(c, b);
        };
        registry.register_backend({BackendKind::cpu_scalar, op, in, {split_key(OperandKind::vector)}},
                                  cpu_kernel_materialiser(BackendKind::cpu_scalar, kernel, tiling),
                                  RegistrationProvenance());
        registry.seal(operations);
    }
    static Key split_key(OperandKind kind) {
        return kind == OperandKind::matrix ? Key::make(kind, Location::pageable_host, complex128, complex128, SP, RM)
                                           : Key::make(kind, Location::pageable_host, complex128, complex128, SP);
    }
    void run(std::vector<const OperandEntity*> inputs, OperandEntity& out,
             std::shared_ptr<const CpuRuntimeContext> runtime = nullptr) {
        BackendDispatcher dispatcher(registry, adapters);
        std::vector<OperandDescriptor> in;
        for (std::size_t i = 0; i < inputs.size(); ++i) in.push_back(describe_operand(*inputs[i], input_role(i)));
        BackendProcess p = dispatcher.dispatch(1, in, std::vector{describe_operand(out, output_role(0))});
        BackendExecutionSession session(std::move(runtime));
        ::run(p, session, true, [&](BackendExecutionBindings& b) {
            for (const OperandEntity* e : inputs) b.bind_read(*e);
            b.bind_write(out);
        });
    }
};

// out = x + 2 y, element by element on split planes.
void axpy_kernel(CpuExecutionContext&, BackendExecutionBindings& b) {
    const auto x = split_vector_view<double>(b.operand(0));
    const auto y = split_vector_view<double>(b.operand(1));
    const auto out = split_vector_view<double>(*b.mutable_operand(2));
    if (x.size != y.size || out.size != x.size) throw std::invalid_argument("axpy - size mismatch");
    for (std::uint64_t i = 0; i < x.size; ++i) {
        out.re[i] = x.re[i] + 2 * y.re[i];
        out.im[i] = x.im[i] + 2 * y.im[i];
    }
}

std::vector<cd> ramp(std::size_t n, double scale) {
    std::vector<cd> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = {scale * double(i) + 0.5, -scale * double(i % 7)};
    return v;
}

constexpr std::uint64_t kTile = TiledKernelStep::kTileElements;

} // namespace

struct TiledCase {
    std::uint64_t n;
    bool in_place; // the output is the first input itself
    std::uint64_t threads = 1;
    bool tiled = true; // untiled: whole operands converted before the kernel, the output written back after
};
class TiledElementwise : public ::testing::TestWithParam<TiledCase> {};
TEST_P(TiledElementwise, MatchesWholeOperandResult) {
    const auto [n, in_place, threads, tiled] = GetParam();
    auto runtime = std::make_shared<CpuRuntimeContext>(quillmark::testing::machine_options(threads + 1, threads));
    TiledFixture f({OperandKind::vector, OperandKind::vector},
                   tiled ? KernelTiling{TileAxis::rows, TileAxis::rows, TileAxis::rows} : KernelTiling{}, axpy_kernel);
    std::vector<cd> xs = ramp(n, 1.0), ys = ramp(n, 0.25), os(n, cd(std::nan(""), 0));
    const std::vector<cd> x0 = xs, y0 = ys;
    BorrowedDenseHostComplexInterleavedVector<PolicyC128> x(xs.data(), n), y(ys.data(), n), o(os.data(), n);
    OperandEntity& out = in_place ? static_cast<OperandEntity&>(x) : o;
    f.run({&x, &y}, out, runtime);
    const std::vector<cd>& result = in_place ? xs : os;
    for (std::uint64_t i = 0; i < n; ++i) ASSERT_EQ(result[i], x0[i] + 2.0 * y0[i]) << i;
    EXPECT_EQ(ys, y0);
    if (!in_place) {
        EXPECT_EQ(xs, x0);
    }
    EXPECT_EQ(std::uint64_t(f.calls), tiled ? (n + kTile - 1) / kTile : 1);
}
INSTANTIATE_TEST_SUITE_P(Lengths, TiledElementwise,
                         ::testing::Values(TiledCase{1, false}, TiledCase{kTile, false}, TiledCase{kTile + 1, false},
                                           TiledCase{5 * kTile - 3, false}, TiledCase{5 * kTile - 3, true},
                                           TiledCase{9 * kTile + 5, false, 3}, TiledCase{9 * kTile + 5, true, 3},
                                           TiledCase{7, false, 1, false}, TiledCase{3 * kTile, true, 1, false}));

TEST(TiledAdaptation, PartlyOverlappingOutputRunsOnWholeCopies) {
    TiledFixture f({OperandKind::vector, OperandKind::vector}, {TileAxis::rows, TileAxis::rows, TileAxis::rows},
                   axpy_kernel);
    const std::uint64_t n = 3 * kTile;
    std::vector<cd> buffer = ramp(n + 1, 1.0), ys = ramp(n, 0.5);
    const std::vector<cd> x0(buffer.begin(), buffer.end() - 1);
    // The output starts one element after the first input: tile by tile it would read results.
    BorrowedDenseHostComplexInterleavedVector<PolicyC128> x(buffer.data(), n), y(ys.data(), n),
        o(buffer.data() + 1, n);
    f.run({&x, &y}, o);
    for (std::uint64_t i = 0; i < n; ++i) ASSERT_EQ(buffer[i + 1], x0[i] + 2.0 * ys[i]) << i;
    EXPECT_EQ(f.calls, 1);
}

TEST(TiledAdaptation, FailureInTheFirstTileLeavesTheOutputAsItWas) {
    TiledFixture f({OperandKind::vector, OperandKind::vector}, {TileAxis::rows, TileAxis::rows, TileAxis::rows},
                   axpy_kernel);
    f.fail = true;
    const std::uint64_t n = 4 * kTile;
    std::vector<cd> xs = ramp(n, 1.0), ys = ramp(n, 2.0), os(n, cd(-1, -1));
    BorrowedDenseHostComplexInterleavedVector<PolicyC128> x(xs.data(), n), y(ys.data(), n), o(os.data(), n);
    EXPECT_THROW(f.run({&x, &y}, o), std::invalid_argument);
    EXPECT_EQ(f.calls, 1);
    EXPECT_EQ(os, std::vector<cd>(n, cd(-1, -1)));
}

// Rows of a row-major matrix are cut; the vector is seen whole by every tile.
class TiledRows : public ::testing::TestWithParam<std::array<std::uint64_t, 2>> {};
TEST_P(TiledRows, MatrixRowsWithWholeVector) {
    const auto [rows, cols] = GetParam();
    TiledFixture f({OperandKind::matrix, OperandKind::vector}, {TileAxis::rows, TileAxis::whole, TileAxis::rows},
                   [](CpuExecutionContext&, BackendExecutionBindings& b) {
                       const auto a = split_matrix_view<double>(b.operand(0));
                       const auto x = split_vector_view<double>(b.operand(1));
                       const auto out = split_vector_view<double>(*b.mutable_operand(2));
                       for (std::uint64_t i = 0; i < a.rows; ++i) {
                           cd sum = 0;
                           for (std::uint64_t j = 0; j < a.cols; ++j)
                               sum += cd(a.re[i * a.cols + j], a.im[i * a.cols + j]) * cd(x.re[j], x.im[j]);
                           out.re[i] = sum.real();
                           out.im[i] = sum.imag();
                       }
                   });
    std::vector<cd> as = ramp(rows * cols, 0.125), xs = ramp(cols, 1.0), os(rows);
    BorrowedDenseHostComplexInterleavedMatrix<PolicyC128> a(as.data(), rows, cols, RM);
    BorrowedDenseHostComplexInterleavedVector<PolicyC128> x(xs.data(), cols), o(os.data(), rows);
    f.run({&a, &x}, o);
    for (std::uint64_t i = 0; i < rows; ++i) {
        cd sum = 0;
        for (std::uint64_t j = 0; j < cols; ++j) sum += as[i * cols + j] * xs[j];
        ASSERT_EQ(os[i], sum) << i;
    }
    const std::uint64_t tile_rows = std::max<std::uint64_t>(1, kTile / cols);
    EXPECT_EQ(std::uint64_t(f.calls), (rows + tile_rows - 1) / tile_rows);
}
INSTANTIATE_TEST_SUITE_P(Shapes, TiledRows,
                         ::testing::Values(std::array<std::uint64_t, 2>{5000, 3}, std::array<std::uint64_t, 2>{3, 5000},
                                           std::array<std::uint64_t, 2>{7, 1}));

namespace {
template <class R> void check_plane_copies(std::string_view name) {
    for (std::uint64_t n : {0u, 1u, 3u, 7u, 8u, 9u, 1001u}) {
        std::vector<std::complex<R>> src(n), back(n);
        for (std::uint64_t i = 0; i < n; ++i) src[i] = {R(i) + R(0.25), -R(i) * 3};
        std::vector<R> re(n), im(n);
        interleaved_to_split(src.data(), re.data(), im.data(), n);
        for (std::uint64_t i = 0; i < n; ++i) ASSERT_EQ(std::complex<R>(re[i], im[i]), src[i]) << name << " " << n;
        split_to_interleaved(re.data(), im.data(), back.data(), n);
        EXPECT_EQ(back, src) << name << " " << n;
    }
}
} // namespace

// The backend's wider interleaved <-> split copies stand in for the portable loops bit for bit
// (the portable set installs none, so its turn checks the loops themselves).
TEST(CpuLayoutAdaptation, InstalledPlaneCopiesAreExact) {
    const auto f64 = cpu::available_vector_kernels<double>();
    const auto f32 = cpu::available_vector_kernels<float>();
    for (std::size_t k = 0; k < f64.size(); ++k) {
        install_complex_plane_copies({f64[k].to_split, f64[k].to_interleaved, f32[k].to_split, f32[k].to_interleaved});
        check_plane_copies<double>(f64[k].name);
        check_plane_copies<float>(f32[k].name);
    }
    const auto& d = cpu::default_vector_kernels<double>();
    const auto& f = cpu::default_vector_kernels<float>();
    install_complex_plane_copies({d.to_split, d.to_interleaved, f.to_split, f.to_interleaved});
}
