#!/usr/bin/env bash
# Runs every test: a normal build, an AddressSanitizer + UBSan build (halt on first error), then
# the Windows builds: the 32-bit product DLL's export table and the whole suite under wine64.
# VX_SKIP_WINDOWS=1 leaves the Windows part out.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
for preset in release asan; do
  echo "== $preset build" >&2
  scripts/build.sh "$preset"
  echo "== $preset tests" >&2
  ctest --preset "$preset" -LE long  # "long" tests write gigabytes; run them by hand
done
if [ "${VX_SKIP_WINDOWS:-0}" != 1 ]; then
  scripts/test-windows.sh
fi
