#!/usr/bin/env bash
# Packages a 5-minute 1080p 8 Mb/s H.264 + AAC MPEG-TS with fmp4mux, as fast as it can, and in the same run the
# same input with `ffmpeg -c copy -f dash`; prints both wall times, both peak resident memories and the ratios.
# fmp4mux also packages the input encrypted (Common Encryption, ClearKey signalling, the key from a key file), and
# that run's time is printed beside the clear one's: encryption should cost little.
# Usage: bench/fmp4mux_vs_ffmpeg.sh [BUILD_DIR]   (default build/release; the input is cached in BUILD_DIR)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
fmp4mux="$build/apps/fmp4mux/fmp4mux"
[ -x "$fmp4mux" ] || { echo "build fmp4mux first: ninja -C $build fmp4mux" >&2; exit 2; }
command -v /usr/bin/time >/dev/null || { echo "needs /usr/bin/time (Debian package 'time')" >&2; exit 2; }

. bench/bench_input.sh
input=$(bench_input "$build") || exit 2
size=$(stat -c %s "$input")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

measure() {  # label, command...
  local label=$1; shift
  local stats="$work/$label.time"
  /usr/bin/time -f "%e %M" -o "$stats" "$@" >/dev/null 2>"$work/$label.log" || { cat "$work/$label.log" >&2; exit 1; }
  read -r seconds kb < "$stats"
  echo "$seconds $kb"
}

# Three alternating runs of each; the best time and the largest peak memory count.
runs=${RUNS:-3}
fm_s=999999; fm_kb=0; ff_s=999999; ff_kb=0; en_s=999999; en_kb=0
printf 'key_id=00112233445566778899aabbccddeeff\nkey=2b7e151628aed2a6abf7158809cf4f3c\n' >"$work/keys"
for run in $(seq 1 "$runs"); do
  rm -rf "$work/fmp4mux" "$work/ffmpeg"
  read -r s kb < <(measure fmp4mux "$fmp4mux" -q "$input" "$work/fmp4mux")
  fm_s=$(awk -v a="$fm_s" -v b="$s" 'BEGIN{print (b < a) ? b : a}'); fm_kb=$(( kb > fm_kb ? kb : fm_kb ))
  rm -rf "$work/encrypted"
  read -r s kb < <(measure encrypted "$fmp4mux" -q --key-file "$work/keys" --drm clearkey "$input" "$work/encrypted")
  en_s=$(awk -v a="$en_s" -v b="$s" 'BEGIN{print (b < a) ? b : a}'); en_kb=$(( kb > en_kb ? kb : en_kb ))
  mkdir -p "$work/ffmpeg"
  read -r s kb < <(measure ffmpeg ffmpeg -hide_banner -loglevel error -y -i "$input" -map 0 -c copy -tag:v avc1 \
    -tag:a mp4a -f dash -seg_duration 2 "$work/ffmpeg/manifest.mpd")
  ff_s=$(awk -v a="$ff_s" -v b="$s" 'BEGIN{print (b < a) ? b : a}'); ff_kb=$(( kb > ff_kb ? kb : ff_kb ))
done

awk -v fs="$fm_s" -v fk="$fm_kb" -v gs="$ff_s" -v gk="$ff_kb" -v es="$en_s" -v ek="$en_kb" -v size="$size" 'BEGIN {
  printf "input: %.1f MB, 300 s of 1080p H.264 8 Mb/s + AAC; best of the runs\n", size / 1e6
  printf "fmp4mux:           %7.2f s  %7.1f MB peak RSS  %6.0f MB/s  %5.0fx real time\n", fs, fk / 1024, size / 1e6 / fs, 300 / fs
  printf "fmp4mux encrypted: %7.2f s  %7.1f MB peak RSS  %6.0f MB/s  %5.0fx real time\n", es, ek / 1024, size / 1e6 / es, 300 / es
  printf "ffmpeg -c copy:    %7.2f s  %7.1f MB peak RSS  %6.0f MB/s  %5.0fx real time\n", gs, gk / 1024, size / 1e6 / gs, 300 / gs
  printf "speed ratio (ffmpeg time / fmp4mux time): %.2f\n", gs / fs
  printf "encryption cost (encrypted time / clear time - 1): %+.1f %%\n", (es / fs - 1) * 100
}'
