#!/usr/bin/env bash
# Long run of fmp4mux on a live input: MINUTES of media (the 5-minute 1080p25 8 Mb/s H.264 + AAC bench input,
# looped by ffmpeg with its timestamps going on across the loop points) go through a pipe into
# `fmp4mux -q - OUTDIR` as fast as fmp4mux takes them. Standard input is a live input, so the MPD is dynamic
# and rewritten on every chunk. Every INTERVAL seconds the script samples fmp4mux's resident memory (VmRSS),
# its open file descriptors and the size of OUTDIR; a background loop deletes the media files that have left
# the MPD's time-shift window, as a live origin would, so the disk use stays bounded.
# It also reads the CPU time of fmp4mux, to show that the cost per second of media does not grow with the run.
# At the end it prints the samples and a verdict: resident memory and descriptors are flat when the last sample
# is within 5 % of the sample taken after the first tenth of the run (descriptors: or within 2). Exit status:
# 0 flat, 1 not flat, 2 cannot run, 3 fmp4mux failed.
# Usage: bench/fmp4mux_long_run.sh [BUILD_DIR] [MINUTES]   (defaults build/release and 60; the input is cached
# in BUILD_DIR). Environment: INTERVAL (seconds between samples, default 1), TSB (time-shift window, default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
minutes=${2:-60}
interval=${INTERVAL:-1}
tsb=${TSB:-60}
fmp4mux="$build/apps/fmp4mux/fmp4mux"
[ -x "$fmp4mux" ] || { echo "build fmp4mux first: ninja -C $build fmp4mux" >&2; exit 2; }
[[ "$minutes" =~ ^[1-9][0-9]*$ ]] || { echo "MINUTES must be a whole number of minutes" >&2; exit 2; }
[[ "$interval" =~ ^[1-9][0-9]*$ ]] || { echo "INTERVAL must be a whole number of seconds" >&2; exit 2; }
. bench/bench_input.sh
input=$(bench_input "$build") || exit 2

