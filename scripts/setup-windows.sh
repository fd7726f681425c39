#!/usr/bin/env bash
# Installs the Debian packages of the Windows cross builds and their test runs under wine, only
# when some are missing. Quiet when all are there. Usage: scripts/setup-windows.sh
set -euo pipefail
pkgs=(cmake ninja-build g++-mingw-w64-i686 g++-mingw-w64-x86-64 binutils-mingw-w64-i686
      binutils-mingw-w64-x86-64 wine wine64 googletest nlohmann-json3-dev libcli11-dev)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "setup-windows: installing ${missing[*]}" >&2
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
