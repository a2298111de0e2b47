#include <gtest/gtest.h>

#include "test_support.hpp"

#include <optional>
#include <string>
#include <vector>

#include "catalogue/operation_registry.hpp"
#include "core/errors.hpp"
#include "dispatch/backend_dispatcher.hpp"
#include "dispatch/backend_registry.hpp"
#include "dispatch/gpu_placement.hpp"
#include "dispatch/layout_adaptation.hpp"

using namespace quillmark;
using quillmark::testing::message_of;
using quillmark::testing::reasoned_message_of;

namespace {

using Key = BackendOperandKey;
using enum ScalarType;

template <class F> std::string dispatch_failure(F&& f) { return reasoned_message_of<DispatchError>(f); }

ScalarType compute_of(ScalarType s) { return s == complex32 ? complex64 : (s == bfloat16 || s == float16 ? float32 : s); }
ComplexLayout complex_of(ScalarType s) {
    return is_complex_category(scalar_metadata(s).category) ? ComplexLayout::interleaved : ComplexLayout::none;
}

Key vec(ScalarType s, std::optional<ComplexLayout> c = std::nullopt, Location loc = Location::pageable_host) {
    return Key::make(OperandKind::vector, loc, s, compute_of(s), c.value_or(complex_of(s)));
}
Key mat(ScalarType s, MatrixLayout layout, std::optional<ComplexLayout> c = std::nullopt) {
    return Key::make(OperandKind::matrix, Location::pageable_host, s, compute_of(s), c.value_or(complex_of(s)), layout);
}

OperandDescriptor vector_descriptor(ScalarType s) {
    OperandDescriptor d;
    d.kind = OperandKind::vector;
    d.dtype = DataTypeDescriptor(s, s);
    d.complex_layout = complex_of(s);
    return d;
}

// A catalogue with a unary vector operation (handle 1), a unary matrix operation (handle 2) and a
// vector operation with a write and a read_write output (handle 3).
struct Catalogue {
    OperationRegistry registry;
    OperationId unary{"test.unary", 1};
    OperationId matrix{"test.matrix", 1};
    OperationId two_outputs{"test.two_outputs", 1};
    Catalogue() {
        auto roles = [](OperandKind k) {
            return std::vector<RoleDeclaration>{{input_role(0), OperandAccess::read, k},
                                                {output_role(0), OperandAccess::write, k}};
        };
        registry.register_operation(OperationSpec(unary, roles(OperandKind::vector)), RegistrationProvenance());
        registry.register_operation(OperationSpec(matrix, roles(OperandKind::matrix)), RegistrationProvenance());
        auto two = roles(OperandKind::vector);
        two.push_back({output_role(1), OperandAccess::read_write, OperandKind::vector});
        registry.register_operation(OperationSpec(two_outputs, two), RegistrationProvenance());
        registry.seal();
    }
};

// Records the name of the registration whose process ran.
BackendMaterialiser marker(std::vector<std::string>* log, std::string name) {
    return cpu_kernel_materialiser(BackendKind::cpu_scalar,
                                   [log, name](CpuExecutionContext&, BackendExecutionBindings&) { log->push_back(name); });
}

// Bridges any two keys of the same kind, contributing no steps.
BackendAdaptationRegistry permissive_adapters() {
    BackendAdaptationRegistry r;
    BackendAdapter a{[](const Key& x, const Key& y) { return x.kind == y.kind; },
                     [](std::size_t, const OperandDescriptor&, const Key&, const Key&) { return AdaptationSteps{}; }};
    r.add_input_adapter(a);
    r.add_output_adapter(a);
    return r;
}

void run_once(BackendProcess p) {
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    p.execute(session, bindings, true);
}

} // namespace

// ---- Operand keys ----

Key edited(Key k, void (*edit)(Key&)) {
    edit(k);
    return k;
}

