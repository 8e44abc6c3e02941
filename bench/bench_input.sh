# Sourced by the bench scripts: makes (once) and names the 5-minute 1080p25 H.264 8 Mb/s + AAC MPEG-TS they
# package, cached in the build folder.
# Usage: . bench/bench_input.sh; input=$(bench_input "$build")
bench_input() {
  local input="$1/bench-input-1080p-5min.ts"
  if [ ! -s "$input" ]; then
    echo "making the input (once): 5 min of 1080p25 H.264 at 8 Mb/s with AAC ..." >&2
    ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 \
      -f lavfi -i "sine=frequency=440:sample_rate=48000" -t 300 -map 0:v -map 1:a \
      -c:v libx264 -preset ultrafast -g 50 -keyint_min 50 -sc_threshold 0 -b:v 8M -maxrate 8M -bufsize 16M \
      -c:a aac -b:a 128k -ac 2 -f mpegts "$input.part" && mv "$input.part" "$input" || return 1
  fi
  echo "$input"
}

# Puts the input in the page cache as a file read from disk lies there: dropped from the cache (its pages are clean,
# so no privilege is needed), then read through once. How the kernel holds a file's pages depends on how they came
# in: a file just written lies in pages no larger than the writes that made it, one read ahead from disk in large
# ones, and mapping a file of small pages costs up to fifteen times more (fault-around and unmapping go page by
# page: 35 ms for this input as ffmpeg wrote it, 18 ms written 32 KiB at a time, 2.4 ms read from disk). Both packagers of a comparison then find the input in the same state, whatever made it.
bench_input_settle() {
  python3 -c 'import os, sys
fd = os.open(sys.argv[1], os.O_RDONLY)
os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)' "$1" && cat "$1" >/dev/null
}
