#!/usr/bin/env bash
# Installs the named Debian packages that are not installed yet (apt-get update once, first).
# Quick when everything is present: one dpkg query per package, no network.
set -euo pipefail

missing=()
for pkg in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done
if ((${#missing[@]} == 0)); then
    exit 0
fi
echo "ensure-packages: installing ${missing[*]}"
sudo=()
if [[ $(id -u) -ne 0 ]]; then
    sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
