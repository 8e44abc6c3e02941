#!/usr/bin/env bash
# Low-latency live end-to-end test: fmp4mux packages the sample (video, made 30 fps with 2 s GOPs and looped to
# 50 s by ffmpeg: 500 ms are 15 frames) in the low-latency mode, paced as a live source (--realtime), in 2 s
# segments of 500 ms chunks, and serves it itself (--serve on 127.0.0.1). dash.js in headless Chromium plays it in
# low-latency mode for 30 s; its own live-latency figure must stay under 3 s without a stall (play.mjs prints it).
#
#   bash tests/e2e/player/run_low_latency_test.sh BUILD_DIR
set -euo pipefail

fail() { echo "run_low_latency_test: FAIL: $*" >&2; exit 1; }
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
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

"$FMP4MUX" -q -m low-latency -g 2000 --chunk-duration 500 --realtime --serve 127.0.0.1:0 "$OUT/input.ts" "$OUT/out" \
  2>"$OUT/fmp4mux.log" &
PID=$!
PORT=
for _ in $(seq 100); do
  PORT=$(sed -n 's|.* on http://127.0.0.1:\([0-9]*\)/.*|\1|p' "$OUT/fmp4mux.log" | head -1)
  [ -n "$PORT" ] && curl -sf -o /dev/null "http://127.0.0.1:$PORT/manifest.mpd" && break
  kill -0 "$PID" 2>/dev/null || { cat "$OUT/fmp4mux.log" >&2; fail "fmp4mux stopped"; }
  sleep 0.1
done
[ -n "$PORT" ] || { cat "$OUT/fmp4mux.log" >&2; fail "fmp4mux serves no manifest"; }
curl -s "http://127.0.0.1:$PORT/manifest.mpd" | grep -q 'availabilityTimeComplete="false"' || fail "the MPD is not a low-latency one"

node "$HERE/play.mjs" --manifest-url "http://127.0.0.1:$PORT/manifest.mpd" --max-latency 3 --min-time 30 --timeout 40 \
  || { cat "$OUT/fmp4mux.log" >&2; fail "dash.js did not play at low latency"; }
echo "run_low_latency_test: PASS"
