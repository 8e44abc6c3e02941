#!/usr/bin/env bash
# End-to-end test of a key server client: fmp4mux packages the bundled sample into DASH with its keys from a
# scripted key server on 127.0.0.1 (tests/packaging/kms_clients/loopback_server.py, answers in key_servers.py),
# the MPD is checked against the MPD schema and must signal the systems the server named, and ffmpeg must decrypt
# every chunk of each representation, behind its init segment, with the key of the key id the chunk names
# (worked out here from the key id, by the servers' rules), without an error. No secret reaches the log, which is
# read at debug level (with the dumps of the SOAP traffic).
#
#   bash tests/e2e/kms_clients/run_key_server_test.sh BUILD_DIR irdeto|verimatrix [rotation|server-dies|server-down]
#
#   rotation     the key changes every 4 s: the chunks name at least two key ids, in runs
#   server-dies  the server answers the first request only: fmp4mux goes on with the first key to the end
#   server-down  nothing listens at the address: fmp4mux waits for it, says why, gives up after --kms-wait 4, and
#                writes no manifest
set -euo pipefail

fail() { echo "run_key_server_test: FAIL: $*" >&2; exit 1; }
[ $# -ge 2 ] && [ $# -le 3 ] || { echo "usage: $0 BUILD_DIR irdeto|verimatrix [rotation|server-dies|server-down]" >&2; exit 2; }
BUILD_DIR=$(cd "$1" && pwd) || fail "no build folder $1"
SERVER=$2
CASE=${3:-rotation}
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(cd "$HERE/../../.." && pwd)
FMP4MUX="$BUILD_DIR/apps/fmp4mux/fmp4mux"
SAMPLE="$ROOT/samples/sample.ts"
SCHEMA="$ROOT/tests/data/schemas/DASH-MPD.xsd"
command -v xmllint >/dev/null || fail "xmllint is missing: run scripts/install-deps.sh (libxml2-utils)"
[ -x "$FMP4MUX" ] || fail "$FMP4MUX is not built"

OUT=$(mktemp -d "${TMPDIR:-/tmp}/fmp4mux-keys-$SERVER.XXXXXX")
trap 'exec 9>&-; rm -rf "$OUT"' EXIT
# The server lives while this script holds its standard input open (fd 9), and at most 120 s.
mkfifo "$OUT/kms.in"
python3 "$ROOT/tests/packaging/kms_clients/loopback_server.py" --lifetime 120 <"$OUT/kms.in" >"$OUT/kms.port" \
  2>"$OUT/kms.log" &
exec 9>"$OUT/kms.in"
for _ in $(seq 1 50); do grep -q '^PORT ' "$OUT/kms.port" 2>/dev/null && break; sleep 0.1; done
port=$(sed -n 's/^PORT //p' "$OUT/kms.port")
[ -n "$port" ] || fail "the loopback key server did not start"

scenario=ok
[ "$CASE" = server-dies ] && scenario=fail-after-first
SECRET=pw-SECRET-irdeto-e2e
case "$SERVER" in
  irdeto)
    printf 'irdeto_password=%s\nirdeto_event_description=an event\n' "$SECRET" >"$OUT/keys"
    args=(--key-file "$OUT/keys" --irdeto-url "http://127.0.0.1:$port/irdeto/$scenario" --irdeto-account-id acc-1
          --irdeto-content-id content-1 --irdeto-user user-1 --irdeto-event live-1 --drm playready --drm widevine)
    SYSTEMS="9a04f079-9840-4286-ab92-e65be0885f95 edef8ba9-79d6-4ace-a3c8-27dcd51d21ed" ;;
  verimatrix)
    args=(--vmx-url "http://127.0.0.1:$port/vmx/$scenario" --vmx-resource-id "channel one")
    SYSTEMS="9a27dd82-fde2-4725-8cbc-4234aa06ec09" ;;
  *) echo "run_key_server_test: unknown server '$SERVER'" >&2; exit 2 ;;
esac
args+=(-q -vv --key-period 4)

if [ "$CASE" = server-down ]; then  # the same addresses on a port that was free a moment ago
  closed=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  args=("${args[@]/127.0.0.1:$port/127.0.0.1:$closed}" --kms-wait 4)
fi
echo "run_key_server_test: $FMP4MUX ${args[*]} $SAMPLE $OUT/out"
rc=0
timeout 120 "$FMP4MUX" "${args[@]}" "$SAMPLE" "$OUT/out" 2>"$OUT/stderr" || rc=$?
if [ "$CASE" = server-down ]; then
  reason="Irdeto Create Live Event Failed: 'Connection refused'"  # the live event comes first
  [ "$SERVER" = verimatrix ] && reason="Could not retrieve key from key server: HTTP GET to http://127.0.0.1:$closed"
  [ "$rc" -eq 1 ] && grep -qF "$reason" "$OUT/stderr" && grep -q 'did not answer within --kms-wait' "$OUT/stderr" &&
    [ ! -e "$OUT/out/manifest.mpd" ] ||
    { cat "$OUT/stderr" >&2; fail "fmp4mux did not give up with the client's reason (exit code $rc)"; }
  echo "run_key_server_test: PASS ($SERVER, $CASE)"
  exit 0
