#!/usr/bin/env bash
# Fresh Debian 12 to a full test run: installs what is missing, then builds and tests
#   x86_64 plain, x86_64 ASan+UBSan, armhf under qemu-arm, the x86_64 suite under valgrind,
#   the suite under ThreadSanitizer, the benchmarks' build and the fuzzers (when fuzz/run.sh exists),
#   then the tooling stages: coverage (gcovr, with floors), format (clang-format check), tidy
#   (clang-tidy) and packages (Debian packages for amd64 and armhf, installed into a scratch root).
# Every stage runs even when an earlier one failed; the exit status is non-zero when any failed.
# Environment:
#   RIX_BUILD_PREFIX  prefix of the build directories (build/<prefix><preset>), default none
#   RIX_SKIP          stages to skip, e.g. "tsan bench"
#   RIX_VALGRIND_EXCLUDE  ctest -E regex of tests left out under valgrind (default: stress tests,
#                     and runs that start valgrind or cmake themselves)
#   RIX_FUZZ_SECONDS  fuzzing time of each target after the corpus replay (default 120)
#   RIX_SOAK_SECONDS  length of the merge soak (default 10 s in the ASan stage, 3 s under TSan)
#   RIX_COVERAGE_HTML set to 1: the coverage stage also writes build/<prefix>coverage/html/index.html
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
    g++-arm-linux-gnueabihf qemu-user valgrind clang libclang-rt-14-dev gcovr clang-format-14 clang-tidy-14 || exit 1

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
    grep -E "tests passed|tests failed out of|Total Test time|Memory checking results|Defects:|^(Memory Leak|Invalid|Uninitialized|Mismatched)|^--> " "$log" |
        sed -e 's/^--> //' -e 's/^/    /'
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

