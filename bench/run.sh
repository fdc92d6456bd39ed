#!/usr/bin/env bash
# Builds the bench preset (Release) and prints, in one run:
#   - the merge queue against Boost.MultiIndex (sequenced + hashed_unique), Boost.MI with a
#     boost::pool for its nodes and std::unordered_map + std::list: peer's time / queue's time,
#     min/median/max over interleaved repetitions, 1K/64K/1M keys, skewed and uniform, and the
#     heap bytes per pending entry of each;
#   - the queue's share of a pending entry split into the record's private copy, the queue entry
#     and the hash node, with malloc's and the pool's rounding (heap_probe);
#   - the whole road's records/s at 0/50/90% coalescing with allocations and msgProc calls per
#     record;
#   - with valgrind: instructions per record by object (library, platform stand-ins, libc,
#     other) and the top functions per coalescing level, and instructions per write of the
#     queue and its peers at 64K uniform keys.
# Times are CPU times of a shared machine: compare ratios from one run and instruction counts,
# not absolute times across runs.
#
# Usage: bench/run.sh [--quick] [--against <git-ref>] [--armhf] [--no-valgrind] [--reps N] [--keep DIR]
#   --quick         1K and 64K keys only, fewer and shorter repetitions (about half a minute once
#                   built, valgrind included)
#   --against REF   also builds REF in a scratch worktree (git worktree add in a temp dir, its
#                   own bench preset there) and measures both builds in the same run, the runs
#                   of the two alternating, then prints a before/after table (REF first). The
#                   bench programs measured for REF are THIS tree's bench/ sources compiled
#                   against REF's library and platform stand-ins, so both sides run the same
#                   workloads and counters; should they not build against REF's headers, REF's
#                   own bench/ is used and only what its programs report is shown.
#   --armhf         also cross-builds heap_probe with the library for armhf (Release), runs it
#                   under qemu-arm and lists the functions of the library and the platform
#                   stand-ins that call a software division routine (__aeabi_*div*)
#   --no-valgrind   leaves out the instruction counts
#   --reps N        repetitions per program run (default 5, quick 3)
#   --keep DIR      keeps the raw results (JSON, callgrind files) in DIR
set -euo pipefail

SRC=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
QUICK=0
AGAINST=""
VALGRIND=1
ARMHF=0
REPS=""
KEEP=""
while [[ $# -gt 0 ]]; do
    case "$1" in
    --quick) QUICK=1 ;;
    --against) AGAINST=${2:?--against needs a git ref}; shift ;;
    --no-valgrind) VALGRIND=0 ;;
    --armhf) ARMHF=1 ;;
    --reps) REPS=${2:?--reps needs a number}; shift ;;
    --keep) KEEP=${2:?--keep needs a directory}; shift ;;
    -h | --help) sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
    esac
    shift
done
if [[ $VALGRIND == 1 ]] && ! command -v valgrind >/dev/null; then
    echo "valgrind not found: no instruction counts" >&2
    VALGRIND=0
fi
if [[ $QUICK == 1 ]]; then
    REPS=${REPS:-3}; MIN_TIME=0.05; KEYS=(1024 65536); CG_MIN_TIME=0.1
else
    REPS=${REPS:-5}; MIN_TIME=0.1; KEYS=(1024 65536 1048576); CG_MIN_TIME=0.5
fi

START=$(date +%s)
WORK=$(mktemp -d "${TMPDIR:-/tmp}/rix-bench.XXXXXX")
SCRATCH=""
cleanup() {
    if [[ -n $SCRATCH ]]; then
        git -C "$SRC" worktree remove --force "$SCRATCH/src" >/dev/null 2>&1 || true
        git -C "$SRC" worktree prune >/dev/null 2>&1 || true
    fi
    if [[ -n $KEEP ]]; then
        mkdir -p "$KEEP" && cp -r "$WORK"/. "$KEEP"/
    fi
    rm -rf "$WORK" ${SCRATCH:+"$SCRATCH"}
}
trap cleanup EXIT

TARGETS=(e2e_bench mergeque_bench heap_probe)

# build <source dir> <log> <target>...: configures the bench preset of that tree and builds each
# target on its own (one that does not build leaves the others); prints the binary directory.
build() {
    local src=$1 log=$2 t
    shift 2
    (cd "$src" && cmake --preset bench) >>"$log" 2>&1 || return 1
    for t in "$@"; do
        (cd "$src" && cmake --build --preset bench --target "$t") >>"$log" 2>&1 || echo "$t: not built" >>"$log"
    done
    echo "$src/build/${RIX_BUILD_PREFIX:-}bench/bench"
}
missing() {
    local dir=$1 t
    shift
    for t in "$@"; do [[ -x $dir/$t ]] || echo "$t"; done
}

# build_armhf <source dir> <log>: heap_probe and the libraries for armhf; prints the build tree.
build_armhf() {
    local src=$1 log=$2 dir="$1/build/${RIX_BUILD_PREFIX:-}bench-armhf"
    (cmake -S "$src" -B "$dir" --toolchain "$src/cmake/arm-linux-gnueabihf.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DRIX_BUILD_BENCH=ON -DRIX_BUILD_TESTS=OFF -DRIX_BUILD_EXAMPLES=OFF &&
        cmake --build "$dir" -j2 --target heap_probe) >"$log" 2>&1 || return 1
    echo "$dir"
}

