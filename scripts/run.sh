#!/usr/bin/env bash
# The main job: build if needed, then drive the component through vxhost on generated samples.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release >/dev/null
bin=build/release/bin
export VXHOST_REGISTRY=${VXHOST_REGISTRY:-$PWD/build/release/registry.json}
"$bin/vxhost" --help
"$bin/vxhost" formats
