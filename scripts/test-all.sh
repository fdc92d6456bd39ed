#!/usr/bin/env bash
# Fresh Debian 12 to a full test run: installs what is missing, then builds and tests
#   x86_64 plain, x86_64 ASan+UBSan, armhf under qemu-arm, the x86_64 suite under valgrind,
#   the suite under ThreadSanitizer, the benchmarks' build and the fuzzers (when fuzz/run.sh exists).
# Every stage runs even when an earlier one failed; the exit status is non-zero when any failed.
# Environment:
#   RIX_BUILD_PREFIX  prefix of the build directories (build/<prefix><preset>), default none
#   RIX_SKIP          stages to skip, e.g. "tsan bench"
#   RIX_VALGRIND_EXCLUDE  ctest -E regex of tests left out under valgrind (default: stress tests,
#                     and runs that start valgrind or cmake themselves)
#   RIX_FUZZ_SECONDS  length of the fuzzing run after the corpus replay (default 120)
#   RIX_SOAK_SECONDS  length of the merge soak (default 10 s in the ASan stage, 3 s under TSan)
# The ASan stage also runs the allocation- and platform-failure sweeps (ctest label "sweep"),
# which fork one process per failure site; they are registered in sanitizer builds only.
set -uo pipefail
cd "$(dirname "$0")/.."

export RIX_BUILD_PREFIX=${RIX_BUILD_PREFIX:-}
skip=" ${RIX_SKIP:-} "
valgrind_exclude=${RIX_VALGRIND_EXCLUDE:-[Ss]tress|\.valgrind$|\.usage$}
logs=build/${RIX_BUILD_PREFIX}logs
mkdir -p "$logs"
t_all=$(date +%s)

bash scripts/ensure-packages.sh cmake make g++ gcc pkg-config googletest libbenchmark-dev libboost-dev \
    g++-arm-linux-gnueabihf qemu-user valgrind clang libclang-rt-14-dev || exit 1

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

summary=()
failed=0

# stage NAME COMMAND...: runs the command with its output in build/<prefix>logs/NAME.log and
# prints ctest's summary lines, or the first errors when it failed.
stage() {
    local name=$1
    shift
    if [[ $skip == *" $name "* ]]; then
        summary+=("$(printf '%-10s skipped' "$name")")
        return 0
    fi
    local log=$logs/$name.log t0 rc
    t0=$(date +%s)
    echo "=== $name: $*"
    "$@" >"$log" 2>&1
    rc=$?
    local secs=$(( $(date +%s) - t0 ))
    grep -E "tests passed|tests failed out of|Total Test time|Memory checking results|Defects:|^(Memory Leak|Invalid|Uninitialized|Mismatched)" "$log" | sed 's/^/    /'
    if ((rc != 0)); then
        failed=1
        echo "=== $name FAILED (exit $rc, ${secs}s), log: $log"
        if grep -q "The following tests FAILED" "$log"; then
            # what each failing test printed, then ctest's list
            grep -E -A 30 '\*\*\*(Failed|Exception|Timeout)|Not Run' "$log" | head -n 200
            awk '/The following tests FAILED/ {p = 1} p && /^(Errors while running|-- Processing)/ {exit} p' "$log" |
                head -n 60
            sed -n '/^--- .*MemoryChecker/,$p' "$log" | head -n 200
        else
            grep -E -m 30 "error|Error|FAILED|failed|undefined reference" "$log" || tail -n 30 "$log"
        fi
        summary+=("$(printf '%-10s FAILED   %5ss  %s' "$name" "$secs" "$log")")
    else
        echo "=== $name ok (${secs}s)"
        summary+=("$(printf '%-10s ok       %5ss' "$name" "$secs")")
    fi
    return 0
}

preset_dir() { echo "build/${RIX_BUILD_PREFIX}$1"; }

# build_and_test PRESET [ctest args...]
build_and_test() {
    local preset=$1
    shift
    cmake --preset "$preset" && cmake --build --preset "$preset" && ctest --preset "$preset" "$@"
}

# The valgrind run reuses the x86_64 build; installs and the export check are not programs of ours.
memcheck() {
    local dir rc
    dir=$(preset_dir x86_64)
    rm -f "$dir"/Testing/Temporary/MemoryChecker.*.log
    ctest --test-dir "$dir" -T memcheck -j 2 --output-on-failure -LE "exports|install" -E "$valgrind_exclude"
    rc=$?
    # valgrind's own reports of the tests that had defects
    local f
    for f in "$dir"/Testing/Temporary/MemoryChecker.*.log; do
        if [[ -s $f ]] && ! grep -q "ERROR SUMMARY: 0 errors" "$f"; then
            echo "--- $f"
            head -n 60 "$f"
        fi
    done
    return $rc
}

tsan() {
    cmake --preset tsan && cmake --build --preset tsan && ctest --preset tsan -LE "exports|install"
}

bench_build() {
    [[ -f bench/CMakeLists.txt ]] || { echo "no benchmarks"; return 0; }
    cmake --preset bench && cmake --build --preset bench
}

fuzz() {
    if [[ -f fuzz/run.sh ]]; then
        FUZZ_BUILD_DIR=$PWD/build/${RIX_BUILD_PREFIX}fuzz bash fuzz/run.sh "${RIX_FUZZ_SECONDS:-120}"
    else
        echo "no fuzz/run.sh"
    fi
}

stage x86_64 build_and_test x86_64
stage asan build_and_test asan
stage armhf build_and_test armhf
if [[ $skip == *" x86_64 "* ]]; then
    summary+=("valgrind   skipped (needs the x86_64 build)")
else
    stage valgrind memcheck
fi
stage tsan tsan
stage bench bench_build
stage fuzz fuzz

echo
echo "=== summary (wall time $(( $(date +%s) - t_all ))s)"
printf '%s\n' "${summary[@]}"
if ((failed)); then
    echo "=== FAILED"
    exit 1
fi
echo "=== all passed"
