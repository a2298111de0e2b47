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

// ---- signatures --------------------------------------------------------------------------------

RoleDeclaration in(OperandRole role, OperandKind kind) { return {role, OperandAccess::read, kind}; }
RoleDeclaration w(OperandRole role, OperandKind kind) { return {role, OperandAccess::write, kind}; }
RoleDeclaration rw(OperandRole role, OperandKind kind) { return {role, OperandAccess::read_write, kind}; }

constexpr OperandKind S = OperandKind::scalar;
constexpr OperandKind V = OperandKind::vector;
constexpr OperandKind M = OperandKind::matrix;
constexpr OperandKind L = OperandKind::lu;
constexpr OperandKind E = OperandKind::eigen;

struct BuiltinRow {
    const char* name;
    Rule rule;
    // Element i of the output depends on element i of each vector input only, so an output that
    // is exactly one of the inputs can be computed in place.
    bool elementwise = false;
};

constexpr std::array<BuiltinRow, kBuiltinOperationCount> kRows{{
    {"quillmark.sqrt", unary_vector, true},
    {"quillmark.conjugate", in_place_vector, true},
    {"quillmark.multiply", binary_vector, true},
    {"quillmark.add", binary_vector, true},
    {"quillmark.subtract", binary_vector, true},
    {"quillmark.sum", vector_to_scalar},
    {"quillmark.norm", vector_to_scalar},
    {"quillmark.scale", vector_and_scalar, true},
    {"quillmark.divide", vector_and_scalar, true},
    {"quillmark.transpose", transposed_matrix},
    {"quillmark.adjoint", transposed_matrix},
    {"quillmark.matmul", matrix_product},
    {"quillmark.matvec", matrix_vector_product},
    {"quillmark.kron", kronecker_product},
    {"quillmark.inner", inner_product},
    {"quillmark.outer", outer_product},
    {"quillmark.lu_factor", in_place_lu},
    {"quillmark.solve", lu_solve},
    {"quillmark.logdet", lu_to_scalar},
    {"quillmark.trace", matrix_to_scalar},
    {"quillmark.eig", general_eigen},
    {"quillmark.principal_eigenvector", principal_eigenvector},
    {"quillmark.partial_trace_left", partial_trace},
    {"quillmark.partial_trace_right", partial_trace},
    {"quillmark.matrix_power", matrix_power},
    {"quillmark.is_unitary", matrix_to_scalar},
    {"quillmark.eye", in_place_square_matrix},
    {"quillmark.vector_equal", vector_comparison},
    {"quillmark.eigh", hermitian_eigen},
    {"quillmark.eigvalsh", hermitian_eigen},
    {"quillmark.slogdet", determinant_to_scalars},
    {"quillmark.logdet_positive_definite", determinant_to_scalars},
}};

std::size_t index_of(BuiltinOperation operation) {
    const auto index = static_cast<std::size_t>(operation);
    if (index >= kBuiltinOperationCount)
        throw std::out_of_range("builtin_operation_id - unknown built-in operation");
    return index;
}

// ---- numeric contracts -------------------------------------------------------------------------

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

const char* const kSameLength = "Both inputs and the output have the same length.";
const char* const kReduced = "The vector is reduced to a scalar.";
const char* const kScalarKeepsLength = "The scalar does not change the vector length.";
const char* const kTransposed = "The output exchanges the input row and column axes.";
const char* const kValidLu =
    "The caller must supply a valid nonsingular LU factorisation; LU storage can be constructed without "
    "factorisation validation.";
const char* const kPartialTrace =
    "The output order divides the square input order; the quotient is the traced subsystem dimension.";
const char* const kHermitianNotes[] = {
    "All input entries must be finite.",
    "The full matrix is checked against its adjoint with a dimension-scaled compute-epsilon tolerance; the lower "
    "triangle and real diagonal define the solved matrix.",
    "Eigenvalues are real and sorted in ascending order. Eigenvectors are orthonormal columns and retain the "
    "input's real or complex domain in compute precision.",
};

using P = RequirementPurpose;
using F = RequirementEnforcement;
using K = RequirementKind;

// Square input of order n, as the rules that demand squareness check it.
ShapeConstraint square_input() { return eq(dim(in0, 1), dim(in0, 0)); }

std::vector<Requirement> valid_lu_requirement() {
    return {requirement(K::nonsingular, {in0}, P::defined_result, F::caller_responsibility,
                        "The LU operand must hold a valid factorisation of a nonsingular matrix.")};
}

