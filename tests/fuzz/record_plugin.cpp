// A plugin whose every record is made from fuzz bytes: the harness hands the bytes over through
// record_plugin_feed before each load, and quillmark_plugin_init turns them into metadata and
// kernel registrations, valid ones as often as malformed ones.
#include <quillmark/plugin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

std::vector<std::uint8_t> bytes;
std::size_t position = 0;

std::uint8_t next() { return position < bytes.size() ? bytes[position++] : 0; }
std::uint32_t next32() {
    std::uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | next();
    return v;
}

// Strings live until the next load, longer than the init call that reads them; each keeps its
// own buffer when the list grows.
std::vector<std::vector<char>> strings;

quillmark_string text() {
    static const char* const words[] = {"fz", "fz.op", "fz.op_2", "quillmark", "quillmark.add", "fz..x",
                                        "Fz", "fz.", "1.0", "", "other.op", "fzz.op"};
    const std::uint8_t how = next();
    if (how % 8 == 7) return {nullptr, static_cast<std::uint64_t>(next())}; // malformed unless 0
    std::vector<char> s;
    if (how % 8 == 6) { // raw bytes
        for (std::uint8_t n = next() % 24; n > 0; --n) s.push_back(static_cast<char>(next()));
    } else {
        const char* w = words[how % (sizeof(words) / sizeof(words[0]))];
        s.assign(w, w + std::strlen(w));
    }
    strings.push_back(std::move(s));
    return {strings.back().empty() ? nullptr : strings.back().data(), strings.back().size()};
}

// Mostly small, legal codes; now and then anything.
std::uint32_t code(std::uint32_t legal_max) {
    const std::uint8_t b = next();
    return b >= 0xF0 ? next32() : b % (legal_max + 2);
}

quillmark_status kernel(void*, const quillmark_kernel_invocation*, const quillmark_error_capture*) {
    return QUILLMARK_STATUS_OK;
}

} // namespace

extern "C" QUILLMARK_PLUGIN_EXPORT void record_plugin_feed(const std::uint8_t* data, std::size_t size) {
    bytes.assign(data, data + size);
    position = 0;
    strings.clear();
}

extern "C" QUILLMARK_PLUGIN_EXPORT quillmark_status quillmark_plugin_init(const quillmark_host* host,
                                                                          quillmark_plugin_metadata* metadata,
                                                                          const quillmark_error_capture* error) {
    const std::uint8_t flags = next();
    metadata->struct_size = (flags & 1) ? next() : metadata->struct_size;
    metadata->abi_revision = (flags & 2) ? next() : QUILLMARK_ABI_REVISION;
    metadata->plugin_id = text();
    metadata->plugin_version = (flags & 4) ? text() : quillmark_string{"1.0", 3};
    if (flags & 8) {
        metadata->cuda_runtime_min = next();
        metadata->cuda_runtime_max = next();
    }
    metadata->description = text();

    for (std::uint8_t kernels = next() % 4; kernels > 0; --kernels) {
        std::vector<quillmark_backend_operand> operands(next() % 5);
        for (std::uint32_t i = 0; i < operands.size(); ++i) {
            quillmark_backend_operand& o = operands[i];
            o.struct_size = next() < 0xF8 ? 36 : next();
            o.role_index = next() < 0xF0 ? i : next();
            o.access = code(3);
            o.kind = code(5);
            o.location = code(3);
            o.storage_type = code(14);
            o.complex_layout = code(3);
            o.matrix_layout = code(2);
            o.compute_type = next() < 0xC0 ? o.storage_type : code(14);
        }
        quillmark_kernel_spec spec{};
        spec.struct_size = next() < 0xF8 ? sizeof spec : next();
        spec.operation.struct_size = next() < 0xF8 ? sizeof spec.operation : next();
        spec.operation.name = text();
        spec.operation.major = code(2);
        spec.backend = code(3);
        spec.operands = (next() < 0xF8 && !operands.empty()) ? operands.data() : nullptr;
        spec.operand_count = next() < 0xF8 ? operands.size() : next();
        if (spec.operands == nullptr) spec.operand_count = 0; // never a count over no memory
        if (spec.operand_count > operands.size()) spec.operand_count = operands.size();
        spec.kernel = next() < 0xF0 ? kernel : nullptr;
        host->register_kernel(host->host_context, next() < 0xF8 ? &spec : nullptr);
    }
    const std::uint8_t status = next();
    if (status >= 0xF0) {
        error->set_message(error->capture_context, text());
        return status & 7;
    }
    return QUILLMARK_STATUS_OK;
}
