// The `_native` extension module: the Python face of the library.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include "module_parts.hpp"

namespace nb = nanobind;

NB_MODULE(_native, m) {
    m.doc() = "Private native implementation for quillmark";
    quillmark::python::bind_errors(m);
    quillmark::python::bind_module_functions(m);
    quillmark::python::bind_catalogue(m);
    quillmark::python::bind_context(m);
    quillmark::python::bind_structured(m);
}