OperationNumerics make_numerics(BuiltinOperation operation) {
    using B = BuiltinOperation;
    const auto n = [] { return sym("n"); };
    const auto m = [] { return sym("m"); };
    OperationNumerics c;
    switch (operation) {
    case B::sqrt:
        c.shapes = {shape(in0, {n()}), shape(out0, {n()})};
        c.constraints = {eq(dim(out0, 0), dim(in0, 0))};
        c.requirements = {requirement(K::nonnegative, {in0}, P::defined_result, F::caller_responsibility,
                                      "Negative real entries have no real square root and produce NaN.")};
        c.notes = {"Complex square root follows the implementation's principal branch."};
        break;
    case B::conjugate:
        c.shapes = {shape(out0, {n()})};
        c.notes = {"The read-write vector retains its length."};
        break;
    case B::multiply:
    case B::add:
    case B::subtract:
        c.shapes = {shape(in0, {n()}), shape(in1, {n()}), shape(out0, {n()})};
        c.constraints = {eq(dim(in1, 0), dim(in0, 0)), eq(dim(out0, 0), dim(in0, 0))};
        c.notes = {kSameLength};
        break;
    case B::sum:
    case B::norm:
        c.shapes = {shape(in0, {n()}), shape(out0, {})};
        c.notes = {kReduced};
        break;
    case B::scale:
    case B::divide:
        c.shapes = {shape(in0, {n()}), shape(in1, {}), shape(out0, {n()})};
        c.constraints = {eq(dim(out0, 0), dim(in0, 0))};
        c.notes = {kScalarKeepsLength};
        if (operation == B::divide) {
            c.requirements = {requirement(K::nonzero, {in1}, P::defined_result, F::caller_responsibility,
                                          "A zero divisor produces infinite or NaN entries.")};
            c.notes.push_back("The divisor must be nonzero for a finite defined result.");
        }
        break;
    case B::transpose:
    case B::adjoint:
        c.shapes = {shape(in0, {m(), n()}), shape(out0, {n(), m()})};
        c.constraints = {eq(dim(out0, 0), dim(in0, 1)), eq(dim(out0, 1), dim(in0, 0))};
        c.notes = {kTransposed};
        break;
    case B::matmul:
        c.shapes = {shape(in0, {m(), sym("k")}), shape(in1, {sym("k"), n()}), shape(out0, {m(), n()})};
        c.constraints = {eq(dim(in0, 1), dim(in1, 0)), eq(dim(out0, 0), dim(in0, 0)),
                         eq(dim(out0, 1), dim(in1, 1))};
        c.notes = {"The inner matrix dimensions agree."};
        break;
    case B::matvec:
        c.shapes = {shape(in0, {m(), n()}), shape(in1, {n()}), shape(out0, {m()})};
        c.constraints = {eq(dim(in1, 0), dim(in0, 1)), eq(dim(out0, 0), dim(in0, 0))};
        c.notes = {"The vector length matches the matrix column count."};
        break;
    case B::kron:
        c.shapes = {shape(in0, {m(), n()}), shape(in1, {sym("p"), sym("q")}),
                    shape(out0, {product_of({m(), sym("p")}), product_of({n(), sym("q")})})};
        c.constraints = {eq(dim(out0, 0), product_of({dim(in0, 0), dim(in1, 0)})),
                         eq(dim(out0, 1), product_of({dim(in0, 1), dim(in1, 1)}))};
        c.notes = {"Output axes are products of the corresponding input axes."};
        break;
    case B::inner:
        c.shapes = {shape(in0, {n()}), shape(in1, {n()}), shape(out0, {})};
        c.constraints = {eq(dim(in1, 0), dim(in0, 0))};
        c.notes = {"The first vector is conjugated in the complex inner product."};
        break;
    case B::outer:
        c.shapes = {shape(in0, {m()}), shape(in1, {n()}), shape(out0, {m(), n()})};
        c.constraints = {eq(dim(out0, 0), dim(in0, 0)), eq(dim(out0, 1), dim(in1, 0))};
        c.notes = {"Input lengths need not be equal."};
        break;
    case B::lu_factor:
        c.shapes = {shape(out0, {n()})};
        c.requirements = {requirement(K::nonsingular, {out0}, P::execution, F::checked,
                                      "A zero pivot stops the factorisation and is reported as singular.")};
        c.notes = {"Factorisation reports a singular matrix as a numerical failure.",
                   "The LU descriptor order represents a square matrix."};
        break;
    case B::solve:
        c.shapes = {shape(in0, {n()}), shape(out0, {n()})};
        c.constraints = {eq(dim(out0, 0), dim(in0, 0))};
        c.requirements = valid_lu_requirement();
        c.notes = {kValidLu, "The right-hand side is overwritten with the solution."};
        break;
    case B::logdet:
        c.shapes = {shape(in0, {n()}), shape(out0, {})};
        c.requirements = valid_lu_requirement();
        c.notes = {kValidLu, "The complex logarithm uses its principal branch."};
        break;
    case B::trace:
        c.shapes = {shape(in0, {m(), n()}), shape(out0, {})};
        c.notes = {"The core operation accepts rectangular matrices and sums the available diagonal."};
        break;
    case B::eig:
        c.shapes = {shape(in0, {n(), n()}), shape(out0, {n()})};
        c.constraints = {square_input(), eq(dim(out0, 0), dim(in0, 0))};
        c.requirements = {requirement(K::finite, {in0}, P::execution, F::caller_responsibility,
                                      "Non-finite entries prevent the iteration from converging.")};
        c.notes = {"The output order pairs each eigenvalue with one contiguous right eigenvector; column-major "
                   "storage places vectors in columns and row-major storage places them in rows."};
        break;
    case B::principal_eigenvector:
        c.shapes = {shape(in0, {n(), n()}), shape(out0, {n()})};
        c.constraints = {square_input(), eq(dim(out0, 0), dim(in0, 0))};
        c.requirements = {
            requirement(K::unique_dominant_eigenvalue, {in0}, P::unique_result, F::caller_responsibility,
                        "One eigenvalue must be strictly greatest in magnitude for the direction to be unique.")};
        c.notes = {"A unique eigenvalue of greatest magnitude is required for a unique principal direction.",
                   "Eigenvectors are defined only up to a complex scale."};
        break;
    case B::partial_trace_left:
    case B::partial_trace_right: {
        const auto d = [] { return sym("d"); };
        const auto q = [] { return sym("q"); };
        c.shapes = {shape(in0, {product_of({q(), d()}), product_of({q(), d()})}), shape(out0, {d(), d()})};
        c.constraints = {square_input(), eq(dim(out0, 1), dim(out0, 0)),
                         {dim(out0, 0), ShapeRelation::greater_equal, lit(1)},
                         {dim(in0, 0), ShapeRelation::divisible_by, dim(out0, 0)}};
        c.notes = {kPartialTrace};
        break;
    }
    case B::matrix_power:
        c.shapes = {shape(in0, {n(), n()}), shape(in1, {}), shape(out0, {n(), n()})};
        c.constraints = {square_input(), eq(dim(out0, 0), dim(in0, 0)), eq(dim(out0, 1), dim(in0, 1))};
        c.requirements = {requirement(K::nonnegative, {in1}, P::execution, F::checked,
                                      "A negative exponent is refused.")};
        c.notes = {"Only non-negative integer powers are supported.", "Power zero produces the identity matrix."};
        break;
    case B::is_unitary:
        c.shapes = {shape(in0, {m(), n()}), shape(out0, {})};
        c.notes = {"A non-square input is valid and produces false."};
        break;
    case B::eye:
        c.shapes = {shape(out0, {n(), n()})};
        c.constraints = {eq(dim(out0, 1), dim(out0, 0))};
        c.notes = {"The read-write output must be square."};
        break;
    case B::vector_equal:
        c.shapes = {shape(in0, {m()}), shape(in1, {n()}), shape(out0, {})};
        c.notes = {"Different input lengths are valid and produce false.",
                   "Equal-length vectors are compared independently by real and imaginary component; exact "
                   "equality is accepted first and tolerances apply only to finite pairs.",
                   "Same-signed infinities compare equal; opposite infinities, finite-infinite pairs and "
                   "comparisons containing NaN compare unequal."};
        break;
    case B::eigh:
    case B::eigvalsh:
        c.shapes = {shape(in0, {n(), n()}), shape(out0, {n()})};
        c.constraints = {square_input(), eq(dim(out0, 0), dim(in0, 0))};
        if (operation == B::eigh) {
            c.shapes.push_back(shape(out1, {n(), n()}));
            c.constraints.push_back(eq(dim(out1, 0), dim(in0, 0)));
            c.constraints.push_back(eq(dim(out1, 1), dim(in0, 1)));
        }
        c.requirements = {
            requirement(K::finite, {in0}, P::execution, F::checked, "Non-finite input entries are refused."),
            requirement(K::hermitian, {in0}, P::execution, F::checked,
                        "The input must equal its adjoint within a dimension-scaled tolerance.")};
        c.notes.assign(std::begin(kHermitianNotes), std::end(kHermitianNotes));
        break;
    case B::slogdet:
        c.shapes = {shape(in0, {n(), n()}), shape(out0, {}), shape(out1, {})};
        c.constraints = {square_input()};
        c.requirements = {requirement(K::finite, {in0}, P::defined_result, F::caller_responsibility,
                                      "Non-finite entries give an undefined sign and log-magnitude.")};
        c.notes = {"Returns determinant sign (unit phase for complex input) and real log-magnitude. Singular "
                   "matrices return zero and negative infinity; the empty determinant is one."};
        break;
    case B::logdet_positive_definite:
        c.shapes = {shape(in0, {n(), n()}), shape(out0, {})};
        c.constraints = {square_input()};
        c.requirements = {requirement(K::positive_definite, {in0}, P::execution, F::checked,
                                      "The Cholesky factorisation fails on a matrix that is not positive definite.")};
        c.notes = {"Cholesky factorisation must succeed; the result is real."};
        break;
    }
    return c;
}

