#include "catalogue/builtin_operations.hpp"

#include <array>
#include <limits>
#include <stdexcept>

#include "catalogue/numerics.hpp"

namespace quillmark {

namespace {

using Ops = std::span<const OperandDescriptor>;
using Rule = void (*)(Ops);

constexpr OperandRole in0 = 0;
constexpr OperandRole in1 = 1;
constexpr OperandRole out0 = kOutputRoleBit | 0;
constexpr OperandRole out1 = kOutputRoleBit | 1;

[[noreturn]] void fail(const char* message) { throw std::invalid_argument(message); }

// The rules are also reachable without the signature check in front of them, so they never index
// past what they were given.
void need(Ops ops, std::size_t count) {
    if (ops.size() < count) fail("OperationSpec - operand arity mismatch");
}

bool is(const OperandDescriptor& d, OperandKind kind) noexcept { return d.kind == kind; }
bool vec(const OperandDescriptor& d) noexcept { return is(d, OperandKind::vector); }
bool mat(const OperandDescriptor& d) noexcept { return is(d, OperandKind::matrix); }
bool scl(const OperandDescriptor& d) noexcept { return is(d, OperandKind::scalar); }
bool square(const OperandDescriptor& d) noexcept { return d.rows() == d.cols(); }

// ---- shape rules -------------------------------------------------------------------------------

void unary_vector(Ops ops) {
    need(ops, 2);
    const auto &a = ops[0], &out = ops.back();
    if (!vec(a)) fail("OperationSpec - first operand must be a vector");
    if (!vec(out)) fail("OperationSpec - output must be a vector");
    if (out.length() != a.length()) fail("OperationSpec - vector output size mismatch");
}

void in_place_vector(Ops ops) {
    need(ops, 1);
    if (!vec(ops[0])) fail("OperationSpec - read-write operand must be a vector");
}

void binary_vector(Ops ops) {
    need(ops, 3);
    const auto &a = ops[0], &b = ops[1], &out = ops.back();
    if (!vec(a)) fail("OperationSpec - first operand must be a vector");
    if (!vec(b)) fail("OperationSpec - second operand must be a vector");
    if (!vec(out)) fail("OperationSpec - output must be a vector");
    if (a.length() != b.length()) fail("OperationSpec - vector input size mismatch");
    if (out.length() != a.length()) fail("OperationSpec - vector output size mismatch");
}

void vector_to_scalar(Ops ops) {
    need(ops, 2);
    if (!vec(ops[0])) fail("OperationSpec - first operand must be a vector");
    if (!scl(ops.back())) fail("OperationSpec - output must be a scalar");
}

void vector_and_scalar(Ops ops) {
    need(ops, 3);
    const auto &a = ops[0], &b = ops[1], &out = ops.back();
    if (!vec(a)) fail("OperationSpec - first operand must be a vector");
    if (!scl(b)) fail("OperationSpec - second operand must be a scalar");
    if (!vec(out)) fail("OperationSpec - output must be a vector");
    if (out.length() != a.length()) fail("OperationSpec - vector output size mismatch");
}

void transposed_matrix(Ops ops) {
    need(ops, 2);
    const auto &a = ops[0], &out = ops.back();
    if (!mat(a)) fail("OperationSpec - first operand must be a matrix");
    if (!mat(out)) fail("OperationSpec - output must be a matrix");
    if (out.rows() != a.cols() || out.cols() != a.rows()) fail("OperationSpec - transposed output shape mismatch");
}

void matrix_product(Ops ops) {
    need(ops, 3);
    const auto &a = ops[0], &b = ops[1], &out = ops.back();
    if (!mat(a)) fail("OperationSpec - first operand must be a matrix");
    if (!mat(b)) fail("OperationSpec - second operand must be a matrix");
    if (!mat(out)) fail("OperationSpec - output must be a matrix");
    if (a.cols() != b.rows()) fail("OperationSpec - matrix input shape mismatch");
    if (out.rows() != a.rows() || out.cols() != b.cols()) fail("OperationSpec - matrix output shape mismatch");
}

void matrix_vector_product(Ops ops) {
    need(ops, 3);
    const auto &a = ops[0], &x = ops[1], &out = ops.back();
    if (!mat(a)) fail("OperationSpec - first operand must be a matrix");
    if (!vec(x)) fail("OperationSpec - second operand must be a vector");
    if (!vec(out)) fail("OperationSpec - output must be a vector");
    if (x.length() != a.cols()) fail("OperationSpec - matrix/vector input size mismatch");
    if (out.length() != a.rows()) fail("OperationSpec - matrix/vector output size mismatch");
}

bool product_overflows(std::uint64_t a, std::uint64_t b) noexcept {
    return b != 0 && a > std::numeric_limits<std::uint64_t>::max() / b;
}

void kronecker_product(Ops ops) {
    need(ops, 3);
    const auto &a = ops[0], &b = ops[1], &out = ops.back();
    if (!mat(a)) fail("OperationSpec - first operand must be a matrix");
    if (!mat(b)) fail("OperationSpec - second operand must be a matrix");
    if (!mat(out)) fail("OperationSpec - output must be a matrix");
    if (product_overflows(a.rows(), b.rows()) || product_overflows(a.cols(), b.cols()))
        fail("OperationSpec - Kronecker product output shape overflow");
    if (out.rows() != a.rows() * b.rows() || out.cols() != a.cols() * b.cols())
        fail("OperationSpec - Kronecker output shape mismatch");
}

void inner_product(Ops ops) {
    need(ops, 3);
    const auto &a = ops[0], &b = ops[1], &out = ops.back();
    if (!vec(a)) fail("OperationSpec - first operand must be a vector");
    if (!vec(b)) fail("OperationSpec - second operand must be a vector");
    if (a.length() != b.length()) fail("OperationSpec - vector input size mismatch");
    if (!scl(out)) fail("OperationSpec - output must be a scalar");
}

void outer_product(Ops ops) {
    need(ops, 3);
    const auto &a = ops[0], &b = ops[1], &out = ops.back();
    if (!vec(a)) fail("OperationSpec - first operand must be a vector");
    if (!vec(b)) fail("OperationSpec - second operand must be a vector");
    if (!mat(out)) fail("OperationSpec - output must be a matrix");
    if (out.rows() != a.length() || out.cols() != b.length())
        fail("OperationSpec - outer-product output shape mismatch");
}

void in_place_lu(Ops ops) {
    need(ops, 1);
    if (!is(ops[0], OperandKind::lu)) fail("OperationSpec - read-write operand must be an LU factor");
}

void lu_solve(Ops ops) {
    need(ops, 2);
    const auto &lu = ops[0], &rhs = ops.back();
    if (!is(lu, OperandKind::lu)) fail("OperationSpec - first operand must be an LU factor");
    if (!vec(rhs)) fail("OperationSpec - read-write output must be a vector");
    if (rhs.length() != lu.extent[0]) fail("OperationSpec - solve RHS size mismatch");
}

void lu_to_scalar(Ops ops) {
    need(ops, 2);
    if (!is(ops[0], OperandKind::lu)) fail("OperationSpec - first operand must be an LU factor");
    if (!scl(ops.back())) fail("OperationSpec - output must be a scalar");
}

void matrix_to_scalar(Ops ops) {
    need(ops, 2);
    if (!mat(ops[0])) fail("OperationSpec - first operand must be a matrix");
    if (!scl(ops.back())) fail("OperationSpec - output must be a scalar");
}

void general_eigen(Ops ops) {
    need(ops, 2);
    const auto &a = ops[0], &out = ops.back();
    if (!mat(a)) fail("OperationSpec - first operand must be a matrix");
    if (!square(a)) fail("OperationSpec - first operand must be square");
    if (!is(out, OperandKind::eigen)) fail("OperationSpec - output must hold eigenvalues");
    if (out.extent[0] != a.rows()) fail("OperationSpec - eigen output size mismatch");
}

void principal_eigenvector(Ops ops) {
    need(ops, 2);
    const auto &a = ops[0], &out = ops.back();
    if (!mat(a)) fail("OperationSpec - first operand must be a matrix");
    if (!square(a)) fail("OperationSpec - first operand must be square");
    if (!vec(out)) fail("OperationSpec - output must be a vector");
    if (out.length() != a.rows()) fail("OperationSpec - eigenvector output size mismatch");
}

void partial_trace(Ops ops) {
    need(ops, 2);
    const auto &a = ops[0], &out = ops.back();
    if (!mat(a)) fail("OperationSpec - first operand must be a matrix");
    if (!mat(out)) fail("OperationSpec - output must be a matrix");
    if (!square(a)) fail("OperationSpec - first operand must be square");
    if (!square(out)) fail("OperationSpec - output must be square");
    if (out.rows() == 0 || a.rows() % out.rows() != 0) fail("OperationSpec - partial trace output shape mismatch");
}

void matrix_power(Ops ops) {
    need(ops, 3);
    const auto &a = ops[0], &p = ops[1], &out = ops.back();
    if (!mat(a)) fail("OperationSpec - first operand must be a matrix");
    if (!scl(p)) fail("OperationSpec - second operand must be a scalar");
    if (!square(a)) fail("OperationSpec - first operand must be square");
    if (!mat(out)) fail("OperationSpec - output must be a matrix");
    if (out.rows() != a.rows() || out.cols() != a.cols()) fail("OperationSpec - matrix output shape mismatch");
}

void in_place_square_matrix(Ops ops) {
    need(ops, 1);
    if (!mat(ops[0])) fail("OperationSpec - read-write operand must be a matrix");
    if (!square(ops[0])) fail("OperationSpec - read-write matrix must be square");
}

void vector_comparison(Ops ops) {
    need(ops, 3);
    if (!vec(ops[0])) fail("OperationSpec - first operand must be a vector");
    if (!vec(ops[1])) fail("OperationSpec - second operand must be a vector");
    if (!scl(ops.back())) fail("OperationSpec - output must be a scalar");
}

void hermitian_eigen(Ops ops) {
    need(ops, 2);
    const auto &a = ops[0], &values = ops[1];
    if (!mat(a)) fail("eigh/eigvalsh - input must be a matrix");
    if (!square(a)) fail("eigh/eigvalsh - input must be square");
    if (!vec(values)) fail("eigh/eigvalsh - eigenvalues must be a vector");
    if (values.length() != a.rows()) fail("eigh/eigvalsh - eigenvalue count mismatch");
    if (ops.size() >= 3) {
        const auto& vectors = ops[2];
        if (!mat(vectors)) fail("eigh - eigenvectors must be a matrix");
        if (vectors.rows() != a.rows() || vectors.cols() != a.cols()) fail("eigh - eigenvector shape mismatch");
    }
}

void determinant_to_scalars(Ops ops) {
    need(ops, 1);
    if (!mat(ops[0])) fail("slogdet/logdet_positive_definite - input must be a matrix");
    if (!square(ops[0])) fail("slogdet/logdet_positive_definite - input must be square");
    for (const OperandDescriptor& out : ops.subspan(1))
        if (!scl(out)) fail("slogdet/logdet_positive_definite - output must be a scalar");
}

// ---- numeric contract helpers ---------------------------------------------------------------------

OperandShape shape(OperandRole role, std::vector<SymbolicExpression> dimensions) {
    return {role, std::move(dimensions)};
}
ShapeConstraint eq(SymbolicExpression l, SymbolicExpression r) {
    return {std::move(l), ShapeRelation::equal, std::move(r)};
}
Requirement requirement(RequirementKind kind, std::vector<OperandRole> roles, RequirementPurpose purpose,
                        RequirementEnforcement enforcement, std::string note) {
    return {kind, std::move(roles), purpose, enforcement, std::move(note)};
}

// ---- the table ----------------------------------------------------------------------------------

constexpr OperandKind S = OperandKind::scalar;
constexpr OperandKind V = OperandKind::vector;
constexpr OperandKind M = OperandKind::matrix;
constexpr OperandKind L = OperandKind::lu;
constexpr OperandKind E = OperandKind::eigen;

constexpr RoleDeclaration in(OperandRole role, OperandKind kind) { return {role, OperandAccess::read, kind}; }
constexpr RoleDeclaration w(OperandRole role, OperandKind kind) { return {role, OperandAccess::write, kind}; }
constexpr RoleDeclaration rw(OperandRole role, OperandKind kind) { return {role, OperandAccess::read_write, kind}; }

// Role signatures shared by several operations.
constexpr RoleDeclaration kVectorToVector[] = {in(in0, V), w(out0, V)};
constexpr RoleDeclaration kVectorsToVector[] = {in(in0, V), in(in1, V), w(out0, V)};
constexpr RoleDeclaration kVectorToScalar[] = {in(in0, V), w(out0, S)};
constexpr RoleDeclaration kVectorScalarToVector[] = {in(in0, V), in(in1, S), w(out0, V)};
constexpr RoleDeclaration kMatrixToMatrix[] = {in(in0, M), w(out0, M)};
constexpr RoleDeclaration kMatricesToMatrix[] = {in(in0, M), in(in1, M), w(out0, M)};
constexpr RoleDeclaration kVectorsToScalar[] = {in(in0, V), in(in1, V), w(out0, S)};
constexpr RoleDeclaration kMatrixToScalar[] = {in(in0, M), w(out0, S)};
constexpr RoleDeclaration kMatrixToVector[] = {in(in0, M), w(out0, V)};
constexpr RoleDeclaration kLuToScalar[] = {in(in0, L), w(out0, S)};
constexpr RoleDeclaration kConjugate[] = {rw(out0, V)};
constexpr RoleDeclaration kMatvec[] = {in(in0, M), in(in1, V), w(out0, V)};
constexpr RoleDeclaration kOuter[] = {in(in0, V), in(in1, V), w(out0, M)};
constexpr RoleDeclaration kLuFactor[] = {rw(out0, L)};
constexpr RoleDeclaration kSolve[] = {in(in0, L), rw(out0, V)};
constexpr RoleDeclaration kEig[] = {in(in0, M), w(out0, E)};
constexpr RoleDeclaration kMatrixPower[] = {in(in0, M), in(in1, S), w(out0, M)};
constexpr RoleDeclaration kEye[] = {rw(out0, M)};
constexpr RoleDeclaration kEigh[] = {in(in0, M), w(out0, V), w(out1, M)};
constexpr RoleDeclaration kSlogdet[] = {in(in0, M), w(out0, S), w(out1, S)};

using P = RequirementPurpose;
using F = RequirementEnforcement;
using K = RequirementKind;
using Contract = OperationNumerics (*)();

SymbolicExpression n() { return sym("n"); }
SymbolicExpression m() { return sym("m"); }

// Square input of order n, as the rules that demand squareness check it.
ShapeConstraint square_input() { return eq(dim(in0, 1), dim(in0, 0)); }

std::vector<Requirement> valid_lu_requirement() {
    return {requirement(K::nonsingular, {in0}, P::defined_result, F::caller_responsibility,
                        "The LU operand must hold a valid factorisation of a nonsingular matrix.")};
}

OperationNumerics contract(std::vector<OperandShape> shapes, std::vector<ShapeConstraint> constraints = {},
                           std::vector<Requirement> requirements = {}) {
    OperationNumerics c;
    c.shapes = std::move(shapes);
    c.constraints = std::move(constraints);
    c.requirements = std::move(requirements);
    return c;
}

// Numeric contracts (notes aside) shared by several operations.
OperationNumerics same_length_vectors() {
    return contract({shape(in0, {n()}), shape(in1, {n()}), shape(out0, {n()})},
                    {eq(dim(in1, 0), dim(in0, 0)), eq(dim(out0, 0), dim(in0, 0))});
}
OperationNumerics vector_reduction() { return contract({shape(in0, {n()}), shape(out0, {})}); }
OperationNumerics scaled_vector() {
    return contract({shape(in0, {n()}), shape(in1, {}), shape(out0, {n()})}, {eq(dim(out0, 0), dim(in0, 0))});
}
OperationNumerics transposed() {
    return contract({shape(in0, {m(), n()}), shape(out0, {n(), m()})},
                    {eq(dim(out0, 0), dim(in0, 1)), eq(dim(out0, 1), dim(in0, 0))});
}
OperationNumerics rectangular_to_scalar() { return contract({shape(in0, {m(), n()}), shape(out0, {})}); }
OperationNumerics partial_trace_contract() {
    const auto d = [] { return sym("d"); };
    const auto q = [] { return sym("q"); };
    return contract({shape(in0, {product_of({q(), d()}), product_of({q(), d()})}), shape(out0, {d(), d()})},
                    {square_input(), eq(dim(out0, 1), dim(out0, 0)),
                     {dim(out0, 0), ShapeRelation::greater_equal, lit(1)},
                     {dim(in0, 0), ShapeRelation::divisible_by, dim(out0, 0)}});
}
OperationNumerics hermitian_values() {
    return contract({shape(in0, {n(), n()}), shape(out0, {n()})}, {square_input(), eq(dim(out0, 0), dim(in0, 0))},
                    {requirement(K::finite, {in0}, P::execution, F::checked, "Non-finite input entries are refused."),
                     requirement(K::hermitian, {in0}, P::execution, F::checked,
                                 "The input must equal its adjoint within a dimension-scaled tolerance.")});
}

constexpr const char* kSameLength = "Both inputs and the output have the same length.";
constexpr const char* kReduced = "The vector is reduced to a scalar.";
constexpr const char* kScalarKeepsLength = "The scalar does not change the vector length.";
constexpr const char* kTransposed = "The output exchanges the input row and column axes.";
constexpr const char* kValidLu =
    "The caller must supply a valid nonsingular LU factorisation; LU storage can be constructed without "
    "factorisation validation.";
constexpr const char* kPartialTrace =
    "The output order divides the square input order; the quotient is the traced subsystem dimension.";
constexpr const char* kHermitianFinite = "All input entries must be finite.";
constexpr const char* kHermitianCheck =
    "The full matrix is checked against its adjoint with a dimension-scaled compute-epsilon tolerance; the lower "
    "triangle and real diagonal define the solved matrix.";
constexpr const char* kHermitianOrder =
    "Eigenvalues are real and sorted in ascending order. Eigenvectors are orthonormal columns and retain the "
    "input's real or complex domain in compute precision.";

// Everything the library states about one built-in operation: its name, role signature, shape
// rule, numeric contract and notes, and whether it works element by element (element i of the
// output depends on element i of each vector input only, so an output that is exactly one of its
// inputs can be computed in place). The catalogue, the shape checks and describe all read it.
struct BuiltinRow {
    const char* name;
    std::span<const RoleDeclaration> roles;
    Rule rule;
    Contract numerics;
    std::array<const char*, 3> notes;
    bool elementwise = false;
};

constexpr std::array<BuiltinRow, kBuiltinOperationCount> kRows{{
    {"quillmark.sqrt", kVectorToVector, unary_vector,
     [] {
         return contract({shape(in0, {n()}), shape(out0, {n()})}, {eq(dim(out0, 0), dim(in0, 0))},
                         {requirement(K::nonnegative, {in0}, P::defined_result, F::caller_responsibility,
                                      "Negative real entries have no real square root and produce NaN.")});
     },
     {"Complex square root follows the implementation's principal branch."}, true},
    {"quillmark.conjugate", kConjugate, in_place_vector, [] { return contract({shape(out0, {n()})}); },
     {"The read-write vector retains its length."}, true},
    {"quillmark.multiply", kVectorsToVector, binary_vector, same_length_vectors, {kSameLength}, true},
    {"quillmark.add", kVectorsToVector, binary_vector, same_length_vectors, {kSameLength}, true},
    {"quillmark.subtract", kVectorsToVector, binary_vector, same_length_vectors, {kSameLength}, true},
    {"quillmark.sum", kVectorToScalar, vector_to_scalar, vector_reduction, {kReduced}},
    {"quillmark.norm", kVectorToScalar, vector_to_scalar, vector_reduction, {kReduced}},
    {"quillmark.scale", kVectorScalarToVector, vector_and_scalar, scaled_vector, {kScalarKeepsLength}, true},
    {"quillmark.divide", kVectorScalarToVector, vector_and_scalar,
     [] {
         OperationNumerics c = scaled_vector();
         c.requirements = {requirement(K::nonzero, {in1}, P::defined_result, F::caller_responsibility,
                                       "A zero divisor produces infinite or NaN entries.")};
         return c;
     },
     {kScalarKeepsLength, "The divisor must be nonzero for a finite defined result."}, true},
    {"quillmark.transpose", kMatrixToMatrix, transposed_matrix, transposed, {kTransposed}},
    {"quillmark.adjoint", kMatrixToMatrix, transposed_matrix, transposed, {kTransposed}},
    {"quillmark.matmul", kMatricesToMatrix, matrix_product,
     [] {
         return contract({shape(in0, {m(), sym("k")}), shape(in1, {sym("k"), n()}), shape(out0, {m(), n()})},
                         {eq(dim(in0, 1), dim(in1, 0)), eq(dim(out0, 0), dim(in0, 0)), eq(dim(out0, 1), dim(in1, 1))});
     },
     {"The inner matrix dimensions agree."}},
    {"quillmark.matvec", kMatvec, matrix_vector_product,
     [] {
         return contract({shape(in0, {m(), n()}), shape(in1, {n()}), shape(out0, {m()})},
                         {eq(dim(in1, 0), dim(in0, 1)), eq(dim(out0, 0), dim(in0, 0))});
     },
     {"The vector length matches the matrix column count."}},
    {"quillmark.kron", kMatricesToMatrix, kronecker_product,
     [] {
         return contract({shape(in0, {m(), n()}), shape(in1, {sym("p"), sym("q")}),
                          shape(out0, {product_of({m(), sym("p")}), product_of({n(), sym("q")})})},
                         {eq(dim(out0, 0), product_of({dim(in0, 0), dim(in1, 0)})),
                          eq(dim(out0, 1), product_of({dim(in0, 1), dim(in1, 1)}))});
     },
     {"Output axes are products of the corresponding input axes."}},
    {"quillmark.inner", kVectorsToScalar, inner_product,
     [] {
         return contract({shape(in0, {n()}), shape(in1, {n()}), shape(out0, {})}, {eq(dim(in1, 0), dim(in0, 0))});
     },
     {"The first vector is conjugated in the complex inner product."}},
    {"quillmark.outer", kOuter, outer_product,
     [] {
         return contract({shape(in0, {m()}), shape(in1, {n()}), shape(out0, {m(), n()})},
                         {eq(dim(out0, 0), dim(in0, 0)), eq(dim(out0, 1), dim(in1, 0))});
     },
     {"Input lengths need not be equal."}},
    {"quillmark.lu_factor", kLuFactor, in_place_lu,
     [] {
         return contract({shape(out0, {n()})}, {},
                         {requirement(K::nonsingular, {out0}, P::execution, F::checked,
                                      "A zero pivot stops the factorisation and is reported as singular.")});
     },
     {"Factorisation reports a singular matrix as a numerical failure.",
      "The LU descriptor order represents a square matrix."}},
    {"quillmark.solve", kSolve, lu_solve,
     [] {
         return contract({shape(in0, {n()}), shape(out0, {n()})}, {eq(dim(out0, 0), dim(in0, 0))},
                         valid_lu_requirement());
     },
     {kValidLu, "The right-hand side is overwritten with the solution."}},
    {"quillmark.logdet", kLuToScalar, lu_to_scalar,
     [] { return contract({shape(in0, {n()}), shape(out0, {})}, {}, valid_lu_requirement()); },
     {kValidLu, "The complex logarithm uses its principal branch."}},
    {"quillmark.trace", kMatrixToScalar, matrix_to_scalar, rectangular_to_scalar,
     {"The core operation accepts rectangular matrices and sums the available diagonal."}},
    {"quillmark.eig", kEig, general_eigen,
     [] {
         return contract({shape(in0, {n(), n()}), shape(out0, {n()})}, {square_input(), eq(dim(out0, 0), dim(in0, 0))},
                         {requirement(K::finite, {in0}, P::execution, F::caller_responsibility,
                                      "Non-finite entries prevent the iteration from converging.")});
     },
     {"The output order pairs each eigenvalue with one contiguous right eigenvector; column-major storage places "
      "vectors in columns and row-major storage places them in rows."}},
    {"quillmark.principal_eigenvector", kMatrixToVector, principal_eigenvector,
     [] {
         return contract(
             {shape(in0, {n(), n()}), shape(out0, {n()})}, {square_input(), eq(dim(out0, 0), dim(in0, 0))},
             {requirement(K::unique_dominant_eigenvalue, {in0}, P::unique_result, F::caller_responsibility,
                          "One eigenvalue must be strictly greatest in magnitude for the direction to be unique.")});
     },
     {"A unique eigenvalue of greatest magnitude is required for a unique principal direction.",
      "Eigenvectors are defined only up to a complex scale."}},
    {"quillmark.partial_trace_left", kMatrixToMatrix, partial_trace, partial_trace_contract, {kPartialTrace}},
    {"quillmark.partial_trace_right", kMatrixToMatrix, partial_trace, partial_trace_contract, {kPartialTrace}},
    {"quillmark.matrix_power", kMatrixPower, matrix_power,
     [] {
         return contract({shape(in0, {n(), n()}), shape(in1, {}), shape(out0, {n(), n()})},
                         {square_input(), eq(dim(out0, 0), dim(in0, 0)), eq(dim(out0, 1), dim(in0, 1))},
                         {requirement(K::nonnegative, {in1}, P::execution, F::checked, "A negative exponent is refused.")});
     },
     {"Only non-negative integer powers are supported.", "Power zero produces the identity matrix."}},
    {"quillmark.is_unitary", kMatrixToScalar, matrix_to_scalar, rectangular_to_scalar,
     {"A non-square input is valid and produces false."}},
    {"quillmark.eye", kEye, in_place_square_matrix,
     [] { return contract({shape(out0, {n(), n()})}, {eq(dim(out0, 1), dim(out0, 0))}); },
     {"The read-write output must be square."}},
    {"quillmark.vector_equal", kVectorsToScalar, vector_comparison,
     [] { return contract({shape(in0, {m()}), shape(in1, {n()}), shape(out0, {})}); },
     {"Different input lengths are valid and produce false.",
      "Equal-length vectors are compared independently by real and imaginary component; exact equality is "
      "accepted first and tolerances apply only to finite pairs.",
      "Same-signed infinities compare equal; opposite infinities, finite-infinite pairs and comparisons containing "
      "NaN compare unequal."}},
    {"quillmark.eigh", kEigh, hermitian_eigen,
     [] {
         OperationNumerics c = hermitian_values();
         c.shapes.push_back(shape(out1, {n(), n()}));
         c.constraints.push_back(eq(dim(out1, 0), dim(in0, 0)));
         c.constraints.push_back(eq(dim(out1, 1), dim(in0, 1)));
         return c;
     },
     {kHermitianFinite, kHermitianCheck, kHermitianOrder}},
    {"quillmark.eigvalsh", kMatrixToVector, hermitian_eigen, hermitian_values,
     {kHermitianFinite, kHermitianCheck, kHermitianOrder}},
    {"quillmark.slogdet", kSlogdet, determinant_to_scalars,
     [] {
         return contract({shape(in0, {n(), n()}), shape(out0, {}), shape(out1, {})}, {square_input()},
                         {requirement(K::finite, {in0}, P::defined_result, F::caller_responsibility,
                                      "Non-finite entries give an undefined sign and log-magnitude.")});
     },
     {"Returns determinant sign (unit phase for complex input) and real log-magnitude. Singular matrices return "
      "zero and negative infinity; the empty determinant is one."}},
    {"quillmark.logdet_positive_definite", kMatrixToScalar, determinant_to_scalars,
     [] {
         return contract(
             {shape(in0, {n(), n()}), shape(out0, {})}, {square_input()},
             {requirement(K::positive_definite, {in0}, P::execution, F::checked,
                          "The Cholesky factorisation fails on a matrix that is not positive definite.")});
     },
     {"Cholesky factorisation must succeed; the result is real."}},
}};

const BuiltinRow& row_of(BuiltinOperation operation) {
    const auto index = static_cast<std::size_t>(operation);
    if (index >= kBuiltinOperationCount)
        throw std::out_of_range("builtin_operation_id - unknown built-in operation");
    return kRows[index];
}

// The row of an identifier, or null for one that is not built in.
const BuiltinRow* find_row(const OperationId& id) noexcept {
    const auto ids = builtin_operation_ids();
    for (std::size_t i = 0; i < ids.size(); ++i)
        if (ids[i] == id) return &kRows[i];
    return nullptr;
}

const std::array<std::shared_ptr<const OperationNumerics>, kBuiltinOperationCount>& numerics_table() {
    static const auto table = [] {
        std::array<std::shared_ptr<const OperationNumerics>, kBuiltinOperationCount> t;
        for (std::size_t i = 0; i < t.size(); ++i) {
            OperationNumerics c = kRows[i].numerics();
            for (const char* note : kRows[i].notes)
                if (note) c.notes.emplace_back(note);
            t[i] = std::make_shared<const OperationNumerics>(std::move(c));
        }
        return t;
    }();
    return table;
}

} // namespace

const OperationId& builtin_operation_id(BuiltinOperation operation) {
    row_of(operation);
    return builtin_operation_ids()[static_cast<std::size_t>(operation)];
}

std::span<const OperationId> builtin_operation_ids() {
    static const std::vector<OperationId> ids = [] {
        std::vector<OperationId> v;
        v.reserve(kRows.size());
        for (const BuiltinRow& row : kRows) v.emplace_back(row.name, 1);
        return v;
    }();
    return ids;
}

std::vector<RoleDeclaration> builtin_roles(BuiltinOperation operation) {
    const BuiltinRow& row = row_of(operation);
    return {row.roles.begin(), row.roles.end()};
}

ShapeValidator builtin_shape_rule(BuiltinOperation operation) { return row_of(operation).rule; }

void register_builtin_operations(OperationRegistry& registry, const RegistrationProvenance& provenance) {
    std::vector<OperationSpec> specs;
    specs.reserve(kBuiltinOperationCount);
    for (std::size_t i = 0; i < kBuiltinOperationCount; ++i)
        specs.emplace_back(builtin_operation_ids()[i], std::vector<RoleDeclaration>(kRows[i].roles.begin(), kRows[i].roles.end()),
                           kRows[i].rule, numerics_table()[i]);
    // Let the registry refuse the first clash (sealed catalogue, duplicate) before anything is added.
    for (OperationSpec& spec : specs)
        if (registry.sealed() || registry.contains(spec.id())) registry.register_operation(std::move(spec), provenance);
    for (OperationSpec& spec : specs) registry.register_operation(std::move(spec), provenance);
}

bool builtin_elementwise(const OperationId& id) noexcept {
    const BuiltinRow* row = find_row(id);
    return row && row->elementwise;
}

std::shared_ptr<const OperationNumerics> operation_numerics(const OperationId& id) {
    const BuiltinRow* row = find_row(id);
    if (!row) throw std::logic_error("operation_numerics - unknown built-in operation");
    return numerics_table()[static_cast<std::size_t>(row - kRows.data())];
}

} // namespace quillmark
