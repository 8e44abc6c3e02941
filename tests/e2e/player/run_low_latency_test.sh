#!/usr/bin/env bash
# Low-latency live end-to-end test: fmp4mux packages the sample (video, made 30 fps with 2 s GOPs and looped to
# 50 s by ffmpeg: 500 ms are 15 frames) in the low-latency mode, paced as a live source (--realtime), in 2 s
# segments of 500 ms chunks, and serves it itself (--serve on 127.0.0.1). dash.js in headless Chromium plays it in
# low-latency mode for 30 s; its own live-latency figure must stay under 3 s without a stall (play.mjs prints it).
# With hls: LL-HLS (partial segments as byte ranges of the growing segment, blocking playlist reload), played by
# hls.js in its low-latency mode under the same limits; the origin answers a part's byte range with 206 and that
# many bytes, and a reload more than two segments ahead with 400.
#
#   bash tests/e2e/player/run_low_latency_test.sh BUILD_DIR [dash|hls]
set -euo pipefail

fail() { echo "run_low_latency_test: FAIL: $*" >&2; exit 1; }
[ $# -ge 1 ] && [ $# -le 2 ] || { echo "usage: $0 BUILD_DIR [dash|hls]" >&2; exit 2; }
FORMAT=${2:-dash}
case "$FORMAT" in dash) MANIFEST=manifest.mpd ;; hls) MANIFEST=master.m3u8 ;; *) echo "unknown format $FORMAT" >&2; exit 2 ;; esac
BUILD_DIR=$(cd "$1" && pwd) || fail "no build folder $1"
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(cd "$HERE/../../.." && pwd)
FMP4MUX="$BUILD_DIR/apps/fmp4mux/fmp4mux"
[ -x "$FMP4MUX" ] || fail "$FMP4MUX is not built"
command -v ffmpeg >/dev/null || fail "ffmpeg is missing: run scripts/install-deps.sh"

. "$HERE/npm_packages.sh"
install_npm_packages "$HERE"

OUT=$(mktemp -d "${TMPDIR:-/tmp}/fmp4mux-e2e-ll.XXXXXX")
PID=
cleanup() {
  if [ -n "$PID" ]; then kill "$PID" 2>/dev/null || true; wait "$PID" 2>/dev/null || true; fi
  rm -rf "$OUT"
}
trap cleanup EXIT

ffmpeg -v error -stream_loop 4 -i "$ROOT/samples/sample.ts" -an -vf fps=30 -c:v libx264 -preset veryfast -g 60 \
  -keyint_min 60 -sc_threshold 0 -force_key_frames "expr:gte(t,n_forced*2)" -f mpegts "$OUT/input.ts" || fail "ffmpeg could not make the input"

"$FMP4MUX" -q -f "$FORMAT" -m low-latency -g 2000 --chunk-duration 500 --realtime --serve 127.0.0.1:0 "$OUT/input.ts" "$OUT/out" \
  2>"$OUT/fmp4mux.log" &
PID=$!
PORT=
for _ in $(seq 100); do
  PORT=$(sed -n 's|.* on http://127.0.0.1:\([0-9]*\)/.*|\1|p' "$OUT/fmp4mux.log" | head -1)
  [ -n "$PORT" ] && curl -sf -o /dev/null "http://127.0.0.1:$PORT/$MANIFEST" && break
  kill -0 "$PID" 2>/dev/null || { cat "$OUT/fmp4mux.log" >&2; fail "fmp4mux stopped"; }
  sleep 0.1
done
[ -n "$PORT" ] || { cat "$OUT/fmp4mux.log" >&2; fail "fmp4mux serves no manifest"; }
if [ "$FORMAT" = dash ]; then
  curl -s "http://127.0.0.1:$PORT/manifest.mpd" | grep -q 'availabilityTimeComplete="false"' || fail "the MPD is not a low-latency one"
else
  URL=http://127.0.0.1:$PORT/video0.m3u8
  playlist=$(curl -sf "$URL") || fail "no video playlist"
  grep -q '^#EXT-X-PART-INF:PART-TARGET=0.500$' <<<"$playlist" || fail "the playlist is not a low-latency one: $playlist"
  # The last part listed, as a byte range of its segment: 206 with exactly its length.
  part=$(grep '^#EXT-X-PART:' <<<"$playlist" | tail -n 1)
  uri=$(sed -n 's/.*URI="\([^"]*\)".*/\1/p' <<<"$part") range=$(sed -n 's/.*BYTERANGE="\([0-9]*\)@\([0-9]*\)".*/\1 \2/p' <<<"$part")
  read -r length offset <<<"$range"
  got=$(curl -s -o /dev/null -w '%{http_code} %{size_download}' -r "$offset-$((offset + length - 1))" "http://127.0.0.1:$PORT/$uri")
  [ "$got" = "206 $length" ] || fail "the part $uri $length@$offset came back as '$got'"
  msn=$(sed -n 's/^#EXT-X-MEDIA-SEQUENCE:\([0-9]*\)$/\1/p' <<<"$playlist")
  got=$(curl -s -o /dev/null -w '%{http_code}' "$URL?_HLS_msn=$((msn + 1000))")
  [ "$got" = 400 ] || fail "a blocking reload far ahead got $got, not 400"
fi

node "$HERE/play.mjs" --format "$FORMAT" --manifest-url "http://127.0.0.1:$PORT/$MANIFEST" --max-latency 3 --min-time 30 --timeout 40 \
  || { cat "$OUT/fmp4mux.log" >&2; fail "the player did not play at low latency"; }
echo "run_low_latency_test: PASS"
