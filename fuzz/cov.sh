#!/bin/sh
# Line and branch coverage of the library reached by a corpus, through llvm-cov:
#   bash fuzz/cov.sh TARGET [CORPUS_DIR...]   (default: the target's committed seeds)
# e.g. bash fuzz/cov.sh tblmsg_fuzz   or   bash fuzz/cov.sh mque_model_fuzz build/fuzz/corpus-mque_model_fuzz
set -eu
here=$(cd "$(dirname "$0")" && pwd)
target=${1:?target}
shift
build=${FUZZ_COV_BUILD_DIR:-$here/../build/${RIX_BUILD_PREFIX:-}fuzz-cov}
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRIX_FUZZ_COVERAGE=ON \
  -DCMAKE_C_COMPILER="${CC:-clang-14}" -DCMAKE_CXX_COMPILER="${CXX:-clang++-14}" >/dev/null
cmake --build "$build" -j2 --target "$target" >/dev/null
if [ $# -eq 0 ]; then
  case $target in
    tblmsg_fuzz) set -- "$here/corpus" ;;
    *) set -- "$here/corpus-${target%_model_fuzz}" ;;
  esac
fi
rm -f "$build"/*.profraw
LLVM_PROFILE_FILE="$build/$target.profraw" "$build/$target" -runs=0 "$@" >/dev/null 2>&1
llvm-profdata-14 merge -sparse "$build/$target.profraw" -o "$build/$target.profdata"
llvm-cov-14 report "$build/$target" -instr-profile="$build/$target.profdata" \
  "$here/../tblmsg" "$here/../smooth" "$here/../mergeque" "$here/../merge"
