#!/usr/bin/env bash
# Installs the Debian packages the build needs, only when some are missing. Quiet when all are
# there. Usage: scripts/setup.sh [extra packages...]
set -euo pipefail
pkgs=(cmake ninja-build g++ pkg-config ccache libgtest-dev libgmock-dev libbenchmark-dev
      nlohmann-json3-dev libcli11-dev libfmt-dev clang libclang-rt-14-dev
      # format libraries of the component
      libpng-dev libtiff-dev libjpeg-dev libgif-dev libtinyxml2-dev libopenjp2-7-dev
      libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev
      # peers: interop tests and benchmarks (never linked into the component)
      imagemagick openimageio-tools libopenimageio-dev libtiff-tools pngcheck ffmpeg sox
      libsndfile1-dev sndfile-programs "$@")
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
