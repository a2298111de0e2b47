// Identifier text from the outside (Python callers, plugin records) reaches OperationId::parse
// unchecked. Any text must either be refused with std::invalid_argument or give an identifier
// whose canonical text parses back to the same identifier.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "catalogue/operation_id.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const quillmark::OperationId id = quillmark::OperationId::parse(text);
        const std::string canonical = id.to_string();
        if (!(quillmark::OperationId::parse(canonical) == id)) std::abort();
        // Only leading zeros of the major may differ between the text and its canonical form.
        const std::size_t at = text.find('@');
        std::string_view major = text.substr(at + 1);
        while (major.size() > 1 && major.front() == '0') major.remove_prefix(1);
        if (canonical != std::string(text.substr(0, at + 1)) + std::string(major)) std::abort();
    } catch (const std::invalid_argument&) {
    }
    return 0;
}
