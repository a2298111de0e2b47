#!/usr/bin/env bash
# Builds quillmark with its C++ test suite, installs it and runs the C++ and Python tests.
#
# On a fresh Debian machine it installs what is missing (see bootstrap.sh: apt-get packages, and
# .venv unless a virtual environment is active). A second run reuses the environment and the
# CMake tree in build/test, so only changed sources are rebuilt.
set -euo pipefail
cd "$(dirname "$0")/.."
QM_NEED_GTEST=1
source scripts/bootstrap.sh
BUILD_DIR=build/test
install_deps test "${BUILD_DEPS[@]}" "numpy>=1.24" "ml_dtypes>=0.3" tqdm "pytest>=7" "hypothesis>=6" \
    "scipy>=1.10" matplotlib

# --- build, install, test ----------------------------------------------------------------------
# One CMake tree serves the installed extension and the C++ test binary.
log "building and installing into $("$PY" -c 'import sys; print(sys.prefix)')"
"${PIP[@]}" --no-build-isolation --no-deps . \
    --config-settings=cmake.define.QUILLMARK_BUILD_TESTS=ON \
    --config-settings=build-dir="$BUILD_DIR"

log "C++ tests"
ctest --test-dir "$BUILD_DIR" --output-on-failure -j2
log "Python tests"
"$PY" -m pytest -q tests/python

# --- sanitizer runs ----------------------------------------------------------------------------
# ASan+UBSan and ThreadSanitizer trees, the Python suite against the ASan extension, and the
# libFuzzer targets for a fixed time each.
log "sanitizers and fuzzing"
PYTHON="$PY" bash scripts/sanitize.sh
