#!/usr/bin/env bash
# The main job: build if needed, then drive the component through vxhost as a host would, on a
# samples generated here (a 10-bit DPX written by ImageMagick, then a numbered sequence of ours;
# a Broadcast Wave take written by FFmpeg, then AIFC and WAV of ours).
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

ffmpeg -v error -f lavfi -i "sine=f=440:d=3:r=48000" -af "afade=t=out:st=1:d=2" -ac 2 \
  -c:a pcm_s24le -write_bext 1 -metadata description="Scene 4 take 2" \
  -metadata originator=Recorder -metadata time_reference=172800000 take.wav
step info take.wav --rate 24
step convert take.wav take.aif
step convert take.aif roundtrip.wav
step thumbnail take.wav waveform.png --size 320
echo
echo "Sample files and the thumbnails are in $work"
