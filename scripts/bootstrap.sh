# Sourced by install.sh and test.sh: installs missing system packages through apt-get (C++
# compiler, Python headers, venv support, and GoogleTest when QM_NEED_GTEST=1), then selects the
# Python environment: the active virtual environment, or .venv, made on first use (the system
# interpreter may be externally managed). Sets PY (the environment's python) and PIP.
#
# PYTHON names the interpreter to start from (default: python3 on PATH).
PY=${PYTHON:-python3}
VENV=.venv

log() { printf '== %s\n' "$*" >&2; }
in_venv() { "$1" -c 'import sys; sys.exit(sys.prefix == sys.base_prefix)' 2>/dev/null; }

command -v "$PY" >/dev/null || { echo "no Python interpreter '$PY' on PATH" >&2; exit 1; }
PYVER=$("$PY" -c 'import sys; print(f"{sys.version_info[0]}.{sys.version_info[1]}")')
missing=()
command -v g++ >/dev/null || missing+=(g++)
"$PY" -c 'import os, sys, sysconfig
sys.exit(not os.path.exists(os.path.join(sysconfig.get_paths()["include"], "Python.h")))' \
    || missing+=("python${PYVER}-dev")
if ! in_venv "$PY" && [ ! -x "$VENV/bin/python" ]; then
    "$PY" -c 'import ensurepip, venv' 2>/dev/null || missing+=("python${PYVER}-venv")
fi
if [ "${QM_NEED_GTEST:-0}" = 1 ] && [ ! -f /usr/include/gtest/gtest.h ] && [ ! -f /usr/local/include/gtest/gtest.h ]; then
    missing+=(libgtest-dev)
fi
if [ ${#missing[@]} -gt 0 ]; then
    command -v apt-get >/dev/null || { echo "missing ${missing[*]} and apt-get is unavailable" >&2; exit 1; }
    SUDO=()
    [ "$(id -u)" -eq 0 ] || SUDO=(sudo)
    log "apt-get install ${missing[*]}"
    "${SUDO[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${SUDO[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
fi

if in_venv "$PY"; then
    PY=$(command -v "$PY")
    log "using the active environment $("$PY" -c 'import sys; print(sys.prefix)')"
else
    if [ ! -x "$VENV/bin/python" ]; then
        log "creating $VENV"
        # System site-packages stay visible so that packages already installed are reused.
        "$PY" -m venv --system-site-packages "$VENV"
    fi
    PY=$PWD/$VENV/bin/python
fi
PIP=("$PY" -m pip install -q --disable-pip-version-check --root-user-action=ignore)
# The build tools that pip installs (cmake, ninja) live beside the environment's python.
PATH="$(dirname "$PY"):$PATH"
export PATH
if [ -z "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] && command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache CMAKE_C_COMPILER_LAUNCHER=ccache
fi

# Installs the given requirements once per environment and list (a stamp makes reruns instant).
install_deps() {
    local stamp
    stamp=$("$PY" -c 'import sys; print(sys.prefix)')/.quillmark-deps-$1
    shift
    if [ "$(cat "$stamp" 2>/dev/null)" != "$*" ]; then
        log "installing $*"
        "${PIP[@]}" "$@"
        echo "$*" > "$stamp"
    fi
}
BUILD_DEPS=("scikit-build-core>=0.10" "nanobind>=2,<3" cmake ninja)
