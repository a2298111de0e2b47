#!/usr/bin/env bash
# Sanitizer and fuzzing pass, run after the normal build and tests:
#   1. ASan+UBSan tree (build/asan): the C++ tests, the fuzz seed corpora replayed, and the
#      Python suite once against an ASan build of the extension (imported from a package
#      directory of its own, never installed over the normal one);
#   2. ThreadSanitizer tree (build/tsan): the runtime and kernel tests;
#   3. libFuzzer targets (build/fuzz, clang only), each for FUZZ_SECONDS.
# Any finding fails the run. Builds take /tmp/qm-build.lock because the machine is shared.
# Environment: PYTHON (interpreter), FUZZ_SECONDS (default 30), SANITIZE_STAGES (default
# "asan tsan fuzz"), JOBS (default 2).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
PY=$(command -v "${PYTHON:-python3}")
JOBS=${JOBS:-2}
FUZZ_SECONDS=${FUZZ_SECONDS:-30}
STAGES=${SANITIZE_STAGES:-asan tsan fuzz}
LOCK=/tmp/qm-build.lock
FUZZ_TARGETS=$(for f in tests/fuzz/fuzz_*.cpp; do basename "$f" .cpp; done)

locked() { if command -v flock >/dev/null; then flock "$LOCK" "$@"; else "$@"; fi; }
stage() { printf '\n== sanitize: %s ==\n' "$*"; }
wants() { [[ " $STAGES " == *" $1 "* ]]; }
seconds_since() { echo $(($(date +%s) - $1)); }

GENERATOR=()
command -v ninja >/dev/null && GENERATOR=(-G Ninja)

# Sanitized builds at -O1 with line tables: fast to compile, readable reports.
configure() {
    local dir=$1
    shift
    cmake -S . -B "$dir" "${GENERATOR[@]}" -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -g1 -DNDEBUG" "$@" >/dev/null
}

export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ASAN_COMMON=detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1

if wants asan; then
    start=$(date +%s)
    stage "ASan+UBSan build"
    configure build/asan -DQUILLMARK_SANITIZE=ON -DQUILLMARK_BUILD_TESTS=ON -DQUILLMARK_BUILD_PYTHON=ON \
        -DQUILLMARK_FUZZ=ON -DCMAKE_CXX_COMPILER=g++ -DPython_EXECUTABLE="$PY"
    locked cmake --build build/asan -j "$JOBS"

    stage "ASan+UBSan C++ tests"
    ASAN_OPTIONS=$ASAN_COMMON ctest --test-dir build/asan --output-on-failure -j "$JOBS"
    for name in $FUZZ_TARGETS; do
        ASAN_OPTIONS=$ASAN_COMMON "build/asan/$name" "tests/fuzz/corpus/$name"
    done

    stage "Python suite against the ASan extension"
    # The package as a wheel would lay it out (extension, stubs, plugin header), outside site-packages.
    rm -rf build/asan/pkg && mkdir -p build/asan/pkg
    cp -r python/quillmark build/asan/pkg/
    rm -f build/asan/pkg/quillmark/_native*.so
    cmake --install build/asan --prefix build/asan/pkg >/dev/null
    # The runtime must be loaded first, and libstdc++ with it: the interpreter does not link it,
    # and the runtime's exception interceptors need it present. CPython itself is not built with
    # ASan: its arenas and interned objects read as leaks.
    export_asan="LD_PRELOAD=$(g++ -print-file-name=libasan.so):$(g++ -print-file-name=libstdc++.so)"
    export_asan+=" ASAN_OPTIONS=$ASAN_COMMON:detect_leaks=0"
    env $export_asan PYTHONPATH="$ROOT/build/asan/pkg" QUILLMARK_SANITIZED=asan \
        "$PY" -c "import quillmark, sys; sys.exit(not quillmark.__file__.startswith('$ROOT/build/asan/pkg'))"
    env $export_asan PYTHONPATH="$ROOT/build/asan/pkg" QUILLMARK_SANITIZED=asan \
        "$PY" -m pytest -q --capture=sys -p no:cacheprovider tests/python  # reports reach the log
    echo "asan stage: $(seconds_since "$start") s"
fi

if wants tsan; then
    start=$(date +%s)
    stage "ThreadSanitizer build"
    configure build/tsan -DQUILLMARK_TSAN=ON -DQUILLMARK_BUILD_TESTS=ON -DQUILLMARK_BUILD_PYTHON=OFF \
        -DCMAKE_CXX_COMPILER=g++
    locked cmake --build build/tsan -j "$JOBS" --target quillmark_tests
    stage "ThreadSanitizer runtime and kernel tests"
    # High address-space randomisation breaks the TSan shadow mapping on recent kernels.
    norandom=()
    if command -v setarch >/dev/null && setarch "$(uname -m)" -R true 2>/dev/null; then
        norandom=(setarch "$(uname -m)" -R)
    fi
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 "${norandom[@]}" build/tsan/quillmark_tests \
        --gtest_brief=1 --gtest_filter='ParallelFor*:CpuWorkerPool*:CpuRuntime*:Concurrent*:DenseKernels*:GemmMicroKernels*:VectorKernels*:Structured*:Eigen*:ContextExecution*'
    echo "tsan stage: $(seconds_since "$start") s"
fi

if wants fuzz; then
    start=$(date +%s)
    stage "libFuzzer targets (${FUZZ_SECONDS}s each)"
    # libFuzzer comes with clang; std::source_location needs clang 16 or later. A missing clang
    # is installed where the package manager can be used, else the targets are skipped.
    CLANG=$(command -v clang++-19 clang++-16 | head -n 1 || true)
    if [ -z "$CLANG" ] && command -v apt-get >/dev/null && [ "$(id -u)" = 0 ]; then
        { apt-get update -qq && apt-get install -y -qq clang-19 libclang-rt-19-dev >/dev/null; } || true
        CLANG=$(command -v clang++-19 || true)
    fi
    if [ -z "$CLANG" ]; then
        echo "clang 16+ is unavailable: libFuzzer targets skipped (their corpora were replayed in the ASan tree)"
    else
        configure build/fuzz -DQUILLMARK_SANITIZE=ON -DQUILLMARK_FUZZ=ON -DQUILLMARK_BUILD_TESTS=OFF \
            -DQUILLMARK_BUILD_PYTHON=OFF -DCMAKE_CXX_COMPILER="$CLANG"
        locked cmake --build build/fuzz -j "$JOBS"
        for name in $FUZZ_TARGETS; do
            target=build/fuzz/$name
            work=build/fuzz/corpus/$name
            mkdir -p "$work"
            # New inputs go to the build tree; the seed corpus in the repository stays as it is.
            ASAN_OPTIONS=$ASAN_COMMON "$target" -max_total_time="$FUZZ_SECONDS" -rss_limit_mb=2048 \
                -max_len=4096 -print_final_stats=1 -artifact_prefix="build/fuzz/$name-" \
                "$work" "tests/fuzz/corpus/$name" 2>build/fuzz/$name.log ||
                { tail -n 60 "build/fuzz/$name.log"; exit 1; }
            runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "build/fuzz/$name.log")
            echo "$name: ${runs:-?} inputs, no findings"
        done
    fi
    echo "fuzz stage: $(seconds_since "$start") s"
fi
