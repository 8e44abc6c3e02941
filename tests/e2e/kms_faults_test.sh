#!/usr/bin/env bash
# fmp4mux against a scripted Harmonic key server on 127.0.0.1 that fails (loopback_server.py): the sample, DASH,
# ClearKey signalling, 2 s segments. Every run must write every chunk, each decrypting with the key its key id names.
#   down-at-start  the server comes up 4 s after fmp4mux started: fmp4mux says it waits, reads nothing meanwhile,
#                  then packages the whole input with the server's keys
#   down-at-start-live  the same with a live UDP input whose receiving ring overflows meanwhile: the loss is counted,
#                  and the input goes on
#   down-mid-run   the sample paced in real time; the server dies 7 s into the run, after a key change: the last
#                  key stays in force, fmp4mux says the server is down, and segments keep leaving
#   hung           the sample paced in real time; after the first key the server answers later than --kms-timeout
#                  (1 s): each segment stalls for the time-out and no longer. The stall per segment is measured
#                  against a run with a healthy server, and printed
#   widevine-rotation  keys from the scripted Widevine server, requests signed with the key file's key and IV, a
#                  new key every two segments: the MPD signals Widevine with the server's pssh
#   insidesecure-rotation  keys from the scripted Inside Secure server every two segments: the MPD signals PlayReady
#   buydrm         the key of the operator's key id from the scripted KeyOS server (user and server keys in the key
#                  file, never in the log): the MPD carries the server's PlayReady header
# Usage: kms_faults_test.sh BUILD_DIR CASE
set -euo pipefail
fail() { echo "kms_faults_test: FAIL: $*" >&2; [ -f "$OUT/stderr" ] && tr '\r' '\n' <"$OUT/stderr" | tail -n 20 >&2; exit 1; }
[ $# -eq 2 ] || { echo "usage: $0 BUILD_DIR down-at-start|down-mid-run|hung" >&2; exit 2; }
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
FMP4MUX="$1/apps/fmp4mux/fmp4mux"
CASE=$2
SAMPLE="$ROOT/samples/sample.ts"
OUT=$(mktemp -d "${TMPDIR:-/tmp}/fmp4mux-kms-$CASE.XXXXXX")
trap 'kill $(jobs -p) 2>/dev/null || true; [ -n "${KEEP:-}" ] || rm -rf "$OUT"' EXIT
. "$ROOT/tests/e2e/kms_keys.sh"

# run_fmp4mux NAME URL [OPTIONS...]: packages the sample into $OUT/NAME with keys from the Harmonic server at URL,
# its messages in $OUT/NAME.log.
run_fmp4mux() {
  local name=$1 url=$2; shift 2
  timeout 120 "$FMP4MUX" --kms-key-url "$url" --kms-resource-id sample --key-period 2 --drm clearkey \
    --kms-timeout 1 "$@" "$SAMPLE" "$OUT/$name" 2>"$OUT/$name.log" || fail "fmp4mux exited with $? ($name)"
}
# write_times DIR: each video chunk's write time in seconds after the run's start (the lock file's time).
write_times() {
  local start
  start=$(stat -c %.3Y "$1/.fmp4mux.lock")
  find "$1" -name 'chunk_*.mp4' -path '*video*' | sort -t_ -k2 -n | xargs stat -c %.3Y | awk -v s="$start" '{ printf "%.3f\n", $1 - s }'
}

case "$CASE" in
  down-at-start)
    port=$(free_port)
    ( sleep 4; start_kms --port "$port"; wait ) &
    run_fmp4mux out "http://127.0.0.1:$port/keys/rotating"
    grep -q 'waiting for the key server to answer before reading the inputs' "$OUT/out.log" ||
      fail "fmp4mux did not say that it waits for the key server"
    ;;
  down-at-start-live)
    # The sample three times over UDP in real time, received into a ring of 200 packets (the URL's fifo_size), and
    # the server up 14 s in, some 7 s after the read-ahead: the ring overflows while fmp4mux waits. What overflowed
    # is lost and counted; the input goes on and what comes after the wait is packaged.
    port=$(free_port) udp=$(free_port)
    ( sleep 14; start_kms --port "$port"; wait ) &
    timeout 90 "$FMP4MUX" --kms-key-url "http://127.0.0.1:$port/keys/rotating" --kms-resource-id sample \
      --key-period 2 --drm clearkey --kms-timeout 1 "udp://127.0.0.1:$udp?fifo_size=200&timeout=30000000" \
      "$OUT/out" 2>"$OUT/out.log" &
    muxer=$!
    sleep 0.5
    ffmpeg -hide_banner -loglevel error -re -stream_loop 2 -i "$SAMPLE" -c copy -f mpegts "udp://127.0.0.1:$udp?pkt_size=1316"
    sleep 1
    kill -INT "$muxer" 2>/dev/null || true
    wait "$muxer" || fail "fmp4mux exited with $? (out)"
    grep -q 'waiting for the key server to answer before reading the inputs' "$OUT/out.log" ||
      fail "fmp4mux did not say that it waits for the key server"
    tr '\r' '\n' <"$OUT/out.log" | grep -Eq 'lost [0-9]+ transport packets' || fail "the summary does not count the packets lost"
    grep -Eq '[0-9]+ datagrams dropped with the receiving ring full' "$OUT/out.log" ||
      fail "the summary does not say what the receiving ring dropped"
    ;;
  down-mid-run)
    start_kms --lifetime 7
    run_fmp4mux out "http://127.0.0.1:$KMS_PORT/keys/rotating" --realtime
    tr '\r' '\n' <"$OUT/out.log" | grep -q 'Key management server down' || fail "fmp4mux did not say the key server is down"
    ;;
  hung)
    start_kms --delay 3
    run_fmp4mux healthy "http://127.0.0.1:$KMS_PORT/keys/rotating" --realtime
    run_fmp4mux out "http://127.0.0.1:$KMS_PORT/keys/hang-after-first" --realtime
    tr '\r' '\n' <"$OUT/out.log" | grep -q 'use previous key' || fail "fmp4mux did not say it keeps the previous key"
    # The stall of each segment: how much later than with a healthy server its video chunk was written.
    stalls=$(paste <(write_times "$OUT/out") <(write_times "$OUT/healthy") | awk '{ printf "%.3f\n", $1 - $2 }')
    echo "kms_faults_test: the stall of each segment with the server hung (s): $(echo $stalls)"
    max=$(sort -g <<<"$stalls" | tail -n 1)
    echo "kms_faults_test: longest stall $max s, with a 1 s time-out per request stage"
    awk -v m="$max" 'BEGIN { exit !(m < 3.5) }' || fail "a segment stalled $max s, more than the time-outs allow"
    ;;
  widevine-rotation)
    start_kms
    # The signing key 20 21 .. 3f and IV 40 .. 4f that the server checks signatures with.
    printf 'widevine_signing_key=ICEiIyQlJicoKSorLC0uLzAxMjM0NTY3ODk6Ozw9Pj8=\nwidevine_signing_iv=QEFCQ0RFRkdISUpLTE1OTw==\n' >"$OUT/keys"
    timeout 120 "$FMP4MUX" --widevine-key-server "http://127.0.0.1:$KMS_PORT/widevine/ok" --widevine-signer tovrane \
      --kms-content-id sample --key-period 2 --key-file "$OUT/keys" "$SAMPLE" "$OUT/out" 2>"$OUT/out.log" ||
      fail "fmp4mux exited with $?"
    grep -q 'urn:uuid:edef8ba9-79d6-4ace-a3c8-27dcd51d21ed' "$OUT/out/manifest.mpd" || fail "the MPD does not signal Widevine"
    grep -q '<cenc:pssh>' "$OUT/out/manifest.mpd" || fail "the MPD has no Widevine pssh"
    ! grep -q 'ICEiIyQlJicoKSorLC0uLzAxMjM0NTY3ODk6Ozw9Pj8' "$OUT/out.log" || fail "the signing key reached the log"
    ;;
  insidesecure-rotation)
    start_kms
    timeout 120 "$FMP4MUX" --insidesecure-key-server "http://127.0.0.1:$KMS_PORT/insidesecure/ok" \
      --playready-la-url https://licence.invalid/pr --kms-content-id sample --key-period 2 "$SAMPLE" "$OUT/out" \
      2>"$OUT/out.log" || fail "fmp4mux exited with $?"
    grep -q 'urn:uuid:9a04f079-9840-4286-ab92-e65be0885f95' "$OUT/out/manifest.mpd" || fail "the MPD does not signal PlayReady"
    ;;
  buydrm)
    start_kms
    printf 'buydrm_user_key=user-SECRET-1\nbuydrm_server_key=server-SECRET-2\n' >"$OUT/keys"
    timeout 120 "$FMP4MUX" -v --buydrm-key-server "http://127.0.0.1:$KMS_PORT/keyos/ok" --kms-content-id sample \
      --key-id 0a0b0c0d-0102-0304-0506-0708090a0b0c --key-file "$OUT/keys" "$SAMPLE" "$OUT/out" 2>"$OUT/out.log" ||
      fail "fmp4mux exited with $?"
    grep -q 'mspr:pro' "$OUT/out/manifest.mpd" || fail "the MPD has no PlayReady header"
    ! grep -q 'SECRET' "$OUT/out.log" || fail "a BuyDRM secret reached the log"
    ;;
  *) echo "kms_faults_test: unknown case '$CASE'" >&2; exit 2 ;;
