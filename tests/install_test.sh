#!/usr/bin/env bash
# Installs a build tree into a temporary prefix, checks what landed there, and builds and runs
# an example module and tests/newcomer_module.c (a module written from the README and headers
# alone) against the installed tree through find_package and through pkg-config.
# Usage: install_test.sh BUILD_DIR EXAMPLE_C C_COMPILER [TOOLCHAIN_FILE] [EMULATOR] [SANITIZERS]
# With RIX_INSTALLED_PREFIX set, nothing is installed: the checks and builds run against that
# prefix (e.g. the usr/ of the Debian packages unpacked into a scratch root).
set -euo pipefail

build=$1 example=$2 cc=$3 toolchain=${4:-} emulator=${5:-} sanitize=${6:-}
newcomer=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/newcomer_module.c
work=$(mktemp -d "${TMPDIR:-/tmp}/rix-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "install_test: $*" >&2; exit 1; }

# Emulator and sanitizer flags arrive as CMake lists.
IFS=';' read -r -a emu <<<"$emulator"
san_flags=()
if [[ -n $sanitize ]]; then
    san_flags=(-fsanitize="${sanitize//;/,}" -fno-omit-frame-pointer)
fi

if [[ -n ${RIX_INSTALLED_PREFIX:-} ]]; then
    prefix=$RIX_INSTALLED_PREFIX
else
    cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "cmake --install failed"; }
fi

libdir=$(cd "$prefix" && dirname "$(find . -name 'librix_autosync_orch.so' | head -n1)")
[[ $libdir != . && -n $libdir ]] || fail "librix_autosync_orch.so not installed"
libdir=$prefix/${libdir#./}
[[ -L $libdir/librix_autosync_orch.so ]] || fail "librix_autosync_orch.so is not a link"
soname_link=$(readlink "$libdir/librix_autosync_orch.so")
[[ $soname_link == librix_autosync_orch.so.1 ]] || fail "librix_autosync_orch.so points at $soname_link"
[[ $(readlink "$libdir/librix_autosync_orch.so.1") == librix_autosync_orch.so.1.0.0 ]] || fail "bad SONAME link"
[[ -f $libdir/librix_autosync_orch.so.1.0.0 ]] || fail "library file missing"
for lib in rix_utils_base rix_utils_eal rix_utils_smooth; do
    [[ -L $libdir/lib$lib.so && -e $libdir/lib$lib.so ]] || fail "platform library lib$lib.so missing"
done
for h in rix_autosync_orch.h rix_as_common.h rix_mergeque.h; do
    [[ -f $prefix/include/rix_autosync_orch/$h ]] || fail "header $h not installed"
done
[[ -f $prefix/include/rix_platform/rix_platform_test.h ]] || fail "platform headers not installed"
[[ -f $libdir/cmake/rix_autosync_orch/rix_autosync_orch-config.cmake ]] || fail "CMake package not installed"
[[ -f $libdir/pkgconfig/rix_autosync_orch.pc && -f $libdir/pkgconfig/rix_platform.pc ]] || fail "pkg-config files not installed"

# run NAME BINARY: runs it and expects its "NAME: ok" line.
run() {
    "${emu[@]}" "$2" >"$work/run.log" 2>&1 || { cat "$work/run.log"; fail "$2 failed"; }
    grep -q "^$1: ok" "$work/run.log" || { cat "$work/run.log"; fail "$2 did not report ok"; }
}

# find_package
mkdir -p "$work/consumer"
cat >"$work/consumer/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(rix_consumer C)
find_package(rix_autosync_orch 1.0 REQUIRED COMPONENTS platform)
add_executable(minimal_module "$example")
target_link_libraries(minimal_module PRIVATE rix_autosync_orch::rix_autosync_orch rix_autosync_orch::rix_utils_base)
add_executable(newcomer_module "$newcomer")
set_target_properties(newcomer_module PROPERTIES C_STANDARD 11 C_EXTENSIONS OFF)
target_compile_options(newcomer_module PRIVATE -Wall -Wextra -Werror)
target_link_libraries(newcomer_module PRIVATE rix_autosync_orch::rix_autosync_orch)
CMAKE
cfg=(-S "$work/consumer" -B "$work/consumer/build" -DCMAKE_C_COMPILER="$cc")
if [[ -n $toolchain ]]; then
    # A cross build searches packages only below its sysroot: name the package directory.
    cfg+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -Drix_autosync_orch_DIR="$libdir/cmake/rix_autosync_orch")
else
    cfg+=(-DCMAKE_PREFIX_PATH="$prefix")
fi
if ((${#san_flags[@]})); then
    cfg+=(-DCMAKE_C_FLAGS="${san_flags[*]}" -DCMAKE_EXE_LINKER_FLAGS="${san_flags[*]}")
fi
cmake "${cfg[@]}" >"$work/consumer.log" 2>&1 || { cat "$work/consumer.log"; fail "find_package consumer did not configure"; }
cmake --build "$work/consumer/build" >>"$work/consumer.log" 2>&1 || { cat "$work/consumer.log"; fail "find_package consumer did not build"; }
run minimal_module "$work/consumer/build/minimal_module"
run newcomer_module "$work/consumer/build/newcomer_module"
echo "install_test: find_package build ok"

# pkg-config, searching only the installed tree
export PKG_CONFIG_LIBDIR=$libdir/pkgconfig PKG_CONFIG_PATH=
flags=$(pkg-config --cflags --libs rix_autosync_orch rix_platform) || fail "pkg-config does not know the packages"
# shellcheck disable=SC2086
"$cc" -std=c11 -Wall -Wextra -Werror "${san_flags[@]}" "$example" $flags -Wl,-rpath,"$libdir" \
    -o "$work/minimal_pc" || fail "pkg-config build failed"
run minimal_module "$work/minimal_pc"
# The orchestrator's package alone must bring the platform's headers and libraries along.
orch_flags=$(pkg-config --cflags --libs rix_autosync_orch) || fail "pkg-config does not resolve rix_autosync_orch alone"
[[ $orch_flags == *"/include/rix_platform"* ]] || fail "rix_autosync_orch.pc does not bring the platform's headers: $orch_flags"
# shellcheck disable=SC2086
"$cc" -std=c11 -Wall -Wextra -Werror "${san_flags[@]}" "$newcomer" $orch_flags \
    -Wl,-rpath,"$(pkg-config --variable=libdir rix_autosync_orch)" -o "$work/newcomer_pc" ||
    fail "pkg-config build of the newcomer module failed"
run newcomer_module "$work/newcomer_pc"
echo "install_test: pkg-config build ok"
