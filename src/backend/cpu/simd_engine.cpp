#include "backend/cpu/simd_engine.hpp"

#include <stdexcept>

#include "backend/cpu/simd_isa_config.hpp"
#include "runtime/simd_selection.hpp"

namespace quillmark::cpu {
namespace {

ComplexEngine with_gemm(ComplexEngine engine, const GemmBlocking& b, GemmMicroKernel<float> kernel) {
    engine.gemm = {engine.name, b.mr, b.nr, b.mc, b.kc, b.nc, kernel};
    return engine;
}

[[noreturn]] void not_usable() {
    throw std::runtime_error("CPU SIMD selection: requested implementation is not compiled or the CPU/OS does not "
                             "support its required instruction set");
}

// Built on first use, after the processor check of the caller.
const ComplexEngine& table(std::string_view name) {
    if (name == "AVX2") {
        static const ComplexEngine avx2 = with_gemm(complex_engine_avx2(), isa_avx256::gemm_c64, gemm_microkernels_avx2().c64);
        return avx2;
    }
    static const ComplexEngine avx512 = with_gemm(complex_engine_avx512(), isa_avx512::gemm_c64, gemm_microkernels_avx512().c64);
    return avx512;
}

} // namespace

const ComplexEngine& complex_engine(std::string_view name) {
    if (name != "AVX2" && name != "AVX512")
        throw std::invalid_argument("QUILLMARK_CPU_SIMD_RUNTIME must be AUTO, AVX2 or AVX512");
    const CpuFeatureProbe probe = probe_cpu_features();
    if (!(name == "AVX2" ? avx2_usable(probe) : avx512_usable(probe))) not_usable();
    return table(name);
}

const ComplexEngine& selected_complex_engine() { return table(cpu_simd_selection()); }

} // namespace quillmark::cpu
