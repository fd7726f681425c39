#!/usr/bin/env bash
# Installs the Debian packages the build needs, only when some are missing. Quiet when all are
# there. Usage: scripts/setup.sh [extra packages...]
set -euo pipefail
pkgs=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev libpng-dev
      nlohmann-json3-dev libcli11-dev libfmt-dev imagemagick clang libclang-rt-14-dev "$@")
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "setup: installing ${missing[*]}" >&2
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
