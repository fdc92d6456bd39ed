#!/usr/bin/env bash
# Fresh Debian 12 to a running example: installs the build tools if missing, builds the
# library and the example modules for x86_64 and runs each example.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/ensure-packages.sh cmake make g++ gcc

build=build/${RIX_BUILD_PREFIX:-}example
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRIX_BUILD_TESTS=OFF -DRIX_BUILD_EXAMPLES=ON
cmake --build "$build" -j "$(nproc)"

status=0
shopt -s nullglob
# examples/NAME.c builds program NAME, a folder examples/NAME/ program NAME_module.
names=()
for src in examples/*.c; do
    names+=("$(basename "$src" .c)")
done
for dir in examples/*/; do
    names+=("$(basename "$dir")_module")
done
for name in $(printf '%s\n' "${names[@]}" | sort); do
    echo "=== $name"
    if ! "$build/examples/$name"; then
        echo "=== $name FAILED" >&2
        status=1
    fi
done
exit $status
