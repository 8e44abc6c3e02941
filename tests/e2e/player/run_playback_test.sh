#!/usr/bin/env bash
# End-to-end playback test: fmp4mux packages the bundled sample (H.264 + AAC in MPEG-TS) into DASH, Smooth
# Streaming or HLS, the DASH MPD is checked against the MPD schema, and dash.js (hls.js for HLS) in headless
# Chromium must play the result (play.mjs): currentTime past 6 s, frames decoded, no player or video element error.
#
#   bash tests/e2e/player/run_playback_test.sh BUILD_DIR dash|smooth|hls [CASE]
#
# CASE picks another input, made from the sample with ffmpeg, and how far the player must get:
#   jump-forward   the sample, then the sample again with its timestamps 5000 s later: played past 14 s
#   jump-backward  the sample 100 s later, then the sample as it is (its times go back): played past 14 s
#   gop-4s         the sample encoded again with 4 s GOPs, packaged with the default options: played past 8 s
#   apart-13ms     two renditions, the sample and the sample with every time 13 ms later: played past 6 s
#   damaged        the sample with 0.2 % of its transport packets removed (drop_ts_packets.mjs, fixed seed):
#                  fmp4mux says what it dropped, ffmpeg decodes every video frame it wrote without an error, and
#                  the player plays to the end (past 10 s)
#   clearkey       the sample encrypted (Common Encryption, key from a key file) and signalled for W3C ClearKey:
#                  the player, handed the key, plays; handed another key, it does not; ffmpeg decrypts every
#                  chunk of each representation (behind its init segment) to the source's frame and sample counts
#                  (Smooth Streaming: signalled for PlayReady too, played by dash.js with its Smooth module)
#   clearkey-shaka the same, played by shaka-player
#   cbcs-shaka     the same with --encryption-scheme cbcs (AES-CBC, 1:9 pattern, constant IV), played by
#                  shaka-player; the MPD says value="cbcs", and each video chunk ffmpeg decrypts decodes to the
#                  very pictures (framemd5) of the same chunk packaged in the clear
#   kms-rotation   the sample encrypted with keys from a scripted Harmonic key server on 127.0.0.1
#                  (tests/packaging/kms_clients/loopback_server.py: a key of its own for each key period), the key
#                  period 2 s: each chunk ffmpeg decrypts with the key its seig group names decodes, the keys change
#                  at least twice, and shaka-player given the server's keys plays past 8 s through the changes
#   renditions     (HLS) three renditions of the sample (416, 640 and 960 wide, encoded again with aligned GOPs)
#                  and its audio: hls.js starts on the first variant and, forced past 2 s, shows the last
#   mp3            the sample with its audio encoded again as MP3: the MPD says mp4a.6b; when this Chromium's
#                  MediaSource takes that type, dash.js plays past 6 s, and when it refuses it the test says so
#                  and is skipped (exit 77)
#   seek           the sample; once 8 s are buffered the player seeks to the middle of its second GOP, and the
#                  picture it shows must be the source's frame at that time as ffmpeg decodes it (frame_diff.mjs)
#
# Needs node, npm, /usr/bin/chromium and xmllint (scripts/install-deps.sh installs them). The npm packages are installed with `npm ci` into this
# folder's node_modules/ when the lock file changed since the last install.
set -euo pipefail

fail() { echo "run_playback_test: FAIL: $*" >&2; exit 1; }

[ $# -ge 2 ] && [ $# -le 3 ] || { echo "usage: $0 BUILD_DIR dash|smooth|hls [CASE]" >&2; exit 2; }
BUILD_DIR=$(cd "$1" && pwd) || fail "no build folder $1"
FORMAT=$2
CASE=${3:-sample}
case "$FORMAT" in dash|smooth|hls) ;; *) echo "run_playback_test: unknown format '$FORMAT' (dash, smooth or hls)" >&2; exit 2 ;; esac

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(cd "$HERE/../../.." && pwd)
FMP4MUX="$BUILD_DIR/apps/fmp4mux/fmp4mux"
SAMPLE="$ROOT/samples/sample.ts"
SCHEMA="$ROOT/tests/data/schemas/DASH-MPD.xsd"
CHROMIUM=${E2E_CHROMIUM:-/usr/bin/chromium}

