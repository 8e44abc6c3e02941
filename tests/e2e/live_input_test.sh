#!/usr/bin/env bash
# A live input: ffmpeg sends the sample over UDP or SRT on the loopback in real time; fmp4mux packages it as it
# comes, keeps a dynamic MPD up to date, and on SIGINT finishes the chunks under way and exits 0.
# Usage: live_input_test.sh BUILD_DIR udp|srt
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
fmp4mux="$1/apps/fmp4mux/fmp4mux"
protocol=${2:-udp}
work=$(mktemp -d)
sender=""
muxer=""
cleanup() {
  [ -n "$sender" ] && kill "$sender" 2>/dev/null || true
  [ -n "$muxer" ] && kill "$muxer" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

port=$(( 20000 + RANDOM % 20000 ))
case "$protocol" in
  udp) listen="udp://127.0.0.1:$port?timeout=30000000"; send="udp://127.0.0.1:$port?pkt_size=1316" ;;
  srt) listen="srt://127.0.0.1:$port?mode=listener"; send="srt://127.0.0.1:$port?pkt_size=1316" ;;
  *) echo "unknown protocol $protocol"; exit 2 ;;
esac
"$fmp4mux" -q --time-shift-buffer 4 "$listen" "$work/out" 2>"$work/fmp4mux.log" &
muxer=$!
sleep 1
ffmpeg -hide_banner -loglevel error -re -i "$root/samples/sample.ts" -c copy -f mpegts "$send" &
sender=$!

# While the input runs, the MPD is dynamic and grows.
mpd="$work/out/manifest.mpd"
for _ in $(seq 1 100); do
  [ -s "$mpd" ] && grep -q '<S ' "$mpd" && break
  sleep 0.1
done
[ -s "$mpd" ] || { echo "no MPD while the live input runs"; cat "$work/fmp4mux.log"; exit 1; }
grep -q 'type="dynamic"' "$mpd" || { echo "the live MPD is not dynamic"; cat "$mpd"; exit 1; }
grep -q 'availabilityStartTime=' "$mpd" && grep -q 'timeShiftBufferDepth=' "$mpd" || { echo "live timing missing"; exit 1; }
cp "$mpd" "$work/live.mpd"
# Players find their clock in the MPD itself, and the delay they start at stays inside the time-shift window.
grep -q '<UTCTiming schemeIdUri="urn:mpeg:dash:utc:direct:2014" value="' "$work/live.mpd" || { echo "no UTCTiming"; exit 1; }
seconds() { sed -n "s/.* $1=\"PT\([0-9.]*\)S\".*/\1/p" "$work/live.mpd"; }
awk -v d="$(seconds suggestedPresentationDelay)" -v w="$(seconds timeShiftBufferDepth)" 'BEGIN { exit !(d > 0 && d < w) }' ||
  { echo "suggestedPresentationDelay is not inside timeShiftBufferDepth"; cat "$work/live.mpd"; exit 1; }
xmllint --noout --schema "$root/tests/data/schemas/DASH-MPD.xsd" "$work/live.mpd"
first=$(grep -c '<S ' "$work/live.mpd" || true)
wait "$sender"
sender=""
sleep 1
kill -INT "$muxer" 2>/dev/null || true  # an input that ends (SRT) may have ended the run already
status=0
wait "$muxer" || status=$?
muxer=""
[ "$status" -eq 0 ] || { echo "fmp4mux exited with $status"; cat "$work/fmp4mux.log"; exit 1; }
xmllint --noout --schema "$root/tests/data/schemas/DASH-MPD.xsd" "$mpd"
chunks=$(find "$work/out" -name 'chunk_*.mp4' | wc -l)
echo "live run: $chunks chunk files; timeline entries first seen $first"
# Segments that left the 4 s window go a window later, so what stays on disk is bounded; some must be there.
[ "$chunks" -ge 4 ] || { echo "too few chunks from the live input"; cat "$work/fmp4mux.log"; exit 1; }
[ "$chunks" -le 12 ] || { echo "segments that left the window were not deleted"; exit 1; }
# Once the input has ended the MPD is static, with the segments of the window, and they decode.
grep -q 'type="static"' "$mpd" || { echo "the final MPD is not static"; exit 1; }
ffmpeg -hide_banner -loglevel error -xerror -i "$mpd" -f null - || { echo "the live output does not decode"; exit 1; }
echo "live $protocol input: passed"
