#include <gtest/gtest.h>

#include <complex>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "core/errors.hpp"
#include "frontend/eigen_values.hpp"
#include "frontend/lu_factorisation.hpp"
#include "frontend/matrix.hpp"
#include "frontend/scalar.hpp"
#include "frontend/vector.hpp"
#include "storage/access.hpp"
#include "storage/borrowed_host_storage.hpp"
#include "storage/dense_host_storage.hpp"
#include "storage/storage_factory.hpp"

using namespace quillmark;
using cf = std::complex<float>;
using cd = std::complex<double>;

namespace {

using ST = ScalarType;
using OK = OperandKind;
using CL = ComplexLayout;
using ML = MatrixLayout;

void expect_invalid(const std::function<void()>& f, const std::string& message) {
    try {
        f();
        ADD_FAILURE() << "no exception, expected: " << message;
    } catch (const std::invalid_argument& e) {
        EXPECT_EQ(e.what(), message);
    }
}

std::unique_ptr<OperandEntity> make(ST s, ST c, OK kind, std::array<std::uint64_t, 2> extent, CL cl, ML ml,
                                    const std::optional<StorageInitialiser>& init = std::nullopt) {
    return make_dense_host_storage(DataTypeDescriptor(s, c), kind, extent, cl, ml, init);
}

StorageInitialiser init_of(const BufferDescriptor& real, std::uint64_t count) {
    StorageInitialiser init;
    init.element_count = count;
    init.real = real;
    return init;
}

} // namespace

// ---- element counts and buffers of every owned family

struct CountCase {
    const char* name;
    ST storage, compute;
    OK kind;
    std::array<std::uint64_t, 2> extent;
    CL cl;
    ML ml;
    std::vector<std::uint64_t> buffer_counts;
    std::vector<BufferRole> roles;
};

class StorageCounts : public ::testing::TestWithParam<CountCase> {};

