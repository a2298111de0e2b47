#pragma once
// Implementation records of the CPU backends: what `describe` reports for each registration.
// Records depend only on the storage/compute pair, so they are plain functions of it.
#include <memory>
#include <string>
#include <vector>

#include "catalogue/numerics.hpp"
#include "catalogue/symbolic_expression.hpp"
#include "core/scalar_type.hpp"

namespace quillmark::cpu_records {

using Numerics = std::shared_ptr<const ImplementationNumerics>;

struct RecordPolicy {
    ScalarType storage;
    ScalarType compute;
    bool integer() const noexcept { return storage == ScalarType::int32; }
    // Half-precision and complex32 storage computed in single precision.
    bool reduced() const noexcept { return storage != compute && !integer(); }
    bool single() const noexcept { return compute == ScalarType::float32 || compute == ScalarType::complex64; }
    bool complex() const noexcept { return compute == ScalarType::complex64 || compute == ScalarType::complex128; }
};

SymbolicExpression in_dim(std::uint32_t index, std::uint32_t axis);
SymbolicExpression out_dim(std::uint32_t index, std::uint32_t axis);
SymbolicExpression cube(SymbolicExpression n);
SymbolicExpression square(SymbolicExpression n);

struct Record {
    const char* algorithm;
    Stability stability;
    SymbolicExpression work;
    SymbolicExpression space = lit(0);
    ReductionOrder order = ReductionOrder::not_applicable;
    std::vector<std::string> notes = {};
};

// Element-wise, reduction and product kernels: precision follows the policy (widened for the
// reduced-storage policies).
Numerics generic_record(const RecordPolicy& p, Record r);
// LU family of the scalar backend: native, or mixed for the reduced-storage policies.
Numerics lu_record(const RecordPolicy& p, const char* algorithm, SymbolicExpression work, SymbolicExpression space);
// Jacobi, slogdet and Cholesky: single precision accumulates in double.
Numerics widened_record(const RecordPolicy& p, const char* algorithm, SymbolicExpression work,
                        SymbolicExpression space, std::vector<std::string> notes = {},
                        std::vector<AlgorithmParameter> parameters = {});
// Scalar general eigen solver and its principal-eigenvector selection.
Numerics eigen_record(const RecordPolicy& p, const char* algorithm);

// Records of the SIMD backend (complex64 only).
Numerics simd_solve_record();
Numerics simd_power_iteration_record();
Numerics simd_eigen_record();
Numerics simd_gemm_record();
Numerics simd_matrix_power_record();
Numerics simd_gemv_record();

} // namespace quillmark::cpu_records
