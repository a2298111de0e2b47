#include <gtest/gtest.h>

#include <type_traits>

#include "test_support.hpp"

#include "core/errors.hpp"
#include "core/operand_types.hpp"
#include "core/scalar_type.hpp"

using namespace quillmark;

TEST(ScalarMetadata, TableOrderAndLookups) {
    const char* expected[] = {"bfloat16", "float16",  "float32",   "float64",    "int32",         "int64",        "uint32",
                              "uint64",   "complex32", "complex64", "complex128", "complex_int32", "complex_int64"};
    auto table = scalar_metadata_table();
    ASSERT_EQ(table.size(), 13u);
    for (std::size_t i = 0; i < table.size(); ++i) EXPECT_EQ(table[i].name, expected[i]);
    EXPECT_EQ(scalar_name(static_cast<ScalarType>(11)), "bfloat16");
    EXPECT_EQ(scalar_name(static_cast<ScalarType>(12)), "complex32");
    EXPECT_EQ(scalar_metadata(ScalarType::complex32).component, ScalarType::float16);
    EXPECT_EQ(scalar_metadata(ScalarType::complex128).element_size, 16u);
    EXPECT_EQ(quillmark::testing::message_of<std::invalid_argument>([] { scalar_metadata(static_cast<ScalarType>(13)); }),
              "scalar_metadata - unknown scalar type");
}

TEST(DataTypeDescriptor, DomainAndCategoryRule) {
    EXPECT_EQ(DataTypeDescriptor(ScalarType::float16, ScalarType::float32).domain(), Domain::real);
    EXPECT_EQ(DataTypeDescriptor(ScalarType::complex_int32, ScalarType::complex_int64).domain(), Domain::complex);
    for (auto [s, c] : {std::pair{ScalarType::float32, ScalarType::complex64}, {ScalarType::int32, ScalarType::float64}})
        EXPECT_EQ(quillmark::testing::message_of<std::invalid_argument>([&] { DataTypeDescriptor(s, c); }),
                  "DataTypeDescriptor - storage and compute categories differ");
}

TEST(Errors, ReasonNamesAndClassHierarchy) {
    EXPECT_EQ(reason_name(ErrorReason::singular), "singular");
    EXPECT_EQ(reason_name(static_cast<ErrorReason>(9)), "backend_failure");
    EXPECT_EQ(reason_name(static_cast<ErrorReason>(1234)), "backend_failure");

    BackendLibraryError lib("native plugin", 3, "QUILLMARK_STATUS_RUNTIME_ERROR", "x.y@1", "boom");
    EXPECT_EQ(lib.reason(), ErrorReason::library_failure);
    EXPECT_STREQ(lib.what(), "boom"); // the throw site stays out of the message

    try {
        throw ArgumentError("Matrix", ErrorReason::null_storage, "Matrix - storage cannot be null");
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(dynamic_cast<const ErrorContext*>(&e), nullptr);
    }
    try {
        throw SolverError("CPU", -1, "d", "quillmark.slogdet", "m", ErrorReason::solver_failure);
    } catch (const std::runtime_error& e) {
        auto* ctx = dynamic_cast<const ErrorContext*>(&e);
        ASSERT_NE(ctx, nullptr);
        EXPECT_GT(ctx->location().line(), 0u);
        EXPECT_NE(std::string(ctx->location().file_name()).find("test_core"), std::string::npos);
    }
    static_assert(std::is_copy_constructible_v<SolverError>);
}

TEST(OperandRoles, EncodingAndText) {
    EXPECT_EQ(output_role(1), 0x80000001u);
    EXPECT_EQ(role_text(output_role(1)), "Output1");
    EXPECT_EQ(role_text(input_role(0)), "Input0");
    EXPECT_THROW(input_role(0x80000000ull), std::out_of_range);
    EXPECT_THROW(output_index(input_role(2)), std::invalid_argument);
    EXPECT_EQ(operand_rank(OperandKind::lu), 1u);
    EXPECT_THROW(operand_rank(static_cast<OperandKind>(7)), std::logic_error);
}
