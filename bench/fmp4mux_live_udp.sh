#!/usr/bin/env bash
# What a live UDP channel costs: ffmpeg sends the bench input (1080p25 H.264 8 Mb/s + AAC) over UDP on the
# loopback in real time, and fmp4mux, then in the same way `ffmpeg -c copy -f dash`, receives and packages it.
# Each receiver's CPU time (all its threads, to the nanosecond from the kernel's scheduler statistics) is read
# WARM seconds after it starts and again SPAN seconds later: the difference per second of media is what the
# channel costs once it runs, without the start. Prints each one's median over RUNS alternating runs, their
# ratio, the wake-ups (context switches) per second, and each one's peak resident memory at the end: a live
# input's memory must not grow with the run (the receiving ring is touched all round within the first 13 s at
# this rate).
# Usage: bench/fmp4mux_live_udp.sh [BUILD_DIR]   (default build/release; the input is cached in BUILD_DIR)
#        WARM=8 SPAN=30 (seconds), RUNS=1
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
fmp4mux="$build/apps/fmp4mux/fmp4mux"
warm=${WARM:-8}
span=${SPAN:-30}
runs=${RUNS:-1}
[ -x "$fmp4mux" ] || { echo "build fmp4mux first: ninja -C $build fmp4mux" >&2; exit 2; }
. bench/bench_input.sh
input=$(bench_input "$build") || exit 2
work=$(mktemp -d)
sender=""
trap '[ -n "$sender" ] && kill "$sender" 2>/dev/null; rm -rf "$work"' EXIT

# One receiving run: prints "cpu-ms-per-s switches-per-s peak-kb" of the receiver over its steady span.
receive() {  # fmp4mux|ffmpeg
  local who=$1 seconds=$((warm + span)) port
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
import glob, os, signal, subprocess, sys, time
def totals(pid):  # CPU ns and context switches of all threads
    ns = switches = 0
    for task in glob.glob("/proc/%d/task/*" % pid):
        try:
            ns += int(open(task + "/schedstat").read().split()[0])
            status = open(task + "/status").read()
            switches += sum(int(l.split()[1]) for l in status.splitlines() if "ctxt_switches:" in l)
        except (OSError, ValueError, IndexError):
            pass
    return ns, switches
warm, span = float(sys.argv[1]), float(sys.argv[2])
child = subprocess.Popen(sys.argv[3:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
time.sleep(warm)
ns0, sw0 = totals(child.pid)
time.sleep(span)
ns1, sw1 = totals(child.pid)
peak = next(int(l.split()[1]) for l in open("/proc/%d/status" % child.pid) if l.startswith("VmHWM:"))
child.send_signal(signal.SIGINT)
child.wait()
print("%.3f %.1f %d" % ((ns1 - ns0) / 1e6 / span, (sw1 - sw0) / span, peak))' "$warm" "$span" "${command[@]}"
  kill "$sender" 2>/dev/null || true
  wait "$sender" 2>/dev/null || true
  sender=""
}

declare -A cpu wakes rss
for _ in $(seq 1 "$runs"); do
  for who in fmp4mux ffmpeg; do
    read -r c w k < <(receive "$who")
    cpu[$who]="${cpu[$who]:-} $c"
    wakes[$who]="${wakes[$who]:-} $w"
    rss[$who]=$(( k > ${rss[$who]:-0} ? k : ${rss[$who]:-0} ))
  done
done
median() { tr ' ' '\n' | grep . | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
echo "live UDP input, 1080p25 8 Mb/s in real time; CPU from ${warm} s to $((warm + span)) s after the start, medians of $runs"
printf "%-10s %14s %14s %10s\n" "" "ms per media s" "switches / s" "peak MiB"
for who in fmp4mux ffmpeg; do
  printf "%-10s %14.2f %14.0f %10.1f\n" "$who" "$(median <<<"${cpu[$who]}")" "$(median <<<"${wakes[$who]}")" \
    "$(awk -v k="${rss[$who]}" 'BEGIN { print k / 1024 }')"
done
awk -v f="$(median <<<"${cpu[fmp4mux]}")" -v g="$(median <<<"${cpu[ffmpeg]}")" \
  'BEGIN { printf "CPU per second of live media (fmp4mux / ffmpeg): %.2f\n", f / g }'
