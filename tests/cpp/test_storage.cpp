#include <gtest/gtest.h>

#include "test_support.hpp"

#include <complex>
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
using quillmark::testing::message_of;
using cf = std::complex<float>;
using cd = std::complex<double>;

namespace {

using ST = ScalarType;
using OK = OperandKind;
using CL = ComplexLayout;
using ML = MatrixLayout;
using Extent = std::array<std::uint64_t, 2>;

std::string invalid(const std::function<void()>& f) { return message_of<std::invalid_argument>(f); }

std::unique_ptr<OperandEntity> make(ST s, ST c, OK kind, Extent extent, CL cl, ML ml,
                                    const std::optional<StorageInitialiser>& init = std::nullopt) {
    return make_dense_host_storage(DataTypeDescriptor(s, c), kind, extent, cl, ml, init);
}

StorageInitialiser init_of(const BufferDescriptor& real, std::uint64_t count) {
    StorageInitialiser init;
    init.element_count = count;
    init.real = real;
    return init;
}

StorageInitialiser split_init(BufferDescriptor re, BufferDescriptor im, std::uint32_t flag = 1) {
    StorageInitialiser init = init_of(re, re.element_count);
    init.split = flag;
    init.imaginary = im;
    return init;
}

} // namespace

// ---- element counts and buffers of every owned family

struct CountCase {
    const char* name;
    ST storage, compute;
    OK kind;
    Extent extent;
    CL cl;
    ML ml;
    std::vector<std::uint64_t> counts;
    std::vector<BufferRole> roles;
};

class StorageCounts : public ::testing::TestWithParam<CountCase> {};

TEST_P(StorageCounts, BuffersHoldTheRequiredElementsZeroed) {
    const CountCase& p = GetParam();
    auto e = make(p.storage, p.compute, p.kind, p.extent, p.cl, p.ml);
    ASSERT_TRUE(e);
    const ErasedBufferAccess& buffers = e->erased_access();
    ASSERT_EQ(buffers.buffer_count(), p.counts.size());
    for (std::size_t i = 0; i < p.counts.size(); ++i) {
        const BufferDescriptor d = buffers.buffer(i);
        EXPECT_EQ(d.element_count, p.counts[i]) << "buffer " << i;
        EXPECT_EQ(d.role, p.roles[i]) << "buffer " << i;
        const auto* bytes = static_cast<const unsigned char*>(d.data);
        for (std::uint64_t b = 0; b < d.element_count * d.element_size; ++b) ASSERT_EQ(bytes[b], 0u);
    }
}

namespace {
using BR = BufferRole;
const std::vector<BR> kData{BR::data}, kSplit{BR::real, BR::imaginary};
const std::vector<BR> kLu{BR::lu_factors, BR::lu_pivots, BR::lu_swap_count};
} // namespace