TEST(OperandKey, EqualityAndHashAgree) {
    Key no_alternative = vec(complex64);
    no_alternative.set_format_alternative(Key::no_format);
    const Key row = mat(float32, MatrixLayout::row_major);
    const struct {
        Key a, b;
        bool equal;
    } cases[] = {
        {vec(float32), edited(vec(float32), [](Key& k) { k.layout = 1; }), true}, // absent layout value ignored
        {vec(float32), edited(vec(float32), [](Key& k) { k.set_layout(MatrixLayout::row_major); }), false},
        {row, edited(row, [](Key& k) { k.set_layout(MatrixLayout::column_major); }), false},
        {row, edited(row, [](Key& k) { k.layout_present = 0x101; }), true}, // presence high bytes ignored
        {no_alternative, edited(no_alternative, [](Key& k) { k.format = 7; }), true},
        {vec(float32), edited(vec(float32), [](Key& k) { k.format = 1; }), false},
        {vec(complex32), edited(vec(complex32), [](Key& k) { k.compute = std::uint32_t(complex32); }), false}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.a == c.b, c.equal) << c.b.to_string();
        EXPECT_EQ(c.b == c.a, c.equal) << c.b.to_string();
        EXPECT_TRUE(!c.equal || BackendOperandKeyHash{}(c.a) == BackendOperandKeyHash{}(c.b)) << c.b.to_string();
    }
}

namespace {
// A sealed-on-demand registry over the test catalogue, with same-kind adapters unless replaced.
struct Fixture {
    Catalogue cat;
    BackendRegistry r;
    BackendAdaptationRegistry adapters = permissive_adapters();
    std::vector<std::string> log;
    void add(BackendKind kind, Key in, Key out, std::string name = "x", const OperationId* op = nullptr) {
        r.register_backend({kind, op ? *op : cat.unary, {in}, {out}}, marker(&log, std::move(name)),
                           RegistrationProvenance());
    }
    DataTypeDescriptor infer(std::uint32_t handle, Key in, DenseResultRequest request,
                             std::vector<BackendKind> kinds = {BackendKind::cpu_scalar, BackendKind::cpu_simd}) {
        return r.infer_dense_result_policy(handle, kinds, std::vector{in}, request, adapters);
    }
};
} // namespace

// ---- Registry lifecycle ----

TEST(BackendRegistry, LifecycleErrorsLeaveItUnchanged) {
    Fixture f;
    EXPECT_EQ(message_of<std::invalid_argument>(
                  [] { BackendRegistryKey(BackendKind::cpu_scalar, {"a.b", 1}, {vec(float32)}, {}); }),
              "BackendRegistryKey - at least one output is required");
    EXPECT_EQ(message_of<std::logic_error>([&] { f.r.find(1, BackendKind::cpu_scalar, {}, {}, f.adapters); }),
              "BackendRegistry::find - numeric catalogue is not sealed");
    f.add(BackendKind::cpu_scalar, vec(float32), vec(float32));
    EXPECT_EQ(message_of<std::invalid_argument>([&] { f.add(BackendKind::cpu_scalar, vec(float32), vec(float32)); }),
              "BackendRegistry::register_backend - duplicate registration for test.unary@1");
    OperationRegistry open;
    EXPECT_EQ(message_of<std::logic_error>([&] { f.r.seal(open); }),
              "BackendRegistry::seal - operation catalogue must be sealed first");
    EXPECT_FALSE(f.r.sealed());
    f.r.seal(f.cat.registry);
    EXPECT_EQ(message_of<std::logic_error>([&] { f.add(BackendKind::cpu_simd, vec(float32), vec(float32)); }),
              "BackendRegistry::register_backend - catalogue is sealed");
    EXPECT_EQ(f.r.registrations_for(1).size(), 1u);
}