# What the test needs is there, or the test fails saying what is missing.
[ -x "$CHROMIUM" ] || fail "$CHROMIUM is missing: run scripts/install-deps.sh (it installs Debian's chromium)"
command -v xmllint >/dev/null || fail "xmllint is missing: run scripts/install-deps.sh (libxml2-utils)"
[ -x "$FMP4MUX" ] || fail "$FMP4MUX is not built"
[ -f "$SAMPLE" ] || fail "the sample $SAMPLE is missing"
if [ "$FORMAT" = dash ]; then
  [ -f "$SCHEMA" ] || fail "the MPD schema $SCHEMA is missing"
fi

. "$HERE/npm_packages.sh"
install_npm_packages "$HERE"

OUT=$(mktemp -d "${TMPDIR:-/tmp}/fmp4mux-e2e-$FORMAT.XXXXXX")
trap 'rm -rf "$OUT"' EXIT

MIN_TIME=6
shifted() {  # OFFSET OUTPUT: the sample with its timestamps moved by OFFSET seconds
  ffmpeg -hide_banner -loglevel error -y -i "$SAMPLE" -map 0 -c copy -output_ts_offset "$1" -f mpegts "$2" ||
    fail "ffmpeg could not make $2"
}
case "$CASE" in
  sample) INPUT=$SAMPLE ;;
  jump-forward)
    shifted 5000 "$OUT/later.ts"
    cat "$SAMPLE" "$OUT/later.ts" >"$OUT/input.ts"
    INPUT=$OUT/input.ts MIN_TIME=14 ;;
  jump-backward)
    shifted 100 "$OUT/later.ts"
    cat "$OUT/later.ts" "$SAMPLE" >"$OUT/input.ts"
    INPUT=$OUT/input.ts MIN_TIME=14 ;;
  gop-4s)
    ffmpeg -hide_banner -loglevel error -y -i "$SAMPLE" -map 0 -c:a copy -c:v libx264 -preset veryfast -g 100 \
      -keyint_min 100 -sc_threshold 0 -b:v 600k -f mpegts "$OUT/input.ts" || fail "ffmpeg could not make the input"
    INPUT=$OUT/input.ts MIN_TIME=8 ;;
  apart-13ms)
    ffmpeg -hide_banner -loglevel error -y -i "$SAMPLE" -map 0 -c copy -muxdelay 0.7065 -f mpegts "$OUT/later.ts" ||
      fail "ffmpeg could not make the input"
    INPUT=$SAMPLE INPUT2=$OUT/later.ts ;;
  seek) INPUT=$SAMPLE MIN_TIME=8 ;;
  mp3)
    ffmpeg -hide_banner -loglevel error -y -i "$SAMPLE" -map 0 -c:v copy -c:a libmp3lame -b:a 128k -f mpegts \
      "$OUT/input.ts" || fail "ffmpeg could not make the input"
    INPUT=$OUT/input.ts ;;
  renditions)
    for size in 416x234 640x360 960x540; do
      ffmpeg -hide_banner -loglevel error -y -i "$SAMPLE" -map 0 -c:a copy -c:v libx264 -preset veryfast -s "$size" \
        -g 50 -keyint_min 50 -sc_threshold 0 -f mpegts "$OUT/$size.ts" || fail "ffmpeg could not make the $size rendition"
    done
    INPUT=$OUT/416x234.ts INPUT2=$OUT/640x360.ts INPUT3=$OUT/960x540.ts ;;
  clearkey|clearkey-shaka|cbcs-shaka|kms-rotation) INPUT=$SAMPLE MIN_TIME=8 ;;
  damaged)
    node "$HERE/drop_ts_packets.mjs" "$SAMPLE" "$OUT/input.ts" 0.002 4 >/dev/null || fail "could not damage the sample"
    INPUT=$OUT/input.ts MIN_TIME=10 ;;
  *) echo "run_playback_test: unknown case '$CASE'" >&2; exit 2 ;;
esac

args=(-q)
manifest=manifest.mpd
if [ "$FORMAT" = smooth ]; then
  args+=(-f smooth)
  manifest=Manifest
elif [ "$FORMAT" = hls ]; then
  args+=(-f hls)
  manifest=master.m3u8