INSTANTIATE_TEST_SUITE_P(
    Families, StorageCounts,
    ::testing::Values(
        CountCase{"real_scalar", ST::bfloat16, ST::float32, OK::scalar, {}, CL::none, ML::none, {1}, kData},
        CountCase{"split_scalar", ST::complex32, ST::complex64, OK::scalar, {}, CL::none, ML::none, {1, 1}, kSplit},
        CountCase{"split_vector", ST::complex128, ST::complex128, OK::vector, {5, 0}, CL::split, ML::none, {5, 5},
                  kSplit},
        CountCase{"split_matrix", ST::complex64, ST::complex64, OK::matrix, {2, 3}, CL::split, ML::row_major, {6, 6},
                  kSplit},
        CountCase{"intlv_matrix_col", ST::complex32, ST::complex64, OK::matrix, {4, 2}, CL::interleaved,
                  ML::column_major, {8}, kData},
        CountCase{"lu_complex", ST::complex32, ST::complex64, OK::lu, {3, 0}, CL::interleaved, ML::column_major,
                  {9, 3, 1}, kLu},
        CountCase{"eigen", ST::complex128, ST::complex128, OK::eigen, {3, 0}, CL::interleaved, ML::row_major, {3, 9},
                  {BR::eigenvalues, BR::eigenvectors}},
        CountCase{"empty_matrix", ST::float32, ST::float32, OK::matrix, {0, 4}, CL::none, ML::row_major, {0}, kData}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(StorageFactory, SizeOverflowIsABadArrayLength) {
    StorageInitialiser bad; // would fail the initialiser checks, which come later
    bad.imaginary = BufferDescriptor{};
    EXPECT_THROW(make(ST::float32, ST::float32, OK::matrix, {1ull << 32, (1ull << 32) + 1}, CL::none,
                      ML::row_major, bad),
                 std::bad_array_new_length);
    // The product fits 64 bits but not the address space.
    EXPECT_THROW(make(ST::complex128, ST::complex128, OK::vector, {1ull << 62, 0}, CL::interleaved, ML::none),
                 std::bad_array_new_length);
}

// ---- initialisers

TEST(StorageInitialiser, CopiesCallerData) {
    const float m[6] = {1, 2, 3, 4, 5, 6};
    auto matrix = make(ST::float32, ST::float32, OK::matrix, {2, 3}, CL::none, ML::row_major,
                       init_of(BufferDescriptor::of(m, 6), 6));
    const auto mv = dense_matrix_view<float>(std::as_const(*matrix));
    EXPECT_NE(mv.data, m);
    EXPECT_EQ(std::vector<float>(mv.data, mv.data + 6), std::vector<float>(m, m + 6));

    const double re[3] = {1, 2, 3}, im[3] = {-1, -2, -3};
    auto sv = make(ST::complex128, ST::complex128, OK::vector, {3, 0}, CL::split, ML::none,
                   split_init(BufferDescriptor::of(re, 3, BR::real), BufferDescriptor::of(im, 3, BR::imaginary)));
    const auto s = split_vector_view<double>(*sv);
    EXPECT_EQ(s.re[2], 3.0);
    EXPECT_EQ(s.im[1], -2.0);
}

namespace {
alignas(16) float g_f32[8] = {};
alignas(16) double g_f64[8] = {};
alignas(16) Float16 g_f16[8] = {};
alignas(32) cd g_c128[4] = {};
const std::string kMismatch = "storage initialiser - layout or element count mismatch";
const std::string kHostMatrixBuffer = "host matrix - storage buffer type, alignment or count mismatch";

using Maker = std::function<std::unique_ptr<OperandEntity>()>;
Maker f32_matrix(StorageInitialiser init, Extent extent = {2, 2}) {
    return [=] { return make(ST::float32, ST::float32, OK::matrix, extent, CL::none, ML::row_major, init); };
}
Maker split_vector(StorageInitialiser init) {
    return [=] { return make(ST::complex64, ST::complex64, OK::vector, {4, 0}, CL::split, ML::none, init); };
}
BufferDescriptor f32(std::uint64_t count, BR role = BR::data, std::size_t offset = 0) {
    return BufferDescriptor::of(g_f32 + offset, count, role);
}
BufferDescriptor shifted(BufferDescriptor d, std::size_t bytes) {
    d.data = static_cast<char*>(d.data) + bytes;
    return d;
}
StorageInitialiser flagged(StorageInitialiser init, std::uint32_t split) {
    init.split = split;
    return init;
}
StorageInitialiser imaginary_only() {
    StorageInitialiser init;
    init.split = 1;
    init.element_count = 4;
    init.imaginary = f32(4, BR::imaginary);
    return init;
}
} // namespace

struct RefusalCase {
    const char* name;
    std::function<void()> make;
    std::string message;
};

class StorageRefusals : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(StorageRefusals, ReportTheFirstFailingCheckWithItsMessage) {
    EXPECT_EQ(invalid(GetParam().make), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Initialisers, StorageRefusals,
    ::testing::Values(
        RefusalCase{"scalar_count_two", [] { make(ST::float64, ST::float64, OK::scalar, {}, CL::none, ML::none,
                                                  init_of(BufferDescriptor::of(g_f64, 2), 2)); }, kMismatch},
        RefusalCase{"imaginary_only", split_vector(imaginary_only()), "storage initialiser - missing real buffer"},
        RefusalCase{"real_count", f32_matrix(init_of(f32(3), 4)), kMismatch},
        RefusalCase{"initialiser_count", f32_matrix(init_of(f32(4), 3)), kMismatch},
        RefusalCase{"split_flag_on_plain_data", f32_matrix(flagged(init_of(f32(4), 4), 1)), kMismatch},
        RefusalCase{"split_without_imaginary", split_vector(flagged(init_of(f32(4), 4), 1)), kMismatch},
        RefusalCase{"imaginary_role", split_vector(split_init(f32(4), f32(4, BR::real, 4))), kMismatch},
        RefusalCase{"imaginary_count", split_vector(split_init(f32(4), f32(3, BR::imaginary, 4))), kMismatch},
        // Counts are checked before types: a wrong type with a wrong count reports the count.
        RefusalCase{"count_before_type", f32_matrix(init_of(BufferDescriptor::of(g_f64, 3), 4)), kMismatch},
        RefusalCase{"float32_at_2_mod_4", f32_matrix(init_of(shifted(f32(4), 2), 4)), kHostMatrixBuffer},
        RefusalCase{"null_with_elements", f32_matrix(init_of(BufferDescriptor::of<float>(nullptr, 4), 4)), kHostMatrixBuffer},
        RefusalCase{"same_size_other_scalar", [] { make(ST::bfloat16, ST::float32, OK::vector, {4, 0}, CL::none,
                                                        ML::none, init_of(BufferDescriptor::of(g_f16, 4), 4)); },
                    "host vector - storage buffer type, alignment or count mismatch"},
        RefusalCase{"split_plane_type", split_vector(split_init(f32(4), BufferDescriptor::of(g_f64, 4, BR::imaginary))),
                    "host split vector - storage buffer type, alignment or count mismatch"},
        RefusalCase{"complex128_at_8_mod_16", [] { make(ST::complex128, ST::complex128, OK::matrix, {1, 1},
                                                        CL::interleaved, ML::row_major,
                                                        init_of(shifted(BufferDescriptor::of(g_c128, 1), 8), 1)); },
                    kHostMatrixBuffer}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(StorageInitialiser, AcceptsNullEmptyAndFourByteAlignedData) {
    auto empty = f32_matrix(init_of(BufferDescriptor::of(static_cast<float*>(nullptr), 0), 0), {0, 0})();
    EXPECT_EQ(empty->erased_access().buffer(0).element_count, 0u);
    BorrowedDenseHostComplexInterleavedMatrix<PolicyC64> borrowed(nullptr, 0, 5, ML::row_major);
    EXPECT_EQ(dense_matrix_view<cf>(borrowed).cols, 5u);
    // Four-byte but not eight-byte alignment is enough for float32.
    g_f32[1] = 7.f;
    auto m = f32_matrix(init_of(f32(4, BR::data, 1), 4))();
    EXPECT_EQ(dense_matrix_view<float>(*m).data[0], 7.f);
    // Buffers that carry no data leave the storage zero-filled.
    StorageInitialiser none;
    none.element_count = 99;
    EXPECT_TRUE(f32_matrix(none)());
}

// ---- layout acceptance and policies

namespace {
Maker two_by_two(ST s, ST c, OK kind, CL cl, ML ml) { return [=] { return make(s, c, kind, {2, 2}, cl, ml); }; }
const std::string kCategory = "dense storage - unsupported scalar category, shape or layout";
const std::string kHostMatrix = "host matrix - unsupported layout for policy";
} // namespace

INSTANTIATE_TEST_SUITE_P(
    Layouts, StorageRefusals,
    ::testing::Values(
        RefusalCase{"complex_integer",
                    two_by_two(ST::complex_int32, ST::complex_int32, OK::vector, CL::interleaved, ML::none), kCategory},
        RefusalCase{"vector_with_matrix_layout",
                    two_by_two(ST::float32, ST::float32, OK::vector, CL::none, ML::row_major), kCategory},
        RefusalCase{"real_matrix_column_major",
                    two_by_two(ST::float64, ST::float64, OK::matrix, CL::none, ML::column_major), kHostMatrix},
        RefusalCase{"split_matrix_column_major",
                    two_by_two(ST::complex64, ST::complex64, OK::matrix, CL::split, ML::column_major), kHostMatrix},
        RefusalCase{"real_vector_interleaved",
                    two_by_two(ST::float16, ST::float32, OK::vector, CL::interleaved, ML::none),
                    "host vector - unsupported complex layout for policy"},
        RefusalCase{"complex_scalar_interleaved",
                    two_by_two(ST::complex64, ST::complex64, OK::scalar, CL::interleaved, ML::none),
                    "host scalar - unsupported layout for policy"},
        RefusalCase{"lu_int32", two_by_two(ST::int32, ST::int32, OK::lu, CL::none, ML::column_major),
                    "host LU - unsupported numerical policy"},
        RefusalCase{"lu_row_major", two_by_two(ST::float32, ST::float32, OK::lu, CL::none, ML::row_major),
                    "host LU - unsupported layout for policy"},
        RefusalCase{"eigen_split", two_by_two(ST::complex64, ST::complex64, OK::eigen, CL::split, ML::column_major),
                    "host eigenvalues - unsupported policy or layout"},
        RefusalCase{"uncompiled_int64", two_by_two(ST::int64, ST::int64, OK::vector, CL::none, ML::none),
                    "numeric policy is not compiled: int64/int64"},
        RefusalCase{"uncompiled_half_double",
                    two_by_two(ST::float16, ST::float64, OK::matrix, CL::none, ML::row_major),
                    "numeric policy is not compiled: float16/float64"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- refusals of the owned, borrowed and typed-view classes

INSTANTIATE_TEST_SUITE_P(
    Classes, StorageRefusals,
    ::testing::Values(
        RefusalCase{"split_sizes",
                 [] { DenseHostComplexSplitVector<PolicyC64>(HostArray<float>(4), HostArray<float>(3)); },
                 "DenseHostComplexSplitVector - real and imag sizes don't match"},
        RefusalCase{"lu_size", [] { DenseHostLUDecompColMajor<PolicyF64>(3, HostArray<double>(6)); },
                 "DenseHostLUDecompColMajor - data size mismatch"},
        RefusalCase{"eigen_size",
                 [] { DenseHostEigenValues<PolicyC64>(HostArray<cf>(2), HostArray<cf>(3), ML::column_major); },
                 "DenseHostEigenValues - data size mismatch"},
        // A wrapped product must not pass for a matching size.
        RefusalCase{"wrapped_size",
                 [] { DenseHostRealMatrixRowMajor<PolicyF32>(1ull << 32, 1ull << 32, HostArray<float>(0)); },
                 "DenseHostRealMatrixRowMajor - data size mismatch"},
        RefusalCase{"split_buffer_index", [] { DenseHostComplexSplitVector<PolicyC64>(3).erased_access().buffer(2); },
                    "ErasedBufferAccess - buffer index out of range"},
        RefusalCase{"borrowed_null_matrix",
                    [] { BorrowedDenseHostComplexInterleavedMatrix<PolicyC128>(nullptr, 1, 1, ML::column_major); },
                    "BorrowedDenseHostComplexInterleavedMatrix - null data for non-empty storage"},
        RefusalCase{"borrowed_layout",
                 [] { BorrowedDenseHostRealMatrix<PolicyF32>(reinterpret_cast<float*>(16), 1, 1, ML::none); },
                 "BorrowedDenseHostRealMatrix - unsupported matrix layout"},
        RefusalCase{"view_dtype", [] { dense_vector_view<double>(DenseHostRealVector<PolicyF32>(4)); },
                 "dense_vector_view - operand kind, layout or dtype mismatch"},
        RefusalCase{"view_label", [] { split_matrix_view<float>(DenseHostComplexIntlvMatrixColMajor<PolicyC64>(2, 2),
                                                                "CPU layout output"); },
                    "CPU layout output - operand kind, layout or dtype mismatch"},
        RefusalCase{"entity_cast",
                 [] { entity_cast<VectorEntity>(make(ST::float32, ST::float32, OK::scalar, {}, CL::none, ML::none)); },
                 "entity_cast - operand kind mismatch"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ErasedBufferAccess, LayoutComparisonNamesTheFirstDifference) {
    DenseHostLUDecompColMajor<PolicyF32> lu(2);
    float f[4];
    std::int64_t p[2], s;
    std::vector<BufferDescriptor> want = {BufferDescriptor::of(f, 4, BR::lu_factors, {2, 2}, ML::column_major),
                                          BufferDescriptor::of(p, 2, BR::lu_pivots, {2, 0}),
                                          BufferDescriptor::of(&s, 1, BR::lu_swap_count)};
    EXPECT_NO_THROW(check_buffer_layout(lu, want, "plugin"));
    want[1].role = BR::data;
    EXPECT_EQ(invalid([&] { check_buffer_layout(lu, want, "plugin"); }),
              "plugin - buffer layout mismatch at index 1");
    want.pop_back();
    EXPECT_EQ(invalid([&] { check_buffer_layout(lu, want, "plugin"); }), "plugin - buffer count mismatch");
}

// ---- typed views

TEST(StorageViews, BufferMustHoldWhatTheDtypePromises) {
    float data[4] = {};
    struct Lying final : SingleBufferEntity<VectorEntity, float> {
        explicit Lying(float* p)
            : SingleBufferEntity(DataTypeDescriptor(ST::float64, ST::float64), CL::none, ML::none, {4, 0}) {
            attach(p, 4);
        }
    } lying(data);
    EXPECT_EQ(invalid([&] { dense_vector_view<double>(lying); }),
              "dense_vector_view - storage buffer type, alignment or count mismatch");
}

// ---- front wrappers

TEST(FrontWrappers, RefuseNullStorage) {
    const std::vector<std::pair<std::string, std::function<void()>>> wrappers = {
        {"Scalar", [] { Scalar(nullptr); }}, {"Vector", [] { Vector(nullptr); }}, {"Matrix", [] { Matrix(nullptr); }},
        {"LuFactorisation", [] { LuFactorisation(nullptr); }}, {"EigenValues", [] { EigenValues(nullptr); }}};
    for (const auto& [name, construct] : wrappers)
        EXPECT_EQ(quillmark::testing::reasoned_message_of<ArgumentError>(construct),
                  "null_storage: " + name + " - storage cannot be null");
}
