"""The examples in the public docstrings run as written."""
import doctest
import importlib

import pytest

MODULES = ["quillmark._api", "quillmark._functions", "quillmark._cli"]


@pytest.mark.parametrize("name", MODULES)
def test_docstring_examples(name):
    module = importlib.import_module(name)
    result = doctest.testmod(module, optionflags=doctest.NORMALIZE_WHITESPACE | doctest.ELLIPSIS)
    assert result.attempted > 0
    assert result.failed == 0
