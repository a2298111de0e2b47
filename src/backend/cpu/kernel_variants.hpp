#pragma once
// Choosing among the variants of one kernel family (portable, AVX2, AVX-512). `portable()` gives
// the baseline variant; `simd(avx2, avx512)` the SIMD variants allowed by the two flags, each
// with a `name` equal to its selection word.
#include <string_view>
#include <vector>

#include "runtime/simd_selection.hpp"

namespace quillmark::cpu {

// Every variant this processor can run, portable first.
template <class K, class Portable, class Simd> std::vector<K> available_variants(Portable portable, Simd simd) {
    std::vector<K> out{portable()};
    const CpuFeatureProbe probe = probe_cpu_features();
    for (auto& k : simd(avx2_usable(probe), avx512_usable(probe))) out.push_back(k);
    return out;
}

// The variant of the process-wide SIMD selection; the portable one when no SIMD engine is usable.
template <class K, class Portable, class Simd> K selected_variant(Portable portable, Simd simd) {
    std::string_view selection;
    try {
        selection = cpu_simd_selection();
    } catch (...) {
        return portable();
    }
    for (auto& k : simd(selection == "AVX2", selection == "AVX512"))
        if (k.name == selection) return k;
    return portable();
}

} // namespace quillmark::cpu
