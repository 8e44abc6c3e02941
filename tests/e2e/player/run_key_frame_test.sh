#!/usr/bin/env bash
# End-to-end check of sync samples: fmp4mux packages an H.264 or HEVC input (closed GOPs of 25 frames with B
# frames, made with ffmpeg) into DASH, and two readers other than ours must find exactly the source's key frames
# as sync samples in the result, and a last sample of one frame's duration:
#   - ffprobe: the key flags of the packets (decode order) and the key_frame of the decoded frames;
#   - mp4box.js: the sync samples of the track, and the duration of its last sample.
#
#   bash tests/e2e/player/run_key_frame_test.sh BUILD_DIR h264|hevc
set -euo pipefail

fail() { echo "run_key_frame_test: FAIL: $*" >&2; exit 1; }

[ $# -eq 2 ] || { echo "usage: $0 BUILD_DIR h264|hevc" >&2; exit 2; }
BUILD_DIR=$(cd "$1" && pwd) || fail "no build folder $1"
CODEC=$2
case "$CODEC" in
  h264) ENCODE=(-c:v libx264 -preset veryfast -g 25 -keyint_min 25 -sc_threshold 0 -bf 2) ;;
  hevc) ENCODE=(-c:v libx265 -preset veryfast -x265-params "keyint=25:min-keyint=25:scenecut=0:open-gop=0:bframes=2:log-level=error") ;;
  *) echo "run_key_frame_test: unknown codec '$CODEC' (h264 or hevc)" >&2; exit 2 ;;
esac
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
FMP4MUX="$BUILD_DIR/apps/fmp4mux/fmp4mux"
[ -x "$FMP4MUX" ] || fail "$FMP4MUX is not built"
command -v ffprobe >/dev/null || fail "ffprobe is missing: run scripts/install-deps.sh"
. "$HERE/npm_packages.sh"
install_npm_packages "$HERE"

OUT=$(mktemp -d "${TMPDIR:-/tmp}/fmp4mux-keyframes-$CODEC.XXXXXX")
trap 'rm -rf "$OUT"' EXIT

ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=f=440:r=48000 \
  -t 6 "${ENCODE[@]}" -c:a aac -f mpegts "$OUT/input.ts" || fail "ffmpeg could not make the input"
timeout 60 "$FMP4MUX" -q "$OUT/input.ts" "$OUT/out" 2>"$OUT/log" || fail "fmp4mux exited with $?: $(cat "$OUT/log")"

# The video representation as one file: its init segment, then its media segments in time order.
init=$(find "$OUT/out" -name init.mp4 -path '*video*' | head -n 1)
[ -n "$init" ] || fail "no video init segment in $OUT/out"
folder=$(dirname "$init")
{ cat "$init"; find "$folder" -name 'chunk_*.mp4' | sort -t_ -k2 -n | xargs cat; } >"$OUT/video.mp4"

# Indices of the key packets (decode order) and key frames (presentation order), and the count of each.
key_packets() {
  ffprobe -v error -select_streams v:0 -show_entries packet=flags -of csv=p=0 "$1" |
    awk '/^[K_]/ { if (substr($0, 1, 1) == "K") k = k " " n + 0; n++ } END { print n + 0 ":" k }'
}
key_frames() {
  ffprobe -v error -select_streams v:0 -show_entries frame=key_frame -of csv=p=0 "$1" |
    awk -F, '/^[01]/ { if ($1 == 1) k = k " " n + 0; n++ } END { print n + 0 ":" k }'
}
source_packets=$(key_packets "$OUT/input.ts")
output_packets=$(key_packets "$OUT/video.mp4")
echo "run_key_frame_test: key packets of the source: $source_packets"
[ "$output_packets" = "$source_packets" ] || fail "ffprobe finds key packets $output_packets in the output"
source_frames=$(key_frames "$OUT/input.ts")
output_frames=$(key_frames "$OUT/video.mp4")
[ "$output_frames" = "$source_frames" ] || fail "ffprobe decodes key frames $output_frames, the source has $source_frames"

read_by_mp4box=$(node "$HERE/sync_samples.mjs" "$OUT/video.mp4") || fail "mp4box.js could not read the output"
echo "run_key_frame_test: mp4box.js: $read_by_mp4box"
mp4box_sync=$(node -e 'const r = JSON.parse(process.argv[1]); console.log(r.samples + ":" + r.sync.map((i) => " " + i).join(""))' "$read_by_mp4box")
[ "$mp4box_sync" = "$source_packets" ] || fail "mp4box.js finds sync samples $mp4box_sync, the source has key frames $source_packets"
node -e 'const r = JSON.parse(process.argv[1]); process.exit(r.lastDuration * 25 === r.timescale ? 0 : 1)' "$read_by_mp4box" ||
  fail "the last sample does not last one frame (1/25 s): $read_by_mp4box"
echo "run_key_frame_test: PASS ($CODEC)"
