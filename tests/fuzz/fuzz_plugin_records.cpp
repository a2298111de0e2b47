// Plugin records are foreign memory filled by code the library does not control. Loading a
// plugin whose records are arbitrary must end in a registered plugin, an argument error or a
// plugin-status error, and a refused plugin must leave the builder as it was.
#include <dlfcn.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "core/errors.hpp"
#include "frontend/context_builder.hpp"

namespace {

using Feed = void (*)(const std::uint8_t*, std::size_t);

Feed feed() {
    // Held open for the whole run, so the loader's own dlopen finds this same instance.
    static void* handle = dlopen(QUILLMARK_RECORD_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    static Feed f = handle ? reinterpret_cast<Feed>(dlsym(handle, "record_plugin_feed")) : nullptr;
    if (f == nullptr) std::abort();
    return f;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    feed()(data, size);
    quillmark::QuillmarkContextBuilder builder(quillmark::QuillmarkContextBuilder::CpuBackends::omitted);
    const auto operations = builder.catalogue().size();
    const auto backends = builder.backends().size();
    const auto unchanged = [&] {
        if (builder.catalogue().size() != operations || builder.backends().size() != backends) std::abort();
    };
    try {
        builder.load_plugin(QUILLMARK_RECORD_PLUGIN);
    } catch (const std::invalid_argument&) {
        unchanged();
        return 0;
    } catch (const quillmark::BackendLibraryError&) {
        unchanged();
        return 0;
    }
    if (builder.backends().size() == backends) std::abort(); // accepted, yet nothing registered
    return 0;
}
