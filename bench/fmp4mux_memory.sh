#!/usr/bin/env bash
# Peak memory of fmp4mux against its segment options: the same input (the 5-minute 1080p25 8 Mb/s H.264 + AAC
# bench input) packaged with -n 1, -n 100 and -n 1000 GOPs per segment, and with -g 600000 -n 1000, each run's
# peak resident memory read by GNU time. Memory must follow what is buffered, not what the options would allow:
# a segment is held whole (its samples, the chunk made of them, the output buffers, the chunk joined again for
# the file), so the ceiling the README states is 100 MB plus six times the largest segment's bytes (a segment
# never holds more than the media). The verdict checks every run against that ceiling.
# Exit status: 0 bounded, 1 not bounded, 2 cannot run, 3 fmp4mux failed.
# Usage: bench/fmp4mux_memory.sh [BUILD_DIR]   (default build/release; the input is cached in BUILD_DIR)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
fmp4mux="$build/apps/fmp4mux/fmp4mux"
[ -x "$fmp4mux" ] || { echo "build fmp4mux first: ninja -C $build fmp4mux" >&2; exit 2; }
[ -x /usr/bin/time ] || { echo "GNU time is missing: run scripts/install-deps.sh" >&2; exit 2; }
. bench/bench_input.sh
input=$(bench_input "$build") || exit 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

media_mb=$(( $(stat -c %s "$input") / 1048576 ))
media_s=300
verdict=0
for options in "-n 1" "-n 100" "-n 1000" "-g 600000 -n 1000"; do
  read -r gop gops <<<"$(echo "$options" | awk '{ g = 2; for (i = 1; i < NF; i++) { if ($i == "-g") g = $(i + 1) / 1000; if ($i == "-n") n = $(i + 1) } print g, n }')"
  segment_mb=$(awk -v g="$gop" -v n="$gops" -v m="$media_mb" -v s="$media_s" 'BEGIN { t = g * n; if (t > s) t = s; printf "%d", m * t / s + 1 }')
  ceiling=$((100 + 6 * segment_mb))
  rm -rf "$work/out"
  # shellcheck disable=SC2086  # the options are words
  /usr/bin/time -f "%M %e" -o "$work/time" "$fmp4mux" -q $options "$input" "$work/out" 2>"$work/log" ||
    { echo "fmp4mux $options failed:" >&2; cat "$work/log" >&2; exit 3; }
  read -r kb seconds <"$work/time"
  mb=$((kb / 1024))
  printf "%-20s peak %5d MB (ceiling %5d MB for segments of %4d MB), %6.1f s\n" "$options" "$mb" "$ceiling" \
    "$segment_mb" "$seconds"
  [ "$mb" -le "$ceiling" ] || verdict=1
done
if [ "$verdict" -eq 0 ]; then
  echo "bounded: every run under 100 MB + 6 x its largest segment"
else
  echo "NOT bounded: a run passed 100 MB + 6 x its largest segment"
fi
exit "$verdict"