const std::array<std::shared_ptr<const OperationNumerics>, kBuiltinOperationCount>& numerics_table() {
    static const auto table = [] {
        std::array<std::shared_ptr<const OperationNumerics>, kBuiltinOperationCount> t;
        for (std::size_t i = 0; i < t.size(); ++i)
            t[i] = std::make_shared<const OperationNumerics>(make_numerics(static_cast<BuiltinOperation>(i)));
        return t;
    }();
    return table;
}

} // namespace

const OperationId& builtin_operation_id(BuiltinOperation operation) {
    return builtin_operation_ids()[index_of(operation)];
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
    using B = BuiltinOperation;
    switch (operation) {
    case B::sqrt: return {in(in0, V), w(out0, V)};
    case B::conjugate: return {rw(out0, V)};
    case B::multiply:
    case B::add:
    case B::subtract: return {in(in0, V), in(in1, V), w(out0, V)};
    case B::sum:
    case B::norm: return {in(in0, V), w(out0, S)};
    case B::scale:
    case B::divide: return {in(in0, V), in(in1, S), w(out0, V)};
    case B::transpose:
    case B::adjoint: return {in(in0, M), w(out0, M)};
    case B::matmul:
    case B::kron: return {in(in0, M), in(in1, M), w(out0, M)};
    case B::matvec: return {in(in0, M), in(in1, V), w(out0, V)};
    case B::inner:
    case B::vector_equal: return {in(in0, V), in(in1, V), w(out0, S)};
    case B::outer: return {in(in0, V), in(in1, V), w(out0, M)};
    case B::lu_factor: return {rw(out0, L)};
    case B::solve: return {in(in0, L), rw(out0, V)};
    case B::logdet: return {in(in0, L), w(out0, S)};
    case B::trace:
    case B::is_unitary:
    case B::logdet_positive_definite: return {in(in0, M), w(out0, S)};
    case B::eig: return {in(in0, M), w(out0, E)};
    case B::principal_eigenvector:
    case B::eigvalsh: return {in(in0, M), w(out0, V)};
    case B::partial_trace_left:
    case B::partial_trace_right: return {in(in0, M), w(out0, M)};
    case B::matrix_power: return {in(in0, M), in(in1, S), w(out0, M)};
    case B::eye: return {rw(out0, M)};
    case B::eigh: return {in(in0, M), w(out0, V), w(out1, M)};
    case B::slogdet: return {in(in0, M), w(out0, S), w(out1, S)};
    }
    throw std::out_of_range("builtin_operation_id - unknown built-in operation");
}

