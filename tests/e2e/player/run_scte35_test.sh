#!/usr/bin/env bash
# End-to-end SCTE-35 test: the bundled sample gains an SCTE-35 stream (scte35_fixture.py: a splice_insert 3 s and a
# time_signal 6 s after the first picture, each sent 2 s ahead and the first again 1 s ahead, bytes built from
# ANSI/SCTE 35), fmp4mux packages it,
# and dash.js in headless Chromium must fire each event once, at the splice's media time (within one frame) with the
# section as their message (play.mjs --events). The MPDs, with the stream descriptors given, are valid against
# the MPD schema.
#
#   bash tests/e2e/player/run_scte35_test.sh BUILD_DIR live|ondemand|silent
#
#   live      the input comes through a pipe, a live source: the MPD is dynamic (the one written after the first
#             part of the input is kept and validated), the video segments carry the events as emsg boxes after
#             styp, and the MPD has an InbandEventStream; ffmpeg decodes every frame of the segments with the
#             boxes in them
#   ondemand  the file with -f dash,hls: a static MPD lists the events in its Period's EventStream, the segments
#             carry none, and the video playlist dates each event with EXT-X-DATERANGE (SCTE35-OUT, SCTE35-CMD)
#   silent    the SCTE-35 stream is declared and sends nothing: every frame is still packaged (the engine takes the
#             time origin without waiting for it)
set -euo pipefail

fail() { echo "run_scte35_test: FAIL: $*" >&2; exit 1; }

[ $# -eq 2 ] || { echo "usage: $0 BUILD_DIR live|ondemand|silent" >&2; exit 2; }
BUILD_DIR=$(cd "$1" && pwd) || fail "no build folder $1"
CASE=$2
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(cd "$HERE/../../.." && pwd)
FMP4MUX="$BUILD_DIR/apps/fmp4mux/fmp4mux"
SCHEMA="$ROOT/tests/data/schemas/DASH-MPD.xsd"
[ -x "$FMP4MUX" ] || fail "$FMP4MUX is not built"
for tool in xmllint ffprobe ffmpeg python3; do command -v $tool >/dev/null || fail "$tool is missing: run scripts/install-deps.sh"; done
# shellcheck source=npm_packages.sh
source "$HERE/npm_packages.sh"
install_npm_packages "$HERE"

WORK=$(mktemp -d)
RUN=
trap '[ -n "$RUN" ] && kill "$RUN" 2>/dev/null; rm -rf "$WORK"' EXIT
OUT="$WORK/out"
SOURCE=$(ffprobe -v error -select_streams v -count_frames -show_entries stream=nb_read_frames -of csv=p=0 "$ROOT/samples/sample.ts" | awk 'NF && !n++')
if [ "$CASE" = silent ]; then
  python3 "$HERE/scte35_fixture.py" "$ROOT/samples/sample.ts" "$WORK/silent.ts" "$WORK/cues.json" --silent
  "$FMP4MUX" -q "$WORK/silent.ts" "$OUT" 2>"$WORK/log" || { cat "$WORK/log" >&2; fail "fmp4mux failed"; }
  INIT=$(find "$OUT" -path '*video0*' -name init.mp4 | head -1)
  [ -n "$INIT" ] || { cat "$WORK/log" >&2; fail "no video init segment"; }
  cat "$INIT" $(ls "$(dirname "$INIT")"/chunk_*.mp4 | sort -t_ -k2 -n) >"$WORK/video.mp4"
  FRAMES=$(ffmpeg -v error -xerror -i "$WORK/video.mp4" -map 0:v -f framemd5 - | grep -vc '^#')
  [ "$FRAMES" -eq "$SOURCE" ] || fail "ffmpeg decodes $FRAMES frames, not the source's $SOURCE"
  echo "run_scte35_test: PASS: silent ($FRAMES frames)"
  exit 0
fi
python3 "$HERE/scte35_fixture.py" "$ROOT/samples/sample.ts" "$WORK/cue.ts" "$WORK/cues.json"
DESCRIBE=(--role 0:0=main --descriptor "0:1=Accessibility,urn:tva:metadata:cs:AudioPurposeCS:2007,1"
          --descriptor "0:0=Viewpoint,urn:example:viewpoint,stage")

case "$CASE" in
  live)
    # The first 400 kB (enough for the stream list and the GOP to be measured), then (once the dynamic MPD is there) the rest: a live source that pauses.
    mkfifo "$WORK/pipe"
    "$FMP4MUX" -q "${DESCRIBE[@]}" - "$OUT" <"$WORK/pipe" 2>"$WORK/log" &
    RUN=$!
    exec 3>"$WORK/pipe"
    head -c 400000 "$WORK/cue.ts" >&3
    for _ in $(seq 200); do [ -f "$OUT/manifest.mpd" ] && break; sleep 0.1; done
    cp "$OUT/manifest.mpd" "$WORK/dynamic.mpd" 2>/dev/null || fail "no MPD while the input goes on"
    tail -c +400001 "$WORK/cue.ts" >&3
    exec 3>&-
    wait $RUN || { RUN=; cat "$WORK/log" >&2; fail "fmp4mux failed"; }
    RUN=
    grep -q 'type="dynamic"' "$WORK/dynamic.mpd" || fail "the MPD written while the input went on is not dynamic"
    xmllint --noout --schema "$SCHEMA" "$WORK/dynamic.mpd" || fail "the dynamic MPD is not valid"
    grep -q '<InbandEventStream schemeIdUri="urn:scte:scte35:2013:bin"/>' "$WORK/dynamic.mpd" ||
      fail "the dynamic MPD has no InbandEventStream"
    ;;
  ondemand)
    "$FMP4MUX" -q -f dash,hls "${DESCRIBE[@]}" "$WORK/cue.ts" "$OUT" 2>"$WORK/log" || { cat "$WORK/log" >&2; fail "fmp4mux failed"; }
    ;;
  *) echo "run_scte35_test: unknown case '$CASE'" >&2; exit 2 ;;
esac
cat "$WORK/log"
# A segment without a splice is the SCTE-35 output's normal state, not worth a warning.
if grep -q "warning: .*missing chunk" "$WORK/log"; then fail "missing-chunk warnings for the SCTE-35 output"; fi
MPD="$OUT/manifest.mpd"
xmllint --noout --schema "$SCHEMA" "$MPD" || fail "the MPD is not valid"
grep -q '<Role schemeIdUri="urn:mpeg:dash:role:2011" value="main"/>' "$MPD" || fail "no Role in the MPD"
grep -q '<Accessibility schemeIdUri="urn:tva:metadata:cs:AudioPurposeCS:2007" value="1"/>' "$MPD" || fail "no Accessibility in the MPD"

# The video track's files, in time order; the events' media times count from its first picture.
INIT=$(find "$OUT" -path '*video0*' -name init.mp4 | head -1)
[ -n "$INIT" ] || fail "no video init segment"
mapfile -t CHUNKS < <(ls "$(dirname "$INIT")"/chunk_*.mp4 | sort -t_ -k2 -n)
cat "$INIT" "${CHUNKS[@]}" >"$WORK/video.mp4"
FIRST=$(ffprobe -v error -select_streams v -show_entries packet=pts_time -of csv=p=0 "$WORK/video.mp4" | sort -n | awk 'NR == 1')
python3 - "$WORK/cues.json" "$FIRST" "$WORK/expected.json" <<'PY'
import json, sys
cues = json.load(open(sys.argv[1]))
json.dump([{'time': float(sys.argv[2]) + c['after_first_picture'], 'hex': c['hex']} for c in cues], open(sys.argv[3], 'w'))
PY
echo "run_scte35_test: first picture at $FIRST s; events expected: $(cat "$WORK/expected.json")"

# The top-level boxes of each video segment: emsg right after styp, live; none on demand.
EMSG=$(python3 - "${CHUNKS[@]}" <<'PY'
import struct, sys
count = 0
for name in sys.argv[1:]:
    data = open(name, 'rb').read()
    at, kinds = 0, []
    while at + 8 <= len(data):
        size, kind = struct.unpack('>I4s', data[at:at + 8])
        kinds.append(kind.decode())
        at += max(size, 8)
    count += kinds.count('emsg')
    if 'emsg' in kinds and kinds[:kinds.count('emsg') + 1] != ['styp'] + ['emsg'] * kinds.count('emsg'):
        sys.exit('emsg out of place in %s: %s' % (name, kinds))
print(count)
PY
) || fail "$EMSG"
if [ "$CASE" = live ]; then
  [ "$EMSG" -eq 2 ] || fail "the video segments carry $EMSG emsg boxes, not 2"
  grep -q '<InbandEventStream schemeIdUri="urn:scte:scte35:2013:bin"/>' "$MPD" || fail "no InbandEventStream in the MPD"
  FRAMES=$(ffmpeg -v error -xerror -i "$WORK/video.mp4" -map 0:v -f framemd5 - | grep -vc '^#')
  [ "$FRAMES" -eq "$SOURCE" ] || fail "ffmpeg decodes $FRAMES frames of the segments with emsg, not the source's $SOURCE"
  echo "run_scte35_test: $EMSG emsg boxes; ffmpeg decodes all $FRAMES frames"
else
  [ "$EMSG" -eq 0 ] || fail "on demand, the segments carry $EMSG emsg boxes"
  [ "$(grep -c '<Event ' "$MPD")" -eq 2 ] || fail "the MPD's EventStream does not list 2 events"
  PLAYLIST="$OUT/video0.m3u8"
  HEX=$(python3 -c 'import json,sys; print(" ".join(c["hex"].upper() for c in json.load(open(sys.argv[1]))))' "$WORK/cues.json")
  read -r OUT_HEX CMD_HEX <<<"$HEX"
  grep -q "^#EXT-X-DATERANGE:ID=\"splice-1\",START-DATE=\"[-0-9T:.]*Z\",PLANNED-DURATION=2.000,SCTE35-OUT=0x$OUT_HEX\$" "$PLAYLIST" ||
    { cat "$PLAYLIST" >&2; fail "no EXT-X-DATERANGE for the splice_insert"; }
  grep -q "^#EXT-X-DATERANGE:ID=\"splice-2\",START-DATE=\"[-0-9T:.]*Z\",SCTE35-CMD=0x$CMD_HEX\$" "$PLAYLIST" ||
    fail "no EXT-X-DATERANGE for the time_signal"
  grep -q '^#EXT-X-PROGRAM-DATE-TIME:' "$PLAYLIST" || fail "the playlist has no EXT-X-PROGRAM-DATE-TIME"
fi

node "$HERE/play.mjs" --min-time 7 --events "$WORK/expected.json" "$OUT" manifest.mpd || fail "dash.js did not fire the events"
echo "run_scte35_test: PASS: $CASE"
