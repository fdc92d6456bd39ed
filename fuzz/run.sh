#!/bin/sh
# Builds every fuzz target with clang (-fsanitize=fuzzer,address,undefined), replays each
# target's committed seed corpus, then fuzzes each target in turn for SECONDS (default 120).
# SECONDS is the time PER TARGET: with the two targets below, a run fuzzes for 2 x SECONDS
# (four minutes by default) plus the build. Each fuzzing run is also killed after SECONDS + 60
# so that a hang cannot hold CI. Any crash, sanitizer report, model mismatch or leak fails
# the script. Extra arguments go to every libFuzzer run (e.g. -runs=10000000).
#
#   tblmsg_fuzz      ASOrchMsgProc with a structure-aware mutator (tblmsg_mutator.cpp, its
#                    values and items in tblmsg_values.cpp); seeds in corpus/ (written by
#                    make_corpus.py)
#   mque_model_fuzz  the merge queue against a reference model (mque_model.cpp); seeds in
#                    corpus-mque/
#
# What a corpus reaches in the library, line by line: bash fuzz/cov.sh TARGET [CORPUS_DIR...]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
secs=${1:-120}
[ $# -gt 0 ] && shift
build=${FUZZ_BUILD_DIR:-$here/../build/${RIX_BUILD_PREFIX:-}fuzz}
cc=${CC:-clang-14}
cxx=${CXX:-clang++-14}
targets="tblmsg_fuzz mque_model_fuzz"

cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
# shellcheck disable=SC2086
cmake --build "$build" -j2 --target $targets

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

seeds_of() {
  case $1 in
    tblmsg_fuzz) echo "$here/corpus" ;;
    *) echo "$here/corpus-${1%_model_fuzz}" ;;
  esac
}

for t in $targets; do
  seeds=$(seeds_of "$t")
  echo "== $t: replaying $seeds"
  "$build/$t" -runs=0 "$seeds"
done

for t in $targets; do
  seeds=$(seeds_of "$t")
  work="$build/corpus-$t"
  artifacts="$build/artifacts-$t"
  mkdir -p "$work" "$artifacts"
  echo "== $t: fuzzing for ${secs}s"
  timeout "$((secs + 60))" "$build/$t" -max_total_time="$secs" -max_len=4096 -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$artifacts/" "$@" "$work" "$seeds"
done