fi
SWITCH=()
[ "$CASE" = renditions ] && args+=(--map 0:v --map 1:v --map 2:v --map 0:a) SWITCH=(--switch-level)
KID=00112233445566778899aabbccddeeff KEY=2b7e151628aed2a6abf7158809cf4f3c WRONG=000102030405060708090a0b0c0d0e0f
PLAYER=dashjs
[ "$FORMAT" = hls ] && PLAYER=hlsjs
CLEARKEY=()
case "$CASE" in
  clearkey*|cbcs-shaka)
    CLEARKEY=(--clearkey "$KID:$KEY")
    printf 'key_id=%s\nkey=%s\n' "$KID" "$KEY" >"$OUT/keys"
    args+=(--key-file "$OUT/keys" --drm clearkey)
    # Smooth Streaming players learn the key id from the PlayReady header.
    [ "$FORMAT" = smooth ] && args+=(--drm playready)
    [ "$CASE" = cbcs-shaka ] && args+=(--encryption-scheme cbcs)
    [ "$CASE" != clearkey ] && PLAYER=shaka ;;
  kms-rotation)
    . "$ROOT/tests/e2e/kms_keys.sh"
    start_kms
    args+=(--kms-key-url "http://127.0.0.1:$KMS_PORT/keys/rotating" --kms-resource-id sample --key-period 2 --drm clearkey)
    # What the scripted server hands out for period n: key id n-0000-4000-8000-0..., key bytes n, n+1, ... n+15.
    keys=()
    for n in 0 1 2 3 4 5 6; do
      kid=$(printf '%08x000040008000000000000000' "$n")
      keys+=("$kid:$(key_of_kid "$kid")")
    done
    CLEARKEY=(--clearkey "$(IFS=,; echo "${keys[*]}")")
    PLAYER=shaka ;;
esac

echo "run_playback_test: $FMP4MUX ${args[*]} $INPUT $OUT/out"
rc=0
timeout 120 "$FMP4MUX" "${args[@]}" "$INPUT" ${INPUT2:+"$INPUT2"} ${INPUT3:+"$INPUT3"} "$OUT/out" 2>"$OUT/stderr" || rc=$?
cat "$OUT/stderr" >&2
[ "$rc" -eq 0 ] || fail "fmp4mux exited with $rc"
[ -s "$OUT/out/$manifest" ] || fail "fmp4mux wrote no $manifest"
echo "run_playback_test: fmp4mux wrote $(find "$OUT/out" -type f | wc -l) files"

if [ "$FORMAT" = dash ]; then
  xmllint --noout --nonet --schema "$SCHEMA" "$OUT/out/$manifest" || fail "the MPD does not validate against $SCHEMA"
elif [ "$FORMAT" = smooth ]; then
  xmllint --noout --nonet "$OUT/out/$manifest" || fail "the Smooth Streaming manifest is not well-formed XML"
fi

joined_video() {  # the video representation's init segment and chunks, in order, as one file
  local init
  init=$(find "$OUT/out" -name init.mp4 -path '*video*' | head -n 1)
  [ -n "$init" ] || fail "no video init segment"
  { cat "$init"; find "$(dirname "$init")" -name 'chunk_*.mp4' | sort -t_ -k2 -n | xargs cat; } >"$OUT/video.mp4"
}
if [ "$CASE" = damaged ]; then
  grep -q 'input 0 was damaged: [1-9][0-9]* video frames dropped .* and [1-9][0-9]* damaged audio packets' "$OUT/stderr" ||
    fail "fmp4mux did not say what it dropped of the damaged input"
  joined_video
  errors=$(ffmpeg -hide_banner -v error -i "$OUT/video.mp4" -f null - 2>&1 | head -n 5)
  [ -z "$errors" ] || fail "a damaged frame reached the output; ffmpeg says: $errors"
fi

