#!/usr/bin/env bash
# Small AVI and MXF files for fuzz_ffmedia, one corpus folder per wrapper:
#   fuzz/seeds_avimxf.sh DIR   ->  DIR/avi, DIR/mxf
# (FFmpeg's AVI muxer writes the OpenDML super index into every seekable file.) Then e.g. build/fuzz/bin/fuzz_ffmedia DIR/avi -max_total_time=600
set -euo pipefail
dir=${1:?usage: seeds_avimxf.sh DIR}
mkdir -p "$dir/avi" "$dir/mxf"
pic() { echo "-f lavfi -i testsrc2=size=$1:rate=$2"; }
snd="-f lavfi -i sine=sample_rate=48000"
make() {  # make OUT ARGS...
  local out=$1
  shift
  ffmpeg -v error -y "$@" "$out"
}
t="-t 0.12"
make "$dir/avi/raw_bgr24.avi" $(pic 34x18 25) $t -c:v rawvideo -pix_fmt bgr24
make "$dir/avi/raw_bgra_pcm.avi" $(pic 32x16 25) $snd $t -c:v rawvideo -pix_fmt bgra -c:a pcm_s16le
make "$dir/avi/uyvy.avi" $(pic 32x16 25) $t -c:v rawvideo -pix_fmt uyvy422
make "$dir/avi/yuy2.avi" $(pic 32x16 25) $t -c:v rawvideo -pix_fmt yuyv422
make "$dir/avi/v210.avi" $(pic 48x8 25) $snd $t -c:v v210 -c:a pcm_s24le -ac 3
make "$dir/avi/mjpeg.avi" $(pic 64x32 25) $snd $t -c:v mjpeg -c:a pcm_s16le
make "$dir/avi/dv.avi" $(pic 720x576 25) -t 0.04 -c:v dvvideo -pix_fmt yuv420p
make "$dir/avi/ffv1.avi" $(pic 40x24 25) $t -c:v ffv1
make "$dir/mxf/op1a_dnxhr.mxf" $(pic 256x120 25) $snd $t -c:v dnxhd -profile:v dnxhr_lb \
  -pix_fmt yuv422p -c:a pcm_s16le -timecode 01:00:00:00
make "$dir/mxf/op1a_mpeg2.mxf" $(pic 64x32 30000/1001) $snd $t -c:v mpeg2video -g 3 -bf 1 \
  -c:a pcm_s24le -ac 2 -timecode '00:59:59;28'
make "$dir/mxf/opatom_video.mxf" $(pic 256x120 25) $t -c:v dnxhd -profile:v dnxhr_lb \
  -pix_fmt yuv422p -f mxf_opatom
make "$dir/mxf/opatom_sound.mxf" $snd $t -c:a pcm_s24le -ac 1 -r 25 -f mxf_opatom
make "$dir/mxf/op1a_jpeg2000.mxf" $(pic 32x16 25) $t -c:v jpeg2000 -pix_fmt yuv422p
make "$dir/mxf/op1a_h264.mxf" $(pic 64x32 25) $t -c:v libx264 -g 2 -bf 0 -pix_fmt yuv422p10
ls -l "$dir/avi" "$dir/mxf"