declare -A BIN
declare -A ARM
LABELS=()
echo "building the bench preset of $SRC ..." >&2
HEAD_LABEL="$(git -C "$SRC" rev-parse --short HEAD 2>/dev/null || echo tree)"
[[ -n $(git -C "$SRC" status --porcelain 2>/dev/null) ]] && HEAD_LABEL="$HEAD_LABEL+changes"
BIN[$HEAD_LABEL]=$(build "$SRC" "$WORK/build-head.log" "${TARGETS[@]}") || true
if [[ -z ${BIN[$HEAD_LABEL]} || -n $(missing "${BIN[$HEAD_LABEL]}" "${TARGETS[@]}") ]]; then
    tail -30 "$WORK/build-head.log" >&2
    exit 1
fi

if [[ -n $AGAINST ]]; then
    REF_SHA=$(git -C "$SRC" rev-parse --short "$AGAINST^{commit}")
    REF_LABEL="$REF_SHA"
    [[ $REF_LABEL == "${HEAD_LABEL%+changes}" ]] && REF_LABEL="$REF_SHA(ref)"
    SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/rix-bench-ref.XXXXXX")
    echo "building $AGAINST ($REF_SHA) in $SCRATCH/src with this tree's bench/ ..." >&2
    git -C "$SRC" worktree add --detach "$SCRATCH/src" "$REF_SHA" >/dev/null 2>&1
    rm -rf "$SCRATCH/src/bench"
    cp -r "$SRC/bench" "$SCRATCH/src/bench"
    rm -rf "$SCRATCH/src/bench/__pycache__"
    BIN[$REF_LABEL]=$(build "$SCRATCH/src" "$WORK/build-ref.log" "${TARGETS[@]}") || {
        tail -30 "$WORK/build-ref.log" >&2
        exit 1
    }
    if [[ $ARMHF == 1 ]]; then
        ARM[$REF_LABEL]=$(build_armhf "$SCRATCH/src" "$WORK/build-ref-armhf.log") ||
            echo "armhf build of $REF_SHA failed (see --keep DIR/build-ref-armhf.log)" >&2
    fi
    mapfile -t LEFT < <(missing "${BIN[$REF_LABEL]}" "${TARGETS[@]}")
    if [[ ${#LEFT[@]} -gt 0 ]]; then
        # The programs this tree's sources cannot build against REF come from REF's own bench/.
        echo "not built from this tree's bench/ against $REF_SHA: ${LEFT[*]}; trying $REF_SHA's own" >&2
        git -C "$SCRATCH/src" checkout -q -- bench
        git -C "$SCRATCH/src" clean -fdq bench
        OWN=()
        for t in "${LEFT[@]}"; do [[ -f $SCRATCH/src/bench/$t.cpp ]] && OWN+=("$t"); done
        [[ ${#OWN[@]} -gt 0 ]] && { build "$SCRATCH/src" "$WORK/build-ref.log" "${OWN[@]}" >/dev/null || true; }
        for t in "${LEFT[@]}"; do
            if [[ -x ${BIN[$REF_LABEL]}/$t ]]; then
                echo "  $t: $REF_SHA's own source (its figures may lack counters)" >&2
            else
                echo "  $t: not measured for $REF_SHA" >&2
            fi
        done
    fi
    LABELS=("$REF_LABEL" "$HEAD_LABEL")
else
    LABELS=("$HEAD_LABEL")
fi
if [[ $ARMHF == 1 ]]; then
    ARM[$HEAD_LABEL]=$(build_armhf "$SRC" "$WORK/build-head-armhf.log") ||
        echo "armhf build failed (see --keep DIR/build-head-armhf.log)" >&2
fi
for l in "${LABELS[@]}"; do mkdir -p "$WORK/$l"; done
echo "built in $(($(date +%s) - START)) s" >&2

# Runs of the builds alternate, in the opposite order each time, so a busy stretch of the
# machine falls on both.
ORDER_FLIP=0
each_build() {
    local ls=("${LABELS[@]}")
    if [[ $ORDER_FLIP == 1 && ${#ls[@]} == 2 ]]; then ls=("${ls[1]}" "${ls[0]}"); fi
    ORDER_FLIP=$((1 - ORDER_FLIP))
    for l in "${ls[@]}"; do "$@" "$l"; done
}

run_heap() {
    local l=$1
    [[ -x ${BIN[$l]}/heap_probe ]] || return 0
    "${BIN[$l]}/heap_probe" "${KEYS[@]}" >"$WORK/$l/heap.txt" 2>&1 || echo "heap_probe of $l failed" >&2
}
run_mq() {
    local keys=$1 l=$2
    [[ -x ${BIN[$l]}/mergeque_bench ]] || return 0
    "${BIN[$l]}/mergeque_bench" --benchmark_filter="/keys:$keys/" --benchmark_repetitions="$REPS" \
        --benchmark_enable_random_interleaving=true --benchmark_min_time="$MIN_TIME" \
        --benchmark_out="$WORK/$l/mq-$keys.json" --benchmark_out_format=json >/dev/null 2>&1 ||
        echo "mergeque_bench of $l at $keys keys failed" >&2
}
run_e2e() {
    local l=$1
    [[ -x ${BIN[$l]}/e2e_bench ]] || return 0
    "${BIN[$l]}/e2e_bench" --benchmark_repetitions="$REPS" --benchmark_enable_random_interleaving=true \
        --benchmark_min_time="$MIN_TIME" \
        --benchmark_out="$WORK/$l/e2e-1.json" --benchmark_out_format=json >/dev/null 2>&1 ||
        echo "e2e_bench of $l failed" >&2
}
run_cg_road() {
    local pct=$1 l=$2
    [[ -x ${BIN[$l]}/e2e_bench ]] || return 0
    # Only ASOrchMsgProc and the drain are collected; the records fed by every run of the
    # process (those that size the iteration count too) divide the total.
    valgrind --tool=callgrind --callgrind-out-file="$WORK/$l/cg-road-$pct.out" \
        --toggle-collect=ASOrchMsgProc --toggle-collect=RIX_TEST_EalRunUntilIdle \
        "${BIN[$l]}/e2e_bench" --benchmark_filter="coalesce_pct:$pct\$" --benchmark_min_time="$CG_MIN_TIME" \
        >/dev/null 2>"$WORK/$l/cg-road-$pct.records" || echo "callgrind of $l at $pct% failed" >&2
}
run_cg_mq() {
    local l=$1 filter='BM_(MergeQue|BoostMultiIndex|BoostMultiIndexPool|StdMapList)/keys:65536/skewed:0'
    [[ $QUICK == 1 ]] && filter='BM_(MergeQue|BoostMultiIndex)/keys:65536/skewed:0'
    [[ -x ${BIN[$l]}/mergeque_bench ]] || return 0
    valgrind --tool=callgrind --callgrind-out-file="$WORK/$l/cg-mq.out" \
        --toggle-collect='RixBenchRound_*' "${BIN[$l]}/mergeque_bench" --benchmark_filter="$filter" \
        --benchmark_min_time=0.05 >/dev/null 2>"$WORK/$l/cg-mq.writes" || echo "callgrind of $l's queue failed" >&2
}

# armhf: the probe under qemu, and which functions call a software division routine.
run_armhf() {
    local l=$1 dir=${ARM[$1]:-}
    [[ -n $dir && -x $dir/bench/heap_probe ]] || return 0
    qemu-arm -L /usr/arm-linux-gnueabihf -E LD_LIBRARY_PATH=/usr/arm-linux-gnueabihf/lib \
        "$dir/bench/heap_probe" "${KEYS[@]:0:2}" >"$WORK/$l/heap-armhf.txt" 2>&1 ||
        echo "armhf heap_probe of $l failed" >&2
    local lib
    for lib in "$dir"/librix_autosync_orch.so.*.*.* "$dir"/platform/librix_utils_*.so.*.*.*; do
        [[ -f $lib ]] || continue
        arm-linux-gnueabihf-objdump -dC --no-show-raw-insn "$lib" |
            awk -v lib="$(basename "$lib")" '/^[0-9a-f]+ <.*>:$/ { fn = substr($0, index($0, "<") + 1); sub(/>:$/, "", fn) }
                /[ \t](bl|blx|b)[ \t].*<__aeabi_[a-z0-9]*div[a-z0-9]*(@plt)?>/ { r = $NF; gsub(/[<>]/, "", r); print lib "\t" fn "\t" r }' |
            sort -u
    done >"$WORK/$l/armhf-div.txt"
}

t=$(date +%s)
each_build run_heap
[[ $ARMHF == 1 ]] && each_build run_armhf
echo "heap probe: $(($(date +%s) - t)) s" >&2
t=$(date +%s)
for keys in "${KEYS[@]}"; do each_build run_mq "$keys"; done
echo "merge queue runs: $(($(date +%s) - t)) s" >&2
t=$(date +%s)
each_build run_e2e
echo "road runs: $(($(date +%s) - t)) s" >&2
if [[ $VALGRIND == 1 ]]; then
    t=$(date +%s)
    for pct in 0 50 90; do each_build run_cg_road "$pct"; done
    each_build run_cg_mq
    echo "callgrind runs: $(($(date +%s) - t)) s" >&2
fi

echo "machine: $(uname -m), $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'),"\
    "load average $(cut -d' ' -f1-3 /proc/loadavg) at the end"
echo "run: bench/run.sh $([[ $QUICK == 1 ]] && echo '--quick ')${AGAINST:+--against $AGAINST }(repetitions $REPS," \
    "min time $MIN_TIME s each)"
echo
python3 "$SRC/bench/report.py" "$WORK" "${LABELS[@]}"
echo "wall time: $(($(date +%s) - START)) s"
