#include "backend/cpu/cpu_kernel_registration.hpp"

#include <cmath>
#include <complex>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "backend/cpu/fallback_complex_eigen_solver.hpp"
#include "backend/cpu/floating_point_kernels.hpp"
#include "backend/cpu/cpu_kernel_registration_table.hpp"
#include "backend/cpu/structured_solver.hpp"
#include "backend/cpu/vector_kernels.hpp"
#include "dispatch/layout_adaptation.hpp"
#include "dispatch/layout_adaptation_tiled.hpp"
#include "storage/access.hpp"

namespace quillmark {
namespace cpu_registration {

BackendOperandKey key_of(OperandKind kind, ScalarType storage, ScalarType compute, ComplexLayout complex,
                         MatrixLayout layout) {
    OperandDescriptor d;
    d.kind = kind;
    d.dtype = DataTypeDescriptor(storage, compute);
    d.complex_layout = complex;
    d.matrix_layout = layout;
    return operand_key(d);
}

void register_rows(BackendRegistry& registry, BackendKind backend, const RegistrationProvenance& provenance,
                   std::vector<Registration> rows) {
    for (Registration& r : rows)
        registry.register_backend(
            BackendRegistryKey(backend, builtin_operation_id(r.operation), std::move(r.inputs), std::move(r.outputs)),
            cpu_kernel_materialiser(backend, std::move(r.kernel), r.tiling), provenance, std::move(r.numerics));
}

namespace {

using Op = BuiltinOperation;
using namespace cpu_records;
constexpr std::string_view kLabel = kKernelLabel;

// ---------------------------------------------------------------------------------------------
// Dtypes of the operands around a policy.

ScalarType real_of(ScalarType t) {
    switch (t) {
    case ScalarType::complex32: return ScalarType::float16;
    case ScalarType::complex64: return ScalarType::float32;
    case ScalarType::complex128: return ScalarType::float64;
    default: return t;
    }
}

ScalarType complex_of(ScalarType t) {
    switch (t) {
    case ScalarType::float16: return ScalarType::complex32;
    case ScalarType::bfloat16:
    case ScalarType::float32: return ScalarType::complex64;
    case ScalarType::float64: return ScalarType::complex128;
    default: return t;
    }
}

template <class P> struct Policy {
    using S = typename P::storage_type;
    using C = typename P::compute_type;
    using T = typename cpu::StorageComponent<S>::type;
    using R = cpu::RealOf<C>;
    static constexpr bool complex = cpu::is_complex_policy<P>;
    static constexpr bool integer = cpu::is_integer_policy<P>;
    static constexpr bool reduced = !std::is_same_v<S, C> && !integer;
    // The scalar backend holds complex vectors and matrices as split planes.
    static constexpr ComplexLayout layout = complex ? ComplexLayout::split : ComplexLayout::none;
    using K = cpu::FloatingKernels<P, layout>;
    using Ops = cpu::KernelOperands<P, layout>;
    // Storage of real results (norm, eigenvalues, log-magnitudes) and of eigen results.
    using RealStorage = std::conditional_t<complex, T, S>;
    using EigenStorage = std::conditional_t<std::is_same_v<S, Float16> || std::is_same_v<S, Complex32>, Complex32,
                                            std::complex<R>>;

    static constexpr ScalarType s = P::storage_scalar;
    static constexpr ScalarType c = P::compute_scalar;
    static BackendOperandKey vector() { return key_of(OperandKind::vector, s, c, layout, MatrixLayout::none); }
    static BackendOperandKey matrix() { return key_of(OperandKind::matrix, s, c, layout, MatrixLayout::row_major); }
    static BackendOperandKey scalar() { return key_of(OperandKind::scalar, s, c, ComplexLayout::none, MatrixLayout::none); }
    static BackendOperandKey real_scalar() {
        return key_of(OperandKind::scalar, real_of(s), real_of(c), ComplexLayout::none, MatrixLayout::none);
    }
    static BackendOperandKey real_vector() {
        return key_of(OperandKind::vector, real_of(s), real_of(c), ComplexLayout::none, MatrixLayout::none);
    }
    static BackendOperandKey lu() {
        return key_of(OperandKind::lu, s, c, complex ? ComplexLayout::interleaved : ComplexLayout::none,
                      MatrixLayout::column_major);
    }
    static BackendOperandKey eigen() {
        return key_of(OperandKind::eigen, complex_of(s), complex_of(c), ComplexLayout::interleaved,
                      MatrixLayout::column_major);
    }
    // logdet of an LU holds the principal complex logarithm in the compute precision.
    static BackendOperandKey log_scalar() {
        const ScalarType t = complex_of(real_of(c));
        return key_of(OperandKind::scalar, t, t, ComplexLayout::none, MatrixLayout::none);
    }
};

BackendOperandKey flag_key() {
    return key_of(OperandKind::scalar, ScalarType::int32, ScalarType::int32, ComplexLayout::none, MatrixLayout::none);
}

// ---------------------------------------------------------------------------------------------
// Operands of one execution, fetched once per call as typed views.

template <class P> typename Policy<P>::Ops::Vector vec(OperandEntity& e) {
    if constexpr (Policy<P>::complex) return split_vector_view<typename Policy<P>::T>(e, kLabel);
    else return dense_vector_view<typename Policy<P>::S>(e, kLabel);
}
template <class P> typename Policy<P>::Ops::Matrix mat(OperandEntity& e) {
    if constexpr (Policy<P>::complex) return split_matrix_view<typename Policy<P>::T>(e, kLabel);
    else return dense_matrix_view<typename Policy<P>::S>(e, kLabel);
}
template <class P> typename Policy<P>::Ops::Scalar sca(OperandEntity& e) {
    if constexpr (Policy<P>::complex) return split_scalar_view<typename Policy<P>::T>(e, kLabel);
    else return scalar_view<typename Policy<P>::S>(e, kLabel);
}
template <class P> ScalarView<typename Policy<P>::RealStorage> real_sca(OperandEntity& e) {
    return scalar_view<typename Policy<P>::RealStorage>(e, kLabel);
}
cpu::FlagView flag(OperandEntity& e) { return scalar_view<std::int32_t>(e, kLabel); }

// A matrix operand in the compute type: the storage itself when it already is, else a copy.
template <class P> struct ComputeMatrix {
    using C = typename Policy<P>::C;
    std::vector<C> owned;
    const C* data = nullptr;
    MatrixGeometry geometry;
};

template <class P> ComputeMatrix<P> load_matrix(OperandEntity& e) {
    using C = typename Policy<P>::C;
    ComputeMatrix<P> m;
    auto view = mat<P>(e);
    m.geometry = view;
    const std::uint64_t count = view.count();
    if constexpr (!Policy<P>::complex && std::is_same_v<typename Policy<P>::S, C>) {
        m.data = view.data;
    } else {
        m.owned.resize(count);
        for (std::uint64_t i = 0; i < count; ++i) {
            if constexpr (Policy<P>::complex) m.owned[i] = load_split<C>(view.re, view.im, i);
            else m.owned[i] = load_element<C>(view.data, i);
        }
        m.data = m.owned.data();
    }
    return m;
}

template <class P> std::vector<typename Policy<P>::C> load_vector(OperandEntity& e) {
    using C = typename Policy<P>::C;
    auto view = vec<P>(e);
    std::vector<C> out(view.size);
    for (std::uint64_t i = 0; i < view.size; ++i) {
        if constexpr (Policy<P>::complex) out[i] = load_split<C>(view.re, view.im, i);
        else out[i] = load_element<C>(view.data, i);
    }
    return out;
}

template <class P> void store_vector(OperandEntity& e, const typename Policy<P>::C* values) {
    auto view = vec<P>(e);
    for (std::uint64_t i = 0; i < view.size; ++i) {
        if constexpr (Policy<P>::complex) store_split(view.re, view.im, i, values[i]);
        else store_element<typename Policy<P>::S>(view.data, i, values[i]);
    }
}

// Writes a row-major compute matrix into a matrix operand of the policy.
template <class P> void store_matrix(OperandEntity& e, const typename Policy<P>::C* values) {
    auto view = mat<P>(e);
    for (std::uint64_t i = 0; i < view.rows; ++i)
        for (std::uint64_t j = 0; j < view.cols; ++j) {
            const auto& v = values[i * view.cols + j];
            const std::uint64_t k = view.index(i, j);
            if constexpr (Policy<P>::complex) store_split(view.re, view.im, k, v);
            else store_element<typename Policy<P>::S>(view.data, k, v);
        }
}

template <class P> void store_scalar(OperandEntity& e, const typename Policy<P>::C& value) {
    auto view = sca<P>(e);
    if constexpr (Policy<P>::complex) {
        store_element<typename Policy<P>::T>(view.data, 0, value.real());
        store_element<typename Policy<P>::T>(view.data, 1, value.imag());
    } else {
        store_element<typename Policy<P>::S>(view.data, 0, value);
    }
}

template <class P> void store_real_scalar(OperandEntity& e, typename Policy<P>::R value) {
    store_element<typename Policy<P>::RealStorage>(real_sca<P>(e).data, 0, value);
}

// Eigenvalues of a Hermitian matrix, refused before any write when the result dtype cannot hold them.
template <class P> void store_eigenvalues(OperandEntity& e, const std::vector<typename Policy<P>::R>& values) {
    using RS = typename Policy<P>::RealStorage;
    auto view = dense_vector_view<RS>(e, kLabel);
    for (auto v : values) {
        RS stored{};
        store_element<RS>(&stored, 0, v);
        if (std::isfinite(v) && !std::isfinite(load_element<typename Policy<P>::R>(&stored, 0)))
            throw std::runtime_error("eigh/eigvalsh - eigenvalue is outside the finite result dtype range");
    }
    for (std::uint64_t i = 0; i < view.size; ++i) store_element<RS>(view.data, i, values[i]);
}

// ---------------------------------------------------------------------------------------------
// Structured kernels: LU family, Hermitian family, general eigen.

template <class P> Kernel lu_factor_kernel() {
    return [](CpuExecutionContext& ctx, BackendExecutionBindings& b) {
        using S = typename Policy<P>::S;
        using C = typename Policy<P>::C;
        LuView<S> lu = lu_view<S>(output(b, 0), kLabel);
        const MatrixGeometry g{lu.order, lu.order, MatrixLayout::column_major};
        if constexpr (std::is_same_v<S, C>) {
            *lu.swaps = cpu::lu_factor<C>(lu.factors, g, lu.pivots, ctx.runtime());
        } else {
            std::vector<C> work(g.count());
            for (std::uint64_t i = 0; i < work.size(); ++i) work[i] = load_element<C>(lu.factors, i);
            const std::int64_t swaps = cpu::lu_factor<C>(work.data(), g, lu.pivots, ctx.runtime());
            for (std::uint64_t i = 0; i < work.size(); ++i) store_element<S>(lu.factors, i, work[i]);
            *lu.swaps = swaps;
        }
    };
}

// The LU factors in the compute type, borrowed when the storage already is.
template <class P> struct ComputeFactors {
    using C = typename Policy<P>::C;
    std::vector<C> owned;
    const C* data = nullptr;
    LuView<const typename Policy<P>::S> view;
    MatrixGeometry geometry;
};

template <class P> ComputeFactors<P> load_factors(OperandEntity& e) {
    using S = typename Policy<P>::S;
    using C = typename Policy<P>::C;
    ComputeFactors<P> f;
    f.view = lu_view<S>(static_cast<const OperandEntity&>(e), kLabel);
    f.geometry = {f.view.order, f.view.order, MatrixLayout::column_major};
    if constexpr (std::is_same_v<S, C>) {
        f.data = f.view.factors;
    } else {
        f.owned.resize(f.geometry.count());
        for (std::uint64_t i = 0; i < f.owned.size(); ++i) f.owned[i] = load_element<C>(f.view.factors, i);
        f.data = f.owned.data();
    }
    return f;
}

template <class P> Kernel solve_kernel() {
    return [](CpuExecutionContext&, BackendExecutionBindings& b) {
        ComputeFactors<P> f = load_factors<P>(input(b, 0));
        OperandEntity& rhs = output(b, 1);
        auto x = load_vector<P>(rhs);
        cpu::lu_solve(f.data, f.geometry, f.view.pivots, x.data());
        store_vector<P>(rhs, x.data());
    };
}

template <class P> Kernel logdet_kernel() {
    return [](CpuExecutionContext&, BackendExecutionBindings& b) {
        using R = typename Policy<P>::R;
        ComputeFactors<P> f = load_factors<P>(input(b, 0));
        const std::complex<R> value = cpu::lu_logdet(f.data, f.geometry, *f.view.swaps);
        auto out = split_scalar_view<R>(output(b, 1), kLabel);
        out.data[0] = value.real();
        out.data[1] = value.imag();
    };
}

template <class P> Kernel slogdet_kernel() {
    return [](CpuExecutionContext& ctx, BackendExecutionBindings& b) {
        ComputeMatrix<P> a = load_matrix<P>(input(b, 0));
        const auto result = cpu::slogdet(a.data, a.geometry, ctx.runtime());
        store_scalar<P>(output(b, 1), result.sign);
        store_real_scalar<P>(output(b, 2), result.log_magnitude);
    };
}

template <class P> Kernel logdet_positive_definite_kernel() {
    return [](CpuExecutionContext& ctx, BackendExecutionBindings& b) {
        ComputeMatrix<P> a = load_matrix<P>(input(b, 0));
        store_real_scalar<P>(output(b, 1), cpu::logdet_positive_definite(a.data, a.geometry, ctx.runtime()));
    };
}

template <class P, bool WithVectors> Kernel hermitian_kernel() {
    return [](CpuExecutionContext& ctx, BackendExecutionBindings& b) {
        using C = typename Policy<P>::C;
        ComputeMatrix<P> a = load_matrix<P>(input(b, 0));
        const std::uint64_t n = a.geometry.rows;
        std::vector<typename Policy<P>::R> values(n);
        if constexpr (WithVectors) {
            std::vector<C> vectors(n * n);
            cpu::eigh(a.data, a.geometry, values.data(), vectors.data(), MatrixGeometry{n, n, MatrixLayout::row_major},
                      ctx.runtime());
            store_eigenvalues<P>(output(b, 1), values);
            store_matrix<P>(output(b, 2), vectors.data());
        } else {
            cpu::eigvalsh(a.data, a.geometry, values.data(), ctx.runtime());
            store_eigenvalues<P>(output(b, 1), values);
        }
    };
}

template <class P> Kernel eig_kernel() {
    return [](CpuExecutionContext&, BackendExecutionBindings& b) {
        using E = typename Policy<P>::EigenStorage;
        using Z = std::complex<typename Policy<P>::R>;
        ComputeMatrix<P> a = load_matrix<P>(input(b, 0));
        EigenView<E> out = eigen_view<E>(output(b, 1), kLabel);
        const std::uint64_t n = out.order;
        if (n != a.geometry.rows) throw std::invalid_argument("CPU floating kernel - operand shape mismatch");
        if constexpr (std::is_same_v<E, Z>) {
            std::vector<Z> scratch(out.vectors ? 0 : n * n);
            cpu::eig(a.data, a.geometry, out.values, out.vectors ? out.vectors : scratch.data(), out.layout);
        } else {
            std::vector<Z> values(n), vectors(n * n);
            cpu::eig(a.data, a.geometry, values.data(), vectors.data(), out.layout);
            for (std::uint64_t i = 0; i < n; ++i) out.values[i] = E(values[i]);
            if (out.vectors)
                for (std::uint64_t i = 0; i < n * n; ++i) out.vectors[i] = E(vectors[i]);
        }
    };
}

template <class P> Kernel principal_eigenvector_kernel() {
    return [](CpuExecutionContext&, BackendExecutionBindings& b) {
        ComputeMatrix<P> a = load_matrix<P>(input(b, 0));
        std::vector<typename Policy<P>::C> v(a.geometry.rows);
        cpu::principal_eigenvector(a.data, a.geometry, v.data());
        store_vector<P>(output(b, 1), v.data());
    };
}

// ---------------------------------------------------------------------------------------------
// The scalar backend's table.

template <class P> RecordPolicy record_policy() { return {P::storage_scalar, P::compute_scalar}; }

// The view makers that kernel arguments are fetched with.
template <class P> struct Views {
    static constexpr auto V = &vec<P>;
    static constexpr auto M = &mat<P>;
    static constexpr auto S = &sca<P>;
    static constexpr auto RS = &real_sca<P>;
    static constexpr auto F = &flag;
};

// The operations that the int32 policy serves too.
template <class P> void common_rows(std::vector<Registration>& rows) {
    using K = typename Policy<P>::K;
    using Pol = Policy<P>;
    const RecordPolicy rp = record_policy<P>();
    const auto v = Pol::vector(), m = Pol::matrix(), s = Pol::scalar(), f = flag_key();
    const Stability arithmetic = Pol::integer ? Stability::exact : Stability::backward_stable;
    const SymbolicExpression length = in_dim(0, 0);
    using Vw = Views<P>;
    // One declaration each: the view makers differ in type, which one auto declaration may not deduce.
    constexpr auto V = Vw::V;
    constexpr auto M = Vw::M;
    constexpr auto S = Vw::S;
    constexpr auto F = Vw::F;
    const Numerics elementwise = generic_record(rp, {"cpu.elementwise", arithmetic, length});
    const Numerics transpose = generic_record(
        rp, {"cpu.transpose_copy", Stability::exact, product_of({in_dim(0, 0), in_dim(0, 1)})});
    // Output element (row) i depends on input element (row) i only, and on the whole second
    // operand for scale and matvec; shapes alone decide their failures. So they run tile by tile
    // where their operands are adapted.
    const KernelTiling binary{TileAxis::rows, TileAxis::rows, TileAxis::rows};
    const KernelTiling by_whole{TileAxis::rows, TileAxis::whole, TileAxis::rows};
    KernelTiling row_dot = by_whole;
    row_dot.row_dot = true;
    KernelTiling adding = binary, subtracting = binary;
    adding.components = KernelTiling::Components::add;
    subtracting.components = KernelTiling::Components::subtract;
    auto reduction = [&](SymbolicExpression work) {
        return generic_record(rp, {"cpu.blocked_pairwise_reduction", arithmetic, std::move(work), lit(0),
                                   ReductionOrder::pairwise});
    };

    rows.push_back({Op::multiply, {v, v}, {v}, bound<&K::multiply, In<V, 0>, In<V, 1>, Out<V, 2>>(), elementwise,
                    binary});
    rows.push_back({Op::add, {v, v}, {v}, bound<&K::add, In<V, 0>, In<V, 1>, Out<V, 2>>(), elementwise, adding});
    rows.push_back({Op::subtract, {v, v}, {v}, bound<&K::subtract, In<V, 0>, In<V, 1>, Out<V, 2>>(), elementwise,
                    subtracting});
    rows.push_back({Op::sum, {v}, {s}, bound<&K::sum, In<V, 0>, Out<S, 1>>(), reduction(length)});
    rows.push_back({Op::scale, {v, s}, {v}, bound<&K::scale, In<V, 0>, In<S, 1>, Out<V, 2>>(), elementwise,
                    by_whole});
    rows.push_back({Op::transpose, {m}, {m}, bound<&K::transpose, In<M, 0>, Out<M, 1>>(), transpose});
    rows.push_back({Op::matmul, {m, m}, {m}, bound<&K::matmul, In<M, 0>, In<M, 1>, Out<M, 2>>(),
                    generic_record(rp, {"cpu.classical_gemm", arithmetic,
                                        product_of({lit(2), in_dim(0, 0), in_dim(0, 1), in_dim(1, 1)}),
                                        sum_of({product_of({in_dim(0, 0), in_dim(0, 1)}),
                                                product_of({in_dim(1, 0), in_dim(1, 1)})}),
                                        ReductionOrder::sequential})});
    rows.push_back({Op::matvec, {m, v}, {v}, bound<&K::matvec, In<M, 0>, In<V, 1>, Out<V, 2>>(),
                    generic_record(rp, {"cpu.classical_gemv", arithmetic, product_of({lit(2), in_dim(0, 0), in_dim(0, 1)}),
                                        lit(0), ReductionOrder::pairwise}),
                    row_dot});
    rows.push_back({Op::kron, {m, m}, {m}, bound<&K::kron, In<M, 0>, In<M, 1>, Out<M, 2>>(),
                    generic_record(rp, {"cpu.kronecker_product", arithmetic, product_of({out_dim(0, 0), out_dim(0, 1)})})});
    rows.push_back({Op::inner, {v, v}, {s}, bound<&K::inner, In<V, 0>, In<V, 1>, Out<S, 2>>(),
                    reduction(product_of({lit(2), length}))});
    rows.push_back({Op::outer, {v, v}, {m}, bound<&K::outer, In<V, 0>, In<V, 1>, Out<M, 2>>(),
                    generic_record(rp, {"cpu.outer_product", arithmetic, product_of({in_dim(0, 0), in_dim(1, 0)})})});
    rows.push_back({Op::trace, {m}, {s}, bound<&K::trace, In<M, 0>, Out<S, 1>>(),
                    reduction(SymbolicExpression::make_operator(ExpressionKind::minimum, {in_dim(0, 0), in_dim(0, 1)}))});
    rows.push_back({Op::eye, {}, {m}, bound<&K::eye, Out<M, 0>>(),
                    generic_record(rp, {"cpu.identity_fill", Stability::exact, square(out_dim(0, 0))})});
    rows.push_back({Op::vector_equal, {v, v}, {f}, bound<&K::vector_equal, In<V, 0>, In<V, 1>, Out<F, 2>>(),
                    generic_record(rp, {"cpu.componentwise_comparison", Stability::exact, length})});
}

template <class P> void floating_rows(std::vector<Registration>& rows) {
    using K = typename Policy<P>::K;
    using Pol = Policy<P>;
    common_rows<P>(rows);
    const RecordPolicy rp = record_policy<P>();
    const auto v = Pol::vector(), m = Pol::matrix(), s = Pol::scalar(), f = flag_key();
    const SymbolicExpression length = in_dim(0, 0), order = in_dim(0, 0);
    const Stability bs = Stability::backward_stable;
    using Vw = Views<P>;
    constexpr auto V = Vw::V;
    constexpr auto M = Vw::M;
    constexpr auto S = Vw::S;
    constexpr auto RS = Vw::RS;
    constexpr auto F = Vw::F;
    const Numerics elementwise = generic_record(rp, {"cpu.elementwise", bs, length});
    const Numerics partial = generic_record(
        rp, {"cpu.partial_trace", bs, product_of({in_dim(0, 0), out_dim(0, 0)}), lit(0), ReductionOrder::sequential});

    rows.push_back({Op::sqrt, {v}, {v}, bound<&K::sqrt, In<V, 0>, Out<V, 1>>(), elementwise,
                    KernelTiling{TileAxis::rows, TileAxis::rows}});
    rows.push_back({Op::conjugate, {}, {v}, bound<&K::conjugate, Out<V, 0>>(),
                    generic_record(rp, {"cpu.elementwise", Stability::exact, out_dim(0, 0)}),
                    KernelTiling{TileAxis::rows}});
    rows.push_back({Op::norm, {v}, {Pol::real_scalar()}, bound<&K::norm, In<V, 0>, Out<RS, 1>>(),
                    generic_record(rp, {"cpu.scaled_euclidean_norm", bs, length, lit(0), ReductionOrder::pairwise})});
    rows.push_back({Op::divide, {v, s}, {v}, bound<&K::divide, In<V, 0>, In<S, 1>, Out<V, 2>>(), elementwise,
                    KernelTiling{TileAxis::rows, TileAxis::whole, TileAxis::rows}});
    rows.push_back({Op::adjoint, {m}, {m}, bound<&K::adjoint, In<M, 0>, Out<M, 1>>(),
                    generic_record(rp, {"cpu.transpose_copy", Stability::exact, product_of({in_dim(0, 0), in_dim(0, 1)})})});
    rows.push_back({Op::partial_trace_left, {m}, {m}, bound<&K::partial_trace_left, In<M, 0>, Out<M, 1>>(), partial});
    rows.push_back({Op::partial_trace_right, {m}, {m}, bound<&K::partial_trace_right, In<M, 0>, Out<M, 1>>(), partial});
    rows.push_back({Op::matrix_power, {m, f}, {m}, bound<&K::matrix_power, In<M, 0>, In<F, 1>, Out<M, 2>>(),
                    generic_record(rp, {"cpu.classical_gemm", bs,
                                        product_of({lit(2), cube(order),
                                                    SymbolicExpression::make_operator(
                                                        ExpressionKind::log2,
                                                        {sum_of({SymbolicExpression::operand_value(input_role(1)), lit(1)})})}),
                                        product_of({lit(3), square(order)}), ReductionOrder::sequential,
                                        {"Intermediate matrices use the compute dtype; only the final output is rounded."}})});
    rows.push_back({Op::is_unitary, {m}, {f}, bound<&K::is_unitary, In<M, 0>, Out<F, 1>>(),
                    generic_record(rp, {"cpu.unitarity_check", bs, product_of({lit(2), cube(order)}), square(order),
                                        ReductionOrder::sequential})});

    const SymbolicExpression n_lu = out_dim(0, 0), n_in = in_dim(0, 0);
    const SymbolicExpression dense_lu =
        SymbolicExpression::make_operator(ExpressionKind::divide, {product_of({lit(2), cube(order)}), lit(3)});
    rows.push_back({Op::lu_factor, {}, {Pol::lu()}, lu_factor_kernel<P>(),
                    lu_record(rp, "cpu.partial_pivoting_lu",
                              SymbolicExpression::make_operator(ExpressionKind::divide,
                                                                {product_of({lit(2), cube(n_lu)}), lit(3)}),
                              Pol::reduced ? square(n_lu) : lit(0))});
    rows.push_back({Op::solve, {Pol::lu()}, {v}, solve_kernel<P>(),
                    lu_record(rp, "cpu.triangular_substitution", product_of({lit(2), square(n_in)}), n_in)});
    rows.push_back({Op::logdet, {Pol::lu()}, {Pol::log_scalar()}, logdet_kernel<P>(),
                    lu_record(rp, "cpu.lu_logdet", n_in, lit(0))});
    rows.push_back({Op::slogdet, {m}, {s, Pol::real_scalar()}, slogdet_kernel<P>(),
                    widened_record(rp, "cpu.partial_pivoting_slogdet", dense_lu, square(order))});
    rows.push_back({Op::logdet_positive_definite, {m}, {Pol::real_scalar()}, logdet_positive_definite_kernel<P>(),
                    widened_record(rp, "cpu.cholesky_logdet",
                                   SymbolicExpression::make_operator(ExpressionKind::divide, {cube(order), lit(3)}),
                                   square(order))});
    const std::vector<AlgorithmParameter> sweeps = {
        {"maximum_sweeps", std::int64_t{64}, "Cyclic Jacobi sweep limit, configured at build time."}};
    const std::vector<std::string> jacobi_note = {
        "Input is copied before factorisation; real inputs use real working storage."};
    const SymbolicExpression jacobi_work = product_of({sym("sweeps"), lit(4), cube(order)});
    rows.push_back({Op::eigh, {m}, {Pol::real_vector(), m}, hermitian_kernel<P, true>(),
                    widened_record(rp, "cpu.hermitian_jacobi", jacobi_work, product_of({lit(2), square(order)}),
                                   jacobi_note, sweeps)});
    rows.push_back({Op::eigvalsh, {m}, {Pol::real_vector()}, hermitian_kernel<P, false>(),
                    widened_record(rp, "cpu.hermitian_jacobi", jacobi_work, square(order), jacobi_note, sweeps)});
    rows.push_back({Op::eig, {m}, {Pol::eigen()}, eig_kernel<P>(), eigen_record(rp, "cpu.balanced_shifted_qr")});
    rows.push_back({Op::principal_eigenvector, {m}, {v}, principal_eigenvector_kernel<P>(),
                    eigen_record(rp, "cpu.balanced_shifted_qr.principal_selection")});
}

} // namespace

std::vector<Registration> scalar_registrations() {
    std::vector<Registration> rows;
    for_each_floating_policy([&](auto policy) { floating_rows<decltype(policy)>(rows); });
    common_rows<PolicyI32>(rows);
    return rows;
}

} // namespace cpu_registration

void register_cpu_backends(BackendRegistry& registry, const RegistrationProvenance& provenance) {
    using namespace cpu_registration;
    register_rows(registry, BackendKind::cpu_scalar, provenance, scalar_registrations());
    register_rows(registry, BackendKind::cpu_simd, provenance, simd_registrations());
    install_complex64_relayout(&simd_relayout);
    const auto& f64 = cpu::default_vector_kernels<double>();
    const auto& f32 = cpu::default_vector_kernels<float>();
    install_complex_plane_copies({f64.to_split, f64.to_interleaved, f32.to_split, f32.to_interleaved});
    install_interleaved_row_dot({f64.pack_dot_x, f64.interleaved_dot_rows});
    install_component_kernels({f64.add_planes, f64.subtract_planes});
}

} // namespace quillmark
