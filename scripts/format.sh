#!/usr/bin/env bash
# Checks or applies the house style (.clang-format, clang-format 14) on the tracked C and C++ sources.
# Usage: format.sh --check   report every deviation, exit 1 when there is one
#        format.sh --fix     reformat the files in place
#        format.sh --count   how many lines and files --fix would change
# Environment: CLANG_FORMAT names the binary (default clang-format-14, else clang-format).
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:---check}
cf=${CLANG_FORMAT:-$(command -v clang-format-14 || command -v clang-format || true)}
[[ -n $cf ]] || { echo "format.sh: clang-format not found" >&2; exit 2; }

if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    mapfile -t files < <(git ls-files -- '*.c' '*.cpp' '*.h' '*.hpp')
else
    mapfile -t files < <(find . -path ./build -prune -o -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.h' \) -print)
fi

case $mode in
    --check)
        echo "format.sh: $($cf --version), ${#files[@]} files"
        out=$(printf '%s\0' "${files[@]}" | xargs -0 -n 16 "$cf" --dry-run -Werror --style=file 2>&1) && rc=0 || rc=$?
        if ((rc != 0)); then
            printf '%s\n' "$out"
            bad=$(printf '%s\n' "$out" | sed -n 's/^\([^: ]*\):[0-9]*:[0-9]*: error: .*clang-format-violations.*/\1/p' | sort -u)
            echo "--> format: $(grep -c . <<<"$bad") of ${#files[@]} files differ from .clang-format; scripts/format.sh --fix reformats them:"
            printf '%s\n' "$bad" | head -n 20 | sed 's/^/-->   /'
            exit 1
        fi
        echo "format.sh: all files formatted"
        ;;
    --fix)
        printf '%s\0' "${files[@]}" | xargs -0 -n 16 "$cf" -i --style=file
        ;;
    --count)
        lines=0 changed=0
        for f in "${files[@]}"; do
            n=$("$cf" --style=file "$f" | diff -U0 "$f" - | grep -c '^-\([^-]\|$\)' || true)
            if ((n > 0)); then
                echo "$n $f"
                lines=$((lines + n)) changed=$((changed + 1))
            fi
        done
        echo "format.sh: --fix would change $lines lines in $changed of ${#files[@]} files"
        ;;
    *)
        echo "usage: $0 --check|--fix|--count" >&2
        exit 2
        ;;
esac
