#!/usr/bin/env bash
# Configures (once) and builds one preset: scripts/build.sh [release|asan|fuzz]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
if [ ! -f "build/$preset/build.ninja" ]; then
  cmake --preset "$preset" >/dev/null
fi
cmake --build --preset "$preset" -j "$(nproc)"
