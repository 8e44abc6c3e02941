#!/usr/bin/env bash
# What a live UDP channel costs: ffmpeg sends the bench input (1080p25 H.264 8 Mb/s + AAC) over UDP on the
# loopback in real time, and fmp4mux, then in the same way `ffmpeg -c copy -f dash`, receives and packages it for
# SHORT and for LONG seconds (stopped with SIGINT). The CPU time (user + system, all threads) of the longer run
# less the shorter one's, per second of media, is what the channel costs once it runs, without the start; the
# ratio of the two packagers is printed, and each one's peak resident memory after LONG seconds: a live input's
# memory must not grow with the run (the receiving ring is touched all round within the first 13 s at this rate).
# Usage: bench/fmp4mux_live_udp.sh [BUILD_DIR]   (default build/release; the input is cached in BUILD_DIR)
#        SHORT=8 LONG=28 (seconds), RUNS=1
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
fmp4mux="$build/apps/fmp4mux/fmp4mux"
short=${SHORT:-8}
long=${LONG:-28}
runs=${RUNS:-1}
[ -x "$fmp4mux" ] || { echo "build fmp4mux first: ninja -C $build fmp4mux" >&2; exit 2; }
[ "$long" -gt "$short" ] || { echo "LONG must be more than SHORT" >&2; exit 2; }
. bench/bench_input.sh
input=$(bench_input "$build") || exit 2
work=$(mktemp -d)
sender=""
trap '[ -n "$sender" ] && kill "$sender" 2>/dev/null; rm -rf "$work"' EXIT

# One receiving run of `seconds`: prints "cpu kb" of the receiver.
receive() {  # fmp4mux|ffmpeg, seconds
  local who=$1 seconds=$2 port
  port=$(python3 -c 'import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  rm -rf "$work/out" && mkdir -p "$work/out"
  local url="udp://127.0.0.1:$port"
  local command=("$fmp4mux" -q "$url" "$work/out")
  [ "$who" = ffmpeg ] && command=(ffmpeg -hide_banner -loglevel error -nostdin -i "$url" -map 0 -c copy -tag:v avc1
                                  -tag:a mp4a -f dash -seg_duration 2 -window_size 5 "$work/out/manifest.mpd")
  ffmpeg -hide_banner -loglevel error -nostdin -re -i "$input" -t $((seconds + 3)) -c copy -f mpegts \
    "$url?pkt_size=1316" &
  sender=$!
  # The receiver listens before the first datagram: the sender's start-up outlasts the receiver's.
  python3 -c '
import os, signal, subprocess, sys, time
child = subprocess.Popen(sys.argv[2:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
time.sleep(float(sys.argv[1]))
child.send_signal(signal.SIGINT)
_, status, usage = os.wait4(child.pid, 0)
print("%.4f %d" % (usage.ru_utime + usage.ru_stime, usage.ru_maxrss))' "$seconds" "${command[@]}"
  kill "$sender" 2>/dev/null || true
  wait "$sender" 2>/dev/null || true
  sender=""
}

declare -A cpu rss per
for who in fmp4mux ffmpeg; do
  for seconds in "$short" "$long"; do
    for _ in $(seq 1 "$runs"); do
      read -r c k < <(receive "$who" "$seconds")
      cpu[$who.$seconds]="${cpu[$who.$seconds]:-} $c"
      rss[$who.$seconds]=$k
    done
  done
done
median() { tr ' ' '\n' | grep . | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
echo "live UDP input, 1080p25 8 Mb/s in real time; CPU of ${short} s and ${long} s runs, medians of $runs"
printf "%-10s %10s %10s %14s %12s\n" "" "${short} s" "${long} s" "ms per media s" "peak MiB"
for who in fmp4mux ffmpeg; do
  s=$(median <<<"${cpu[$who.$short]}") l=$(median <<<"${cpu[$who.$long]}")
  per[$who]=$(awk -v s="$s" -v l="$l" -v a="$short" -v b="$long" 'BEGIN { printf "%.2f", (l - s) * 1000 / (b - a) }')
  printf "%-10s %10.3f %10.3f %14s %12.1f\n" "$who" "$s" "$l" "${per[$who]}" \
    "$(awk -v k="${rss[$who.$long]}" 'BEGIN { print k / 1024 }')"
done
awk -v f="${per[fmp4mux]}" -v g="${per[ffmpeg]}" 'BEGIN { printf "CPU per second of live media (fmp4mux / ffmpeg): %.2f\n", f / g }'
