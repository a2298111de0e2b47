#!/usr/bin/env bash
# Builds quillmark with its C++ test suite, installs it, and runs the C++ and Python tests.
# Installs what it needs on a fresh machine.
set -euo pipefail
cd "$(dirname "$0")/.."
PY=${PYTHON:-python3}
PIP=("$PY" -m pip install -q --disable-pip-version-check --root-user-action=ignore)

if ! { [ -f /usr/include/gtest/gtest.h ] || [ -f /usr/local/include/gtest/gtest.h ]; }; then
    if command -v apt-get >/dev/null; then
        apt-get update -qq && apt-get install -y -qq libgtest-dev
    else
        echo "GoogleTest headers are missing and apt-get is unavailable" >&2
        exit 1
    fi
fi

"${PIP[@]}" "scikit-build-core>=0.10" "nanobind>=2,<3" cmake ninja numpy ml_dtypes pytest hypothesis scipy

# One CMake tree serves the installed extension and the C++ test binary.
BUILD_DIR=build/test
"${PIP[@]}" --no-build-isolation . \
    -C cmake.define.QUILLMARK_BUILD_TESTS=ON \
    -C build-dir="$BUILD_DIR"

ctest --test-dir "$BUILD_DIR" --output-on-failure -j2
"$PY" -m pytest -q tests/python
