// The module-level functions that describe the build.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <string>

#include "core/scalar_type.hpp"
#include "module_parts.hpp"
#include "runtime/simd_selection.hpp"

namespace nb = nanobind;

namespace quillmark::python {
namespace {

nb::dict policy_dict(ScalarType storage, ScalarType compute) {
    nb::dict d;
    d["dtype"] = std::string(scalar_name(storage));
    d["compute_dtype"] = std::string(scalar_name(compute));
    d["default"] = true;
    return d;
}

} // namespace

void bind_module_functions(nb::module_& m) {
    m.def(
        "numeric_policies",
        [] {
            using enum ScalarType;
            return nb::make_tuple(policy_dict(complex32, complex64), policy_dict(float16, float32),
                                  policy_dict(bfloat16, float32), policy_dict(float64, float64),
                                  policy_dict(complex128, complex128), policy_dict(float32, float32),
                                  policy_dict(int32, int32), policy_dict(complex64, complex64));
        },
        "The compiled storage/compute dtype pairs, each a dict with 'dtype', 'compute_dtype' and 'default'.");
    m.def("available_backends", [] { return nb::make_tuple("cpu"); }, "The execution backends of this build.");
    m.def("cuda_is_available", [] { return false; }, "Whether a CUDA backend is usable (never in this build).");
    m.def("cuda_device_count", [] { return 0; }, "The number of usable CUDA devices (0 in this build).");
    m.def(
        "build_info",
        [] {
            nb::dict d;
            d["version"] = QUILLMARK_VERSION;
            d["cuda"] = false;
            d["cuda_architectures"] = "";
            d["cpu_simd"] = std::string(cpu_simd_selection());
            d["cpu_simd_compiled"] = "AVX2,AVX512";
            d["nanobind_major"] = 2;
            return d;
        },
        "Version, CUDA support and the CPU SIMD engine selected at run time.");
}

} // namespace quillmark::python
