#!/usr/bin/env bash
# Two live renditions of the sample over UDP: the first plays it three times over, the second once and then dies
# (inputs are opened one after the other, so the second must still be sending when it is). fmp4mux ends
# the streams of the input that fell silent after the stream timeout, and goes on cutting the first input while the
# run is still live; on SIGINT it finishes cleanly.
# Usage: live_silence_test.sh BUILD_DIR
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
fmp4mux="$1/apps/fmp4mux/fmp4mux"
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

port=$(( 20000 + RANDOM % 20000 ))
listen() { echo "udp://127.0.0.1:$1?timeout=30000000"; }
"$fmp4mux" -q --stream-timeout 2 "$(listen "$port")" "$(listen $((port + 1)))" "$work/out" 2>"$work/fmp4mux.log" &
muxer=$!
pids+=("$muxer")
sleep 1
send() {  # port, then ffmpeg input options
  local to=$1; shift
  ffmpeg -hide_banner -loglevel error -re "$@" -i "$root/samples/sample.ts" -c copy -f mpegts \
    "udp://127.0.0.1:$to?pkt_size=1316" &
  pids+=("$!")
}
send "$port" -stream_loop 2
first=${pids[-1]}
send $((port + 1))
wait "$first"
sleep 1

# Still live: the first input's video has been cut well past the 10 s where the second input stopped.
video=$(find "$work/out" -path '*/video0/chunk_*' | wc -l)
grep -q 'input 1: nothing came for 2 s while the other inputs went on' "$work/fmp4mux.log" ||
  { echo "the silent input was not said"; cat "$work/fmp4mux.log"; exit 1; }
[ "$video" -ge 10 ] || { echo "only $video segments of the first input while the second was silent"; cat "$work/fmp4mux.log"; exit 1; }
kill -INT "$muxer"
status=0
wait "$muxer" || status=$?
[ "$status" -eq 0 ] || { echo "fmp4mux exited with $status"; cat "$work/fmp4mux.log"; exit 1; }
ffmpeg -hide_banner -loglevel error -xerror -i "$work/out/manifest.mpd" -map 0:v:0 -f null - ||
  { echo "the first input's video does not decode"; exit 1; }
echo "live silence: passed ($video segments of the first input's video while live)"
