#!/bin/sh
# Regenerates the AAC fixtures of the lib_parse_es and imff_samples tests.
# Each stream is encoded once into MP4 with ffmpeg's native AAC encoder; its samples are copied out into ADTS
# (and, for the stereo stream, into LOAS/LATM) without re-encoding, so the payloads are the MP4's samples.
# Beside each stream, ffprobe's view of its packets: pts and duration in 1/28224000 s units, size in bytes.
set -e
cd "$(dirname "$0")"

make() { # name input-args...
  name=$1; shift
  ffmpeg -v error -y "$@" -c:a aac -f mp4 "$name.mp4"
  ffmpeg -v error -y -i "$name.mp4" -c copy -f adts "$name.adts"
  probe "$name.adts"
  rm -f "$name.mp4"
}
probe() {
  [ "$(ffprobe -v error -show_entries stream=time_base -of csv=p=0 "$1")" = "1/28224000" ]
  ffprobe -v error -show_packets -show_entries packet=pts,duration,size -of csv=p=0 "$1" \
    | grep -E '^-?[0-9]+,' > "$1.packets.csv"
}

# AAC-LC stereo, 48 kHz, 2 s of two tones.
make aac_lc_stereo_48k -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=2" \
  -f lavfi -i "sine=frequency=660:sample_rate=48000:duration=2" \
  -filter_complex "[0:a][1:a]join=inputs=2:channel_layout=stereo" -b:a 64k
# AAC-LC 5.1, 44.1 kHz, 1 s.
make aac_lc_51_44k -f lavfi -i "sine=frequency=300:sample_rate=44100:duration=1" \
  -filter_complex "[0:a]asplit=6[a][b][c][d][e][f];[a][b][c][d][e][f]join=inputs=6:channel_layout=5.1" -b:a 96k
# The stereo stream again, in LOAS/LATM (a StreamMuxConfig every 32 frames, the rest reuse it).
ffmpeg -v error -y -i aac_lc_stereo_48k.adts -c copy -f latm aac_lc_stereo_48k.latm
probe aac_lc_stereo_48k.latm

# Sync-frame audio, 1 s of a tone each, as bare elementary streams: AC-3 5.1 at 48 kHz, E-AC-3 stereo at
# 44.1 kHz, MPEG-1 Layer II stereo at 48 kHz and Layer III stereo at 44.1 kHz (without ID3 tag or Xing frame).
tone51="sine=frequency=500:sample_rate=48000:duration=1"
ffmpeg -v error -y -f lavfi -i "$tone51" -filter_complex "[0:a]asplit=6[a][b][c][d][e][f];[a][b][c][d][e][f]join=inputs=6:channel_layout=5.1" \
  -c:a ac3 -b:a 384k -f ac3 ac3_51_48k.ac3
ffmpeg -v error -y -f lavfi -i "sine=frequency=500:sample_rate=44100:duration=1" -ac 2 -c:a eac3 -b:a 96k -f eac3 eac3_stereo_44k.eac3
ffmpeg -v error -y -f lavfi -i "sine=frequency=500:sample_rate=48000:duration=1" -ac 2 -c:a mp2 -b:a 192k -f mp2 mp2_stereo_48k.mp2
ffmpeg -v error -y -f lavfi -i "sine=frequency=500:sample_rate=44100:duration=1" -ac 2 -c:a libmp3lame -b:a 128k \
  -write_xing 0 -id3v2_version 0 -f mp3 mp3_stereo_44k.mp3
# The same units as the AAC fixtures' (1/28224000 s): the MPEG audio demuxer reports them, the Dolby ones
# report 1/90000 s, rescaled here.
for f in ac3_51_48k.ac3 eac3_stereo_44k.eac3 mp2_stereo_48k.mp2 mp3_stereo_44k.mp3; do
  base=$(ffprobe -v error -show_entries stream=time_base -of csv=p=0 "$f")
  ffprobe -v error -show_packets -show_entries packet=pts,duration,size -of csv=p=0 "$f" | grep -E '^-?[0-9]+,' |
    if [ "$base" = "1/90000" ]; then awk -F, '{ printf "%d,%d,%d\n", $1 * 3136 / 10, $2 * 3136 / 10, $3 }'; else cat; fi \
    > "$f.packets.csv"
done

# AC-4 (ffmpeg has no encoder): 60 frames made by hand, each sync word AC 40, a frame size of 96, and an ac4_toc
# of ETSI TS 103 190-2: bitstream_version 2, sequence_counter n, no wait frames, fs_index 1, frame_rate_index 3
# (29.97 fps, 8008 ticks of 240 kHz), b_iframe_global on all frames but every 4th, one presentation, no payload base, no
# program id; the presentation: a single substream group, presentation_version 1, mdcompat 2; then zeros.
python3 - <<'PY'
bits = lambda v, n: format(v, '0%db' % n)
frames, rows, t = b'', [], 0
for n in range(60):
    toc = bits(2, 2) + bits(n, 10) + '0' + '1' + bits(3, 4) + ('1' if n % 4 != 3 else '0') + '1' + '0' + '0'
    toc += '1' + '10' + bits(2, 3)
    toc += '0' * (-len(toc) % 8)
    payload = int(toc, 2).to_bytes(len(toc) // 8, 'big').ljust(96, b'\0')
    frames += bytes([0xAC, 0x40, 0, 96]) + payload
    start = n * 8008 * 28224000 // 240000
    rows.append('%d,%d,%d' % (start, (n + 1) * 8008 * 28224000 // 240000 - start, 100))
open('ac4_handmade.ac4', 'wb').write(frames)
open('ac4_handmade.ac4.packets.csv', 'w').write('\n'.join(rows) + '\n')
PY