TEST(BackendRegistry, CopyRebuildsIndexOverTheCopies) {
    Fixture f;
    f.add(BackendKind::cpu_scalar, vec(float32), vec(float32));
    f.add(BackendKind::cpu_simd, vec(float32), vec(float32));
    f.r.seal(f.cat.registry);
    const std::vector<Key> in{vec(float32)};
    BackendRegistry copy(f.r);
    BackendRegistry assigned;
    assigned = f.r;
    for (const BackendRegistry* c : {&copy, &assigned}) {
        auto m = c->find(1, BackendKind::cpu_simd, in, in, f.adapters);
        ASSERT_TRUE(m);
        EXPECT_EQ(&c->registrations().find(*m->key)->first, m->key);
    }
}

// ---- Costs and choice ----

TEST(BackendRegistry, CostCountsHostAndDeviceAdaptations) {
    using L = Location;
    const std::tuple<L, L, std::uint64_t> cases[] = {{L::pageable_host, L::pageable_host, 0},
                                                     {L::pinned_host, L::pageable_host, 1},
                                                     {L::pageable_host, L::pinned_host, 1},
                                                     {L::cuda_device, L::pageable_host, 2},
                                                     {L::pageable_host, L::cuda_device, 2}};
    for (const auto& [requested, registered, cost] : cases) {
        Fixture f;
        f.add(BackendKind::cpu_scalar, vec(float32, {}, registered), vec(float32));
        f.r.seal(f.cat.registry);
        const std::vector<Key> in{vec(float32, {}, requested)}, out{vec(float32)};
        auto m = f.r.find(1, BackendKind::cpu_scalar, in, out, f.adapters);
        ASSERT_TRUE(m);
        EXPECT_EQ(m->cost, cost);
        EXPECT_FALSE(f.r.find(1, BackendKind::cpu_scalar, in, std::vector<Key>{}, f.adapters)); // arity
    }
}

TEST(BackendRegistry, EqualCostTieFailsInsideFindEvenWithAnExactOtherKind) {
    Fixture f;
    const Key requested = vec(complex64);
    // Both cost 1 for cpu_scalar; cpu_simd matches exactly.
    f.add(BackendKind::cpu_scalar, vec(complex64, {}, Location::pinned_host), requested);
    f.add(BackendKind::cpu_scalar, vec(complex64, ComplexLayout::split), requested);
    f.add(BackendKind::cpu_simd, requested, requested);
    f.r.seal(f.cat.registry);
    const std::vector<Key> keys{requested};
    const std::string out = "outputs=[kind=1,location=0,storage=7,compute=7,complex=2,format=1,layout=-]";
    const std::string expected =
        "registry_contract_mismatch: BackendRegistry::find - ambiguous equal-cost registrations for numeric "
        "operation handle 1: backend=0,inputs=[kind=1,location=0,storage=7,compute=7,complex=1,format=1,layout=-]," +
        out + " | backend=0,inputs=[kind=1,location=1,storage=7,compute=7,complex=2,format=1,layout=-]," + out;
    EXPECT_EQ(dispatch_failure([&] { f.r.find(1, BackendKind::cpu_scalar, keys, keys, f.adapters); }), expected);
    EXPECT_EQ(f.r.find(1, BackendKind::cpu_simd, keys, keys, f.adapters)->cost, 0u);

    const OperandDescriptor d = vector_descriptor(complex64);
    BackendDispatcher dispatcher(f.r, f.adapters);
    EXPECT_EQ(dispatch_failure([&] { dispatcher.dispatch(1, std::vector{d}, std::vector{d}); }), expected);
}

