#include "backend/cpu/cpu_kernel_registration_records.hpp"

#include <cmath>
#include <cstdint>

#include "core/operand_types.hpp"

namespace quillmark::cpu_records {
namespace {

Numerics make(ImplementationNumerics n) { return std::make_shared<const ImplementationNumerics>(std::move(n)); }

// Single-precision tolerances are the base values; double ones are scaled by the epsilon ratio.
constexpr double kSingleDeflation = static_cast<double>(1e-4f);
const double kEpsilonRatio = std::ldexp(1.0, -29);

// Every record: what runs, how stable, its cost, and in which dtype and order it accumulates.
ImplementationNumerics base(const char* algorithm, Stability stability, SymbolicExpression work,
                            SymbolicExpression space, PrecisionMode mode, std::string accumulation,
                            ReductionOrder order, std::vector<std::string> notes = {}) {
    ImplementationNumerics n;
    n.algorithm = algorithm;
    n.stability = stability;
    n.complexity.work = std::move(work);
    n.complexity.auxiliary_space = std::move(space);
    n.precision.mode = mode;
    n.precision.accumulation_dtype = std::move(accumulation);
    n.precision.reduction_order = order;
    n.notes = std::move(notes);
    return n;
}

// The SIMD records are complex64 and leave the reduction order to the engine.
ImplementationNumerics simd_base(const char* algorithm, Stability stability, PrecisionMode mode,
                                 SymbolicExpression work, SymbolicExpression space, std::vector<std::string> notes) {
    return base(algorithm, stability, std::move(work), std::move(space), mode,
                mode == PrecisionMode::mixed ? "complex128" : "complex64", ReductionOrder::library_defined,
                std::move(notes));
}

} // namespace

SymbolicExpression in_dim(std::uint32_t index, std::uint32_t axis) { return dim(input_role(index), axis); }
SymbolicExpression out_dim(std::uint32_t index, std::uint32_t axis) { return dim(output_role(index), axis); }
SymbolicExpression cube(SymbolicExpression n) {
    return SymbolicExpression::make_operator(ExpressionKind::power, {std::move(n), lit(3)});
}
SymbolicExpression square(SymbolicExpression n) {
    return SymbolicExpression::make_operator(ExpressionKind::power, {std::move(n), lit(2)});
}

Numerics generic_record(const RecordPolicy& p, Record r) {
    return make(base(r.algorithm, r.stability, std::move(r.work), std::move(r.space),
                     p.reduced() ? PrecisionMode::widened : PrecisionMode::native, std::string(scalar_name(p.compute)),
                     r.order, std::move(r.notes)));
}

Numerics lu_record(const RecordPolicy& p, const char* algorithm, SymbolicExpression work, SymbolicExpression space) {
    return make(base(algorithm, Stability::backward_stable, std::move(work), std::move(space),
                     p.reduced() ? PrecisionMode::mixed : PrecisionMode::native, std::string(scalar_name(p.compute)),
                     ReductionOrder::sequential));
}

Numerics widened_record(const RecordPolicy& p, const char* algorithm, SymbolicExpression work,
                        SymbolicExpression space, std::vector<std::string> notes,
                        std::vector<AlgorithmParameter> parameters) {
    ImplementationNumerics n = base(
        algorithm, Stability::backward_stable, std::move(work), std::move(space),
        p.single() ? PrecisionMode::widened : PrecisionMode::native,
        p.single() ? (p.complex() ? "complex128" : "float64") : std::string(scalar_name(p.compute)),
        ReductionOrder::sequential, std::move(notes));
    n.parameters = std::move(parameters);
    return make(std::move(n));
}

Numerics eigen_record(const RecordPolicy& p, const char* algorithm) {
    const double scale = p.single() ? 1.0 : kEpsilonRatio;
    ImplementationNumerics n = base(
        algorithm, Stability::not_guaranteed, product_of({lit(10), cube(in_dim(0, 0))}),
        product_of({lit(3), square(in_dim(0, 0))}), p.single() ? PrecisionMode::mixed : PrecisionMode::native,
        "complex128", ReductionOrder::sequential,
        {"Real inputs are embedded in complex working storage; output precision follows the signature."});
    n.parameters = {
        {"maximum_iterations", std::int64_t{256}, "Per active dimension."},
        {"convergence_tolerance", kSingleDeflation * scale, "Relative deflation tolerance."},
        {"residual_tolerance", 0.001 * scale, "Normalised right-eigenpair residual."},
    };
    return make(std::move(n));
}

Numerics simd_solve_record() {
    return make(simd_base("simd.lu.forward_backward_substitution", Stability::backward_stable, PrecisionMode::native,
                          product_of({lit(2), square(in_dim(0, 0))}), lit(0),
                          {"Forward error depends on conditioning and the stored LU factors.",
                           "Triangular substitutions accumulate in native single precision."}));
}

Numerics simd_power_iteration_record() {
    ImplementationNumerics n = simd_base(
        "simd.power_iteration", Stability::not_guaranteed, PrecisionMode::native,
        product_of({lit(8), sym("iterations"), square(in_dim(0, 0))}), product_of({lit(2), in_dim(0, 0)}),
        {"Convergence is not guaranteed for defective matrices or without a well-separated unique dominant eigenvalue.",
         "Matrix-vector products and reductions use native complex single precision.",
         "iterations is bounded by maximum_iterations."});
    n.parameters = {
        {"convergence_tolerance", static_cast<double>(1e-5f), "Euclidean iterate-difference norm stopping tolerance."},
        {"maximum_iterations", std::int64_t{512}, "Maximum power-iteration count per starting vector."},
    };
    return make(std::move(n));
}

Numerics simd_eigen_record() {
    ImplementationNumerics n = simd_base(
        "simd.balanced_shifted_qr_iteration.schur_back_substitution", Stability::not_guaranteed, PrecisionMode::mixed,
        product_of({lit(10), cube(in_dim(0, 0))}), product_of({lit(3), square(in_dim(0, 0))}),
        {"Convergence and eigenvector accuracy are sensitive to non-normal, repeated or clustered spectra.",
         "The complex64 matrix is balanced with reversible radix-two entry scaling before conversion to complex128.",
         "Shifted QR, Schur-vector updates, triangular back substitution and balance reversal use complex128 before "
         "results are rounded to complex64.",
         "Returned complex64 pairs are validated with complex128 residual accumulation.",
         "iterations is bounded by maximum_iterations times the number of non-trivial active dimensions."});
    n.parameters = {
        {"convergence_tolerance", kSingleDeflation,
         "Trailing-row-and-column-relative deflation tolerance, guarded by original-coordinate backward error."},
        {"maximum_iterations", std::int64_t{256}, "Maximum number of shifted QR iterations without deflation."},
        {"exceptional_shift_interval", std::int64_t{16}, "Number of non-deflating iterations between exceptional shifts."},
        {"maximum_balance_sweeps", std::int64_t{32}, "Maximum number of radix-two matrix-balancing sweeps."},
        {"residual_tolerance", 0.001, "Maximum double-precision normalised right-eigenpair residual."},
    };
    return make(std::move(n));
}

Numerics simd_gemm_record() {
    return make(simd_base("simd.classical_gemm", Stability::backward_stable, PrecisionMode::native,
                          product_of({lit(8), in_dim(0, 0), in_dim(0, 1), in_dim(1, 1)}),
                          sum_of({product_of({in_dim(0, 0), in_dim(0, 1)}), product_of({in_dim(1, 0), in_dim(1, 1)})}),
                          {}));
}

Numerics simd_matrix_power_record() {
    const SymbolicExpression order = in_dim(0, 0);
    return make(simd_base(
        "simd.classical_gemm", Stability::backward_stable, PrecisionMode::native,
        product_of({lit(8), cube(order),
                    SymbolicExpression::make_operator(
                        ExpressionKind::log2, {sum_of({SymbolicExpression::operand_value(input_role(1)), lit(1)})})}),
        product_of({lit(3), square(order)}),
        {"Intermediate matrices use the compute dtype; only the final output is rounded."}));
}

Numerics simd_gemv_record() {
    return make(simd_base("simd.classical_gemv", Stability::backward_stable, PrecisionMode::native,
                          product_of({lit(8), in_dim(0, 0), in_dim(0, 1)}), lit(0), {}));
}

} // namespace quillmark::cpu_records