TEST_P(StorageCounts, BuffersHoldTheRequiredElementsZeroed) {
    const CountCase& p = GetParam();
    auto e = make(p.storage, p.compute, p.kind, p.extent, p.cl, p.ml);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->kind(), p.kind);
    EXPECT_EQ(e->dtype(), DataTypeDescriptor(p.storage, p.compute));
    EXPECT_EQ(e->complex_layout(), p.cl);
    EXPECT_EQ(e->matrix_layout(), p.ml);
    EXPECT_EQ(e->location(), Location::pageable_host);
    EXPECT_EQ(e->numa_node(), -1);
    const ErasedBufferAccess& buffers = e->erased_access();
    ASSERT_EQ(buffers.buffer_count(), p.buffer_counts.size());
    for (std::size_t i = 0; i < p.buffer_counts.size(); ++i) {
        const BufferDescriptor d = buffers.buffer(i);
        EXPECT_EQ(d.element_count, p.buffer_counts[i]) << "buffer " << i;
        EXPECT_EQ(d.role, p.roles[i]) << "buffer " << i;
        const auto* bytes = static_cast<const unsigned char*>(d.data);
        for (std::uint64_t b = 0; b < d.element_count * d.element_size; ++b) ASSERT_EQ(bytes[b], 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Families, StorageCounts,
    ::testing::Values(CountCase{"real_scalar",
                                ST::bfloat16,
                                ST::float32,
                                OK::scalar,
                                {},
                                CL::none,
                                ML::none,
                                {1},
                                {BufferRole::data}},
                      CountCase{"split_scalar",
                                ST::complex32,
                                ST::complex64,
                                OK::scalar,
                                {},
                                CL::none,
                                ML::none,
                                {1, 1},
                                {BufferRole::real, BufferRole::imaginary}},
                      CountCase{"real_vector",
                                ST::int32,
                                ST::int32,
                                OK::vector,
                                {7, 0},
                                CL::none,
                                ML::none,
                                {7},
                                {BufferRole::data}},
                      CountCase{"split_vector",
                                ST::complex128,
                                ST::complex128,
                                OK::vector,
                                {5, 0},
                                CL::split,
                                ML::none,
                                {5, 5},
                                {BufferRole::real, BufferRole::imaginary}},
                      CountCase{"intlv_vector",
                                ST::complex64,
                                ST::complex64,
                                OK::vector,
                                {4, 0},
                                CL::interleaved,
                                ML::none,
                                {4},
                                {BufferRole::data}},
                      CountCase{"real_matrix",
                                ST::float16,
                                ST::float32,
                                OK::matrix,
                                {3, 5},
                                CL::none,
                                ML::row_major,
                                {15},
                                {BufferRole::data}},
                      CountCase{"split_matrix",
                                ST::complex64,
                                ST::complex64,
                                OK::matrix,
                                {2, 3},
                                CL::split,
                                ML::row_major,
                                {6, 6},
                                {BufferRole::real, BufferRole::imaginary}},
                      CountCase{"intlv_matrix_col",
                                ST::complex32,
                                ST::complex64,
                                OK::matrix,
                                {4, 2},
                                CL::interleaved,
                                ML::column_major,
                                {8},
                                {BufferRole::data}},
                      CountCase{"lu_real",
                                ST::float64,
                                ST::float64,
                                OK::lu,
                                {4, 0},
                                CL::none,
                                ML::column_major,
                                {16, 4, 1},
                                {BufferRole::lu_factors, BufferRole::lu_pivots, BufferRole::lu_swap_count}},
                      CountCase{"lu_complex",
                                ST::complex32,
                                ST::complex64,
                                OK::lu,
                                {3, 0},
                                CL::interleaved,
                                ML::column_major,
                                {9, 3, 1},
                                {BufferRole::lu_factors, BufferRole::lu_pivots, BufferRole::lu_swap_count}},
                      CountCase{"eigen",
                                ST::complex128,
                                ST::complex128,
                                OK::eigen,
                                {3, 0},
                                CL::interleaved,
                                ML::row_major,
                                {3, 9},
                                {BufferRole::eigenvalues, BufferRole::eigenvectors}},
                      CountCase{"empty_matrix",
                                ST::float32,
                                ST::float32,
                                OK::matrix,
                                {0, 4},
                                CL::none,
                                ML::row_major,
                                {0},
                                {BufferRole::data}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(StorageFactory, SizeOverflowIsABadArrayLength) {
    StorageInitialiser bad; // would fail the initialiser checks, which come later
    bad.imaginary = BufferDescriptor{};
    EXPECT_THROW(make(ST::float32, ST::float32, OK::matrix, {1ull << 32, (1ull << 32) + 1}, CL::none,
                      ML::row_major, bad),
                 std::bad_array_new_length);
    EXPECT_THROW(make(ST::float64, ST::float64, OK::lu, {1ull << 33, 0}, CL::none, ML::column_major),
                 std::bad_array_new_length);
    // The product fits 64 bits but not the address space.
    EXPECT_THROW(make(ST::complex128, ST::complex128, OK::vector, {1ull << 62, 0}, CL::interleaved, ML::none),
                 std::bad_array_new_length);
}

// ---- initialisers

TEST(StorageInitialiser, CopiesCallerDataIntoEachFamily) {
    const float m[6] = {1, 2, 3, 4, 5, 6};
    auto matrix = make(ST::float32, ST::float32, OK::matrix, {2, 3}, CL::none, ML::row_major,
                       init_of(BufferDescriptor::of(m, 6), 6));
    const auto mv = dense_matrix_view<float>(std::as_const(*matrix));
    EXPECT_NE(mv.data, m);
    EXPECT_EQ(std::vector<float>(mv.data, mv.data + 6), std::vector<float>(m, m + 6));

    const double re[3] = {1, 2, 3}, im[3] = {-1, -2, -3};
    StorageInitialiser split = init_of(BufferDescriptor::of(re, 3, BufferRole::real), 3);
    split.split = 1;
    split.imaginary = BufferDescriptor::of(im, 3, BufferRole::imaginary);
    auto sv = make(ST::complex128, ST::complex128, OK::vector, {3, 0}, CL::split, ML::none, split);
    const auto s = split_vector_view<double>(*sv);
    EXPECT_EQ(s.re[2], 3.0);
    EXPECT_EQ(s.im[1], -2.0);

    alignas(sizeof(cf)) const cf value(2.5f, -1.5f); // element-size alignment, stricter than alignof
    auto scalar = make(ST::complex64, ST::complex64, OK::scalar, {}, CL::split, ML::none,
                       init_of(BufferDescriptor::of(&value, 1), 1));
    const auto sc = split_scalar_view<float>(*scalar);
    EXPECT_EQ(sc.data[0], 2.5f);
    EXPECT_EQ(sc.data[1], -1.5f);

    const BFloat16 factors[4] = {BFloat16(1.f), BFloat16(2.f), BFloat16(3.f), BFloat16(4.f)};
    auto lu = make(ST::bfloat16, ST::float32, OK::lu, {2, 0}, CL::none, ML::column_major,
                   init_of(BufferDescriptor::of(factors, 4), 4));
    const auto lv = lu_view<BFloat16>(*lu);
    EXPECT_EQ(static_cast<float>(lv.factors[3]), 4.f);
    EXPECT_EQ(lv.pivots[0], 0);
    EXPECT_EQ(*lv.swaps, 0);
}

struct InitCase {
    const char* name;
    std::function<std::unique_ptr<OperandEntity>()> make;
    std::string message;
};

class StorageInitialiserFailures : public ::testing::TestWithParam<InitCase> {};

TEST_P(StorageInitialiserFailures, ReportTheFirstFailingCheck) {
    expect_invalid([&] { GetParam().make(); }, GetParam().message);
}

namespace {
alignas(16) float g_f32[8] = {};
alignas(16) double g_f64[8] = {};
alignas(16) Float16 g_f16[8] = {};
alignas(32) cd g_c128[4] = {};
const std::string kMismatch = "storage initialiser - layout or element count mismatch";

auto f32_matrix(StorageInitialiser init, std::array<std::uint64_t, 2> extent = {2, 2}) {
    return [=] { return make(ST::float32, ST::float32, OK::matrix, extent, CL::none, ML::row_major, init); };
}
auto split_vector(StorageInitialiser init) {
    return [=] { return make(ST::complex64, ST::complex64, OK::vector, {4, 0}, CL::split, ML::none, init); };
}
StorageInitialiser split_init(BufferDescriptor re, BufferDescriptor im, std::uint32_t flag = 1) {
    StorageInitialiser init = init_of(re, re.element_count);
    init.split = flag;
    init.imaginary = im;
    return init;
}
BufferDescriptor f32(std::uint64_t count, BufferRole role = BufferRole::data, std::size_t offset = 0) {
    return BufferDescriptor::of(g_f32 + offset, count, role);
}
StorageInitialiser flagged(StorageInitialiser init, std::uint32_t split) {
    init.split = split;
    return init;
}
StorageInitialiser imaginary_only() {
    StorageInitialiser init;
    init.split = 1;
    init.element_count = 4;
    init.imaginary = BufferDescriptor::of(g_f32, 4, BufferRole::imaginary);
    return init;
}
} // namespace

INSTANTIATE_TEST_SUITE_P(
    Checks, StorageInitialiserFailures,
    ::testing::Values(
        InitCase{"scalar_count_two",
                 [] {
                     return make(ST::float64, ST::float64, OK::scalar, {}, CL::none, ML::none,
                                 init_of(BufferDescriptor::of(g_f64, 2), 2));
                 },
                 kMismatch},
        InitCase{"scalar_with_imaginary",
                 [] {
                     auto init = split_init(f32(1), f32(1, BufferRole::imaginary, 1), 0);
                     return make(ST::complex64, ST::complex64, OK::scalar, {}, CL::split, ML::none, init);
                 },
                 kMismatch},
        InitCase{"imaginary_only", split_vector(imaginary_only()),
                 "storage initialiser - missing real buffer"},
        InitCase{"imaginary_only_on_real_storage", f32_matrix(imaginary_only()),
                 "storage initialiser - missing real buffer"},
        InitCase{"real_count", f32_matrix(init_of(f32(3), 4)), kMismatch},
        InitCase{"initialiser_count", f32_matrix(init_of(f32(4), 3)), kMismatch},
        InitCase{"split_flag_on_plain_data", f32_matrix(flagged(init_of(f32(4), 4), 1)), kMismatch},
        InitCase{"split_without_imaginary", split_vector(flagged(init_of(f32(4), 4), 1)), kMismatch},
        InitCase{"split_flag_missing", split_vector(split_init(f32(4), f32(4, BufferRole::imaginary, 4), 0)),
                 kMismatch},
        InitCase{"imaginary_role", split_vector(split_init(f32(4), f32(4, BufferRole::real, 4))), kMismatch},
        InitCase{"imaginary_count", split_vector(split_init(f32(4), f32(3, BufferRole::imaginary, 4))),
                 kMismatch},
        // Counts are checked before types: a wrong type with a wrong count reports the count.
        InitCase{"count_before_type", f32_matrix(init_of(BufferDescriptor::of(g_f64, 3), 4)), kMismatch},
        InitCase{"misaligned", f32_matrix([] {
                     auto d = BufferDescriptor::of(g_f32, 4);
                     d.data = reinterpret_cast<char*>(g_f32) + 2;
                     return init_of(d, 4);
                 }()),
                 "host matrix - storage buffer type, alignment or count mismatch"},
        InitCase{"wrong_element_type", f32_matrix(init_of(BufferDescriptor::of(g_f64, 4), 4)),
                 "host matrix - storage buffer type, alignment or count mismatch"},
        InitCase{"same_size_other_scalar",
                 [] {
                     return make(ST::bfloat16, ST::float32, OK::vector, {4, 0}, CL::none, ML::none,
                                 init_of(BufferDescriptor::of(g_f16, 4), 4));
                 },
                 "host vector - storage buffer type, alignment or count mismatch"},
        InitCase{"null_with_elements", f32_matrix(init_of(BufferDescriptor::of<float>(nullptr, 4), 4)),
                 "host matrix - storage buffer type, alignment or count mismatch"},
        InitCase{"split_plane_type",
                 split_vector(split_init(f32(4), BufferDescriptor::of(g_f64, 4, BufferRole::imaginary))),
                 "host split vector - storage buffer type, alignment or count mismatch"},
        InitCase{"complex128_at_8_mod_16",
                 [] {
                     auto d = BufferDescriptor::of(g_c128, 1);
                     d.data = reinterpret_cast<char*>(g_c128) + 8;
                     return make(ST::complex128, ST::complex128, OK::matrix, {1, 1}, CL::interleaved,
                                 ML::row_major, init_of(d, 1));
                 },
                 "host matrix - storage buffer type, alignment or count mismatch"},
        InitCase{"lu_factor_type",
                 [] {
                     return make(ST::float64, ST::float64, OK::lu, {2, 0}, CL::none, ML::column_major,
                                 init_of(BufferDescriptor::of(g_f32, 4), 4));
                 },
                 "host LU - storage buffer type, alignment or count mismatch"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(StorageInitialiser, AcceptsNullEmptyAndFourByteAlignedData) {
    auto empty = f32_matrix(init_of(BufferDescriptor::of(static_cast<float*>(nullptr), 0), 0), {0, 0})();
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->erased_access().buffer(0).element_count, 0u);
    // Four-byte but not eight-byte alignment is enough for float32.
    g_f32[1] = 7.f;
    auto d = BufferDescriptor::of(g_f32 + 1, 4);
    auto m = f32_matrix(init_of(d, 4))();
    EXPECT_EQ(dense_matrix_view<float>(*m).data[0], 7.f);
    // Buffers that carry no data leave the storage zero-filled.
    StorageInitialiser none;
    none.element_count = 99;
    EXPECT_TRUE(f32_matrix(none)());
}

// ---- layout acceptance and policies

struct LayoutCase {
    const char* name;
    ST storage, compute;
    OK kind;
    CL cl;
    ML ml;
    std::string message;
};

class StorageLayoutAcceptance : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(StorageLayoutAcceptance, RefusesWithTheClassMessage) {
    const LayoutCase& p = GetParam();
    expect_invalid([&] { make(p.storage, p.compute, p.kind, {2, 2}, p.cl, p.ml); }, p.message);
}

namespace {
const std::string kCategory = "dense storage - unsupported scalar category, shape or layout";
const std::string kHostMatrix = "host matrix - unsupported layout for policy";
const std::string kHostVector = "host vector - unsupported complex layout for policy";
const std::string kHostLu = "host LU - unsupported numerical policy";
const std::string kHostEigen = "host eigenvalues - unsupported policy or layout";
} // namespace

INSTANTIATE_TEST_SUITE_P(
    Layouts, StorageLayoutAcceptance,
    ::testing::Values(
        LayoutCase{"complex_integer", ST::complex_int32, ST::complex_int32, OK::vector, CL::interleaved,
                   ML::none, kCategory},
        LayoutCase{"vector_with_matrix_layout", ST::float32, ST::float32, OK::vector, CL::none, ML::row_major,
                   kCategory},
        LayoutCase{"matrix_without_layout", ST::float32, ST::float32, OK::matrix, CL::none, ML::none,
                   kCategory},
        LayoutCase{"real_matrix_column_major", ST::float64, ST::float64, OK::matrix, CL::none,
                   ML::column_major, kHostMatrix},
        LayoutCase{"real_matrix_split", ST::float32, ST::float32, OK::matrix, CL::split, ML::row_major,
                   kHostMatrix},
        LayoutCase{"complex_matrix_none", ST::complex64, ST::complex64, OK::matrix, CL::none, ML::row_major,
                   kHostMatrix},
        LayoutCase{"split_matrix_column_major", ST::complex64, ST::complex64, OK::matrix, CL::split,
                   ML::column_major, kHostMatrix},
        LayoutCase{"real_vector_interleaved", ST::float16, ST::float32, OK::vector, CL::interleaved, ML::none,
                   kHostVector},
        LayoutCase{"complex_vector_none", ST::complex128, ST::complex128, OK::vector, CL::none, ML::none,
                   kHostVector},
        LayoutCase{"complex_scalar_interleaved", ST::complex64, ST::complex64, OK::scalar, CL::interleaved,
                   ML::none, "host scalar - unsupported layout for policy"},
        LayoutCase{"lu_int32", ST::int32, ST::int32, OK::lu, CL::none, ML::column_major, kHostLu},
        LayoutCase{"lu_uncompiled_pair", ST::float16, ST::float64, OK::lu, CL::none, ML::column_major,
                   kHostLu},
        LayoutCase{"lu_row_major", ST::float32, ST::float32, OK::lu, CL::none, ML::row_major,
                   "host LU - unsupported layout for policy"},
        LayoutCase{"lu_split", ST::complex64, ST::complex64, OK::lu, CL::split, ML::column_major,
                   "host LU - unsupported layout for policy"},
        LayoutCase{"eigen_real_policy", ST::float32, ST::float32, OK::eigen, CL::none, ML::column_major,
                   kHostEigen},
        LayoutCase{"eigen_split", ST::complex64, ST::complex64, OK::eigen, CL::split, ML::column_major,
                   kHostEigen},
        LayoutCase{"eigen_uncompiled", ST::complex32, ST::complex32, OK::eigen, CL::interleaved,
                   ML::row_major, kHostEigen},
        LayoutCase{"uncompiled_int64", ST::int64, ST::int64, OK::vector, CL::none, ML::none,
                   "numeric policy is not compiled: int64/int64"},
        LayoutCase{"uncompiled_complex32", ST::complex32, ST::complex32, OK::matrix, CL::interleaved,
                   ML::row_major, "numeric policy is not compiled: complex32/complex32"},
        LayoutCase{"uncompiled_half_double", ST::float16, ST::float64, OK::matrix, CL::none, ML::row_major,
                   "numeric policy is not compiled: float16/float64"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- size checks of the owned classes

TEST(OwnedStorage, ConstructorsCheckArrayLengths) {
    expect_invalid([] { DenseHostComplexSplitVector<PolicyC64>(HostArray<float>(4), HostArray<float>(3)); },
                   "DenseHostComplexSplitVector - real and imag sizes don't match");
    expect_invalid([] { DenseHostRealMatrixRowMajor<PolicyF32>(2, 3, HostArray<float>(5)); },
                   "DenseHostRealMatrixRowMajor - data size mismatch");
    expect_invalid(
        [] {
            DenseHostComplexSplitMatrixRowMajor<PolicyC32>(2, 2, HostArray<Float16>(4),
                                                           HostArray<Float16>(3));
        },
        "DenseHostComplexSplitMatrixRowMajor - data size mismatch");
    expect_invalid([] { DenseHostComplexIntlvMatrixRowMajor<PolicyC128>(3, 1, HostArray<cd>(4)); },
                   "DenseHostComplexIntlvMatrixRowMajor - data size mismatch");
    expect_invalid([] { DenseHostComplexIntlvMatrixColMajor<PolicyC64>(1, 3, HostArray<cf>(2)); },
                   "DenseHostComplexIntlvMatrixColMajor - data size mismatch");
    expect_invalid([] { DenseHostLUDecompColMajor<PolicyF64>(3, HostArray<double>(6)); },
                   "DenseHostLUDecompColMajor - data size mismatch");
    expect_invalid(
        [] { DenseHostEigenValues<PolicyC64>(HostArray<cf>(2), HostArray<cf>(3), ML::column_major); },
        "DenseHostEigenValues - data size mismatch");
    expect_invalid([] { DenseHostEigenValues<PolicyC64>(2, ML::none); }, kHostEigen);
    // A wrapped product must not pass for a matching size.
    expect_invalid(
        [] { DenseHostRealMatrixRowMajor<PolicyF32>(1ull << 32, 1ull << 32, HostArray<float>(0)); },
        "DenseHostRealMatrixRowMajor - data size mismatch");
}

TEST(OwnedStorage, ScalarsKeepTheirValue) {
    BoundComplexScalarEntity<PolicyC32> c(Complex32(Float16(1.5f), Float16(-2.f)));
    EXPECT_EQ(c.value(), Complex32(Float16(1.5f), Float16(-2.f)));
    const auto v = split_scalar_view<Float16>(c);
    EXPECT_EQ(static_cast<float>(v.data[1]), -2.f);
    BoundRealScalarEntity<PolicyI32> i(-7);
    *scalar_view<std::int32_t>(i).data = 9;
    EXPECT_EQ(i.value(), 9);
}

// ---- erased access

TEST(ErasedBufferAccess, IndexPastTheLastBufferIsRefused) {
    DenseHostRealVector<PolicyF32> real(3);
    DenseHostComplexSplitVector<PolicyC64> split(3);
    DenseHostLUDecompColMajor<PolicyC128> lu(2);
    const std::string message = "ErasedBufferAccess - buffer index out of range";
    expect_invalid([&] { real.erased_access().buffer(1); }, message);
    expect_invalid([&] { split.erased_access().buffer(2); }, message);
    expect_invalid([&] { lu.erased_access().buffer(3); }, message);
    EXPECT_EQ(split.erased_access().buffer(1).role, BufferRole::imaginary);
    EXPECT_EQ(split.erased_access().buffer(1).scalar_type, ST::float32);
    const BufferDescriptor swaps = lu.erased_access().buffer(2);
    EXPECT_EQ(swaps.scalar_type, ST::int64);
    EXPECT_EQ(swaps.element_count, 1u);
}

TEST(ErasedBufferAccess, LayoutComparisonNamesTheFirstDifference) {
    DenseHostLUDecompColMajor<PolicyF32> lu(2);
    float f[4];
    std::int64_t p[2], s;
    std::vector<BufferDescriptor> want = {
        BufferDescriptor::of(f, 4, BufferRole::lu_factors, {2, 2}, ML::column_major),
        BufferDescriptor::of(p, 2, BufferRole::lu_pivots, {2, 0}),
        BufferDescriptor::of(&s, 1, BufferRole::lu_swap_count)};
    EXPECT_NO_THROW(check_buffer_layout(lu, want, "plugin"));
    want[1].role = BufferRole::data;
    expect_invalid([&] { check_buffer_layout(lu, want, "plugin"); },
                   "plugin - buffer layout mismatch at index 1");
    want.pop_back();
    expect_invalid([&] { check_buffer_layout(lu, want, "plugin"); }, "plugin - buffer count mismatch");
    EXPECT_EQ(buffer_role_name(BufferRole::lu_swap_count), "LU swap count");
    EXPECT_EQ(buffer_role_name(static_cast<BufferRole>(8)), "unknown");
}

// ---- borrowed storages

TEST(BorrowedStorage, NullDataIsRefusedUnlessEmpty) {
    const std::string suffix = " - null data for non-empty storage";
    expect_invalid([] { BorrowedDenseHostRealVector<PolicyF32>(nullptr, 3); },
                   "BorrowedDenseHostRealVector" + suffix);
    expect_invalid([] { BorrowedDenseHostRealScalar<PolicyF64>(nullptr); },
                   "BorrowedDenseHostRealScalar" + suffix);
    expect_invalid([] { BorrowedDenseHostRealMatrix<PolicyBF16>(nullptr, 2, 1, ML::row_major); },
                   "BorrowedDenseHostRealMatrix" + suffix);
    expect_invalid([] { BorrowedDenseHostComplexSplitScalar<PolicyC32>(nullptr); },
                   "BorrowedDenseHostComplexSplitScalar" + suffix);
    expect_invalid([] { BorrowedDenseHostComplexInterleavedVector<PolicyC64>(nullptr, 1); },
                   "BorrowedDenseHostComplexInterleavedVector" + suffix);
    expect_invalid(
        [] { BorrowedDenseHostComplexInterleavedMatrix<PolicyC128>(nullptr, 1, 1, ML::column_major); },
        "BorrowedDenseHostComplexInterleavedMatrix" + suffix);
    expect_invalid(
        [] { BorrowedDenseHostRealMatrix<PolicyF32>(reinterpret_cast<float*>(16), 1, 1, ML::none); },
        "BorrowedDenseHostRealMatrix - unsupported matrix layout");

    BorrowedDenseHostRealVector<PolicyF32> empty(nullptr, 0);
    EXPECT_EQ(dense_vector_view<float>(empty).size, 0u);
    BorrowedDenseHostComplexInterleavedMatrix<PolicyC64> empty_matrix(nullptr, 0, 5, ML::row_major);
    EXPECT_EQ(dense_matrix_view<cf>(empty_matrix).cols, 5u);
}

TEST(BorrowedStorage, ViewsReachCallerMemoryWhichOutlivesTheStorage) {
    // Stack memory and malloc'd memory: freeing either through the storage would crash (or be
    // reported by the sanitizers); the values must survive destruction.
    double stack[6] = {1, 2, 3, 4, 5, 6};
    auto* heap = static_cast<cf*>(std::malloc(4 * sizeof(cf)));
    for (int i = 0; i < 4; ++i) heap[i] = cf(float(i), -float(i));
    {
        auto m = std::make_unique<BorrowedDenseHostRealMatrix<PolicyF64>>(stack, 2, 3, ML::column_major);
        const auto v = dense_matrix_view<double>(*m);
        EXPECT_EQ(v.data, stack);
        EXPECT_EQ(v.layout, ML::column_major);
        EXPECT_EQ(v.data[v.index(1, 2)], 6.0);
        v.data[0] = 10.0;
        auto iv = std::make_unique<BorrowedDenseHostComplexInterleavedVector<PolicyC64>>(heap, 4);
        EXPECT_EQ(dense_vector_view<cf>(*iv).data, heap);
        float parts[2] = {3.f, 4.f};
        BorrowedDenseHostComplexSplitScalar<PolicyC64> sc(parts);
        EXPECT_EQ(split_scalar_view<float>(sc).data, parts);
        EXPECT_EQ(sc.erased_access().buffer(1).data, parts + 1);
    }
    EXPECT_EQ(stack[0], 10.0);
    EXPECT_EQ(stack[5], 6.0);
    EXPECT_EQ(heap[3], cf(3.f, -3.f));
    std::free(heap);
}

// ---- typed views

TEST(StorageViews, InterleavedMatricesInBothLayouts) {
    for (ML layout : {ML::row_major, ML::column_major}) {
        auto e = make(ST::complex64, ST::complex64, OK::matrix, {2, 3}, CL::interleaved, layout);
        const BufferDescriptor d = e->erased_access().buffer(0);
        const auto v = dense_matrix_view<cf>(*e);
        EXPECT_EQ(static_cast<void*>(v.data), d.data);
        EXPECT_EQ(v.rows, 2u);
        EXPECT_EQ(v.cols, 3u);
        EXPECT_EQ(v.layout, layout);
        EXPECT_EQ(v.index(1, 0), layout == ML::row_major ? 3u : 1u);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(v.data) % kHostArrayAlignment, 0u);
        const auto cv = dense_matrix_view<cf>(std::as_const(*e));
        static_assert(std::is_same_v<decltype(cv.data), const cf*>);
        EXPECT_EQ(cv.data, v.data);
        EXPECT_EQ(cv.layout, layout);
    }
}

TEST(StorageViews, SplitAndInterleavedVectorsAndSplitMatrices) {
    auto split = make(ST::complex32, ST::complex64, OK::vector, {5, 0}, CL::split, ML::none);
    const auto sv = split_vector_view<Float16>(*split);
    EXPECT_EQ(static_cast<void*>(sv.re), split->erased_access().buffer(0).data);
    EXPECT_EQ(static_cast<void*>(sv.im), split->erased_access().buffer(1).data);
    EXPECT_EQ(sv.size, 5u);

    auto intlv = make(ST::complex128, ST::complex128, OK::vector, {5, 0}, CL::interleaved, ML::none);
    EXPECT_EQ(dense_vector_view<cd>(*intlv).size, 5u);

    auto sm = make(ST::complex64, ST::complex64, OK::matrix, {3, 2}, CL::split, ML::row_major);
    const auto smv = split_matrix_view<float>(std::as_const(*sm));
    EXPECT_EQ(smv.rows, 3u);
    EXPECT_EQ(smv.cols, 2u);
    EXPECT_EQ(smv.layout, ML::row_major);
    EXPECT_EQ(static_cast<const void*>(smv.im), sm->erased_access().buffer(1).data);
}

TEST(StorageViews, LuAndEigenViews) {
    DenseHostLUDecompColMajor<PolicyC32> lu(3);
    const auto lv = lu_view<Complex32>(lu);
    EXPECT_EQ(lv.factors, lu.factors());
    EXPECT_EQ(lv.pivots, lu.pivots());
    EXPECT_EQ(lv.order, 3u);
    lv.pivots[2] = 3;
    *lv.swaps = 1;
    EXPECT_EQ(lu.swap_count(), 1);
    const auto clv = lu_view<Complex32>(std::as_const(lu));
    static_assert(std::is_same_v<decltype(clv.pivots), const std::int64_t*>);
    EXPECT_EQ(clv.pivots[2], 3);

    DenseHostEigenValues<PolicyC128> with(2, ML::row_major);
    DenseHostEigenValues<PolicyC128> without(2, ML::column_major, false);
    const auto ev = eigen_view<cd>(with);
    EXPECT_EQ(ev.values, with.values());
    EXPECT_EQ(ev.vectors, with.vectors());
    EXPECT_EQ(ev.layout, ML::row_major);
    EXPECT_EQ(eigen_view<cd>(without).vectors, nullptr);
    EXPECT_FALSE(without.has_vectors());
}

TEST(StorageViews, MismatchesAreRefusedWithTheLabel) {
    DenseHostRealVector<PolicyF32> f32(4);
    DenseHostComplexSplitVector<PolicyC64> split(4);
    DenseHostComplexIntlvMatrixColMajor<PolicyC64> intlv(2, 2);
    const std::string shape = " - operand kind, layout or dtype mismatch";
    expect_invalid([&] { dense_vector_view<double>(f32); }, "dense_vector_view" + shape);
    expect_invalid([&] { dense_vector_view<cf>(split); }, "dense_vector_view" + shape);
    expect_invalid([&] { split_vector_view<double>(split, "CPU layout input"); }, "CPU layout input" + shape);
    expect_invalid([&] { split_matrix_view<float>(intlv, "CPU layout output"); },
                   "CPU layout output" + shape);
    expect_invalid([&] { dense_matrix_view<float>(f32); }, "dense_matrix_view" + shape);
    expect_invalid([&] { lu_view<float>(f32); }, "lu_view" + shape);
    expect_invalid([&] { DenseRealScalarAccess<float>{f32}; }, "DenseRealScalarAccess" + shape);

    // A storage whose buffer does not hold what its dtype promises.
    float data[4] = {};
    struct Lying final : SingleBufferEntity<VectorEntity, float> {
        explicit Lying(float* p)
            : SingleBufferEntity(DataTypeDescriptor(ST::float64, ST::float64), CL::none, ML::none, {4, 0}) {
            attach(p, 4);
        }
    } lying(data);
    expect_invalid([&] { dense_vector_view<double>(lying); },
                   "dense_vector_view - storage buffer type, alignment or count mismatch");
    // Entities that offer no buffers at all.
    struct Bare final : VectorEntity {
        DataTypeDescriptor d{ST::float32, ST::float32};
        const DataTypeDescriptor& dtype() const noexcept override { return d; }
        ComplexLayout complex_layout() const noexcept override { return CL::none; }
        MatrixLayout matrix_layout() const noexcept override { return ML::none; }
        std::array<std::uint64_t, 2> extent() const noexcept override { return {1, 0}; }
    } bare;
    EXPECT_EQ(bare.erased_access().buffer_count(), 0u);
    expect_invalid([&] { dense_vector_view<float>(bare); },
                   "dense_vector_view - storage buffer type, alignment or count mismatch");
}

// ---- front wrappers

TEST(FrontWrappers, RefuseNullStorage) {
    auto check = [](const std::function<void()>& f, const std::string& name) {
        try {
            f();
            ADD_FAILURE() << name << " accepted null storage";
        } catch (const ArgumentError& e) {
            EXPECT_EQ(e.what(), name + " - storage cannot be null");
            EXPECT_EQ(e.reason(), ErrorReason::null_storage);
        }
    };
    check([] { Scalar(nullptr); }, "Scalar");
    check([] { Vector(nullptr); }, "Vector");
    check([] { Matrix(nullptr); }, "Matrix");
    check([] { LuFactorisation(nullptr); }, "LuFactorisation");
    check([] { EigenValues(nullptr); }, "EigenValues");
}

TEST(FrontWrappers, OwnFactoryEntities) {
    Matrix m(entity_cast<MatrixEntity>(
        make(ST::complex64, ST::complex64, OK::matrix, {2, 5}, CL::interleaved, ML::column_major)));
    EXPECT_EQ(m.rows(), 2u);
    EXPECT_EQ(m.cols(), 5u);
    EXPECT_EQ(m.layout(), ML::column_major);
    LuFactorisation lu(entity_cast<LuDecompEntity>(
        make(ST::float32, ST::float32, OK::lu, {6, 0}, CL::none, ML::column_major)));
    EXPECT_EQ(lu.order(), 6u);
    EXPECT_EQ(lu_view<float>(lu.entity()).order, 6u);
    expect_invalid(
        [] { entity_cast<VectorEntity>(make(ST::float32, ST::float32, OK::scalar, {}, CL::none, ML::none)); },
        "entity_cast - operand kind mismatch");
}
