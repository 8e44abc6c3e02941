#!/usr/bin/env bash
# Push end-to-end test: fmp4mux, in the low-latency mode and paced as a live source, sends every file with HTTP PUT
# (--push) to a real nginx that this test starts on 127.0.0.1 with WebDAV PUT, as the current user, from a
# configuration of its own in a temporary folder. nginx is stopped for 5 s in the middle of the run: retries must
# bring every file through. At the end every file of the output folder is on nginx, byte for byte, nothing else is
# there (no half-written file), and growing segments went with chunked transfer encoding.
#
#   bash tests/e2e/push_test.sh BUILD_DIR
set -euo pipefail

fail() { echo "push_test: FAIL: $*" >&2; exit 1; }
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
BUILD_DIR=$(cd "$1" && pwd) || fail "no build folder $1"
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
FMP4MUX="$BUILD_DIR/apps/fmp4mux/fmp4mux"
NGINX=$(command -v nginx || echo /usr/sbin/nginx)
[ -x "$NGINX" ] || fail "nginx is missing: run scripts/install-deps.sh"
[ -x "$FMP4MUX" ] || fail "$FMP4MUX is not built"

T=$(mktemp -d "${TMPDIR:-/tmp}/fmp4mux-push.XXXXXX")
PID=
cleanup() {
  if [ -n "$PID" ]; then kill "$PID" 2>/dev/null || true; wait "$PID" 2>/dev/null || true; fi
  [ -f "$T/nginx.pid" ] && "$NGINX" -p "$T" -c "$T/nginx.conf" -s stop 2>/dev/null || true
  rm -rf "$T"
}
trap cleanup EXIT
mkdir -p "$T/www" "$T/tmp"
PORT=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat >"$T/nginx.conf" <<CONF
user $(id -un) $(id -gn);
worker_processes 1;
pid $T/nginx.pid;
error_log $T/error.log warn;
events { worker_connections 64; }
http {
  log_format push '\$request_method \$uri \$status \$http_transfer_encoding';
  access_log $T/access.log push;
  client_body_temp_path $T/tmp/body;
  proxy_temp_path $T/tmp/proxy;
  fastcgi_temp_path $T/tmp/fastcgi;
  uwsgi_temp_path $T/tmp/uwsgi;
  scgi_temp_path $T/tmp/scgi;
  server {
    listen 127.0.0.1:$PORT;
    root $T/www;
    client_max_body_size 64m;
    location / {
      dav_methods PUT DELETE;
      create_full_put_path on;
      dav_access user:rw group:r all:r;
    }
  }
}
CONF
start_nginx() {
  "$NGINX" -p "$T" -c "$T/nginx.conf" -e "$T/error.log" 2>>"$T/nginx.err" || { cat "$T/nginx.err" "$T/error.log" >&2; fail "nginx did not start"; }
  for _ in $(seq 50); do curl -s -o /dev/null "http://127.0.0.1:$PORT/" && return 0; sleep 0.1; done
  fail "nginx does not answer on 127.0.0.1:$PORT"
}
start_nginx

"$FMP4MUX" -q -m low-latency -g 2000 --chunk-duration 400 --map 0:v --realtime --push "http://127.0.0.1:$PORT/" \
  "$ROOT/samples/sample.ts" "$T/out" 2>"$T/fmp4mux.log" &
PID=$!
sleep 2
"$NGINX" -p "$T" -c "$T/nginx.conf" -s stop 2>/dev/null
for _ in $(seq 50); do [ -f "$T/nginx.pid" ] || break; sleep 0.1; done
sleep 5
start_nginx
wait "$PID" || { cat "$T/fmp4mux.log" >&2; fail "fmp4mux failed"; }
PID=

(cd "$T/out" && find . -type f ! -name .fmp4mux.lock | sort) >"$T/made"
(cd "$T/www" && find . -type f | sort) >"$T/arrived"
[ "$(wc -l <"$T/made")" -ge 6 ] || fail "fmp4mux made $(wc -l <"$T/made") files only"
diff "$T/made" "$T/arrived" >&2 || fail "the files on nginx are not those of the output folder"
while read -r f; do cmp -s "$T/out/$f" "$T/www/$f" || fail "$f differs on nginx"; done <"$T/made"
grep -q ' chunked$' "$T/access.log" || fail "no segment went with chunked transfer encoding"
grep -q 'could not be sent' "$T/fmp4mux.log" && fail "fmp4mux gave up a file: $(cat "$T/fmp4mux.log")"
echo "push_test: PASS: $(wc -l <"$T/made") files arrived whole; $(grep -c ' chunked$' "$T/access.log") chunked PUTs"
