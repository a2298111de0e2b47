#include "catalogue/description.hpp"

#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace quillmark {

namespace {

template <class T> const T& get_or_throw(const auto& value, const char* message) {
    if (const T* p = std::get_if<T>(&value)) return *p;
    throw std::logic_error(message);
}

void append_json_string(std::string& out, std::string_view text) {
    out += '"';
    for (char ch : text) {
        switch (ch) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        default:
            if (static_cast<unsigned char>(ch) < 0x20) {
                char buffer[8];
                std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(ch)));
                out += buffer;
            } else {
                out += ch;
            }
        }
    }
    out += '"';
}

void append_json(std::string& out, const Description& d) {
    if (d.is_null()) {
        out += "null";
    } else if (d.is_bool()) {
        out += d.as_bool() ? "true" : "false";
    } else if (d.is_int()) {
        out += std::to_string(d.as_int());
    } else if (d.is_double()) {
        const double v = d.as_double();
        if (!std::isfinite(v)) {
            out += std::isnan(v) ? "NaN" : (v > 0 ? "Infinity" : "-Infinity");
        } else {
            char buffer[32];
            std::snprintf(buffer, sizeof buffer, "%.17g", v);
            out += buffer;
        }
    } else if (d.is_string()) {
        append_json_string(out, d.as_string());
    } else if (d.is_list()) {
        out += '[';
        bool first = true;
        for (const Description& item : d.as_list()) {
            if (!first) out += ',';
            first = false;
            append_json(out, item);
        }
        out += ']';
    } else {
        out += '{';
        bool first = true;
        for (const auto& [key, value] : d.as_dict()) {
            if (!first) out += ',';
            first = false;
            append_json_string(out, key);
            out += ':';
            append_json(out, value);
        }
        out += '}';
    }
}

Description string_list(const std::vector<std::string>& texts) {
    Description::List list;
    list.reserve(texts.size());
    for (const std::string& text : texts) list.emplace_back(text);
    return Description(std::move(list));
}

Description role_code(OperandRole role) { return Description(static_cast<std::int64_t>(role)); }

} // namespace

bool Description::as_bool() const { return get_or_throw<bool>(value_, "Description - value is not a bool"); }
std::int64_t Description::as_int() const {
    return get_or_throw<std::int64_t>(value_, "Description - value is not an integer");
}
double Description::as_double() const { return get_or_throw<double>(value_, "Description - value is not a double"); }
const std::string& Description::as_string() const {
    return get_or_throw<std::string>(value_, "Description - value is not a string");
}
const Description::List& Description::as_list() const {
    return get_or_throw<List>(value_, "Description - value is not a list");
}
Description::List& Description::as_list() {
    return const_cast<List&>(std::as_const(*this).as_list());
}
const Description::Dict& Description::as_dict() const {
    return get_or_throw<Dict>(value_, "Description - value is not a dict");
}
Description::Dict& Description::as_dict() {
    return const_cast<Dict&>(std::as_const(*this).as_dict());
}

Description& Description::push_back(Description value) {
    as_list().push_back(std::move(value));
    return *this;
}

Description& Description::set(std::string_view key, Description value) {
    Dict& dict = as_dict();
    for (Entry& entry : dict)
        if (entry.first == key) {
            entry.second = std::move(value);
            return *this;
        }
    dict.emplace_back(std::string(key), std::move(value));
    return *this;
}

const Description* Description::find(std::string_view key) const {
    for (const Entry& entry : as_dict())
        if (entry.first == key) return &entry.second;
    return nullptr;
}

const Description& Description::at(std::string_view key) const {
    if (const Description* d = find(key)) return *d;
    throw std::out_of_range("Description - key '" + std::string(key) + "' is not present");
}

std::vector<std::string> Description::keys() const {
    std::vector<std::string> result;
    for (const Entry& entry : as_dict()) result.push_back(entry.first);
    return result;
}

std::size_t Description::size() const {
    if (is_list()) return as_list().size();
    if (is_dict()) return as_dict().size();
    throw std::logic_error("Description - value has no size");
}

std::string Description::to_json() const {
    std::string out;
    append_json(out, *this);
    return out;
}

Description describe(const SymbolicExpression& expression) {
    Description d = Description::dict();
    d.set("operator", expression_kind_name(expression.kind()));
    switch (expression.kind()) {
    case ExpressionKind::unknown: break;
    case ExpressionKind::constant: d.set("integer", expression.integer()); break;
    case ExpressionKind::symbol: d.set("name", expression.name()); break;
    case ExpressionKind::operand_dimension:
        d.set("role", role_code(expression.role()));
        d.set("axis", expression.axis());
        break;
    case ExpressionKind::operand_value: d.set("role", role_code(expression.role())); break;
    default: {
        Description::List operands;
        for (const SymbolicExpression& operand : expression.operands()) operands.push_back(describe(operand));
        d.set("operands", std::move(operands));
    }
    }
    return d;
}

