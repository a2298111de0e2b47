// The CPU registrations: coverage per policy and backend, and the published implementation records.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <variant>

#include "catalogue/builtin_operations.hpp"
#include "catalogue/numerics.hpp"
#include "frontend/context_builder.hpp"

using namespace quillmark;

namespace {

const SealedCatalogue& catalogue() {
    static const auto sealed = QuillmarkContextBuilder().build();
    return *sealed;
}

const ImplementationNumerics& record(BuiltinOperation op, ScalarType storage,
                                    BackendKind backend = BackendKind::cpu_scalar) {
    const SealedCatalogue& c = catalogue();
    const std::uint32_t handle = c.operations.lookup(builtin_operation_id(op)).handle();
    for (const auto& [key, entry] : c.backends.registrations_for(handle)) {
        const auto& first = key->inputs().empty() ? key->outputs().front() : key->inputs().front();
        if (key->backend() == backend && first.storage_type() == storage && entry->numerics())
            return *entry->numerics();
    }
    throw std::logic_error("no record");
}

double parameter(const ImplementationNumerics& n, const std::string& name) {
    for (const auto& p : n.parameters)
        if (p.name == name)
            return std::holds_alternative<double>(p.value) ? std::get<double>(p.value)
                                                           : double(std::get<std::int64_t>(p.value));
    throw std::logic_error("no parameter " + name);
}

} // namespace

TEST(CpuRegistration, EveryPolicyOfEveryOperation) {
    const SealedCatalogue& c = catalogue();
    // Scalar: seven floating policies, int32 for fourteen operations; SIMD: eleven complex64 operations.
    EXPECT_EQ(c.backends.size(), 32u * 7u + 14u + 11u);
    const std::uint32_t matmul = c.operations.lookup(builtin_operation_id(BuiltinOperation::matmul)).handle();
    const std::uint32_t sqrt = c.operations.lookup(builtin_operation_id(BuiltinOperation::sqrt)).handle();
    EXPECT_EQ(c.backends.registrations_for(matmul).size(), 9u);
    EXPECT_EQ(c.backends.registrations_for(sqrt).size(), 7u);
}

// Tolerances follow the compute precision; a widened record's note names the accumulation dtype.
TEST(CpuRegistration, PublishedRecords) {
    using B = BuiltinOperation;
    using S = ScalarType;
    using M = PrecisionMode;
    constexpr auto scalar = BackendKind::cpu_scalar, simd = BackendKind::cpu_simd;
    const char* const power_note = "Intermediate matrices use the compute dtype; only the final output is rounded.";
    struct Expected {
        B op;
        S storage;
        BackendKind backend;
        const char* algorithm; // nullptr: not checked
        M mode;
        const char* accumulation; // nullptr: not checked
        std::vector<std::pair<const char*, double>> parameters;
        std::vector<std::string> notes;
    };
    const Expected table[] = {
        {B::eig, S::float32, scalar, "cpu.balanced_shifted_qr", M::mixed, "complex128",
         {{"convergence_tolerance", 9.999999747378752e-05}, {"residual_tolerance", 0.001}}, {}},
        {B::principal_eigenvector, S::complex128, scalar, nullptr, M::native, nullptr,
         {{"convergence_tolerance", 1.8626451021765827e-13},
          {"residual_tolerance", 1.862645149230957e-12},
          {"maximum_iterations", 256}},
         {}},
        {B::eigvalsh, S::complex64, scalar, nullptr, M::widened, "complex128", {{"maximum_sweeps", 64}}, {}},
        {B::lu_factor, S::bfloat16, scalar, "cpu.partial_pivoting_lu", M::mixed, "float32", {}, {}},
        {B::matrix_power, S::float16, scalar, nullptr, M::widened, nullptr, {}, {power_note}},
        {B::solve, S::complex64, simd, "simd.lu.forward_backward_substitution", M::native, nullptr, {}, {}},
        {B::principal_eigenvector, S::complex64, simd, "simd.power_iteration", M::native, nullptr,
         {{"convergence_tolerance", 9.999999747378752e-06}, {"maximum_iterations", 512}}, {}},
        {B::eig, S::complex64, simd, "simd.balanced_shifted_qr_iteration.schur_back_substitution", M::mixed,
         "complex128",
         {{"convergence_tolerance", 9.999999747378752e-05},
          {"exceptional_shift_interval", 16},
          {"maximum_balance_sweeps", 32},
          {"residual_tolerance", 0.001}},
         {}},
        {B::matrix_power, S::complex64, simd, nullptr, M::native, nullptr, {}, {power_note}},
    };
    for (const Expected& e : table) {
        const auto& r = record(e.op, e.storage, e.backend);
        SCOPED_TRACE(builtin_operation_id(e.op).to_string() + " " + r.algorithm);
        EXPECT_TRUE(!e.algorithm || r.algorithm == e.algorithm);
        EXPECT_EQ(r.precision.mode, e.mode);
        EXPECT_TRUE(!e.accumulation || r.precision.accumulation_dtype == e.accumulation);
        for (const auto& [name, value] : e.parameters) EXPECT_EQ(parameter(r, name), value) << name;
        EXPECT_TRUE(e.notes.empty() || r.notes == e.notes);
        EXPECT_TRUE(e.backend != simd || r.precision.reduction_order == ReductionOrder::library_defined);
    }
    EXPECT_EQ(record(B::lu_factor, S::bfloat16).precision.reduction_order, ReductionOrder::sequential);
    const auto& jacobi = record(B::eigvalsh, S::complex64);
    ASSERT_EQ(jacobi.precision.notes.size(), 1u);
    EXPECT_NE(jacobi.precision.notes[0].find("complex64 storage, computed in complex128"), std::string::npos);
    EXPECT_EQ(record(B::eig, S::float32).stability, Stability::not_guaranteed);
    EXPECT_EQ(record(B::solve, S::complex64, simd).stability, Stability::backward_stable);
}

// Equal costs go to cpu_scalar, so a cpu_simd registration whose keys the scalar backend also
// registers could never run.
TEST(CpuRegistration, EverySimdRegistrationCanWinDispatch) {
    const SealedCatalogue& c = catalogue();
    std::size_t simd = 0;
    for (const OperationId& id : c.operations.operations()) {
        const auto registrations = c.backends.registrations_for(c.operations.lookup(id).handle());
        for (const auto& [key, entry] : registrations) {
            if (key->backend() != BackendKind::cpu_simd) continue;
            ++simd;
            for (const auto& [other, other_entry] : registrations) {
                if (other->backend() != BackendKind::cpu_scalar) continue;
                const bool same = std::ranges::equal(key->inputs(), other->inputs()) &&
                                  std::ranges::equal(key->outputs(), other->outputs());
                EXPECT_FALSE(same) << id.to_string();
            }
        }
    }
    EXPECT_EQ(simd, 11u);
}
