import numpy as np

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


def test_complex32_helpers_round_trip():
    assert complex32.itemsize == 4 and complex32.names == ("real", "imag")
    values = np.array([1 + 2j, -0.5j, 65520 + 0j], dtype=np.complex128)
    packed = to_complex32(values)
    back = from_complex32(packed)
    assert back.dtype == np.complex64
    assert back[0] == 1 + 2j and back[1] == -0.5j and np.isinf(back[2].real)
    assert to_complex32(np.array([3.0]))["imag"][0] == 0
    assert quillmark.complex32 is complex32