esac

run_dir=$(dirname "$(find "$OUT/out" -name manifest.mpd | head -n 1)")
xmllint --noout --nonet --schema "$ROOT/tests/data/schemas/DASH-MPD.xsd" "$run_dir/manifest.mpd" ||
  fail "the MPD does not validate"
check_chunks "$OUT/out"
echo "kms_faults_test: video chunks' key ids (first half): $(echo $(cut -c1-16 <<<"$KIDS")); $FRAMES frames decrypted"
if [ "$CASE" = down-at-start-live ]; then
  # Of 750 frames sent, the 7 s of the wait are lost, and the ring's 200 packets kept.
  [ "$FRAMES" -ge 250 ] && [ "$FRAMES" -le 650 ] || fail "decrypted, the video has $FRAMES frames; 250 to 650 expected"
else
  [ "$FRAMES" -eq 250 ] || fail "decrypted, the video has $FRAMES frames, the source 250"
fi
case "$CASE" in
  down-at-start|down-mid-run) [ "$(sort -u <<<"$KIDS" | grep -c .)" -ge 2 ] || fail "the keys did not rotate" ;;
  widevine-rotation|insidesecure-rotation)
    [ "$(sort -u <<<"$KIDS" | grep -c .)" -ge 3 ] || fail "the keys did not change every two segments" ;;
esac
case "$CASE" in
  down-mid-run|hung)
    # The key of the last answer stays in force to the end.
    [ "$(tail -n 2 <<<"$KIDS" | sort -u | grep -c .)" -eq 1 ] || fail "the last segments changed keys with the server gone" ;;
esac
echo "kms_faults_test: PASS ($CASE)"