TEST(BackendDispatcher, PortableBackendWinsTiesAndSimdOnlyWhenStrictlyCheaper) {
    const struct {
        std::optional<int> scalar_cost, simd_cost;
        std::optional<BackendKind> chosen;
    } cases[] = {{1, 1, BackendKind::cpu_scalar},
                 {0, 0, BackendKind::cpu_scalar},
                 {1, 0, BackendKind::cpu_simd},
                 {std::nullopt, std::nullopt, std::nullopt}};
    for (const auto& c : cases) {
        Fixture f;
        const Key requested = vec(float32);
        auto add = [&](BackendKind kind, std::optional<int> cost) {
            if (cost)
                f.add(kind, *cost == 0 ? requested : vec(float32, {}, Location::pinned_host), requested,
                      std::string(backend_kind_name(kind)));
        };
        add(BackendKind::cpu_scalar, c.scalar_cost);
        add(BackendKind::cpu_simd, c.simd_cost);
        // A cuda registration is never looked up, even as the only exact match.
        f.add(BackendKind::cuda, requested, requested, "cuda");
        f.r.seal(f.cat.registry);

        const OperandDescriptor d = vector_descriptor(float32);
        BackendDispatcher dispatcher(f.r, f.adapters);
        const std::string failure = dispatch_failure([&] { run_once(dispatcher.dispatch(1, {&d, 1}, {&d, 1})); });
        if (!c.chosen)
            EXPECT_EQ(failure, "no_backend_available: BackendDispatcher::dispatch - no backend entry available");
        else
            EXPECT_EQ(f.log, std::vector<std::string>{std::string(backend_kind_name(*c.chosen))});
    }
}

TEST(BackendDispatcher, RequiresSealedRegistryAndSupportedAdaptation) {
    Fixture f;
    BackendAdaptationRegistry none;
    EXPECT_EQ(message_of<std::invalid_argument>([&] { BackendDispatcher(f.r, none); }),
              "BackendDispatcher - backend catalogue must be sealed");
    f.r.seal(f.cat.registry);
    BackendDispatcher dispatcher(f.r, none);
    BackendProcess p;
    EXPECT_EQ(dispatch_failure([&] {
                  dispatcher.adapt_output(p, 0, std::vector<OperandDescriptor>(1), std::vector{vec(float32)},
                                          std::vector{vec(float64)});
              }),
              "unsupported_adaptation: BackendDispatcher::adapt_output - unsupported operand adaptation");
    EXPECT_TRUE(p.empty());
}

TEST(BackendDispatcher, RemembersAChoiceOnlyWhileTheAdaptersAreUnchanged) {
    // cpu_scalar is registered for pinned memory, cpu_simd for float64: a pageable float32 request
    // reaches either only through an adapter, and each adapter bridges one difference.
    Fixture f;
    f.add(BackendKind::cpu_scalar, vec(float32, {}, Location::pinned_host), vec(float32), "scalar");
    f.add(BackendKind::cpu_simd, vec(float64), vec(float32), "simd");
    f.r.seal(f.cat.registry);
    const auto bridging = [](bool (*differs)(const Key&, const Key&)) {
        return BackendAdapter{differs, [](std::size_t, const OperandDescriptor&, const Key&, const Key&) {
                                  return AdaptationSteps{};
                              }};
    };
    BackendAdaptationRegistry adapters;
    adapters.add_output_adapter(bridging([](const Key& a, const Key& b) { return a.kind == b.kind; }));
    adapters.add_input_adapter(bridging([](const Key& a, const Key& b) { return a.storage != b.storage; }));
    BackendDispatcher dispatcher(f.r, adapters);
    const std::vector<OperandDescriptor> d{vector_descriptor(float32)};
    for (int i = 0; i < 2; ++i) run_once(dispatcher.dispatch(1, d, d));
    EXPECT_EQ(f.log, (std::vector<std::string>{"simd", "simd"}));
    EXPECT_EQ(dispatcher.direct_kernel(1, d, d), nullptr); // an adaptation is needed

    // Now both cost one adaptation, and the tie goes to cpu_scalar.
    adapters.add_input_adapter(bridging([](const Key& a, const Key& b) { return a.location != b.location; }));
    run_once(dispatcher.dispatch(1, d, d));
    EXPECT_EQ(f.log.back(), "scalar");

    // An exact request runs its kernel without a process.
    OperandDescriptor pinned = vector_descriptor(float32);
    pinned.location = Location::pinned_host;
    const CpuKernelMaterialiser* kernel = dispatcher.direct_kernel(1, std::vector{pinned}, d);
    ASSERT_NE(kernel, nullptr);
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    kernel->launch(session, bindings, false);
    EXPECT_EQ(f.log.back(), "scalar");
    EXPECT_FALSE(session.active());
}