fi
[ "$rc" -eq 0 ] || { cat "$OUT/stderr" >&2; fail "fmp4mux exited with $rc"; }
manifest=$OUT/out/manifest.mpd
[ -s "$manifest" ] || fail "fmp4mux wrote no manifest.mpd"
xmllint --noout --nonet --schema "$SCHEMA" "$manifest" || fail "the MPD does not validate against $SCHEMA"
for system in $SYSTEMS; do
  grep -q "urn:uuid:$system" "$manifest" || fail "the MPD does not signal the system $system the server named"
done

# The key id a chunk names (its seig group, or its init segment's tenc) and its key, by the servers' rules:
# Irdeto's a1a1a1a1-b2b2-c3c3-d4d4-<crypto period P> has 16 bytes of P % 256; Verimatrix's <12 zero bytes><p> has
# 00..0f for the connection (p, Unix seconds, above 10^9), otherwise 16 bytes of 0x40 + (p // 10^7) % 64.
kid_and_key() {
  python3 - "$1" "$2" "$SERVER" <<'PY'
import sys
chunk, init = open(sys.argv[1], "rb").read(), open(sys.argv[2], "rb").read()
i = chunk.find(b"sgpd")
kid = chunk[i - 4 + int.from_bytes(chunk[i - 4:i], "big") - 16:][:16].hex() if i > 0 else \
    init[init.find(b"tenc") + 12:][:16].hex()
key = "unknown"
if sys.argv[3] == "irdeto" and kid.startswith("a1a1a1a1b2b2c3c3d4d4"):
    key = ("%02x" % (int(kid[20:], 16) % 256)) * 16
elif sys.argv[3] == "verimatrix" and kid.startswith("0" * 24):
    p = int(kid[24:], 16)
    key = "000102030405060708090a0b0c0d0e0f" if p > 10**9 else ("%02x" % (0x40 + (p // 10**7) % 64)) * 16
print(kid, key)
PY
}

keys_used=""
for kind in video audio; do
  init=$(find "$OUT/out" -name init.mp4 -path "*$kind*" | head -n 1)
  [ -n "$init" ] || fail "no $kind init segment"
  kids="" frames=0
  for chunk in $(find "$(dirname "$init")" -name 'chunk_*.mp4' | sort -t_ -k2 -n); do
    read -r kid key < <(kid_and_key "$chunk" "$init")
    [ "$key" != unknown ] || fail "$chunk names key id $kid, which the server did not hand out"
    keys_used="$keys_used $key"
    [ "${kids##* }" = "$kid" ] || kids="$kids $kid"
    cat "$init" "$chunk" >"$OUT/one.mp4"
    errors=$(ffmpeg -v error -decryption_key "$key" -i "$OUT/one.mp4" -f null - 2>&1 | head -n 3)
    [ -z "$errors" ] || fail "$chunk does not decrypt with the key of its key id $kid: $errors"
    if [ "$kind" = video ]; then
      n=$(ffprobe -v error -decryption_key "$key" -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 "$OUT/one.mp4")
      n=${n%%[!0-9]*}
      frames=$((frames + ${n:-0}))
    fi
  done
  echo "run_key_server_test: the $kind chunks' key ids, in runs:$kids"
  runs=$(wc -w <<<"$kids")
  if [ "$CASE" = rotation ]; then
    [ "$runs" -ge 2 ] || fail "the $kind key did not change during the run"
  else
    [ "$runs" -eq 1 ] || fail "the $kind key changed although the server was down"
  fi
  if [ "$kind" = video ]; then
    echo "run_key_server_test: $frames video frames decrypted"
    [ "$frames" -eq 250 ] || fail "decrypted, the video has $frames frames, the source 250"
  fi
done

# No secret in the log: the password, the keys in hexadecimal or base64.
for key in $(tr ' ' '\n' <<<"$keys_used" | sort -u); do
  b64=$(xxd -r -p <<<"$key" | base64)
  ! grep -qiF -e "$key" -e "$b64" "$OUT/stderr" || fail "a key reached the log"
done
! grep -qF "$SECRET" "$OUT/stderr" || fail "the password reached the log"
if [ "$SERVER" = irdeto ]; then
  grep -q "debug: Irdeto SOAP response: " "$OUT/stderr" || fail "the SOAP traffic was not in the log at debug level"
fi
if [ "$CASE" = server-dies ]; then
  grep -q "Key management server down" "$OUT/stderr" || fail "fmp4mux did not say that the key server went down"
fi
echo "run_key_server_test: PASS ($SERVER, $CASE)"
