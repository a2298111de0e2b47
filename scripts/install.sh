#!/usr/bin/env bash
# Installs quillmark from this checkout into the active virtual environment, or into .venv
# (made on first use), after installing a C++ compiler and the Python headers when they are
# missing. Then run it with .venv/bin/python (or python inside an active environment).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/bootstrap.sh
install_deps build "${BUILD_DEPS[@]}"
log "building and installing quillmark"
"${PIP[@]}" --no-build-isolation ".[plot]" --config-settings=build-dir=build/release
"$PY" -c 'import quillmark; print("quillmark", quillmark.__version__, "installed in", quillmark.__file__)'