TEST(BackendDispatcher, WriteOnlyOutputsTakeTheWriteOnlyBuilder) {
    // One write output and one read_write output, both needing an adaptation: only the first may
    // skip carrying the caller's contents in.
    Fixture f;
    f.r.register_backend({BackendKind::cpu_scalar, f.cat.two_outputs, {vec(float32)}, {vec(float64), vec(float64)}},
                         marker(&f.log, "kernel"), RegistrationProvenance());
    f.r.seal(f.cat.registry);
    EXPECT_EQ(f.r.write_only_outputs(3), 1u);
    const auto logging = [&f](std::string word) {
        return [&f, word](std::size_t position, const OperandDescriptor&, const Key&, const Key&) {
            f.log.push_back(word + std::to_string(position));
            return AdaptationSteps{};
        };
    };
    BackendAdaptationRegistry adapters;
    adapters.add_output_adapter({[](const Key& a, const Key& b) { return a.kind == b.kind; }, logging("build"),
                                 logging("write_only")});
    const std::vector<OperandDescriptor> in{vector_descriptor(float32)}, out(2, vector_descriptor(float32));
    BackendDispatcher(f.r, adapters).dispatch(3, in, out);
    EXPECT_EQ(f.log, (std::vector<std::string>{"write_only1", "build2"}));
}

// ---- Result policy ----

TEST(ResultPolicy, RequestShapeIsCheckedFirst) {
    Fixture f;
    DenseResultRequest req{OperandKind::matrix, Location::pageable_host, std::nullopt, std::nullopt};
    EXPECT_EQ(message_of<std::logic_error>([&] { f.infer(1, vec(float32), req); }),
              "result policy - numeric catalogue is not sealed");
    f.r.seal(f.cat.registry);
    // Handle 99 is unknown: the request itself must be refused first.
    const std::string layout = "result policy - a valid matrix layout is required only for matrices";
    const std::pair<DenseResultRequest, std::string> cases[] = {
        {req, layout},
        {{OperandKind::matrix, Location::pageable_host, MatrixLayout::none, std::nullopt}, layout},
        {{OperandKind::vector, Location::pageable_host, MatrixLayout::row_major, std::nullopt}, layout},
        {{OperandKind::lu, Location::pageable_host, MatrixLayout::column_major, std::nullopt},
         "result policy - expected a dense scalar, vector or matrix"}};
    for (const auto& [request, message] : cases)
        EXPECT_EQ(message_of<std::invalid_argument>([&] { f.infer(99, vec(float32), request); }), message);
}

TEST(ResultPolicy, AgreementAmbiguityAndExplicitDtype) {
    Fixture f;
    f.adapters = {};
    f.add(BackendKind::cpu_scalar, vec(float32), vec(float32), "a");
    f.add(BackendKind::cpu_simd, vec(float32), vec(float32), "b");
    f.add(BackendKind::cpu_simd, vec(float32), vec(float64), "c");
    f.add(BackendKind::cpu_scalar, vec(float64), vec(float16), "d"); // input never matches
    f.r.seal(f.cat.registry);
    DenseResultRequest req{OperandKind::vector, Location::pageable_host, std::nullopt, std::nullopt};

    EXPECT_EQ(f.infer(1, vec(float32), req, {BackendKind::cpu_scalar}), DataTypeDescriptor(float32, float32));
    EXPECT_EQ(dispatch_failure([&] { f.infer(1, vec(float32), req); }),
              "registry_contract_mismatch: ambiguous result policy: supply an output dtype or use Context.execute "
              "with explicit operand policies");
    req.output_dtype = float64;
    EXPECT_EQ(f.infer(1, vec(float32), req), DataTypeDescriptor(float64, float64));
    req.output_dtype = complex64;
    EXPECT_EQ(dispatch_failure([&] { f.infer(1, vec(float32), req); }),
              "no_backend_available: unsupported result policy: no viable implementation for the input policies "
              "and output layout");
}

