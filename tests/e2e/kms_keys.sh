# Shell helpers for runs against the scripted key server (tests/packaging/kms_clients/loopback_server.py):
# starting it, and checking that every chunk decrypts with the key the server handed out for the key id it names.
# Sourced by the end-to-end scripts; they define fail() and OUT.

# start_kms [ARGS...]: the server in the background for at most 120 s (or --lifetime), and no longer than this
# shell holds fd 9, the write end of its standard input; sets KMS_PORT (--port's when given) and KMS_PID.
start_kms() {
  rm -f "$OUT/kms.port" "$OUT/kms.in"
  mkfifo "$OUT/kms.in"
  exec 9<>"$OUT/kms.in"
  python3 "$ROOT/tests/packaging/kms_clients/loopback_server.py" --lifetime 120 "$@" <"$OUT/kms.in" 9>&- >"$OUT/kms.port" \
    2>>"$OUT/kms.log" &
  KMS_PID=$!
  for _ in $(seq 1 50); do grep -q '^PORT ' "$OUT/kms.port" 2>/dev/null && break; sleep 0.1; done
  KMS_PORT=$(sed -n 's/^PORT //p' "$OUT/kms.port")
  [ -n "$KMS_PORT" ] || fail "the loopback key server did not start"
}

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

# The key id of a chunk's seig sample group, as 32 hexadecimal digits, or "clear".
seig_kid() {
  python3 -c 'import sys; d=open(sys.argv[1],"rb").read(); i=d.find(b"sgpd"); n=int.from_bytes(d[i-4:i],"big"); print(d[i-4+n-16:i-4+n].hex() if i>0 else "clear")' "$1"
}

# The key the server hands out with a key id, worked out by hand from its script: the fixed keys of /keys/ok and
# /keys/hang-after-first, the key of period n of /keys/rotating (key id n-0000-4000-8000-0..., bytes n..n+15), and
# the n-th Widevine and Inside Secure answers', and KeyOS's key.
key_of_kid() {
  case "$1" in
    11111111222233334444555555555555) echo 000102030405060708090a0b0c0d0e0f ;;
    66666666777788889999aaaaaaaaaaaa) echo 101112131415161718191a1b1c1d1e1f ;;
    ????????000040008000000000000000)
      python3 -c 'import sys; n=int(sys.argv[1][:8],16); print(bytes((n+i)%256 for i in range(16)).hex())' "$1" ;;
    15150000????41518000000000000000)  # Inside Secure's n-th answer: key bytes 40+n, 41+n, ...
      python3 -c 'import sys; n=int(sys.argv[1][8:12],16); print(bytes((0x40+n+i)%256 for i in range(16)).hex())' "$1" ;;
    0a0b0c0d0102030405060708090a0b0c) echo 606162636465666768696a6b6c6d6e6f ;;  # the KeyOS key of the operator's key id
    d0d0d0d0????????0000000000000000)  # the Widevine server's n-th answer: key bytes 80+n, 81+n, ...
      python3 -c 'import sys; n=int(sys.argv[1][8:16],16); print(bytes((0x80+n+i)%256 for i in range(16)).hex())' "$1" ;;
    *) return 1 ;;
  esac
}

# check_chunks DIR: every video and audio chunk under DIR, in time order, decrypted behind its init segment with
# the key of its key id (ffmpeg 5.1 mixes the encryption data of fragments read in one file); the audio chunk of
# a segment names the key id of the video chunk of that segment (the one that starts within 0.1 s of it: after
# input lost, one stream may lack a segment the other has). Sets KIDS (the video chunks' key ids, a line each) and
# FRAMES (video frames decrypted).
check_chunks() {
  local kind init chunk kid key n errors time vtimes="" paired=0 videos=0 nearest
  KIDS="" FRAMES=0
  for kind in video audio; do
    init=$(find "$1" -name init.mp4 -path "*$kind*" | head -n 1)
    [ -n "$init" ] || fail "no $kind init segment"
    for chunk in $(find "$(dirname "$init")" -name 'chunk_*.mp4' | sort -t_ -k2 -n); do
      kid=$(seig_kid "$chunk")
      key=$(key_of_kid "$kid") || fail "$chunk names key id $kid, which the server did not hand out"
      cat "$init" "$chunk" >"$OUT/one.mp4"
      errors=$(ffmpeg -v error -decryption_key "$key" -i "$OUT/one.mp4" -f null - 2>&1 | head -n 3)
      [ -z "$errors" ] || fail "$chunk does not decrypt with the key of its key id: $errors"
      time=${chunk##*_}; time=${time%.mp4}  # 100 ns units
      if [ "$kind" = video ]; then
        n=$(ffprobe -v error -decryption_key "$key" -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 "$OUT/one.mp4")
        n=${n%%[!0-9]*}
        FRAMES=$((FRAMES + ${n:-0}))
        KIDS+="$kid"$'\n'
        vtimes+="$time"$'\n'
        videos=$((videos + 1))
      else
        nearest=$(awk -v t="$time" 'NF { d = $1 - t; if (d < 0) d = -d; if (d < 1000000 && (!best || d < bd)) { best = NR; bd = d } }
                                   END { print best + 0 }' <<<"$vtimes")
        [ "$nearest" -gt 0 ] || continue
        paired=$((paired + 1))
        [ "$(sed -n "${nearest}p" <<<"$KIDS")" = "$kid" ] || fail "audio chunk $chunk names key id $kid, the video chunk of its segment another"
      fi
    done
  done
  [ "$paired" -ge $((videos - 2)) ] || fail "only $paired of $videos video chunks have an audio chunk of their segment"
}