Description describe(const OperandShape& shape) {
    Description::List dimensions;
    for (const SymbolicExpression& e : shape.dimensions) dimensions.push_back(describe(e));
    Description d = Description::dict();
    d.set("role", role_code(shape.role));
    d.set("rank", shape.rank());
    d.set("shapes", std::move(dimensions));
    return d;
}

Description describe(const ShapeConstraint& constraint) {
    Description d = Description::dict();
    d.set("left", describe(constraint.left));
    d.set("relation", relation_name(constraint.relation));
    d.set("right", describe(constraint.right));
    return d;
}

Description describe(const Requirement& requirement) {
    Description::List roles;
    for (OperandRole role : requirement.roles) roles.push_back(role_code(role));
    Description d = Description::dict();
    d.set("kind", requirement_kind_name(requirement.kind));
    d.set("roles", std::move(roles));
    d.set("purpose", requirement_purpose_name(requirement.purpose));
    d.set("enforcement", requirement_enforcement_name(requirement.enforcement));
    d.set("note", requirement.note);
    return d;
}

Description describe(const OperationNumerics& numerics) {
    Description::List shapes, constraints, requirements;
    for (const OperandShape& s : numerics.shapes) shapes.push_back(describe(s));
    for (const ShapeConstraint& c : numerics.constraints) constraints.push_back(describe(c));
    for (const Requirement& r : numerics.requirements) requirements.push_back(describe(r));
    Description d = Description::dict();
    d.set("shapes", std::move(shapes));
    d.set("constraints", std::move(constraints));
    d.set("requirements", std::move(requirements));
    d.set("notes", string_list(numerics.notes));
    return d;
}

Description describe(const ImplementationNumerics& numerics) {
    Description complexity = Description::dict();
    complexity.set("work", describe(numerics.complexity.work));
    complexity.set("auxiliary_space", describe(numerics.complexity.auxiliary_space));
    complexity.set("notes", string_list(numerics.complexity.notes));

    Description precision = Description::dict();
    precision.set("mode", precision_mode_name(numerics.precision.mode));
    precision.set("accumulation_dtype", numerics.precision.accumulation_dtype
                                            ? Description(*numerics.precision.accumulation_dtype)
                                            : Description());
    precision.set("reduction_order", reduction_order_name(numerics.precision.reduction_order));
    precision.set("notes", string_list(numerics.precision.notes));

    Description::List parameters;
    for (const AlgorithmParameter& p : numerics.parameters) {
        Description entry = Description::dict();
        entry.set("name", p.name);
        entry.set("value", std::visit([](const auto& v) { return Description(v); }, p.value));
        entry.set("description", p.description);
        parameters.push_back(std::move(entry));
    }

    Description d = Description::dict();
    d.set("algorithm", numerics.algorithm);
    d.set("stability", stability_name(numerics.stability));
    d.set("complexity", std::move(complexity));
    d.set("precision", std::move(precision));
    d.set("parameters", std::move(parameters));
    d.set("notes", string_list(numerics.notes));
    return d;
}

Description describe_provenance(const RegistrationProvenance& provenance) {
    Description d = Description::dict();
    d.set("kind", provenance.kind_name());
    d.set("version", provenance.version() ? Description(*provenance.version()) : Description());
    return d;
}

Description describe_operand(OperandRole role, OperandAccess access, OperandKind kind, ScalarType dtype,
                             ScalarType compute_dtype, Location location, StorageFormat format,
                             ComplexLayout complex_layout, MatrixLayout matrix_layout) {
    const bool flat = kind == OperandKind::scalar || kind == OperandKind::vector;
    Description d = Description::dict();
    d.set("role", role_code(role));
    d.set("access", access_name(access));
    d.set("kind", kind_name(kind));
    d.set("dtype", scalar_name(dtype));
    d.set("compute_dtype", scalar_name(compute_dtype));
    d.set("location", location_name(location));
    d.set("storage_format", format_name(format));
    d.set("complex_layout", complex_layout_name(complex_layout));
    d.set("matrix_layout", matrix_layout_name(flat ? MatrixLayout::none : matrix_layout));
    return d;
}

Description describe_operand(OperandAccess access, const OperandDescriptor& operand) {
    return describe_operand(operand.role, access, operand.kind, operand.dtype.storage(), operand.dtype.compute(),
                            operand.location, operand.format, operand.complex_layout, operand.matrix_layout);
}

Description describe_operation(const OperationRegistry::Entry& entry) {
    const OperationSpec& spec = entry.spec;
    Description::List roles;
    for (const RoleDeclaration& r : spec.roles()) {
        Description role = Description::dict();
        role.set("role", role_code(r.role));
        role.set("access", access_name(r.access));
        role.set("kind", r.kind ? Description(kind_name(*r.kind)) : Description());
        roles.push_back(std::move(role));
    }
    Description d = Description::dict();
    d.set("id", spec.id().to_string());
    d.set("handle", spec.handle());
    d.set("roles", std::move(roles));
    d.set("numerics", spec.numerics() ? describe(*spec.numerics()) : Description());
    d.set("provenance", describe_provenance(entry.provenance));
    return d;
}

} // namespace quillmark