ShapeValidator builtin_shape_rule(BuiltinOperation operation) { return kRows[index_of(operation)].rule; }

void register_builtin_operations(OperationRegistry& registry, const RegistrationProvenance& provenance) {
    std::vector<OperationSpec> specs;
    specs.reserve(kBuiltinOperationCount);
    for (std::size_t i = 0; i < kBuiltinOperationCount; ++i) {
        const auto op = static_cast<BuiltinOperation>(i);
        specs.emplace_back(builtin_operation_id(op), builtin_roles(op), kRows[i].rule, numerics_table()[i]);
    }
    // Let the registry refuse the first clash (sealed catalogue, duplicate) before anything is added.
    for (OperationSpec& spec : specs)
        if (registry.sealed() || registry.contains(spec.id())) registry.register_operation(std::move(spec), provenance);
    for (OperationSpec& spec : specs) registry.register_operation(std::move(spec), provenance);
}

bool builtin_elementwise(const OperationId& id) noexcept {
    const auto ids = builtin_operation_ids();
    for (std::size_t i = 0; i < ids.size(); ++i)
        if (ids[i] == id) return kRows[i].elementwise;
    return false;
}

std::shared_ptr<const OperationNumerics> operation_numerics(const OperationId& id) {
    const auto ids = builtin_operation_ids();
    for (std::size_t i = 0; i < ids.size(); ++i)
        if (ids[i] == id) return numerics_table()[i];
    throw std::logic_error("operation_numerics - unknown built-in operation");
}

} // namespace quillmark
