#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace quillmark {

// A versioned operation identifier, canonically "name@major".
class OperationId {
public:
    // Throws std::invalid_argument when the name or major is malformed.
    OperationId(std::string name, std::uint32_t major);
    static OperationId parse(std::string_view text);
    // Throws the name messages of the constructor; exposed for plugin namespaces.
    static void validate_name(std::string_view name);

    const std::string& name() const noexcept { return name_; }
    std::uint32_t major() const noexcept { return major_; }
    std::string to_string() const;
    bool operator==(const OperationId&) const = default;

private:
    std::string name_;
    std::uint32_t major_;
};

struct OperationIdHash {
    std::size_t operator()(const OperationId& id) const noexcept {
        return std::hash<std::string>{}(id.name()) ^ (static_cast<std::size_t>(id.major()) * 0x9E3779B97F4A7C15ull);
    }
};

} // namespace quillmark

template <> struct std::hash<quillmark::OperationId> : quillmark::OperationIdHash {};
