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

TEST(CpuRegistration, EigenToleranceDefaultsFollowThePrecision) {
    const auto& single = record(BuiltinOperation::eig, ScalarType::float32);
    EXPECT_EQ(single.algorithm, "cpu.balanced_shifted_qr");
    EXPECT_EQ(single.stability, Stability::not_guaranteed);
    EXPECT_EQ(single.precision.mode, PrecisionMode::mixed);
    EXPECT_EQ(single.precision.accumulation_dtype, "complex128");
    EXPECT_EQ(parameter(single, "convergence_tolerance"), 9.999999747378752e-05);
    EXPECT_EQ(parameter(single, "residual_tolerance"), 0.001);
    const auto& dbl = record(BuiltinOperation::principal_eigenvector, ScalarType::complex128);
    EXPECT_EQ(dbl.precision.mode, PrecisionMode::native);
    EXPECT_EQ(parameter(dbl, "convergence_tolerance"), 1.8626451021765827e-13);
    EXPECT_EQ(parameter(dbl, "residual_tolerance"), 1.862645149230957e-12);
    EXPECT_EQ(parameter(dbl, "maximum_iterations"), 256);
}

TEST(CpuRegistration, SolverRecordsNamePrecisionAndAccumulation) {
    const auto& jacobi = record(BuiltinOperation::eigvalsh, ScalarType::complex64);
    EXPECT_EQ(jacobi.precision.mode, PrecisionMode::widened);
    EXPECT_EQ(jacobi.precision.accumulation_dtype, "complex128");
    EXPECT_EQ(parameter(jacobi, "maximum_sweeps"), 64);
    ASSERT_EQ(jacobi.precision.notes.size(), 1u); // the widened-precision text
    // The text names the dtype the record accumulates in, not the compute dtype.
    EXPECT_NE(jacobi.precision.notes[0].find("complex64 storage, computed in complex128"), std::string::npos);

    const auto& lu_reduced = record(BuiltinOperation::lu_factor, ScalarType::bfloat16);
    EXPECT_EQ(lu_reduced.algorithm, "cpu.partial_pivoting_lu");
    EXPECT_EQ(lu_reduced.precision.mode, PrecisionMode::mixed);
    EXPECT_EQ(lu_reduced.precision.accumulation_dtype, "float32");
    EXPECT_EQ(lu_reduced.precision.reduction_order, ReductionOrder::sequential);
    EXPECT_EQ(record(BuiltinOperation::solve, ScalarType::float64).precision.mode, PrecisionMode::native);
    EXPECT_EQ(record(BuiltinOperation::matmul, ScalarType::float32).algorithm, "cpu.classical_gemm");
    EXPECT_EQ(record(BuiltinOperation::matvec, ScalarType::int32).algorithm, "cpu.classical_gemv");
    const auto& power = record(BuiltinOperation::matrix_power, ScalarType::float16);
    ASSERT_EQ(power.notes.size(), 1u);
    EXPECT_EQ(power.notes[0], "Intermediate matrices use the compute dtype; only the final output is rounded.");
}

TEST(CpuRegistration, SimdRecordsDescribeTheComplexEngine) {
    struct Expected {
        BuiltinOperation op;
        const char* algorithm;
        Stability stability;
        PrecisionMode mode;
        std::size_t notes;
    };
    const Expected table[] = {
        {BuiltinOperation::matmul, "simd.classical_gemm", Stability::backward_stable, PrecisionMode::native, 0},
        {BuiltinOperation::matvec, "simd.classical_gemv", Stability::backward_stable, PrecisionMode::native, 0},
        {BuiltinOperation::solve, "simd.lu.forward_backward_substitution", Stability::backward_stable,
         PrecisionMode::native, 2},
        {BuiltinOperation::principal_eigenvector, "simd.power_iteration", Stability::not_guaranteed,
         PrecisionMode::native, 3},
        {BuiltinOperation::eig, "simd.balanced_shifted_qr_iteration.schur_back_substitution",
         Stability::not_guaranteed, PrecisionMode::mixed, 5},
    };
    for (const Expected& e : table) {
        SCOPED_TRACE(e.algorithm);
        const auto& r = record(e.op, ScalarType::complex64, BackendKind::cpu_simd);
        EXPECT_EQ(r.algorithm, e.algorithm);
        EXPECT_EQ(r.stability, e.stability);
        EXPECT_EQ(r.precision.mode, e.mode);
        EXPECT_EQ(r.precision.reduction_order, ReductionOrder::library_defined);
        EXPECT_EQ(r.notes.size(), e.notes);
    }
    const auto& power = record(BuiltinOperation::principal_eigenvector, ScalarType::complex64, BackendKind::cpu_simd);
    EXPECT_EQ(parameter(power, "convergence_tolerance"), 9.999999747378752e-06);
    EXPECT_EQ(parameter(power, "maximum_iterations"), 512);
    const auto& eig = record(BuiltinOperation::eig, ScalarType::complex64, BackendKind::cpu_simd);
    EXPECT_EQ(eig.precision.accumulation_dtype, "complex128");
    EXPECT_EQ(parameter(eig, "convergence_tolerance"), 9.999999747378752e-05);
    EXPECT_EQ(parameter(eig, "exceptional_shift_interval"), 16);
    EXPECT_EQ(parameter(eig, "maximum_balance_sweeps"), 32);
    EXPECT_EQ(parameter(eig, "residual_tolerance"), 0.001);
    EXPECT_EQ(record(BuiltinOperation::matrix_power, ScalarType::complex64, BackendKind::cpu_simd).notes,
              std::vector<std::string>{"Intermediate matrices use the compute dtype; only the final output is rounded."});
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
