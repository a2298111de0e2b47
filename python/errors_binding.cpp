// NativeError and the translators that turn library errors into it.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <cstdio>

#include "core/errors.hpp"
#include "module_parts.hpp"

namespace nb = nanobind;

namespace quillmark::python {
namespace {

PyObject* native_error_type = nullptr;

void set_attr(PyObject* obj, const char* name, nb::handle value) {
    if (PyObject_SetAttrString(obj, name, value.ptr()) != 0) throw nb::python_error();
}

void raise_library_error(const RuntimeError& e) {
    nb::object instance = nb::steal(PyObject_CallFunction(native_error_type, "s", e.what()));
    if (!instance.is_valid()) return; // the constructor's own Python error stands
    try {
        PyObject* obj = instance.ptr();
        set_attr(obj, "operation", nb::str(e.operation().c_str()));
        set_attr(obj, "reason", nb::str(std::string(reason_name(e.reason())).c_str()));
        if (auto* lib = dynamic_cast<const BackendLibraryError*>(&e)) {
            set_attr(obj, "library", nb::str(lib->library().c_str()));
            set_attr(obj, "native_status", nb::int_(lib->native_status()));
            set_attr(obj, "status_name", nb::str(lib->status_name().c_str()));
        } else if (auto* solver = dynamic_cast<const SolverError*>(&e)) {
            set_attr(obj, "library", nb::str(solver->library().c_str()));
            set_attr(obj, "native_status", nb::int_(solver->native_status()));
            set_attr(obj, "detail", nb::str(solver->detail().c_str()));
        }
    } catch (nb::python_error& err) {
        err.restore();
        return;
    }
    PyErr_SetObject(native_error_type, instance.ptr());
}

} // namespace

void bind_errors(nb::module_& m) {
    nb::exception<NativeErrorTag> exc(m, "NativeError", PyExc_RuntimeError);
    native_error_type = exc.ptr();
    nb::register_exception_translator(
        [](const std::exception_ptr& p, void*) {
            try {
                std::rethrow_exception(p);
            } catch (const NativeErrorTag& e) {
                const char* msg = e.what();
                PyErr_SetString(native_error_type, (msg && *msg) ? msg : "Unknown exception");
            }
        });
    nb::register_exception_translator([](const std::exception_ptr& p, void*) {
        try {
            std::rethrow_exception(p);
        } catch (const RuntimeError& e) {
            raise_library_error(e);
        }
    });
}

void report_cleanup_failure(const std::exception* e) noexcept {
    if (e) std::fprintf(stderr, "Quillmark execution cleanup failed: %s\n", e->what());
    else std::fprintf(stderr, "Quillmark execution cleanup failed with an unknown error\n");
}

} // namespace quillmark::python