decoded_counts() {  # KIND KEY: frames (video) or samples (audio) ffmpeg decodes of each chunk of the representation
  # behind its init segment, added up (ffmpeg 5.1 mixes up the encryption data of fragments read in one file)
  local init total=0 n chunk
  init=$(find "$OUT/out" -name init.mp4 -path "*$1*" | head -n 1)
  [ -n "$init" ] || fail "no $1 init segment"
  for chunk in $(find "$(dirname "$init")" -name 'chunk_*.mp4' | sort -t_ -k2 -n); do
    cat "$init" "$chunk" >"$OUT/one.mp4"
    if [ "$1" = video ]; then
      n=$(ffprobe -v error -decryption_key "$2" -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 "$OUT/one.mp4")
    else
      n=$(ffmpeg -v error -decryption_key "$2" -i "$OUT/one.mp4" -map 0:a:0 -f s16le - | wc -c)
      n=$((n / 4))  # stereo 16-bit
    fi
    total=$((total + n))
  done
  echo "$total"
}
if [ "$FORMAT" = dash ] && [ "$CASE" = clearkey ] || [ "$CASE" = clearkey-shaka ] || [ "$CASE" = cbcs-shaka ]; then
  grep -q 'cenc:default_KID="00112233-4455-6677-8899-aabbccddeeff"' "$OUT/out/$manifest" || fail "the MPD does not name the key id"
  grep -q 'urn:uuid:1077efec-c0b2-4d02-ace3-3c1e52e2fb4b' "$OUT/out/$manifest" || fail "the MPD does not signal ClearKey"
  want_frames=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 "$SAMPLE" | awk 'NF && !seen++')
  frames=$(decoded_counts video "$KEY")
  echo "run_playback_test: ffmpeg decrypts $frames video frames (the source has $want_frames)"
  [ "$frames" -eq "$want_frames" ] || fail "decrypted, the video has $frames frames, the source $want_frames"
  samples=$(decoded_counts audio "$KEY")
  want_samples=$(( $(ffmpeg -v error -i "$SAMPLE" -map 0:a:0 -f s16le - | wc -c) / 4 ))
  echo "run_playback_test: ffmpeg decrypts $samples audio samples (the source has $want_samples)"
  [ $((samples - want_samples)) -le 1024 ] && [ $((want_samples - samples)) -le 1024 ] ||
    fail "decrypted, the audio has $samples samples, the source $want_samples"
fi
if [ "$CASE" = cbcs-shaka ]; then
  grep -q 'schemeIdUri="urn:mpeg:dash:mp4protection:2011" value="cbcs"' "$OUT/out/$manifest" ||
    fail "the MPD does not say the scheme is cbcs"
  timeout 120 "$FMP4MUX" -q "$INPUT" "$OUT/clear" 2>/dev/null || fail "fmp4mux could not package the sample in the clear"
  pictures() { ffmpeg -v error -nostdin "$@" -f framemd5 - 2>&1 | grep -v '^#'; }
  init=$(find "$OUT/out" -name init.mp4 -path '*video*' | head -n 1)
  clear_init=$(find "$OUT/clear" -name init.mp4 -path '*video*' | head -n 1)
  for chunk in $(find "$(dirname "$init")" -name 'chunk_*.mp4'); do
    cat "$init" "$chunk" >"$OUT/one.mp4"
    cat "$clear_init" "$(dirname "$clear_init")/$(basename "$chunk")" >"$OUT/clear.mp4"
    [ "$(pictures -decryption_key "$KEY" -i "$OUT/one.mp4")" = "$(pictures -i "$OUT/clear.mp4")" ] ||
      fail "$(basename "$chunk") decrypted does not decode to the pictures of the clear chunk"
  done
  echo "run_playback_test: every cbcs video chunk decrypts to the pictures of its clear twin"
fi
if [ "$CASE" = clearkey ] || [ "$CASE" = clearkey-shaka ] || [ "$CASE" = cbcs-shaka ]; then
  ! grep -rq "$KEY" "$OUT/stderr" "$OUT/out/$manifest" || fail "the key reached the log or the manifest"
  ! node "$HERE/play.mjs" --format "$FORMAT" --player "$PLAYER" --clearkey "$KID:$WRONG" --min-time 2 --timeout 20 \
    "$OUT/out" "$manifest" >"$OUT/wrong.log" 2>&1 || fail "$PLAYER played the encrypted output with a wrong key"
  echo "run_playback_test: with a wrong key $PLAYER does not play (as it must)"
fi

