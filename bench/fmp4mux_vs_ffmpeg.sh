#!/usr/bin/env bash
# Packages a 5-minute 1080p 8 Mb/s H.264 + AAC MPEG-TS with fmp4mux, as fast as it can, and in the same run the
# same input with `ffmpeg -c copy -f dash`; prints the medians of wall time and CPU time (user + system) of the
# runs, the largest peak resident memory, and the ratios against the targets: at least twice ffmpeg's speed, at most
# half its CPU time, at most 80 MiB. fmp4mux also packages the input encrypted (Common Encryption, ClearKey
# signalling, the key from a key file), so that what encryption costs shows beside it, and with
# `--demuxer libavformat`, the reading path it had before its own MPEG-TS reader; and, for scale, the I/O alone:
# the input split into files of 1 MiB in the same folder, what any packager of it pays in the kernel, and the CPU
# ratio of the two packagers above it (what each spends on its own work).
#
# The input is read into the page cache afresh first, as a file read from disk lies there (bench_input.sh says why).
# The runs alternate, and each starts from the same state: the previous output removed and the page cache written
# back (`sync`), since the system time of writing 300 MB depends on what the file system still has to flush.
# Usage: bench/fmp4mux_vs_ffmpeg.sh [BUILD_DIR]   (default build/release; the input is cached in BUILD_DIR)
#        RUNS=N (default 5)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
fmp4mux="$build/apps/fmp4mux/fmp4mux"
[ -x "$fmp4mux" ] || { echo "build fmp4mux first: ninja -C $build fmp4mux" >&2; exit 2; }
command -v python3 >/dev/null || { echo "needs python3" >&2; exit 2; }

. bench/bench_input.sh
input=$(bench_input "$build") || exit 2
size=$(stat -c %s "$input")
bench_input_settle "$input"
# The outputs go to a file system in memory (/dev/shm) when it has room, unless BENCH_OUTPUT_DIR names a folder:
# on a disk file system the cost of making a file depends on the files removed in the minutes before (ext4
# without a journal looks at every inode freed in the last minute for each file it makes), which the alternating
# runs' own removals make swing from run to run by more than the differences measured. Both packagers write there.
out_root=${BENCH_OUTPUT_DIR:-}
if [ -z "$out_root" ]; then
  out_root=/tmp
  if [ "$(stat -f -c %T /dev/shm 2>/dev/null)" = tmpfs ] &&
     [ "$(( $(stat -f -c '%a * %S' /dev/shm) ))" -gt "$((3 * size))" ]; then
    out_root=/dev/shm
  fi
fi
work=$(mktemp -d -p "$out_root")
trap 'rm -rf "$work"' EXIT
printf 'key_id=00112233445566778899aabbccddeeff\nkey=2b7e151628aed2a6abf7158809cf4f3c\n' >"$work/keys"

# Runs a command and prints "wall cpu kb": wall and CPU (user + system, all threads) seconds to the microsecond,
# from the kernel's resource usage of the child (GNU time prints hundredths, too coarse for runs of 0.2 s), and
# its peak resident memory.
run_timed() {
  python3 -c '
import os, subprocess, sys, time
start = time.monotonic()
child = subprocess.Popen(sys.argv[1:], stdout=subprocess.DEVNULL)
_, status, usage = os.wait4(child.pid, 0)
wall = time.monotonic() - start
print("%.4f %.4f %d" % (wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss))
sys.exit(os.waitstatus_to_exitcode(status))' "$@"
}

# One timed run: appends "wall cpu kb" to $work/<label>.runs.
measure() {  # label, output folder, command...
  local label=$1 out=$2; shift 2
  rm -rf "$out"
  sync
  run_timed "$@" >>"$work/$label.runs" 2>"$work/$label.log" || { cat "$work/$label.log" >&2; exit 1; }
}

runs=${RUNS:-5}
for run in $(seq 1 "$runs"); do
  measure fmp4mux "$work/out" "$fmp4mux" -q "$input" "$work/out"
  measure ffmpeg "$work/out" sh -c 'mkdir -p "$1" && exec ffmpeg -hide_banner -loglevel error -y -i "$2" -map 0 -c copy \
    -tag:v avc1 -tag:a mp4a -f dash -seg_duration 2 "$1/manifest.mpd"' sh "$work/out" "$input"
  measure encrypted "$work/out" "$fmp4mux" -q --key-file "$work/keys" --drm clearkey "$input" "$work/out"
  measure libavformat "$work/out" "$fmp4mux" -q --demuxer libavformat "$input" "$work/out"
  # The I/O that any packager of this input pays: the same bytes read and written into about 300 files.
  measure floor "$work/out" sh -c 'mkdir -p "$1" && exec split -b 1048576 "$2" "$1/part"' sh "$work/out" "$input"
