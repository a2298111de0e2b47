#pragma once
// A language-neutral, ordered description value and the builders of the describe schema.
// The Python layer converts it one to one: null, bool, int, float, str, list, dict (in key order).
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "catalogue/numerics.hpp"
#include "catalogue/operation_registry.hpp"
#include "catalogue/symbolic_expression.hpp"
#include "core/operand_types.hpp"

namespace quillmark {

class Description {
public:
    using List = std::vector<Description>;
    using Entry = std::pair<std::string, Description>;
    using Dict = std::vector<Entry>; // insertion order is the key order

    Description() = default; // null
    Description(std::nullptr_t) {}
    Description(bool value) : value_(value) {}
    template <std::integral T>
        requires(!std::same_as<T, bool> && !std::same_as<T, char>)
    Description(T value) : value_(static_cast<std::int64_t>(value)) {}
    Description(double value) : value_(value) {}
    Description(std::string value) : value_(std::move(value)) {}
    Description(std::string_view value) : value_(std::string(value)) {}
    Description(const char* value) : value_(std::string(value)) {}
    Description(List value) : value_(std::move(value)) {}
    Description(Dict value) : value_(std::move(value)) {}

    static Description list() { return Description(List{}); }
    static Description dict() { return Description(Dict{}); }

    bool is_null() const noexcept { return std::holds_alternative<std::monostate>(value_); }
    bool is_bool() const noexcept { return std::holds_alternative<bool>(value_); }
    bool is_int() const noexcept { return std::holds_alternative<std::int64_t>(value_); }
    bool is_double() const noexcept { return std::holds_alternative<double>(value_); }
    bool is_string() const noexcept { return std::holds_alternative<std::string>(value_); }
    bool is_list() const noexcept { return std::holds_alternative<List>(value_); }
    bool is_dict() const noexcept { return std::holds_alternative<Dict>(value_); }

    // Throw std::logic_error "Description - value is not a <type>" on the wrong alternative.
    bool as_bool() const;
    std::int64_t as_int() const;
    double as_double() const;
    const std::string& as_string() const;
    const List& as_list() const;
    List& as_list();
    const Dict& as_dict() const;
    Dict& as_dict();

    // Lists: append. Throws std::logic_error when not a list.
    Description& push_back(Description value);
    // Dicts: replace the value of an existing key in place, else append. Throws std::logic_error when
    // not a dict.
    Description& set(std::string_view key, Description value);
    // nullptr when absent; throws std::logic_error when not a dict.
    const Description* find(std::string_view key) const;
    // Throws std::out_of_range "Description - key '<key>' is not present".
    const Description& at(std::string_view key) const;
    std::vector<std::string> keys() const;
    std::size_t size() const; // list or dict length

    // Compact JSON (keys in order; doubles with 17 significant digits), for logs and tests.
    std::string to_json() const;

    bool operator==(const Description&) const = default;

private:
    std::variant<std::monostate, bool, std::int64_t, double, std::string, List, Dict> value_;
};

// The describe schema. Roles are integer role codes throughout.
Description describe(const SymbolicExpression& expression);
Description describe(const OperandShape& shape);
Description describe(const ShapeConstraint& constraint);
Description describe(const Requirement& requirement);
Description describe(const OperationNumerics& numerics);
Description describe(const ImplementationNumerics& numerics);
// "kind" ("builtin" / "native"), "version" (null when absent).
Description describe_provenance(const RegistrationProvenance& provenance);
// "role", "access", "kind", "dtype", "compute_dtype", "location", "storage_format", "complex_layout",
// "matrix_layout"; scalars and vectors always show matrix_layout "none".
Description describe_operand(OperandRole role, OperandAccess access, OperandKind kind, ScalarType dtype,
                             ScalarType compute_dtype, Location location, StorageFormat format,
                             ComplexLayout complex_layout, MatrixLayout matrix_layout);
Description describe_operand(OperandAccess access, const OperandDescriptor& operand);
// "id", "handle", "roles", "numerics" (null without a contract), "provenance"; the context adds
// "implementations". Needs a sealed catalogue (the handle).
Description describe_operation(const OperationRegistry::Entry& entry);

} // namespace quillmark