# Coverage of the unit tests, the sweeps and the fuzz corpora's replay (gcc --coverage at -O0).
# The library's own folders are held to the floors below (what they reach, rounded down);
# the stand-in platform is reported on its own, without floors.
RIX_COV_LINE_FLOOR=91
RIX_COV_BRANCH_FLOOR=74
coverage() {
    local dir rc=0
    dir=$(preset_dir coverage)
    cmake --preset coverage && cmake --build --preset coverage || return 1
    find "$dir" -name '*.gcda' -delete
    ctest --preset coverage || return 1
    # Exception edges (the tests and stand-ins throw, the library cannot) and branches gcc
    # proves dead are not branches of the source.
    local common=(-r . "$dir" --exclude-throw-branches --exclude-unreachable-branches)
    local lib=(--filter '(core|channel|tblmsg|smooth|mergeque|merge|syncgrp)/')
    local html=()
    if [[ ${RIX_COVERAGE_HTML:-0} == 1 ]]; then
        mkdir -p "$dir/html"
        html=(--html-details "$dir/html/index.html")
    fi
    gcovr "${common[@]}" "${lib[@]}" --print-summary --json-summary "$dir/coverage-lib.json" "${html[@]}" \
        --fail-under-line "$RIX_COV_LINE_FLOOR" --fail-under-branch "$RIX_COV_BRANCH_FLOOR" || rc=1
    gcovr "${common[@]}" --filter 'platform/' --json-summary "$dir/coverage-platform.json" >/dev/null || rc=1
    python3 - "$dir/coverage-lib.json" "$dir/coverage-platform.json" <<'PY' || rc=1
import json, os, sys
for path, title in ((sys.argv[1], "library"), (sys.argv[2], "stand-in platform")):
    d = json.load(open(path))
    folders = {}
    for f in d["files"]:
        key = f["filename"].split("/")[0] if title == "library" else os.path.dirname(f["filename"])
        t = folders.setdefault(key, [0, 0, 0, 0])
        for i, k in enumerate(("line_covered", "line_total", "branch_covered", "branch_total")):
            t[i] += f[k]
    pct = lambda a, b: 100.0 * a / b if b else 100.0
    print("--> %-19s lines %5.1f%% (%d/%d)  branches %5.1f%% (%d/%d)" % (title, pct(d["line_covered"], d["line_total"]),
          d["line_covered"], d["line_total"], pct(d["branch_covered"], d["branch_total"]), d["branch_covered"], d["branch_total"]))
    for k in sorted(folders):
        lc, lt, bc, bt = folders[k]
        print("-->   %-17s lines %5.1f%% (%d/%d)  branches %5.1f%% (%d/%d)" % (k, pct(lc, lt), lc, lt, pct(bc, bt), bc, bt))
PY
    echo "--> floors: lines ${RIX_COV_LINE_FLOOR}%, branches ${RIX_COV_BRANCH_FLOOR}% (library)"
    [[ ${#html[@]} -eq 0 ]] || echo "--> HTML report: $dir/html/index.html"
    return $rc
}

format_check() {
    bash scripts/format.sh --check
}

# clang-tidy over the library and the stand-ins, with the x86_64 build's compile commands (a
# configure is enough: nothing needs to be built). .clang-tidy makes every finding an error.
tidy() {
    local dir
    dir=$(preset_dir x86_64)
    cmake --preset x86_64 >/dev/null || return 1
    local tidy_bin runner
    tidy_bin=$(command -v clang-tidy-14 || command -v clang-tidy)
    runner=$(command -v run-clang-tidy-14 || command -v run-clang-tidy)
    local out rc
    # The x86_64 build links the library with gcc's LTO, whose flags clang does not know.
    out=$("$runner" -j 2 -quiet -clang-tidy-binary "$tidy_bin" -p "$dir" -extra-arg=-Wno-ignored-optimization-argument \
        "$PWD/(core|channel|tblmsg|smooth|mergeque|merge|syncgrp|platform/src)/" 2>&1)
    rc=$?
    printf '%s\n' "$out" | sed 's/\x1b\[[0-9;]*m//g'
    local n
    n=$(printf '%s\n' "$out" | sed 's/\x1b\[[0-9;]*m//g' | grep -cE '^[^ ]+:[0-9]+:[0-9]+: (warning|error):')
    echo "--> clang-tidy: $n findings"
    ((rc == 0 && n == 0))
}

# Debian packages of the x86_64 (amd64) and armhf builds. Each is checked for its architecture,
# dependencies and files; then the packages are unpacked into a scratch root and the minimal
# module is built against them through find_package and pkg-config and run (armhf under qemu).
deb_field() { dpkg-deb -f "$1" "$2"; }
check_debs() {
    local dir=$1 arch=$2 ver=$3 d f
    local orch=$dir/librix-autosync-orch1_${ver}_$arch.deb orch_dev=$dir/librix-autosync-orch-dev_${ver}_$arch.deb
    local plat=$dir/librix-utils1_${ver}_$arch.deb plat_dev=$dir/librix-utils-dev_${ver}_$arch.deb
    for d in "$orch" "$orch_dev" "$plat" "$plat_dev"; do
        [[ -f $d ]] || { echo "packages: $d not built"; return 1; }
        [[ $(deb_field "$d" Architecture) == "$arch" ]] || { echo "packages: $d is not $arch"; return 1; }
        [[ $(deb_field "$d" Version) == "$ver" ]] || { echo "packages: $d is not version $ver"; return 1; }
        echo "--> $(basename "$d"): Depends: $(deb_field "$d" Depends)"
    done
    # dependency -> required text in Depends
    local -A want=(
        ["$orch"]="librix-utils1 (>= $ver)"
        ["$orch_dev"]="librix-autosync-orch1 (= $ver)|librix-utils-dev (>= $ver)"
        ["$plat_dev"]="librix-utils1 (= $ver)")
    local dep w
    for d in "${!want[@]}"; do
        dep=$(deb_field "$d" Depends)
        IFS='|' read -r -a w <<<"${want[$d]}"
        for f in "${w[@]}"; do
            [[ ", $dep," == *", $f,"* ]] || { echo "packages: $(basename "$d") does not depend on $f ($dep)"; return 1; }
        done
    done
    # files: runtime packages hold the libraries and SONAME links only, -dev the rest
    local list
    list=$(dpkg-deb -c "$orch")
    for f in ./usr/lib/librix_autosync_orch.so.1.0.0 "./usr/lib/librix_autosync_orch.so.1 -> librix_autosync_orch.so.1.0.0"; do
        grep -qF " $f" <<<"$list" || { echo "packages: $(basename "$orch") lacks $f"; return 1; }
    done
    ! grep -qE '\.so( |$)|include/|\.pc$|\.cmake$' <<<"$list" || { echo "packages: $(basename "$orch") holds development files"; return 1; }
    list=$(dpkg-deb -c "$orch_dev")
    for f in "./usr/lib/librix_autosync_orch.so -> librix_autosync_orch.so.1" ./usr/include/rix_autosync_orch/rix_autosync_orch.h \
        ./usr/lib/pkgconfig/rix_autosync_orch.pc ./usr/lib/cmake/rix_autosync_orch/rix_autosync_orch-config.cmake; do
        grep -qF " $f" <<<"$list" || { echo "packages: $(basename "$orch_dev") lacks $f"; return 1; }
    done
    ! awk '{print $6}' <<<"$list" | grep -qE '\.so\.[0-9]' || { echo "packages: $(basename "$orch_dev") holds the runtime library"; return 1; }
    list=$(dpkg-deb -c "$plat")
    for f in librix_utils_base.so.1 librix_utils_eal.so.1 librix_utils_smooth.so.1; do
        grep -qF " ./usr/lib/$f -> $f.0.0" <<<"$list" || { echo "packages: $(basename "$plat") lacks $f"; return 1; }
    done
    list=$(dpkg-deb -c "$plat_dev")
    for f in ./usr/include/rix_platform/rix_platform.h ./usr/lib/pkgconfig/rix_platform.pc \
        ./usr/lib/cmake/rix_autosync_orch/rix_autosync_orch-platform-targets.cmake; do
        grep -qF " $f" <<<"$list" || { echo "packages: $(basename "$plat_dev") lacks $f"; return 1; }
    done
    # the shlibs entry names the SONAME, and the library file carries it
    dpkg-deb -I "$orch" shlibs | grep -qx "librix_autosync_orch 1 librix-autosync-orch1 (>= $ver)" ||
        { echo "packages: shlibs of $(basename "$orch"): $(dpkg-deb -I "$orch" shlibs)"; return 1; }
    local tmp rc=0
    tmp=$(mktemp -d)
    dpkg-deb -x "$orch" "$tmp"
    readelf -d "$tmp/usr/lib/librix_autosync_orch.so.1.0.0" | grep -q 'SONAME.*\[librix_autosync_orch.so.1\]' ||
        { echo "packages: SONAME of librix_autosync_orch.so.1.0.0 is not librix_autosync_orch.so.1"; rc=1; }
    local machine=X86-64
    [[ $arch == armhf ]] && machine=ARM
    readelf -h "$tmp/usr/lib/librix_autosync_orch.so.1.0.0" | grep -q "Machine:.* $machine\$" ||
        { echo "packages: librix_autosync_orch.so.1.0.0 is not built for $machine"; rc=1; }
    rm -rf "$tmp"
    return $rc
}

packages() {
    local ver preset arch dir root rc=0
    ver=$(sed -n 's/^project(rix_autosync_orch VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
    for preset in x86_64 armhf; do
        dir=$(preset_dir "$preset")
        arch=amd64
        [[ $preset == armhf ]] && arch=armhf
        cmake --preset "$preset" >/dev/null && cmake --build --preset "$preset" || return 1
        rm -rf "$dir/packages"
        (cd "$dir" && cpack -G DEB) || return 1
        check_debs "$dir/packages" "$arch" "$ver" || return 1
        echo "--> $arch: $(cd "$dir/packages" && echo *.deb)"
        root=$(mktemp -d "${TMPDIR:-/tmp}/rix-debroot.XXXXXX")
        for d in "$dir"/packages/*.deb; do
            dpkg-deb -x "$d" "$root"
        done
        if [[ $preset == x86_64 ]]; then
            RIX_INSTALLED_PREFIX=$root/usr LD_LIBRARY_PATH=$root/usr/lib \
                bash tests/install_test.sh "$dir" "$PWD/examples/minimal_module.c" gcc || rc=1
        else
            RIX_INSTALLED_PREFIX=$root/usr bash tests/install_test.sh "$dir" "$PWD/examples/minimal_module.c" \
                arm-linux-gnueabihf-gcc "$PWD/cmake/arm-linux-gnueabihf.cmake" \
                "qemu-arm;-L;/usr/arm-linux-gnueabihf;-E;LD_LIBRARY_PATH=/usr/arm-linux-gnueabihf/lib" || rc=1
        fi
        rm -rf "$root"
        ((rc == 0)) || return 1
        echo "--> $arch: minimal module built and run against the unpacked packages"
    done
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
stage coverage coverage
stage format format_check
stage tidy tidy
stage packages packages

echo
echo "=== summary (wall time $(( $(date +%s) - t_all ))s)"
printf '%s\n' "${summary[@]}"
if ((failed)); then
    echo "=== FAILED"
    exit 1
fi
echo "=== all passed"
