#!/usr/bin/env bash
# The Windows side: builds the 32-bit product DLL and checks its export table, then builds the
# 64-bit Windows test programs and runs them under wine64, headless, in a private wine prefix.
# Usage: scripts/test-windows.sh
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
scripts/setup-windows.sh
jobs=$(nproc)

configure() {  # preset
  [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
}

echo "== win32 build (product DLL)" >&2
configure win32
cmake --build --preset win32 -j "$jobs"

echo "== win32 export table" >&2
exports=$(i686-w64-mingw32-objdump -p build/win32/bin/vxprsr.dll |
  sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | awk '/\]/ && NR > 1 {print $NF}' | sort)
expected=$(printf '%s\n' DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer)
if [ "$exports" != "$expected" ]; then
  echo "vxprsr.dll exports differ from the four COM entry points:" >&2
  echo "$exports" >&2
  exit 1
fi
i686-w64-mingw32-objdump -f build/win32/bin/vxprsr.dll | grep -q 'file format pei-i386' || {
  echo "vxprsr.dll is not a 32-bit image" >&2
  exit 1
}

echo "== win64 build (tests)" >&2
configure win64
cmake --build --preset win64 -j "$jobs"

# AVI files for the Video for Windows tests (tests/movie/vfw), made on this side by ffmpeg with
# ffmpeg's own decode beside them; without ffmpeg the tests skip.
avi_samples() {  # folder
  local d=$1 a
  command -v ffmpeg >/dev/null || return 0
  rm -rf "$d" && mkdir -p "$d"
  ff() { ffmpeg -v error -y "$@" </dev/null; }
  src() { echo "testsrc2=s=$1:r=$2:d=$3${4:+,format=rgb24,crop=$4:0:0}"; }  # size rate seconds [crop]
  a="-f lavfi -i sine=f=440:r=48000:d=1 -f lavfi -i sine=f=660:r=48000:d=1 -filter_complex amerge=inputs=2"
  ff -f lavfi -i "$(src 98x62 30000/1001 0.3 97:61)" $a -vf vflip -pix_fmt bgr24 -c:v rawvideo \
    -flipped_raw_rgb 1 -c:a pcm_s16le -shortest "$d/bgr24_bottomup.avi"
  ff -f lavfi -i "$(src 98x62 25 0.32 97:61)" -f lavfi -i sine=f=300:r=44100:d=1 -pix_fmt bgr24 \
    -c:v rawvideo -c:a pcm_s24le -shortest "$d/bgr24_topdown.avi"
  ff -f lavfi -i "$(src 64x36 25 0.2),format=bgra" -pix_fmt bgra -c:v rawvideo "$d/bgra.avi"
  ff -f lavfi -i "$(src 160x90 25 0.28)" $a -pix_fmt uyvy422 -c:v rawvideo -c:a pcm_s24le \
    -shortest "$d/uyvy.avi"
  ff -f lavfi -i "$(src 160x90 30000/1001 0.3)" -pix_fmt yuyv422 -c:v rawvideo "$d/yuy2.avi"
  ff -f lavfi -i "$(src 160x90 25 0.2)" -pix_fmt yuv422p10le -c:v v210 "$d/v210.avi"
  ff -f lavfi -i "$(src 1280x720 25 0.12)" -pix_fmt yuv422p10le -c:v v210 "$d/v210_hd.avi"
  ff -f lavfi -i "$(src 160x90 25 0.2)" -pix_fmt yuvj422p -c:v mjpeg -q:v 2 "$d/mjpeg.avi"
  # ffmpeg's decode: the native layout (YUY2 as UYVY, v210 packed again), RGB for YCbCr.
  ff -i "$d/bgr24_bottomup.avi" -f rawvideo -pix_fmt bgr24 "$d/bgr24_bottomup.native"
  ff -i "$d/bgr24_topdown.avi" -f rawvideo -pix_fmt bgr24 "$d/bgr24_topdown.native"
  ff -i "$d/bgra.avi" -f rawvideo -pix_fmt bgra "$d/bgra.native"
  ff -i "$d/uyvy.avi" -f rawvideo -pix_fmt uyvy422 "$d/uyvy.native"
  ff -i "$d/yuy2.avi" -f rawvideo -pix_fmt uyvy422 "$d/yuy2.native"
  ff -i "$d/v210.avi" -c:v v210 -f rawvideo "$d/v210.native"
  ff -i "$d/v210_hd.avi" -c:v v210 -f rawvideo "$d/v210_hd.native"
  ff -i "$d/mjpeg.avi" -f rawvideo -pix_fmt bgra "$d/mjpeg.native"
  ff -i "$d/uyvy.avi" -f rawvideo -pix_fmt rgb24 -vf scale=in_color_matrix=bt601 "$d/uyvy.rgb"
  ff -i "$d/v210_hd.avi" -f rawvideo -pix_fmt rgb24 -vf scale=in_color_matrix=bt709 \
    "$d/v210_hd.rgb"
  ff -i "$d/bgr24_bottomup.avi" -vn -f s16le "$d/bgr24_bottomup.pcm"
  ff -i "$d/bgr24_topdown.avi" -vn -f s24le "$d/bgr24_topdown.pcm"
  ff -i "$d/uyvy.avi" -vn -f s24le "$d/uyvy.pcm"
}
echo "== AVI samples for the Video for Windows tests" >&2
avi_samples "$root/build/win64/avi-samples"
export VX_AVI_SAMPLES="$root/build/win64/avi-samples"

echo "== win64 tests under wine64" >&2
export WINEPREFIX="$root/build/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
export WINEARCH=win64 VX_NO_MSGBOX=1 DISPLAY=
wine=/usr/lib/wine/wine64
command -v wine64 >/dev/null && wine=$(command -v wine64)
server=/usr/lib/wine/wineserver64
[ -x "$server" ] || server=$(command -v wineserver)
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  "$wine" wineboot -i >/dev/null 2>&1 || true
  "$server" -w
fi
# One wine server for the whole run instead of one per test program start.
"$server" -p 2>/dev/null || true  # already running for this prefix is fine
trap '"$server" -k >/dev/null 2>&1 || true' EXIT
# The first program of a session starts wine's own background processes, which inherit its
# output; ctest reads a test program's list through a pipe and would wait for them to exit.
# Start them here, with no pipe attached; they stay while the server does.
"$wine" cmd.exe /c exit </dev/null >/dev/null 2>&1 || true
# A test program that wine fails to start at all (seen once in many runs: no output, 0.01 s)
# gets one more try; a test that fails on its own merits fails both times.
ctest --preset win64 --repeat until-pass:2

# The AVI files the Windows side wrote (tests/movie/vfw) as ffmpeg reads them: the same frames
# and sound as the decode they were written from.
written_check() {  # folder
  local d=$1 n f
  command -v ffmpeg >/dev/null && [ -f "$d/written_v210.avi" ] || return 0
  echo "== AVI files written through Video for Windows, read by ffmpeg" >&2
  for n in bgr24_topdown:bgr24 bgra:bgra v210:v210; do
    f=${n%%:*}
    if [ "${n#*:}" = v210 ]; then
      ffmpeg -v error -i "$d/written_$f.avi" -c:v v210 -f rawvideo - | cmp - "$d/$f.native"
    else
      ffmpeg -v error -i "$d/written_$f.avi" -f rawvideo -pix_fmt "${n#*:}" - | cmp - "$d/$f.native"
    fi
  done
  for f in bgr24_topdown uyvy; do
    ffmpeg -v error -i "$d/written_$f.avi" -vn -f s24le - | cmp - "$d/$f.pcm"
  done
  [ "$(ffprobe -v error -select_streams v:0 -count_frames -show_entries \
    stream=codec_name,width,height,nb_read_frames -of csv=p=0 "$d/written_uyvy.avi")" = \
    "v210,160,90,7" ] || { echo "written_uyvy.avi: not 7 v210 frames of 160x90" >&2; exit 1; }
}
written_check "$VX_AVI_SAMPLES"
