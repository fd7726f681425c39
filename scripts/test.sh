#!/usr/bin/env bash
# Runs every test: a normal build, then an AddressSanitizer + UBSan build (halt on first error).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
for preset in release asan; do
  echo "== $preset build" >&2
  scripts/build.sh "$preset"
  echo "== $preset tests" >&2
  ctest --preset "$preset"
done
