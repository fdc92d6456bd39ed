#!/bin/sh
# Builds the message-path fuzzer with clang, replays the seed corpus, then fuzzes for the
# given number of seconds (default 120). Any crash or sanitizer report fails the script.
# Extra arguments go to libFuzzer (e.g. -runs=10000000).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
secs=${1:-120}
[ $# -gt 0 ] && shift
build=${FUZZ_BUILD_DIR:-$here/../build/${RIX_BUILD_PREFIX:-}fuzz}
cc=${CC:-clang-14}
cxx=${CXX:-clang++-14}

cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$build" -j2 --target tblmsg_fuzz

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
fuzzer="$build/tblmsg_fuzz"
work="$build/corpus"
artifacts="$build/artifacts"
mkdir -p "$work" "$artifacts"

echo "== replaying $here/corpus"
"$fuzzer" -runs=0 "$here/corpus"

echo "== fuzzing for ${secs}s"
"$fuzzer" -max_total_time="$secs" -max_len=4096 -timeout=10 -print_final_stats=1 \
  -artifact_prefix="$artifacts/" "$@" "$work" "$here/corpus"
