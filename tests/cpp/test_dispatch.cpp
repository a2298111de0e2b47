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

namespace {

using Key = BackendOperandKey;
using enum ScalarType;

template <class F> std::optional<DispatchError> dispatch_error_of(F&& f) {
    try {
        f();
    } catch (const DispatchError& e) {
        return e;
    }
    return std::nullopt;
}

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

// A catalogue with a unary vector operation (handle 1) and a unary matrix operation (handle 2).
struct Catalogue {
    OperationRegistry registry;
    OperationId unary{"test.unary", 1};
    OperationId matrix{"test.matrix", 1};
    Catalogue() {
        auto roles = [](OperandKind k) {
            return std::vector<RoleDeclaration>{{input_role(0), OperandAccess::read, k},
                                                {output_role(0), OperandAccess::write, k}};
        };
        registry.register_operation(OperationSpec(unary, roles(OperandKind::vector)), RegistrationProvenance());
        registry.register_operation(OperationSpec(matrix, roles(OperandKind::matrix)), RegistrationProvenance());
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

} // namespace

// ---- Operand keys ----

struct KeyPair {
    const char* name;
    Key a;
    Key b;
    bool equal;
};
class OperandKeyEquality : public ::testing::TestWithParam<KeyPair> {};
TEST_P(OperandKeyEquality, EqualityAndHashAgree) {
    const auto& p = GetParam();
    EXPECT_EQ(p.a == p.b, p.equal);
    EXPECT_EQ(p.b == p.a, p.equal);
    if (p.equal) {
        EXPECT_EQ(BackendOperandKeyHash{}(p.a), BackendOperandKeyHash{}(p.b));
    }
}
KeyPair with(const char* name, Key a, void (*edit)(Key&), bool equal) {
    Key b = a;
    edit(b);
    return {name, a, b, equal};
}
Key no_alternative() {
    Key k = vec(complex64);
    k.set_format_alternative(Key::no_format);
    return k;
}
INSTANTIATE_TEST_SUITE_P(
    Rules, OperandKeyEquality,
    ::testing::Values(
        with("absent_layout_values_ignored", vec(float32), [](Key& k) { k.layout = 1; }, true),
        with("present_vs_absent_layout", vec(float32), [](Key& k) { k.set_layout(MatrixLayout::row_major); }, false),
        with("both_present_differ", mat(float32, MatrixLayout::row_major),
             [](Key& k) { k.set_layout(MatrixLayout::column_major); }, false),
        with("presence_high_bytes_ignored", mat(float32, MatrixLayout::row_major),
             [](Key& k) { k.layout_present = 0x101; }, true),
        with("no_alternative_tolerated", no_alternative(), [](Key& k) { k.format = 7; }, true),
        with("no_alternative_vs_vector", no_alternative(), [](Key& k) { k.set_format_alternative(1); }, false),
        with("scalar_alternative_has_no_value",
             Key::make(OperandKind::scalar, Location::pageable_host, float64, float64, ComplexLayout::none),
             [](Key& k) { k.format = 1; }, true),
        with("vector_format_value_counts", vec(float32), [](Key& k) { k.format = 1; }, false),
        with("alternative_high_bytes_ignored", vec(float32), [](Key& k) { k.format_index |= 0xAB00u; }, true),
        with("compute_differs", vec(complex32), [](Key& k) { k.compute = static_cast<std::uint32_t>(complex32); },
             false)),
    [](const auto& info) { return std::string(info.param.name); });

TEST(OperandKey, TextAndDescriptorForm) {
    EXPECT_EQ(mat(complex64, MatrixLayout::column_major).to_string(),
              "kind=2,location=0,storage=7,compute=7,complex=2,format=2,layout=1");
    EXPECT_EQ(no_alternative().to_string(), "kind=1,location=0,storage=7,compute=7,complex=2,format=-1,layout=-");

    OperandDescriptor d;
    d.kind = OperandKind::vector;
    d.matrix_layout = MatrixLayout::row_major; // ignored: vectors carry no layout
    EXPECT_FALSE(operand_key(d).has_layout());
    EXPECT_EQ(operand_key(d).format_alternative(), Key::vector_format);
    d.kind = OperandKind::lu;
    d.matrix_layout = MatrixLayout::column_major;
    const Key lu = operand_key(d);
    EXPECT_EQ(lu.matrix_layout(), MatrixLayout::column_major);
    EXPECT_EQ(lu.format_alternative(), Key::no_format);
    d.kind = OperandKind::matrix;
    d.matrix_layout = MatrixLayout::none;
    EXPECT_FALSE(operand_key(d).has_layout());
}

TEST(RegistryKey, ConstructionRules) {
    EXPECT_EQ(message_of<std::invalid_argument>([] { BackendRegistryKey(BackendKind::cpu_scalar, {"a.b", 1}, {vec(float32)}, {}); }),
              "BackendRegistryKey - at least one output is required");
    EXPECT_NO_THROW(BackendRegistryKey(BackendKind::cpu_scalar, {"a.b", 1}, {}, {vec(float32)}));
    EXPECT_EQ(message_of<std::invalid_argument>([] { BackendEntry(BackendMaterialiser{}, RegistrationProvenance()); }),
              "BackendEntry - materialiser must not be empty");
    const BackendRegistryKey k(BackendKind::cpu_simd, {"a.b", 1}, {vec(float32), vec(float32)}, {vec(float64)});
    EXPECT_EQ(k.to_string(),
              "backend=1,inputs=[kind=1,location=0,storage=0,compute=0,complex=0,format=1,layout=-;"
              "kind=1,location=0,storage=0,compute=0,complex=0,format=1,layout=-],"
              "outputs=[kind=1,location=0,storage=1,compute=1,complex=0,format=1,layout=-]");
}

// ---- Registry lifecycle ----

TEST(BackendRegistry, LifecycleErrorsLeaveItUnchanged) {
    Catalogue cat;
    BackendAdaptationRegistry none;
    std::vector<std::string> log;
    BackendRegistry r;
    const BackendRegistryKey key(BackendKind::cpu_scalar, cat.unary, {vec(float32)}, {vec(float32)});
    EXPECT_EQ(message_of<std::logic_error>([&] { r.find(1, BackendKind::cpu_scalar, {}, {}, none); }),
              "BackendRegistry::find - numeric catalogue is not sealed");
    r.register_backend(key, marker(&log, "a"), RegistrationProvenance());
    EXPECT_EQ(message_of<std::invalid_argument>([&] { r.register_backend(key, marker(&log, "b"), RegistrationProvenance()); }),
              "BackendRegistry::register_backend - duplicate registration for test.unary@1");
    EXPECT_EQ(r.size(), 1u);

    OperationRegistry open;
    EXPECT_EQ(message_of<std::logic_error>([&] { r.seal(open); }),
              "BackendRegistry::seal - operation catalogue must be sealed first");
    BackendRegistry stray = r;
    stray.register_backend({BackendKind::cpu_scalar, {"test.absent", 1}, {}, {vec(float32)}}, marker(&log, "c"),
                           RegistrationProvenance());
    EXPECT_THROW(stray.seal(cat.registry), std::out_of_range);
    EXPECT_FALSE(stray.sealed());

    r.seal(cat.registry);
    r.seal(cat.registry);
    EXPECT_TRUE(r.sealed());
    EXPECT_EQ(message_of<std::logic_error>([&] {
                  r.register_backend({BackendKind::cpu_simd, cat.unary, {}, {vec(float32)}}, marker(&log, "d"),
                                     RegistrationProvenance());
              }),
              "BackendRegistry::register_backend - catalogue is sealed");
    EXPECT_EQ(r.registrations_for(1).size(), 1u);
    EXPECT_FALSE(r.find(2, BackendKind::cpu_scalar, std::vector{mat(float32, MatrixLayout::row_major)},
                        std::vector{mat(float32, MatrixLayout::row_major)}, none));
}

TEST(BackendRegistry, CopyRebuildsIndexOverTheCopies) {
    Catalogue cat;
    BackendAdaptationRegistry none;
    std::vector<std::string> log;
    BackendRegistry r;
    r.register_backend({BackendKind::cpu_scalar, cat.unary, {vec(float32)}, {vec(float32)}}, marker(&log, "a"),
                       RegistrationProvenance());
    r.register_backend({BackendKind::cpu_simd, cat.unary, {vec(float32)}, {vec(float32)}}, marker(&log, "b"),
                       RegistrationProvenance());
    r.seal(cat.registry);
    const std::vector<Key> in{vec(float32)};
    BackendRegistry copy(r);
    BackendRegistry assigned;
    assigned = r;
    for (const BackendRegistry* c : {&copy, &assigned}) {
        ASSERT_TRUE(c->sealed());
        auto m = c->find(1, BackendKind::cpu_simd, in, in, none);
        ASSERT_TRUE(m);
        const auto& stored = c->registrations().find(*m->key);
        EXPECT_EQ(&stored->first, m->key);
        EXPECT_NE(m->key, r.find(1, BackendKind::cpu_simd, in, in, none)->key);
    }
}

// ---- Costs and choice ----

struct CostCase {
    Location requested;
    Location registered;
    std::uint64_t cost;
};
class FindCost : public ::testing::TestWithParam<CostCase> {};
TEST_P(FindCost, CountsHostAndDeviceAdaptations) {
    Catalogue cat;
    auto adapters = permissive_adapters();
    BackendRegistry r;
    std::vector<std::string> log;
    r.register_backend({BackendKind::cpu_scalar, cat.unary, {vec(float32, {}, GetParam().registered)}, {vec(float32)}},
                       marker(&log, "a"), RegistrationProvenance());
    r.seal(cat.registry);
    const std::vector<Key> in{vec(float32, {}, GetParam().requested)}, out{vec(float32)};
    auto m = r.find(1, BackendKind::cpu_scalar, in, out, adapters);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->cost, GetParam().cost);
    EXPECT_FALSE(r.find(1, BackendKind::cpu_simd, in, out, adapters));
    EXPECT_FALSE(r.find(1, BackendKind::cpu_scalar, in, std::vector<Key>{}, adapters)); // arity
}
INSTANTIATE_TEST_SUITE_P(Locations, FindCost,
                         ::testing::Values(CostCase{Location::pageable_host, Location::pageable_host, 0},
                                           CostCase{Location::pinned_host, Location::pageable_host, 1},
                                           CostCase{Location::pageable_host, Location::pinned_host, 1},
                                           CostCase{Location::cuda_device, Location::pageable_host, 2},
                                           CostCase{Location::pageable_host, Location::cuda_device, 2}));

TEST(BackendRegistry, EqualCostTieFailsInsideFindEvenWithAnExactOtherKind) {
    Catalogue cat;
    auto adapters = permissive_adapters();
    BackendRegistry r;
    std::vector<std::string> log;
    const Key requested = vec(complex64);
    // Both cost 1 for cpu_scalar; cpu_simd matches exactly.
    r.register_backend({BackendKind::cpu_scalar, cat.unary, {vec(complex64, {}, Location::pinned_host)}, {requested}},
                       marker(&log, "b"), RegistrationProvenance());
    r.register_backend({BackendKind::cpu_scalar, cat.unary, {vec(complex64, ComplexLayout::split)}, {requested}},
                       marker(&log, "a"), RegistrationProvenance());
    r.register_backend({BackendKind::cpu_simd, cat.unary, {requested}, {requested}}, marker(&log, "c"),
                       RegistrationProvenance());
    r.seal(cat.registry);
    const std::vector<Key> keys{requested};
    const std::string out = "outputs=[kind=1,location=0,storage=7,compute=7,complex=2,format=1,layout=-]";
    const std::string expected =
        "BackendRegistry::find - ambiguous equal-cost registrations for numeric operation handle 1: "
        "backend=0,inputs=[kind=1,location=0,storage=7,compute=7,complex=1,format=1,layout=-]," + out +
        " | backend=0,inputs=[kind=1,location=1,storage=7,compute=7,complex=2,format=1,layout=-]," + out;

    auto e = dispatch_error_of([&] { r.find(1, BackendKind::cpu_scalar, keys, keys, adapters); });
    ASSERT_TRUE(e);
    EXPECT_EQ(std::string(e->what()), expected);
    EXPECT_EQ(e->reason(), ErrorReason::registry_contract_mismatch);
    EXPECT_EQ(e->operation(), "BackendRegistry::find");
    EXPECT_EQ(r.find(1, BackendKind::cpu_simd, keys, keys, adapters)->cost, 0u);

    OperandDescriptor d;
    d.kind = OperandKind::vector;
    d.dtype = DataTypeDescriptor(complex64, complex64);
    d.complex_layout = ComplexLayout::interleaved;
    BackendDispatcher dispatcher(r, adapters);
    e = dispatch_error_of([&] { dispatcher.dispatch(1, std::vector{d}, std::vector{d}); });
    ASSERT_TRUE(e);
    EXPECT_EQ(std::string(e->what()), expected);
}

struct ChoiceCase {
    const char* name;
    std::optional<int> scalar_cost;
    std::optional<int> simd_cost;
    std::optional<BackendKind> chosen;
};
class DispatcherChoice : public ::testing::TestWithParam<ChoiceCase> {};
TEST_P(DispatcherChoice, PortableBackendWinsTies) {
    const auto& c = GetParam();
    Catalogue cat;
    auto adapters = permissive_adapters();
    BackendRegistry r;
    std::vector<std::string> log;
    const Key requested = vec(float32);
    auto add = [&](BackendKind kind, std::optional<int> cost, const char* name) {
        if (!cost) return;
        const Key registered = *cost == 0 ? requested : vec(float32, {}, Location::pinned_host);
        r.register_backend({kind, cat.unary, {registered}, {requested}}, marker(&log, name), RegistrationProvenance());
    };
    add(BackendKind::cpu_scalar, c.scalar_cost, "cpu_scalar");
    add(BackendKind::cpu_simd, c.simd_cost, "cpu_simd");
    // A cuda registration is never looked up, even as the only exact match.
    r.register_backend({BackendKind::cuda, cat.unary, {requested}, {requested}}, marker(&log, "cuda"),
                       RegistrationProvenance());
    r.seal(cat.registry);

    OperandDescriptor d;
    d.kind = OperandKind::vector;
    d.dtype = DataTypeDescriptor(float32, float32);
    BackendDispatcher dispatcher(r, adapters);
    if (!c.chosen) {
        auto e = dispatch_error_of([&] { dispatcher.dispatch(1, std::vector{d}, std::vector{d}); });
        ASSERT_TRUE(e);
        EXPECT_EQ(std::string(e->what()), "BackendDispatcher::dispatch - no backend entry available");
        EXPECT_EQ(e->reason(), ErrorReason::no_backend_available);
        return;
    }
    BackendProcess p = dispatcher.dispatch(1, std::vector{d}, std::vector{d});
    ASSERT_TRUE(p.plan());
    EXPECT_EQ(p.plan()->target, *c.chosen);
    BackendExecutionSession session;
    BackendExecutionBindings bindings;
    p.execute(session, bindings, true);
    EXPECT_EQ(log, std::vector<std::string>{std::string(backend_kind_name(*c.chosen))});
}
INSTANTIATE_TEST_SUITE_P(Costs, DispatcherChoice,
                         ::testing::Values(ChoiceCase{"equal_adapted", 1, 1, BackendKind::cpu_scalar},
                                           ChoiceCase{"equal_exact", 0, 0, BackendKind::cpu_scalar},
                                           ChoiceCase{"simd_cheaper", 1, 0, BackendKind::cpu_simd},
                                           ChoiceCase{"scalar_cheaper", 0, 1, BackendKind::cpu_scalar},
                                           ChoiceCase{"only_simd", std::nullopt, 1, BackendKind::cpu_simd},
                                           ChoiceCase{"none", std::nullopt, std::nullopt, std::nullopt}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BackendDispatcher, RequiresSealedRegistryAndMatchingCounts) {
    BackendRegistry r;
    BackendAdaptationRegistry a;
    EXPECT_EQ(message_of<std::invalid_argument>([&] { BackendDispatcher(r, a); }),
              "BackendDispatcher - backend catalogue must be sealed");
    Catalogue cat;
    r.seal(cat.registry);
    BackendDispatcher dispatcher(r, a);
    BackendProcess p;
    const std::vector<Key> one{vec(float32)}, other{vec(float64)};
    auto e = dispatch_error_of([&] { dispatcher.adapt_input(p, {}, one, one); });
    ASSERT_TRUE(e);
    EXPECT_EQ(std::string(e->what()), "BackendDispatcher::adapt_input - input count mismatch");
    EXPECT_EQ(e->reason(), ErrorReason::registry_contract_mismatch);
    e = dispatch_error_of([&] { dispatcher.adapt_output(p, 0, std::vector<OperandDescriptor>(1), one, other); });
    ASSERT_TRUE(e);
    EXPECT_EQ(std::string(e->what()), "BackendDispatcher::adapt_output - unsupported operand adaptation");
    EXPECT_EQ(e->reason(), ErrorReason::unsupported_adaptation);
    EXPECT_EQ(e->operation(), "BackendDispatcher::adapt_output");
    EXPECT_TRUE(p.empty());
}

// ---- Result policy ----

namespace {
struct PolicyFixture {
    Catalogue cat;
    BackendRegistry r;
    BackendAdaptationRegistry adapters;
    std::vector<std::string> log;
    void add(BackendKind kind, const OperationId& op, Key in, Key out) {
        r.register_backend({kind, op, {in}, {out}}, marker(&log, "x"), RegistrationProvenance());
    }
    DataTypeDescriptor infer(std::uint32_t handle, Key in, DenseResultRequest request,
                             std::vector<BackendKind> kinds = {BackendKind::cpu_scalar, BackendKind::cpu_simd}) {
        return r.infer_dense_result_policy(handle, kinds, std::vector{in}, request, adapters);
    }
};
} // namespace

TEST(ResultPolicy, RequestShapeIsCheckedFirst) {
    PolicyFixture f;
    DenseResultRequest req{OperandKind::matrix, Location::pageable_host, std::nullopt, std::nullopt};
    EXPECT_EQ(message_of<std::logic_error>([&] { f.infer(1, vec(float32), req); }),
              "result policy - numeric catalogue is not sealed");
    f.r.seal(f.cat.registry);
    EXPECT_EQ(message_of<std::invalid_argument>([&] { f.infer(99, vec(float32), req); }),
              "result policy - a valid matrix layout is required only for matrices");
    req.layout = MatrixLayout::none;
    EXPECT_EQ(message_of<std::invalid_argument>([&] { f.infer(99, vec(float32), req); }),
              "result policy - a valid matrix layout is required only for matrices");
    req = {OperandKind::vector, Location::pageable_host, MatrixLayout::row_major, std::nullopt};
    EXPECT_EQ(message_of<std::invalid_argument>([&] { f.infer(99, vec(float32), req); }),
              "result policy - a valid matrix layout is required only for matrices");
    req = {OperandKind::lu, Location::pageable_host, MatrixLayout::column_major, std::nullopt};
    EXPECT_EQ(message_of<std::invalid_argument>([&] { f.infer(99, vec(float32), req); }),
              "result policy - expected a dense scalar, vector or matrix");
}

TEST(ResultPolicy, AgreementAmbiguityAndExplicitDtype) {
    PolicyFixture f;
    f.add(BackendKind::cpu_scalar, f.cat.unary, vec(float32), vec(float32));
    f.add(BackendKind::cpu_simd, f.cat.unary, vec(float32), vec(float32));
    f.add(BackendKind::cpu_simd, f.cat.unary, vec(float32), vec(float64));
    f.add(BackendKind::cpu_scalar, f.cat.unary, vec(float64), vec(float16)); // input never matches
    f.r.seal(f.cat.registry);
    const DenseResultRequest vector{OperandKind::vector, Location::pageable_host, std::nullopt, std::nullopt};

    EXPECT_EQ(f.infer(1, vec(float32), vector, {BackendKind::cpu_scalar}), DataTypeDescriptor(float32, float32));
    auto e = dispatch_error_of([&] { f.infer(1, vec(float32), vector); });
    ASSERT_TRUE(e);
    EXPECT_EQ(std::string(e->what()),
              "ambiguous result policy: supply an output dtype or use Context.execute with explicit operand policies");
    EXPECT_EQ(e->reason(), ErrorReason::registry_contract_mismatch);
    EXPECT_EQ(e->operation(), "result policy");

    DenseResultRequest f64 = vector;
    f64.output_dtype = float64;
    EXPECT_EQ(f.infer(1, vec(float32), f64), DataTypeDescriptor(float64, float64));
    f64.output_dtype = float32;
    EXPECT_EQ(f.infer(1, vec(float32), f64), DataTypeDescriptor(float32, float32));

    f64.output_dtype = complex64;
    e = dispatch_error_of([&] { f.infer(1, vec(float32), f64); });
    ASSERT_TRUE(e);
    EXPECT_EQ(std::string(e->what()),
              "unsupported result policy: no viable implementation for the input policies and output layout");
    EXPECT_EQ(e->reason(), ErrorReason::no_backend_available);
}

struct MatrixPolicyCase {
    const char* name;
    ScalarType dtype;
    MatrixLayout registered;
    MatrixLayout requested;
    bool cpu_adapters;
    bool viable;
};
class ResultPolicyMatrix : public ::testing::TestWithParam<MatrixPolicyCase> {};
TEST_P(ResultPolicyMatrix, LayoutValidityAndAdaptation) {
    const auto& c = GetParam();
    PolicyFixture f;
    if (c.cpu_adapters) install_cpu_layout_adapters(f.adapters);
    const Key k = mat(c.dtype, c.registered);
    f.add(BackendKind::cpu_scalar, f.cat.matrix, k, k);
    f.r.seal(f.cat.registry);
    const DenseResultRequest req{OperandKind::matrix, Location::pageable_host, c.requested, std::nullopt};
    if (c.viable) {
        EXPECT_EQ(f.infer(2, k, req), DataTypeDescriptor(c.dtype, compute_of(c.dtype)));
    } else {
        auto e = dispatch_error_of([&] { f.infer(2, k, req); });
        ASSERT_TRUE(e);
        EXPECT_EQ(e->reason(), ErrorReason::no_backend_available);
    }
}
INSTANTIATE_TEST_SUITE_P(
    Layouts, ResultPolicyMatrix,
    ::testing::Values(
        MatrixPolicyCase{"complex_column_major", complex64, MatrixLayout::column_major, MatrixLayout::column_major, false, true},
        MatrixPolicyCase{"complex_adapted_to_column", complex128, MatrixLayout::row_major, MatrixLayout::column_major, true, true},
        MatrixPolicyCase{"complex_unadapted", complex64, MatrixLayout::row_major, MatrixLayout::column_major, false, false},
        MatrixPolicyCase{"real_column_never", float64, MatrixLayout::row_major, MatrixLayout::column_major, true, false},
        MatrixPolicyCase{"real_row", float64, MatrixLayout::row_major, MatrixLayout::row_major, false, true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DenseValidity, Asymmetries) {
    using C = ScalarCategory;
    using CL = ComplexLayout;
    using ML = MatrixLayout;
    EXPECT_TRUE(is_valid_dense_operand(C::integer, OperandKind::matrix, CL::none, ML::row_major));
    EXPECT_FALSE(is_valid_dense_operand(C::complex_floating, OperandKind::matrix, CL::split, ML::column_major));
    EXPECT_FALSE(is_valid_dense_operand(C::real_floating, OperandKind::lu, CL::none, ML::row_major));
    EXPECT_FALSE(is_valid_dense_operand(C::integer, OperandKind::lu, CL::none, ML::column_major));
    EXPECT_TRUE(is_valid_dense_operand(C::complex_floating, OperandKind::eigen, CL::interleaved, ML::row_major));
    EXPECT_FALSE(is_valid_dense_operand(C::complex_integer, OperandKind::vector, CL::interleaved, std::nullopt));
    EXPECT_FALSE(is_valid_dense_operand(C::complex_floating, OperandKind::scalar, CL::interleaved, std::nullopt));
    EXPECT_FALSE(is_valid_dense_operand(C::real_floating, OperandKind::vector, CL::none, ML::row_major));
}

// ---- GPU placement ----

struct PlacementCase {
    const char* name;
    std::vector<GpuPlacementRecord> records;
    GpuPlacementPolicy policy;
    std::optional<std::int32_t> chosen;
    const char* error; // nullptr when valid
};
class GpuPlacement : public ::testing::TestWithParam<PlacementCase> {};
TEST_P(GpuPlacement, ChoosesAndChecks) {
    const auto& c = GetParam();
    if (c.error) {
        EXPECT_EQ(message_of<std::invalid_argument>([&] { validate_gpu_placement(c.records, c.policy); }), c.error);
    } else {
        EXPECT_EQ(validate_gpu_placement(c.records, c.policy), c.chosen);
    }
}
namespace {
const OperandRole I0 = 0, I1 = 1, O0 = kOutputRoleBit;
GpuPlacementPolicy pol(GpuSchedulingPolicy s, GpuCrossDevicePolicy x = GpuCrossDevicePolicy::reject,
                       std::optional<std::int32_t> preferred = std::nullopt, std::string component = "") {
    return {s, preferred, x, std::move(component)};
}
} // namespace
INSTANTIATE_TEST_SUITE_P(
    Cases, GpuPlacement,
    ::testing::Values(
        PlacementCase{"host_only", {{I0, std::nullopt, false}, {O0, std::nullopt, true}},
                      pol(GpuSchedulingPolicy::output_first), std::nullopt, nullptr},
        PlacementCase{"output_first_allow", {{I0, 0, false}, {O0, 1, true}},
                      pol(GpuSchedulingPolicy::output_first, GpuCrossDevicePolicy::allow), 1, nullptr},
        PlacementCase{"output_first_reject", {{I0, 0, false}, {O0, 1, true}}, pol(GpuSchedulingPolicy::output_first),
                      std::nullopt, "GPU placement validation - GPU operand Input0 is on device 0 but selected execution device is 1"},
        PlacementCase{"input_first", {{I0, std::nullopt, false}, {I1, 3, false}, {O0, 1, true}},
                      pol(GpuSchedulingPolicy::input_first, GpuCrossDevicePolicy::allow), 3, nullptr},
        PlacementCase{"written_input_is_output_side", {{I0, 2, true}, {I1, 0, false}},
                      pol(GpuSchedulingPolicy::output_first, GpuCrossDevicePolicy::allow), 2, nullptr},
        PlacementCase{"preferred_without_operands", {{I0, std::nullopt, false}},
                      pol(GpuSchedulingPolicy::PreferredDevice, GpuCrossDevicePolicy::reject, 0), 0, nullptr},
        PlacementCase{"preferred_missing", {}, pol(GpuSchedulingPolicy::PreferredDevice, GpuCrossDevicePolicy::reject, {}, "Exec"),
                      std::nullopt, "Exec - PreferredDevice GPU scheduling requires a preferred CUDA device"},
        PlacementCase{"preferred_negative", {}, pol(GpuSchedulingPolicy::PreferredDevice, GpuCrossDevicePolicy::reject, -2),
                      std::nullopt, "GPU placement validation - preferred CUDA device must be non-negative"},
        PlacementCase{"negative_device_first", {{O0, -1, true}},
                      pol(GpuSchedulingPolicy::PreferredDevice, GpuCrossDevicePolicy::reject, -2), std::nullopt,
                      "GPU placement validation - GPU operand Output0 has invalid CUDA device placement -1"},
        PlacementCase{"unknown_scheduling", {{I0, 0, false}, {O0, 1, true}},
                      pol(static_cast<GpuSchedulingPolicy>(7)), std::nullopt, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });
