#!/usr/bin/env bash
# End-to-end subtitle test: fmp4mux packages the bundled sample with a subtitle file into DASH; the MPD must be
# valid against the MPD schema and carry a text adaptation set (Role subtitle, codecs wvtt or stpp), ffprobe must
# read the text track's init and media segments as wvtt or stpp (for stpp, xmllint finds each segment's document
# well-formed), and the player in headless Chromium (play.mjs) must expose the source's cues on video.textTracks:
# number, start, end and text.
#
#   bash tests/e2e/player/run_subtitle_test.sh BUILD_DIR vtt|vtt-shaka|srt|bad|ttml|ttml-shaka
#
#   vtt        tests/data/subtitles/cues.vtt, played by dash.js; the cues expected are Chromium's own parse of the file
#   vtt-shaka  the same played by shaka-player
#   srt        tests/data/subtitles/cues.srt (CRLF), played by dash.js; the cues expected are written out beside it
#   ttml       tests/data/subtitles/cues.ttml (offset and clock times, dur, styles, a region), played by dash.js; the
#              cues expected are written out beside it
#   ttml-shaka the same played by shaka-player
#   vtt-hls    cues.vtt packaged as DASH and HLS, played by hls.js from the multivariant playlist (a SUBTITLES group
#              of WebVTT text files)
#   ttml-hls   cues.ttml the same way (IMSC1 in fMP4)
#   follow     cues.vtt written block by block (and a late cue) into a file that fmp4mux follows as it grows while
#              it packages the sample in real time (--follow); the late cue gives a warning, dash.js shows the rest
#   mkv        cues.vtt muxed by ffmpeg beside the sample into Matroska (a WebVTT stream of the input), played by dash.js
#   bad        tests/data/subtitles/bad.vtt: overlapping and backwards times, an unclosed tag, Latin-1 text and
#              control bytes each give a warning naming the file and line; the two good cues are played
set -euo pipefail

fail() { echo "run_subtitle_test: FAIL: $*" >&2; exit 1; }

[ $# -eq 2 ] || { echo "usage: $0 BUILD_DIR vtt|vtt-shaka|vtt-hls|srt|bad|ttml|ttml-shaka|ttml-hls|follow|mkv" >&2; exit 2; }
BUILD_DIR=$(cd "$1" && pwd) || fail "no build folder $1"
CASE=$2
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(cd "$HERE/../../.." && pwd)
FMP4MUX="$BUILD_DIR/apps/fmp4mux/fmp4mux"
SAMPLE="$ROOT/samples/sample.ts"
SCHEMA="$ROOT/tests/data/schemas/DASH-MPD.xsd"
DATA="$ROOT/tests/data/subtitles"
[ -x "$FMP4MUX" ] || fail "$FMP4MUX is not built"
command -v xmllint >/dev/null || fail "xmllint is missing: run scripts/install-deps.sh (libxml2-utils)"
command -v ffprobe >/dev/null || fail "ffprobe is missing: run scripts/install-deps.sh"
# shellcheck source=npm_packages.sh
source "$HERE/npm_packages.sh"
install_npm_packages "$HERE"

WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
OUT="$WORK/out"
PLAYER=dashjs
CODEC=wvtt
FORMATS=dash
EXTRA=()
case "$CASE" in
  ttml) SUBS="$DATA/cues.ttml"; CUES=(--cues-json "$DATA/cues.ttml.json"); CODEC=stpp ;;
  ttml-shaka) SUBS="$DATA/cues.ttml"; CUES=(--cues-json "$DATA/cues.ttml.json"); CODEC=stpp; PLAYER=shaka ;;
  ttml-hls) SUBS="$DATA/cues.ttml"; CUES=(--cues-json "$DATA/cues.ttml.json"); CODEC=stpp; PLAYER=hlsjs; FORMATS=dash,hls ;;
  mkv) SUBS="$DATA/cues.vtt"; CUES=(--cues-vtt cues.vtt) ;;
  follow) SUBS="$WORK/live.vtt"; CUES=(--cues-vtt cues.vtt); EXTRA=(--realtime --follow 1) ;;
  vtt) SUBS="$DATA/cues.vtt"; CUES=(--cues-vtt cues.vtt) ;;
  vtt-shaka) SUBS="$DATA/cues.vtt"; CUES=(--cues-vtt cues.vtt); PLAYER=shaka ;;
  vtt-hls) SUBS="$DATA/cues.vtt"; CUES=(--cues-vtt cues.vtt); PLAYER=hlsjs; FORMATS=dash,hls ;;
  srt) SUBS="$DATA/cues.srt"; CUES=(--cues-json "$DATA/cues.srt.json") ;;
  bad) SUBS="$DATA/bad.vtt"
       printf '[{"start":1,"end":2,"text":"kept one"},{"start":8,"end":9,"text":"kept two"}]' >"$WORK/bad.json"
       CUES=(--cues-json "$WORK/bad.json") ;;
  *) echo "run_subtitle_test: unknown case '$CASE'" >&2; exit 2 ;;
esac

if [ "$CASE" = follow ]; then
  # The blocks of cues.vtt one a second, the late cue (it starts inside the first one) after the third block.
  : >"$SUBS"
  awk -v RS= -v dir="$WORK" '{ print $0 "\n" > (dir "/block" NR) }' "$DATA/cues.vtt"
  (
    for n in $(seq 1 "$(ls "$WORK"/block* | wc -l)"); do
      cat "$WORK/block$n" >>"$SUBS"
      [ "$n" -eq 3 ] && printf '00:00:01.000 --> 00:00:01.500\nlate\n\n' >>"$SUBS"
      sleep 1
    done
  ) &
fi
if [ "$CASE" = mkv ]; then
  ffmpeg -v error -nostdin -i "$SAMPLE" -i "$SUBS" -map 0 -map 1 -c:v copy -c:a copy -c:s webvtt -metadata:s:s:0 language=fra \
    "$WORK/in.mkv" || fail "ffmpeg could not write the Matroska input"
  # Its cues count from the file's zero; the player's timeline from its first picture.
  ZERO=$(ffprobe -v error -select_streams v -show_entries packet=pts_time -of csv=p=0 "$WORK/in.mkv" | sort -n | head -1)
  CUES+=(--cues-zero "$ZERO")
  "$FMP4MUX" -q --name 0:2=subs "$WORK/in.mkv" "$OUT" 2>"$WORK/log" || { cat "$WORK/log" >&2; fail "fmp4mux failed"; }
else
  "$FMP4MUX" -q -f "$FORMATS" "${EXTRA[@]}" --language 1:0=fra --name 1:0=subs "$SAMPLE" "$SUBS" "$OUT" 2>"$WORK/log" ||
    { cat "$WORK/log" >&2; fail "fmp4mux failed"; }
fi
wait
cat "$WORK/log"
if [ "$CASE" = follow ]; then
  grep -q "warning: $SUBS.*the cue is skipped" "$WORK/log" || fail "no warning for the late cue"
  SUBS="$DATA/cues.vtt"
fi
if [ "$CASE" = bad ]; then
  for line in 6 9 12 15 18; do
    grep -q "warning: $SUBS:$line: .*the cue is skipped" "$WORK/log" || fail "no warning for line $line of $SUBS"
  done
fi
cp "$SUBS" "$OUT/cues.vtt"

MPD="$OUT/manifest.mpd"
xmllint --noout --schema "$SCHEMA" "$MPD" 2>"$WORK/xmllint" || { cat "$WORK/xmllint" >&2; fail "the MPD is not valid"; }
grep -q '<AdaptationSet id="[0-9]*" contentType="text" mimeType="application/mp4"[^>]* lang="fra"' "$MPD" ||
  fail "no text adaptation set in French in the MPD"
grep -q '<Role schemeIdUri="urn:mpeg:dash:role:2011" value="subtitle"/>' "$MPD" || fail "no subtitle role in the MPD"
grep -q '<Representation id="subs" bandwidth="[0-9]*" codecs="'$CODEC'"' "$MPD" || fail "no $CODEC representation in the MPD"

# ffprobe over the init segment and every media segment of the text track, joined.
TRACK=$(find "$OUT" -path '*subs*' -name init.mp4 | head -1)
[ -n "$TRACK" ] || fail "no init segment for the text track"
cat "$TRACK" $(ls "$(dirname "$TRACK")"/chunk_*.mp4 | sort -t_ -k2 -n) >"$WORK/text.mp4"
ffprobe -v error -show_entries stream=codec_tag_string:stream_tags=language -of default=nw=1 "$WORK/text.mp4" >"$WORK/probe"
grep -q "codec_tag_string=$CODEC" "$WORK/probe" || { cat "$WORK/probe" >&2; fail "ffprobe does not read a $CODEC track"; }
PACKETS=$(ffprobe -v error -show_packets "$WORK/text.mp4" | grep -c '^\[PACKET\]')
[ "$PACKETS" -gt 0 ] || fail "ffprobe reads no sample of the text track"
echo "run_subtitle_test: ffprobe: $CODEC track with $PACKETS samples"
if [ "$CODEC" = stpp ]; then
  # Each media segment's mdat is one TTML document.
  for chunk in "$(dirname "$TRACK")"/chunk_*.mp4; do
    python3 - "$chunk" "$WORK/doc.xml" <<'PY'
import struct, sys
data = open(sys.argv[1], 'rb').read()
at = 0
while at + 8 <= len(data):
    size, kind = struct.unpack('>I4s', data[at:at + 8])
    if kind == b'mdat':
        open(sys.argv[2], 'wb').write(data[at + 8:at + size])
        break
    at += size
else:
    sys.exit('no mdat in ' + sys.argv[1])
PY
    xmllint --noout "$WORK/doc.xml" || fail "the TTML document of $chunk is not well-formed"
  done
  echo "run_subtitle_test: every segment's TTML document is well-formed"
fi

if [ "$PLAYER" = hlsjs ]; then
  grep -q '^#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="subs",LANGUAGE="fra",.*URI="subs.m3u8"' "$OUT/master.m3u8" ||
    fail "no subtitle rendition in the multivariant playlist"
  node "$HERE/play.mjs" --format hls --min-time 9 "${CUES[@]}" "$OUT" master.m3u8 || fail "hls.js did not show the cues"
else
  node "$HERE/play.mjs" --player "$PLAYER" --min-time 9 "${CUES[@]}" "$OUT" manifest.mpd || fail "the player did not show the cues"
fi
echo "run_subtitle_test: PASS: $CASE"