if [ "$CASE" = kms-rotation ]; then
  check_chunks "$OUT/out"
  periods=$(cut -c1-8 <<<"$KIDS")
  echo "run_playback_test: the chunks' key periods: $(echo $periods); $FRAMES frames decrypted"
  [ "$(sort -u <<<"$periods" | grep -c .)" -ge 3 ] || fail "the keys did not change every two segments: $(echo $periods)"
  [ "$(sort -c <<<"$periods" 2>&1)" = "" ] || fail "the key periods went back: $(echo $periods)"
  [ "$FRAMES" -eq 250 ] || fail "decrypted, the video has $FRAMES frames, the source 250"
fi

if [ "$CASE" = mp3 ]; then
  grep -q 'codecs="mp4a.6b"' "$OUT/out/$manifest" || fail "the MPD does not say mp4a.6b for the MP3 audio"
  rc=0
  node "$HERE/play.mjs" --format "$FORMAT" --require-type 'audio/mp4; codecs="mp4a.6b"' --min-time "$MIN_TIME" \
    --timeout 60 "$OUT/out" "$manifest" || rc=$?
  [ "$rc" -eq 77 ] && { echo "run_playback_test: SKIP: this Chromium refuses MP3 in MP4 (mp4a.6b)"; exit 77; }
  [ "$rc" -eq 0 ] || fail "dash.js in Chromium did not play the MP3 audio of the $FORMAT output of fmp4mux"
  echo "run_playback_test: PASS ($FORMAT, $CASE)"
  exit 0
fi
if [ "$CASE" != seek ]; then
  node "$HERE/play.mjs" --format "$FORMAT" --player "$PLAYER" "${CLEARKEY[@]}" "${SWITCH[@]}" --min-time "$MIN_TIME" \
    --timeout 60 "$OUT/out" "$manifest" ||
    fail "$PLAYER in Chromium did not play the $FORMAT output of fmp4mux ($CASE)"
  echo "run_playback_test: PASS ($FORMAT, $CASE)"
  exit 0
fi

# Seek: the first video frame's time in the presentation, read by ffprobe from the video representation.
joined_video
first=$(ffprobe -v error -select_streams v:0 -show_entries packet=pts_time -of csv=p=0 "$OUT/video.mp4" | sort -g | head -n 1)
fps=25  # the sample's frame rate; its key frames are 2 s apart
target=$(awk -v f="$first" 'BEGIN { printf "%.3f", f + 3.02 }')  # the middle of the second GOP, half a frame on
shown=$(node "$HERE/play.mjs" --format "$FORMAT" --min-time "$MIN_TIME" --timeout 60 --seek "$target" \
          --grab "$OUT/shown.rgba" "$OUT/out" "$manifest" | tee /dev/stderr | sed -n 's/^play.mjs: seek: shown //p') ||
  fail "dash.js in Chromium did not show a picture after seeking in the $FORMAT output of fmp4mux"
read -r media size <<<"$shown"
[ -n "$size" ] || fail "play.mjs told no picture"
width=${size%x*} height=${size#*x}
index=$(awk -v m="$media" -v f="$first" -v r="$fps" 'BEGIN { printf "%d", (m - f) * r + 0.001 }')  # the frame shown at m
echo "run_playback_test: seeked to $target s, the player shows media time $media s: frame $index of the source"
frame() {  # N: the source's frame N (presentation order) as raw RGBA, in BT.709 colours as Chromium shows video
  # that does not say its colours
  ffmpeg -hide_banner -loglevel error -y -i "$SAMPLE" -frames:v 1 -f rawvideo \
    -vf "select=eq(n\\,$1),scale=$width:$height:in_color_matrix=bt709,format=rgba" "$OUT/frame$1.rgba" || fail "ffmpeg could not decode frame $1"
  echo "$OUT/frame$1.rgba"
}
node "$HERE/frame_diff.mjs" "$OUT/shown.rgba" "$width" "$height" "$(frame $((index - 1)))" "$(frame "$index")" \
  "$(frame $((index + 1)))" -- "$(frame $((index - 12)))" "$(frame $((index + 12)))" ||
  fail "the picture shown after the seek is not the source's frame $index"
echo "run_playback_test: PASS ($FORMAT, $CASE)"
