#pragma once
#include <nanobind/nanobind.h>

#include <stdexcept>

namespace quillmark::python {

// Raised by binding code that wants a plain NativeError with a message.
struct NativeErrorTag : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void bind_errors(nanobind::module_& m);
void bind_module_functions(nanobind::module_& m);
void bind_catalogue(nanobind::module_& m);  // _Catalogue, ContextBuilder
void bind_context(nanobind::module_& m);    // Context
void bind_structured(nanobind::module_& m); // LUOperand, EigenOperand, LUFactor
// Clean-up after an execution must not raise; its failures are printed to stderr.
void report_cleanup_failure(const std::exception* e) noexcept;

} // namespace quillmark::python
