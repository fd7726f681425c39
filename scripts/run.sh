#!/usr/bin/env bash
# The main job: build if needed, then drive the component through vxhost as a host would, on a
# sample generated here (a 10-bit DPX written by ImageMagick, then a numbered sequence of ours).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release >/dev/null
vxhost=$PWD/build/release/bin/vxhost
work=$PWD/build/release/sample
rm -rf "$work" && mkdir -p "$work"
export VXHOST_REGISTRY=${VXHOST_REGISTRY:-$work/registry.json}
cd "$work"
step() { printf '\n$ vxhost %s\n' "$*"; "$vxhost" "$@"; }

convert -size 640x360 gradient:orange-navy -depth 10 sample.dpx
step formats
step info sample.dpx
step report sample.dpx
for i in 1 2 3; do "$vxhost" convert -q sample.dpx "plate.000$i.dpx" --depth 12 --packing a; done
step convert plate.####.dpx out.####.dpx --depth 16 --layout planar-rgb --endian little
step info out.0002.dpx
step thumbnail out.####.dpx thumb.png --frame 1 --size 160
echo
echo "Sample files and the thumbnail are in $work"
