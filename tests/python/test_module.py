import numpy as np
import pytest

import quillmark
from quillmark import _native
from quillmark._dtypes import complex32, from_complex32, to_complex32


def test_module_surface():
    assert _native.__doc__ == "Private native implementation for quillmark"
    assert _native.available_backends() == ("cpu",)
    assert _native.cuda_is_available() is False
    assert _native.cuda_device_count() == 0
    info = _native.build_info()
    assert list(info) == ["version", "cuda", "cuda_architectures", "cpu_simd", "cpu_simd_compiled", "nanobind_major"]
    assert info["version"] == "0.1.1" and info["cuda"] is False and info["nanobind_major"] == 2
    assert info["cpu_simd"] in ("AVX2", "AVX512")
    assert info["cpu_simd_compiled"] == "AVX2,AVX512"


def test_numeric_policies_order():
    pairs = [(p["dtype"], p["compute_dtype"]) for p in _native.numeric_policies()]
    assert pairs == [
        ("complex32", "complex64"), ("float16", "float32"), ("bfloat16", "float32"), ("float64", "float64"),
        ("complex128", "complex128"), ("float32", "float32"), ("int32", "int32"), ("complex64", "complex64"),
    ]
    assert all(list(p) == ["dtype", "compute_dtype", "default"] and p["default"] is True
               for p in _native.numeric_policies())


@pytest.mark.parametrize("kind, attrs", [
    ("solver", {"operation": "quillmark.lu_factor", "reason": "singular", "library": "CPU",
                "native_status": 3, "detail": "zero LU pivot"}),
    ("library", {"operation": "demo.op@1", "reason": "library_failure", "library": "native plugin",
                 "native_status": 3, "status_name": "QUILLMARK_STATUS_RUNTIME_ERROR"}),
    ("dispatch", {"operation": "BackendDispatcher::dispatch", "reason": "no_backend_available"}),
    ("runtime", {"operation": "quillmark.add@1", "reason": "backend_failure"}),
])
def test_library_errors_become_native_error(kind, attrs):
    with pytest.raises(_native.NativeError) as info:
        _native._raise_test_error(kind)
    err = info.value
    assert isinstance(err, RuntimeError)
    for name, value in attrs.items():
        assert getattr(err, name) == value
    absent = {"library", "native_status", "status_name", "detail"} - set(attrs)
    assert not any(hasattr(err, name) for name in absent)


def test_tagged_and_argument_errors():
    with pytest.raises(_native.NativeError, match="^tagged failure$"):
        _native._raise_test_error("tag")
    with pytest.raises(_native.NativeError, match="^Unknown exception$"):
        _native._raise_test_error("tag_empty")
    with pytest.raises(ValueError, match="^Matrix - storage cannot be null$") as info:
        _native._raise_test_error("argument")
    assert not isinstance(info.value, _native.NativeError)


def test_complex32_helpers_round_trip():
    assert complex32.itemsize == 4 and complex32.names == ("real", "imag")
    values = np.array([1 + 2j, -0.5j, 65520 + 0j], dtype=np.complex128)
    packed = to_complex32(values)
    back = from_complex32(packed)
    assert back.dtype == np.complex64
    assert back[0] == 1 + 2j and back[1] == -0.5j and np.isinf(back[2].real)
    assert to_complex32(np.array([3.0]))["imag"][0] == 0
    assert quillmark.complex32 is complex32