seconds=$((minutes * 60))
loops=$(((seconds + 299) / 300 - 1))  # -stream_loop counts the repeats after the first reading
work=$(mktemp -d)
out="$work/out"
ff_pid=""; fm_pid=""; prune_pid=""
cleanup() {
  for pid in $prune_pid $ff_pid $fm_pid; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The end of the latest segment of the MPD, in seconds, or empty before the first MPD.
media_seconds() {
  awk '
    /<SegmentTemplate/ { if (match($0, /timescale="[0-9]+"/)) scale = substr($0, RSTART + 11, RLENGTH - 12) + 0 }
    /<S / {
      t = 0; d = 0; r = 0
      if (match($0, /t="[0-9]+"/)) t = substr($0, RSTART + 3, RLENGTH - 4) + 0
      if (match($0, /d="[0-9]+"/)) d = substr($0, RSTART + 3, RLENGTH - 4) + 0
      if (match($0, / r="[0-9]+"/)) r = substr($0, RSTART + 4, RLENGTH - 5) + 0
      if (scale > 0 && (t + d * (r + 1)) / scale > end) end = (t + d * (r + 1)) / scale
    }
    END { if (end > 0) printf "%.1f", end }' "$out/manifest.mpd" 2>/dev/null || true
}

# Deletes the media files of each representation that start before the first segment its MPD still lists
# (media templates with $Time$, as the default one).
prune() {
  [ -s "$out/manifest.mpd" ] || return 0
  awk '
    /<Representation / { if (match($0, / id="[^"]*"/)) rep = substr($0, RSTART + 5, RLENGTH - 6) }
    /<SegmentTemplate/ { media = ""; first = 1; if (match($0, /media="[^"]*"/)) media = substr($0, RSTART + 7, RLENGTH - 8) }
    /<S / && first && media != "" {
      first = 0
      if (match($0, /t="[0-9]+"/)) { gsub(/\$RepresentationID\$/, rep, media); print media, substr($0, RSTART + 3, RLENGTH - 4) }
    }' "$out/manifest.mpd" 2>/dev/null |
  while read -r media start; do
    case "$media" in *'$Time$'*) ;; *) continue ;; esac
    local dir=${media%/*} prefix=${media##*/} suffix f t
    suffix=${prefix#*'$Time$'}; prefix=${prefix%%'$Time$'*}
    local old=()
    for f in "$out/$dir/$prefix"*"$suffix"; do
      t=${f##*/}; t=${t#"$prefix"}; t=${t%"$suffix"}
      if [[ "$t" =~ ^[0-9]+$ ]] && [ "$t" -lt "$start" ]; then old+=("$f"); fi
    done
    [ ${#old[@]} -eq 0 ] || rm -f "${old[@]}"
  done
}

mkfifo "$work/feed"
mkdir -p "$out"
ffmpeg -hide_banner -loglevel error -nostdin -stream_loop "$loops" -i "$input" -t "$seconds" -map 0 -c copy \
  -f mpegts - > "$work/feed" &
ff_pid=$!
"$fmp4mux" -q --time-shift-buffer "$tsb" - "$out" < "$work/feed" 2> "$work/fmp4mux.log" &
fm_pid=$!

# Every loop below ends with fmp4mux, and in any case after the media's duration (real time, the slowest a
# live input goes) plus ten minutes.
limit=$((seconds + 600))
(
  end=$((SECONDS + limit))
  while kill -0 "$fm_pid" 2>/dev/null && [ "$SECONDS" -lt "$end" ]; do prune || true; sleep 0.5; done
) &
prune_pid=$!

echo "fmp4mux: $minutes min of media from a pipe into $out, time-shift window $tsb s, a sample every $interval s" >&2
start_ns=$(date +%s%N)
samples="$work/samples"
: > "$samples"
max_kb=0
for ((i = 0; i <= limit / interval; ++i)); do
  rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$fm_pid/status" 2>/dev/null) || break
  [ -n "$rss" ] || break
  fds=$(ls "/proc/$fm_pid/fd" 2>/dev/null | wc -l || true)
  kb=$(du -sk "$out" 2>/dev/null | cut -f1 || true)
  kb=${kb:-0}
  max_kb=$((kb > max_kb ? kb : max_kb))
  mpd=$(stat -c %s "$out/manifest.mpd" 2>/dev/null || echo 0)
  cpu=$(awk '{ print $14 + $15 }' "/proc/$fm_pid/stat" 2>/dev/null || echo 0)  # user + system, clock ticks
  now=$(date +%s%N)
  echo "$(((now - start_ns) / 1000000)) $rss $fds $kb $mpd $cpu $(media_seconds)" >> "$samples"
  sleep "$interval"
done
timed_out=0
if kill -0 "$fm_pid" 2>/dev/null; then
  echo "fmp4mux still runs after $limit s: stopped" >&2
  kill "$fm_pid" 2>/dev/null || true
  timed_out=1
fi
status=0
wait "$fm_pid" || status=$?
[ "$timed_out" -eq 0 ] || status=124
fm_pid=""
wait "$ff_pid" || true
ff_pid=""
wall=$((($(date +%s%N) - start_ns) / 1000000))
wait "$prune_pid" || true
prune_pid=""
if [ "$status" -ne 0 ]; then
  echo "fmp4mux failed with status $status:" >&2
  cat "$work/fmp4mux.log" >&2
  exit 3
fi
grep -E '^fmp4mux: [0-9.]+ s of media' "$work/fmp4mux.log" >&2 || true
final_media=$(media_seconds)

awk -v wall="$wall" -v maxkb="$max_kb" -v final="$final_media" -v tsb="$tsb" -v hz="$(getconf CLK_TCK)" '
  { n++; t[n] = $1 / 1000; rss[n] = $2; fd[n] = $3; kb[n] = $4; mpd[n] = $5; cpu[n] = $6 / hz; m[n] = $7 }
  # CPU milliseconds fmp4mux spent per second of media between two samples, or empty.
  function cost(a, b) { return (m[a] != "" && m[b] != "" && m[b] > m[a]) ? 1000 * (cpu[b] - cpu[a]) / (m[b] - m[a]) : "" }
  END {
    if (n < 3) { print "too few samples (" n "): the run was too short to judge"; exit 2 }
    printf "%8s %9s %7s %8s %5s %10s %7s %9s\n", "wall s", "media s", "speed", "RSS MB", "fds", "OUTDIR MB", "MPD KB", "CPU ms/s"
    for (i = 1; i <= n; ++i) {
      speed = ""; c = ""
      if (i > 1 && m[i] != "" && m[i - 1] != "" && t[i] > t[i - 1]) speed = sprintf("%.0fx", (m[i] - m[i - 1]) / (t[i] - t[i - 1]))
      if (i > 1 && cost(i - 1, i) != "") c = sprintf("%.1f", cost(i - 1, i))
      printf "%8.1f %9s %7s %8.1f %5d %10.1f %7.1f %9s\n", t[i], m[i], speed, rss[i] / 1024, fd[i], kb[i] / 1024, mpd[i] / 1024, c
    }
    # The reference: the first sample taken after the first tenth of the run.
    ref = n
    for (i = 1; i <= n; ++i) if (t[i] >= t[n] / 10) { ref = i; break }
    if (ref == n) ref = n - 1
    drss = rss[n] - rss[ref]; dfd = fd[n] - fd[ref]
    rss_flat = (drss < 0 ? -drss : drss) <= 0.05 * rss[ref]
    fd_flat = (dfd < 0 ? -dfd : dfd) <= 2 || (dfd < 0 ? -dfd : dfd) <= 0.05 * fd[ref]
    printf "run: %.1f s wall for %s s of media (%.0fx real time); OUTDIR at most %.1f MB (time-shift window %d s)\n",
           wall / 1000, final, final / (wall / 1000), maxkb / 1024, tsb
    printf "reference sample at %.1f s, last at %.1f s\n", t[ref], t[n]
    # The time per chunk must not grow with the run: the CPU time of fmp4mux per second of media, from the reference
    # to the middle sample and from there to the last, with the wall-clock speed (which a shared machine sways).
    mid = int((ref + n) / 2)
    if (cost(ref, mid) != "" && cost(mid, n) != "" && t[mid] > t[ref] && t[n] > t[mid])
      printf "per second of media: %.1f then %.1f CPU ms (%+.0f %%); speed %.0fx then %.0fx real time\n",
             cost(ref, mid), cost(mid, n), 100 * (cost(mid, n) - cost(ref, mid)) / cost(ref, mid),
             (m[mid] - m[ref]) / (t[mid] - t[ref]), (m[n] - m[mid]) / (t[n] - t[mid])
    printf "RSS: %.1f MB -> %.1f MB (%+.1f %%): %s\n", rss[ref] / 1024, rss[n] / 1024, 100 * drss / rss[ref], rss_flat ? "flat" : "GROWS"
    printf "fds: %d -> %d (%+d): %s\n", fd[ref], fd[n], dfd, fd_flat ? "flat" : "GROWS"
    print (rss_flat && fd_flat) ? "verdict: flat" : "verdict: NOT flat"
    exit (rss_flat && fd_flat) ? 0 : 1
  }' "$samples"