TEST(ResultPolicy, ComplexColumnMajorIsValidRealColumnMajorNeverViable) {
    using ML = MatrixLayout;
    const struct {
        ScalarType dtype;
        ML registered, requested;
        bool cpu_adapters, viable;
    } cases[] = {{complex64, ML::column_major, ML::column_major, false, true},
                 {complex128, ML::row_major, ML::column_major, true, true},
                 {complex64, ML::row_major, ML::column_major, false, false},
                 {float64, ML::row_major, ML::column_major, true, false}};
    for (const auto& c : cases) {
        Fixture f;
        f.adapters = {};
        if (c.cpu_adapters) install_cpu_layout_adapters(f.adapters);
        const Key k = mat(c.dtype, c.registered);
        f.add(BackendKind::cpu_scalar, k, k, "x", &f.cat.matrix);
        f.r.seal(f.cat.registry);
        const DenseResultRequest req{OperandKind::matrix, Location::pageable_host, c.requested, std::nullopt};
        if (c.viable)
            EXPECT_EQ(f.infer(2, k, req), DataTypeDescriptor(c.dtype, compute_of(c.dtype))) << k.to_string();
        else
            EXPECT_EQ(dispatch_failure([&] { f.infer(2, k, req); }).substr(0, 21), "no_backend_available:");
    }
}

// ---- GPU placement ----

TEST(GpuPlacement, ChoosesAndChecks) {
    const OperandRole I0 = 0, I1 = 1, O0 = kOutputRoleBit;
    using S = GpuSchedulingPolicy;
    constexpr auto allow = GpuCrossDevicePolicy::allow, reject = GpuCrossDevicePolicy::reject;
    const auto check = [](std::vector<GpuPlacementRecord> records, S scheduling, GpuCrossDevicePolicy cross,
                          std::optional<std::int32_t> preferred, std::optional<std::int32_t> expected,
                          const std::string& error, std::string component = "") {
        const GpuPlacementPolicy policy{scheduling, preferred, cross, std::move(component)};
        if (error.empty())
            EXPECT_EQ(validate_gpu_placement(records, policy), expected);
        else
            EXPECT_EQ(message_of<std::invalid_argument>([&] { validate_gpu_placement(records, policy); }), error);
    };
    check({{I0, 0, false}, {O0, 1, true}}, S::output_first, allow, {}, 1, "");
    check({{I0, 0, false}, {O0, 1, true}}, S::output_first, reject, {}, {},
          "GPU placement validation - GPU operand Input0 is on device 0 but selected execution device is 1");
    check({{I0, {}, false}, {I1, 3, false}, {O0, 1, true}}, S::input_first, allow, {}, 3, "");
    check({{I0, 2, true}, {I1, 0, false}}, S::output_first, allow, {}, 2, ""); // a written input is an output
    check({{I0, {}, false}}, S::PreferredDevice, reject, 0, 0, "");
    check({}, S::PreferredDevice, reject, {}, {}, "Exec - PreferredDevice GPU scheduling requires a preferred CUDA device",
          "Exec");
    check({}, S::PreferredDevice, reject, -2, {}, "GPU placement validation - preferred CUDA device must be non-negative");
    check({{O0, -1, true}}, S::PreferredDevice, reject, -2, {},
          "GPU placement validation - GPU operand Output0 has invalid CUDA device placement -1");
}
