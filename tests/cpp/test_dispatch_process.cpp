#include <gtest/gtest.h>

#include "test_support.hpp"

#include "storage/access.hpp"
#include "storage/borrowed_host_storage.hpp"

#include <complex>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "catalogue/operation_registry.hpp"
#include "core/errors.hpp"
#include "dispatch/backend_dispatcher.hpp"
#include "dispatch/backend_process.hpp"
#include "dispatch/layout_adaptation.hpp"

using namespace quillmark;
using quillmark::testing::message_of;

namespace {

using Key = BackendOperandKey;
using Log = std::vector<std::string>;
using enum ScalarType;

class RecordingStep final : public BackendProcessStep {
public:
    RecordingStep(Log* log, std::string name, std::function<void(BackendExecutionBindings&)> action = {},
                  bool* destroyed = nullptr)
        : log_(log), name_(std::move(name)), action_(std::move(action)), destroyed_(destroyed) {}
    ~RecordingStep() override {
        if (destroyed_) *destroyed_ = true;
    }
    void execute(BackendExecutionSession&, BackendExecutionBindings& bindings) override {
        log_->push_back(name_);
        if (action_) action_(bindings);
    }

private:
    Log* log_;
    std::string name_;
    std::function<void(BackendExecutionBindings&)> action_;
    bool* destroyed_;
};

std::unique_ptr<BackendProcessStep> step(Log* log, std::string name, std::function<void(BackendExecutionBindings&)> a = {}) {
    return std::make_unique<RecordingStep>(log, std::move(name), std::move(a));
}

// Vector or matrix operand over plain byte buffers (a second plane for split data).
template <class Base> class BufferEntity final : public Base {
public:
    static constexpr bool is_matrix = std::is_same_v<Base, MatrixEntity>;
    BufferEntity(DataTypeDescriptor dtype, ComplexLayout complex, MatrixLayout layout, std::array<std::uint64_t, 2> extent)
        : dtype_(dtype), complex_(complex), layout_(is_matrix ? layout : MatrixLayout::none), extent_(extent) {
        const auto& meta = scalar_metadata(dtype.storage());
        const std::uint64_t count = extent[0] * (is_matrix ? extent[1] : 1);
        if (complex == ComplexLayout::split) {
            const std::size_t plane = scalar_metadata(meta.component).element_size;
            data.resize(count * plane);
            imag.resize(count * plane);
        } else {
            data.resize(count * meta.element_size);
        }
    }
    const DataTypeDescriptor& dtype() const noexcept override { return dtype_; }
    ComplexLayout complex_layout() const noexcept override { return complex_; }
    MatrixLayout matrix_layout() const noexcept override { return layout_; }
    std::array<std::uint64_t, 2> extent() const noexcept override { return extent_; }
    template <class T> T* as() const { return reinterpret_cast<T*>(data.data()); }
    template <class T> T* imag_as() const { return reinterpret_cast<T*>(imag.data()); }

    mutable std::vector<unsigned char> data;
    mutable std::vector<unsigned char> imag;

private:
    DataTypeDescriptor dtype_;
    ComplexLayout complex_;
    MatrixLayout layout_;
    std::array<std::uint64_t, 2> extent_;
};
using TestVector = BufferEntity<VectorEntity>;
using TestMatrix = BufferEntity<MatrixEntity>;

const DataTypeDescriptor kC64(complex64, complex64);

CpuLayoutStorage test_storage(int* temporaries = nullptr) {
    CpuLayoutStorage s;
    s.make_temporary = [temporaries](const OperandDescriptor& d) -> std::unique_ptr<OperandEntity> {
        if (temporaries) ++*temporaries;
        if (d.kind == OperandKind::vector)
            return std::make_unique<TestVector>(d.dtype, d.complex_layout, d.matrix_layout, d.extent);
        return std::make_unique<TestMatrix>(d.dtype, d.complex_layout, d.matrix_layout, d.extent);
    };
    s.buffers = [](const OperandEntity& e, std::string_view) {
        if (auto* v = dynamic_cast<const TestVector*>(&e)) return LayoutBuffers{v->data.data(), v->imag.data()};
        auto& m = dynamic_cast<const TestMatrix&>(e);
        return LayoutBuffers{m.data.data(), m.imag.data()};
    };
    return s;
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
    if (fail_fast) {
        EXPECT_EQ(log, (Log{"1", "2"}));
        EXPECT_TRUE(bindings.has_deferred_work());
    } else {
        EXPECT_EQ(log, (Log{"1", "2", "deferred"}));
        EXPECT_FALSE(bindings.has_deferred_work());
    }
}
INSTANTIATE_TEST_SUITE_P(FailFast, ProcessFailure, ::testing::Bool());

TEST(BackendProcess, DeferredFailureReplacesTheStepFailure) {
    Log log;
    BackendProcess p;
    p.push_back(step(&log, "1", [](BackendExecutionBindings& b) {
        b.defer([] { throw std::invalid_argument("cleanup"); });
    }));
    p.push_back(step(&log, "2", [](BackendExecutionBindings&) { throw std::runtime_error("boom"); }));
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    EXPECT_EQ(message_of<std::invalid_argument>([&] { p.execute(session, bindings, false); }), "cleanup");

    // Success with deferred work still completes it.
    BackendProcess q;
    q.push_back(step(&log, "only", [&](BackendExecutionBindings& b) { b.defer([&] { log.push_back("later"); }); }));
    q.execute(session, bindings, false);
    EXPECT_EQ(log.back(), "later");
}

TEST(BackendProcess, NestedExecutionInOneSessionIsRefused) {
    Log log;
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    BackendProcess inner;
    BackendProcess outer;
    outer.push_back(step(&log, "outer", [&](BackendExecutionBindings& b) { inner.execute(session, b, true); }));
    EXPECT_EQ(message_of<std::logic_error>([&] { outer.execute(session, bindings, true); }),
              "BackendExecutionSession - nested process execution is unsupported");
    EXPECT_FALSE(session.active());
    BackendProcess empty;
    EXPECT_NO_THROW(empty.execute(session, bindings, false));
}

struct PlanCase {
    const char* name;
    BackendKind target;
    std::optional<std::int32_t> device;
    std::uint32_t options;
    const char* error;
};
class ExecutionPlanRules : public ::testing::TestWithParam<PlanCase> {};
TEST_P(ExecutionPlanRules, ValidatesInOrder) {
    const auto& c = GetParam();
    BackendProcess p;
    const auto got = message_of<std::invalid_argument>([&] { p.set_execution_plan({c.target, c.device, c.options, {}}); });
    EXPECT_EQ(got, c.error ? c.error : "");
    EXPECT_EQ(p.plan().has_value(), c.error == nullptr);
}
constexpr const char* kDeviceMsg = "BackendProcess::set_execution_plan - CUDA device id must be non-negative";
constexpr const char* kCpuMsg = "BackendProcess::set_execution_plan - CPU plan cannot specify CUDA execution options";
INSTANTIATE_TEST_SUITE_P(Plans, ExecutionPlanRules,
                         ::testing::Values(PlanCase{"cpu_with_device", BackendKind::cpu_scalar, 0, 0, kCpuMsg},
                                           PlanCase{"cpu_with_options", BackendKind::cpu_simd, std::nullopt, 1, kCpuMsg},
                                           PlanCase{"cuda_negative", BackendKind::cuda, -1, 0, kDeviceMsg},
                                           PlanCase{"cpu_negative_device_first", BackendKind::cpu_scalar, -1, 4, kDeviceMsg},
                                           PlanCase{"cuda_full", BackendKind::cuda, 0, 5, nullptr},
                                           PlanCase{"cpu_plain", BackendKind::cpu_scalar, std::nullopt, 0, nullptr}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BackendProcess, PlanPairsKeepExistingValuesAndCudaPlansRefuseToRun) {
    BackendProcess p;
    p.set_execution_plan({BackendKind::cpu_scalar, std::nullopt, 0, {{7, 70}}});
    p.set_execution_plan({BackendKind::cpu_scalar, std::nullopt, 0, {{1, 99}, {2, 20}}}); // replaces the list
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    const std::vector<BackendExecutionBindings::ValuePair> existing{{1, 10}};
    bindings.install_pairs(existing);
    p.execute(session, bindings, true);
    EXPECT_EQ(bindings.value(1), 10u);
    EXPECT_EQ(bindings.value(2), 20u);
    EXPECT_FALSE(bindings.value(7));

    BackendProcess cuda;
    cuda.set_execution_plan({BackendKind::cuda, 0, 0, {}});
    EXPECT_EQ(message_of<std::invalid_argument>([&] { cuda.execute(session, bindings, true); }),
              "BackendProcess::execute - CUDA plan requires a CUDA-enabled build");
    EXPECT_FALSE(session.active());
}

TEST(BackendProcess, InsertionChecksAndUnusableProcessLeaksItsSteps) {
    BackendProcess p;
    EXPECT_EQ(message_of<std::invalid_argument>([&] { p.push_front(nullptr); }), "BackendProcess::push_front - null step");
    EXPECT_EQ(message_of<std::invalid_argument>([&] { p.push_back(nullptr); }), "BackendProcess::push_back - null step");
    EXPECT_TRUE(p.empty());

    Log log;
    bool destroyed = false;
    auto* raw = new RecordingStep(&log, "leaked", {}, &destroyed);
    p.push_back(std::unique_ptr<BackendProcessStep>(raw));
    p.mark_unusable();
    EXPECT_TRUE(p.unusable());
    EXPECT_EQ(p.step_count(), 0u);
    EXPECT_FALSE(destroyed);
    const std::string suffix = " - process is unusable after CUDA completion could not be confirmed";
    EXPECT_EQ(message_of<std::logic_error>([&] { p.push_back(step(&log, "x")); }), "BackendProcess::push_back" + suffix);
    EXPECT_EQ(message_of<std::logic_error>([&] { p.push_front(nullptr); }), "BackendProcess::push_front" + suffix);
    EXPECT_EQ(message_of<std::logic_error>([&] { p.set_execution_plan({}); }), "BackendProcess::set_execution_plan" + suffix);
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    EXPECT_EQ(message_of<std::logic_error>([&] { p.execute(session, bindings, true); }), "BackendProcess::execute" + suffix);
    delete raw; // the process gave it up; the test owns it now
    EXPECT_TRUE(destroyed);
}

TEST(CpuSteps, ContextRequiresACpuBackend) {
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    EXPECT_EQ(message_of<std::logic_error>([&] { session.cpu(BackendKind::cuda); }),
              "BackendExecutionSession::cpu - non-CPU backend requested");
    EXPECT_EQ(session.cpu(BackendKind::cpu_simd).backend(), BackendKind::cpu_simd);
    LaunchCpuKernelStep bad(BackendKind::cuda, [](CpuExecutionContext&, BackendExecutionBindings&) {});
    EXPECT_EQ(message_of<std::invalid_argument>([&] { bad.execute(session, bindings); }),
              "CpuProcessStepDetail::with_cpu_context - CPU backend required");
    BackendKind seen = BackendKind::cuda;
    LaunchCpuKernelStep good(BackendKind::cpu_simd,
                             [&](CpuExecutionContext& c, BackendExecutionBindings&) { seen = c.backend(); });
    good.execute(session, bindings);
    EXPECT_EQ(seen, BackendKind::cpu_simd);
}

TEST(Bindings, SubstitutionKeepsTheOriginalReachable) {
    TestVector caller(kC64, ComplexLayout::interleaved, MatrixLayout::none, {3, 0});
    TestVector input(kC64, ComplexLayout::interleaved, MatrixLayout::none, {3, 0});
    BackendExecutionBindings b;
    EXPECT_EQ(b.bind_read(input), 0u);
    EXPECT_EQ(b.bind_write(caller), 1u);
    EXPECT_EQ(b.mutable_operand(0), nullptr);
    EXPECT_EQ(b.mutable_operand(1), &caller);
    auto temp = std::make_unique<TestVector>(kC64, ComplexLayout::split, MatrixLayout::none, std::array<std::uint64_t, 2>{3, 0});
    auto* t = temp.get();
    b.substitute(0, std::move(temp));
    EXPECT_EQ(&b.operand(0), t);
    EXPECT_EQ(b.mutable_operand(0), t);
    EXPECT_EQ(&b.original(0), &input);
    EXPECT_EQ(b.mutable_original(0), nullptr);
    EXPECT_THROW(b.substitute(0, std::make_unique<TestVector>(kC64, ComplexLayout::split, MatrixLayout::none,
                                                              std::array<std::uint64_t, 2>{3, 0})),
                 std::logic_error);
    EXPECT_THROW(b.operand(2), std::out_of_range);
}

// ---- Adaptation insertion order ----

TEST(BackendDispatcher, InputStepsKeepBuildOrderAndRestoresFollowTheKernel) {
    OperationRegistry catalogue;
    const OperationId op("test.binary", 1);
    catalogue.register_operation(
        OperationSpec(op, {{input_role(0), OperandAccess::read, OperandKind::vector},
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
    auto differs = [](const Key& a, const Key& b) { return a.kind == b.kind; };
    adapters.add_input_adapter({differs, builder(false)});
    adapters.add_output_adapter({differs, builder(true)});

    const Key registered = Key::make(OperandKind::vector, Location::pageable_host, complex64, complex64, ComplexLayout::split);
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
    OperandDescriptor d;
    d.kind = OperandKind::vector;
    d.dtype = kC64;
    d.complex_layout = ComplexLayout::interleaved;
    BackendProcess p = dispatcher.dispatch(1, std::vector{d, d}, std::vector{d});
    EXPECT_EQ(p.plan()->target, BackendKind::cpu_simd);
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    p.execute(session, bindings, true);
    EXPECT_EQ(log, (Log{"prepare2", "prepare0", "prepare1", "kernel", "restore2"}));
}

// ---- CPU layout adaptation ----

struct PredicateCase {
    const char* name;
    Key requested;
    Key registered;
    bool adaptable;
};
class CpuLayoutPredicate : public ::testing::TestWithParam<PredicateCase> {};
TEST_P(CpuLayoutPredicate, Bridges) {
    EXPECT_EQ(cpu_layout_can_adapt(GetParam().requested, GetParam().registered), GetParam().adaptable);
}
namespace {
Key cvec(ScalarType s, ScalarType c, ComplexLayout l, Location loc = Location::pageable_host) {
    return Key::make(OperandKind::vector, loc, s, c, l);
}
Key cmat(ScalarType s, ComplexLayout l, MatrixLayout m, ScalarType c = complex64) {
    return Key::make(OperandKind::matrix, Location::pageable_host, s, c, l, m);
}
constexpr auto IL = ComplexLayout::interleaved;
constexpr auto SP = ComplexLayout::split;
constexpr auto RM = MatrixLayout::row_major;
constexpr auto CM = MatrixLayout::column_major;
} // namespace
INSTANTIATE_TEST_SUITE_P(
    Cases, CpuLayoutPredicate,
    ::testing::Values(
        PredicateCase{"vector_to_split", cvec(complex64, complex64, IL), cvec(complex64, complex64, SP), true},
        PredicateCase{"split_to_interleaved_not_requested", cvec(complex64, complex64, SP), cvec(complex64, complex64, IL), false},
        PredicateCase{"pinned_never", cvec(complex64, complex64, IL, Location::pinned_host),
                      cvec(complex64, complex64, SP, Location::pinned_host), false},
        PredicateCase{"complex32_native_compute", cvec(complex32, complex32, IL), cvec(complex32, complex32, SP), false},
        PredicateCase{"complex32_widened_compute", cvec(complex32, complex64, IL), cvec(complex32, complex64, SP), true},
        PredicateCase{"compute_differs", cvec(complex128, complex128, IL), cvec(complex128, complex64, SP), false},
        PredicateCase{"matrix_row_to_split", cmat(complex64, IL, RM), cmat(complex64, SP, RM), true},
        PredicateCase{"matrix_column_to_split", cmat(complex64, IL, CM), cmat(complex64, SP, RM), false},
        PredicateCase{"matrix_row_to_column", cmat(complex128, IL, RM, complex128), cmat(complex128, IL, CM, complex128), true},
        PredicateCase{"matrix_column_to_row", cmat(complex64, IL, CM), cmat(complex64, IL, RM), true},
        PredicateCase{"real_column_never", cmat(float64, ComplexLayout::none, CM, float64),
                      cmat(float64, ComplexLayout::none, RM, float64), false},
        PredicateCase{"lu_never", Key::make(OperandKind::lu, Location::pageable_host, complex64, complex64, IL, CM),
                      Key::make(OperandKind::lu, Location::pageable_host, complex64, complex64, IL, RM), false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(CpuLayoutAdaptation, AdaptedOutputIsWrittenBackAfterTheKernel) {
    OperationRegistry catalogue;
    const OperationId op("test.double", 1);
    catalogue.register_operation(OperationSpec(op, {{input_role(0), OperandAccess::read, OperandKind::vector},
                                                    {output_role(0), OperandAccess::write, OperandKind::vector}}),
                                 RegistrationProvenance());
    catalogue.seal();

    BackendAdaptationRegistry adapters;
    int temporaries = 0;
    install_cpu_layout_adapters(adapters, test_storage(&temporaries));
    const Key split = cvec(complex64, complex64, SP);
    bool kernel_saw_split = false;
    auto kernel = [&](CpuExecutionContext&, BackendExecutionBindings& b) {
        const auto& in = dynamic_cast<const TestVector&>(b.operand(0));
        auto& out = dynamic_cast<TestVector&>(*b.mutable_operand(1));
        kernel_saw_split = in.complex_layout() == SP && out.complex_layout() == SP;
        for (std::uint64_t i = 0; i < in.extent()[0]; ++i) {
            out.as<float>()[i] = 2 * in.as<float>()[i];
            out.imag_as<float>()[i] = 2 * in.imag_as<float>()[i];
        }
    };
    BackendRegistry registry;
    registry.register_backend({BackendKind::cpu_scalar, op, {split}, {split}},
                              cpu_kernel_materialiser(BackendKind::cpu_scalar, kernel), RegistrationProvenance());
    registry.seal(catalogue);
    BackendDispatcher dispatcher(registry, adapters);

    constexpr std::uint64_t n = 7; // one unrolled block and a tail
    TestVector in(kC64, IL, MatrixLayout::none, {n, 0});
    TestVector out(kC64, IL, MatrixLayout::none, {n, 0});
    for (std::uint64_t i = 0; i < n; ++i) in.as<std::complex<float>>()[i] = {float(i + 1), -float(i) / 2};
    const std::vector<OperandDescriptor> ins{describe_operand(in, input_role(0))};
    const std::vector<OperandDescriptor> outs{describe_operand(out, output_role(0))};

    BackendProcess p = dispatcher.dispatch(1, ins, outs);
    ASSERT_EQ(p.step_count(), 4u);
    EXPECT_NE(dynamic_cast<const AdaptVectorStep*>(&p.step(0)), nullptr);
    EXPECT_NE(dynamic_cast<const AdaptVectorStep*>(&p.step(1)), nullptr);
    EXPECT_NE(dynamic_cast<const LaunchCpuKernelStep*>(&p.step(2)), nullptr);
    EXPECT_NE(dynamic_cast<const RestoreAdaptedStep*>(&p.step(3)), nullptr);

    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    bindings.bind_read(in);
    bindings.bind_write(out);
    p.execute(session, bindings, false);
    EXPECT_TRUE(kernel_saw_split);
    EXPECT_EQ(temporaries, 2);
    for (std::uint64_t i = 0; i < n; ++i) {
        EXPECT_EQ(out.as<std::complex<float>>()[i], 2.0f * in.as<std::complex<float>>()[i]) << i;
        EXPECT_EQ(in.as<std::complex<float>>()[i], std::complex<float>(float(i + 1), -float(i) / 2)) << i;
    }
}

struct Dims {
    std::uint64_t rows;
    std::uint64_t cols;
};
class MatrixRelayout : public ::testing::TestWithParam<Dims> {};
TEST_P(MatrixRelayout, TransposesAndSplitsExactly) {
    const auto [rows, cols] = GetParam();
    const auto storage = test_storage();
    const DataTypeDescriptor c128(complex128, complex128);
    TestMatrix row(c128, IL, RM, {rows, cols});
    TestMatrix column(c128, IL, CM, {rows, cols});
    TestMatrix back(c128, IL, RM, {rows, cols});
    auto* src = row.as<std::complex<double>>();
    for (std::uint64_t k = 0; k < rows * cols; ++k) src[k] = {double(k) + 0.25, -double(k)};
    convert_cpu_layout(row, column, storage.buffers);
    for (std::uint64_t i = 0; i < rows; ++i)
        for (std::uint64_t j = 0; j < cols; ++j)
            ASSERT_EQ(column.as<std::complex<double>>()[j * rows + i], src[i * cols + j]) << i << "," << j;
    convert_cpu_layout(column, back, storage.buffers);
    EXPECT_EQ(back.data, row.data);

    // complex32 round trip through split planes keeps the bits.
    const DataTypeDescriptor c32(complex32, complex64);
    TestMatrix a(c32, IL, RM, {rows, cols}), s(c32, SP, RM, {rows, cols}), b(c32, IL, RM, {rows, cols});
    for (std::size_t k = 0; k < a.data.size(); ++k) a.data[k] = static_cast<unsigned char>(k * 37 + 11);
    convert_cpu_layout(a, s, storage.buffers);
    EXPECT_EQ(s.as<Float16>()[rows * cols - 1], a.as<Complex32>()[rows * cols - 1].real);
    EXPECT_EQ(s.imag_as<Float16>()[0], a.as<Complex32>()[0].imag);
    convert_cpu_layout(s, b, storage.buffers);
    EXPECT_EQ(b.data, a.data);
}
INSTANTIATE_TEST_SUITE_P(Shapes, MatrixRelayout,
                         ::testing::Values(Dims{1, 1}, Dims{3, 5}, Dims{4, 4}, Dims{7, 6}, Dims{33, 35}, Dims{2, 70}));

TEST(CpuLayoutAdaptation, ConversionRejectsMismatchesAndUnsupportedCombinations) {
    const auto storage = test_storage();
    TestVector a(kC64, IL, MatrixLayout::none, {4, 0});
    TestVector shorter(kC64, SP, MatrixLayout::none, {3, 0});
    TestVector wider(DataTypeDescriptor(complex128, complex128), SP, MatrixLayout::none, {4, 0});
    TestVector split(kC64, SP, MatrixLayout::none, {4, 0});
    TestVector split2(kC64, SP, MatrixLayout::none, {4, 0});
    TestVector real(DataTypeDescriptor(float64, float64), ComplexLayout::none, MatrixLayout::none, {4, 0});
    TestVector real2(DataTypeDescriptor(float64, float64), ComplexLayout::none, MatrixLayout::none, {4, 0});
    TestMatrix col(kC64, IL, CM, {2, 2}), split_row(kC64, SP, RM, {2, 2});
    const std::string mismatch = "CPU layout adaptation - shape or numerical policy mismatch";
    const std::string unsupported = "CPU layout adaptation - unsupported policy or operand kind";
    EXPECT_EQ(message_of<std::logic_error>([&] { convert_cpu_layout(a, shorter, storage.buffers); }), mismatch);
    EXPECT_EQ(message_of<std::logic_error>([&] { convert_cpu_layout(a, wider, storage.buffers); }), mismatch);
    EXPECT_EQ(message_of<std::invalid_argument>([&] { convert_cpu_layout(split, split2, storage.buffers); }), unsupported);
    EXPECT_EQ(message_of<std::invalid_argument>([&] { convert_cpu_layout(real, real2, storage.buffers); }), unsupported);
    EXPECT_EQ(message_of<std::invalid_argument>([&] { convert_cpu_layout(col, split_row, storage.buffers); }), unsupported);
}

TEST(CpuLayoutAdaptation, DefaultStorageRoundTripsAnInterleavedOutput) {
    BackendAdaptationRegistry adapters;
    install_cpu_layout_adapters(adapters);
    ASSERT_EQ(adapters.input_adapters().size(), 1u);
    ASSERT_EQ(adapters.output_adapters().size(), 1u);
    const Key a = cvec(complex64, complex64, IL), b = cvec(complex64, complex64, SP);
    std::vector<std::complex<float>> caller{{1, 2}, {3, 4}};
    BorrowedDenseHostComplexInterleavedVector<PolicyC64> v(caller.data(), caller.size());
    const OperandDescriptor d = describe_operand(v, output_role(0));
    AdaptationSteps steps = adapters.output_adapters()[0].build(0, d, a, b);
    ASSERT_EQ(steps.before.size(), 1u);
    ASSERT_EQ(steps.after.size(), 1u);
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    bindings.bind_write(v);
    steps.before[0]->execute(session, bindings);
    auto split = split_vector_view<float>(*bindings.mutable_operand(0));
    EXPECT_EQ(split.re[1], 3.0f);
    EXPECT_EQ(split.im[0], 2.0f);
    split.im[1] = -8.0f; // what a kernel would write
    steps.after[0]->execute(session, bindings);
    EXPECT_EQ(caller[1], std::complex<float>(3, -8));
    AdaptVectorStep no_adapt(0, [](const VectorEntity&) { return std::unique_ptr<VectorEntity>(); }, {});
    EXPECT_EQ(message_of<std::logic_error>([&] { no_adapt.execute(session, bindings); }),
              "AdaptOperandStep::execute - adapt not set");
}