done

# "median-wall median-cpu max-kb least-cpu" of a label's runs. The least CPU time is what the work costs when
# nothing else on the machine slows it (on a shared virtual machine runs of the same work differ by a fifth).
summary() {
  sort -n -k1,1 "$work/$1.runs" | awk '{ w[NR] = $1 } END { printf "%s ", w[int((NR + 1) / 2)] }'
  sort -n -k2,2 "$work/$1.runs" | awk '{ c[NR] = $2; if ($3 > kb) kb = $3 } END { printf "%s %s %s\n", c[int((NR + 1) / 2)], kb, c[1] }'
}
read -r fw fc fk fl < <(summary fmp4mux)
read -r gw gc gk gl < <(summary ffmpeg)
read -r ew ec ek el < <(summary encrypted)
read -r lw lc lk ll < <(summary libavformat)
read -r pw pc pk pl < <(summary floor)
# The median of each round's own ratio: the two runs of a round are seconds apart, so a slow phase of the machine
# moves both, where the medians above may come from different phases.
paired=$(paste "$work/fmp4mux.runs" "$work/ffmpeg.runs" | awk '{ print $2 / $5 }' | sort -n |
         awk '{ r[NR] = $1 } END { print r[int((NR + 1) / 2)] }')

awk -v fw="$fw" -v fc="$fc" -v fk="$fk" -v gw="$gw" -v gc="$gc" -v gk="$gk" -v ew="$ew" -v ec="$ec" -v ek="$ek" \
    -v lw="$lw" -v lc="$lc" -v lk="$lk" -v pw="$pw" -v pc="$pc" -v size="$size" -v runs="$runs" \
    -v fl="$fl" -v gl="$gl" -v el="$el" -v ll="$ll" -v paired="$paired" \
    -v root="$out_root" -v fstype="$(stat -f -c %T "$out_root")" 'BEGIN {
  printf "input: %.1f MB, 300 s of 1080p H.264 8 Mb/s + AAC; medians of %d alternating runs\n", size / 1e6, runs
  printf "outputs written to %s (%s)\n", root, fstype
  printf "%-28s %8s %8s %10s %10s\n", "", "wall s", "CPU s", "peak MiB", "least CPU"
  printf "%-28s %8.3f %8.3f %10.1f %10.3f\n", "fmp4mux", fw, fc, fk / 1024, fl
  printf "%-28s %8.3f %8.3f %10.1f %10.3f\n", "fmp4mux encrypted", ew, ec, ek / 1024, el
  printf "%-28s %8.3f %8.3f %10.1f %10.3f\n", "fmp4mux --demuxer libavformat", lw, lc, lk / 1024, ll
  printf "%-28s %8.3f %8.3f %10.1f %10.3f\n", "ffmpeg -c copy -f dash", gw, gc, gk / 1024, gl
  printf "%-28s %8.3f %8.3f\n", "I/O alone (split -b 1M)", pw, pc
  printf "speed (ffmpeg wall / fmp4mux wall): %.2fx   target >= 2: %s\n", gw / fw, (gw / fw >= 2) ? "met" : "NOT MET"
  printf "CPU (fmp4mux CPU / ffmpeg CPU):     %.2f    target <= 0.5: %s\n", fc / gc, (fc / gc <= 0.5) ? "met" : "NOT MET"
  printf "CPU, least of the runs:             %.2f\n", fl / gl
  printf "CPU, median of the rounds ratios:   %.2f\n", paired
  printf "CPU above the I/O alone:            %.2f    ((fmp4mux - split) / (ffmpeg - split))\n", (fc - pc) / (gc - pc)
  printf "peak memory:                        %.1f MiB target <= 80: %s\n", fk / 1024, (fk / 1024 <= 80) ? "met" : "NOT MET"
  printf "encryption cost (CPU):              %+.1f %%\n", (ec / fc - 1) * 100
}'
