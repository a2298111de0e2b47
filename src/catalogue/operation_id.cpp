#include "catalogue/operation_id.hpp"

#include <charconv>
#include <stdexcept>

namespace quillmark {

void OperationId::validate_name(std::string_view name) {
    if (name.empty()) throw std::invalid_argument("OperationId - name must not be empty");
    if (name.find('.') == std::string_view::npos)
        throw std::invalid_argument("OperationId - name must be namespaced with at least one '.'");
    bool at_segment_start = true;
    for (char ch : name) {
        if (ch == '.') {
            if (at_segment_start) throw std::invalid_argument("OperationId - namespace segments must not be empty");
            at_segment_start = true;
            continue;
        }
        const bool lower = ch >= 'a' && ch <= 'z';
        const bool tail = (ch >= '0' && ch <= '9') || ch == '_';
        if (!(lower || (!at_segment_start && tail)))
            throw std::invalid_argument("OperationId - names must use lower-case ASCII identifier segments");
        at_segment_start = false;
    }
    if (at_segment_start) throw std::invalid_argument("OperationId - namespace segments must not be empty");
}

OperationId::OperationId(std::string name, std::uint32_t major) : name_(std::move(name)), major_(major) {
    validate_name(name_);
    if (major_ == 0) throw std::invalid_argument("OperationId - major version must be non-zero");
}

OperationId OperationId::parse(std::string_view text) {
    const std::size_t at = text.find('@');
    if (text.empty() || at == std::string_view::npos || at == 0 || at + 1 == text.size())
        throw std::invalid_argument("OperationId::parse - expected canonical identifier 'name@major'");
    const std::string_view digits = text.substr(at + 1);
    std::uint32_t major = 0;
    bool ok = true;
    for (char ch : digits)
        if (ch < '0' || ch > '9') ok = false;
    if (ok) {
        auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), major);
        ok = ec == std::errc{} && ptr == digits.data() + digits.size() && major != 0;
    }
    if (!ok) throw std::invalid_argument("OperationId::parse - major version must be a non-zero integer");
    return OperationId(std::string(text.substr(0, at)), major);
}

std::string OperationId::to_string() const { return name_ + "@" + std::to_string(major_); }

} // namespace quillmark
