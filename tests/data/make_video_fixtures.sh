#!/bin/sh
# Regenerates the H.264 and HEVC fixtures of the lib_parse_es and imff_samples tests.
# Each stream is encoded into MPEG-TS, the elementary stream is copied out as Annex B, and ffprobe's
# view of the TS packets (pts, dts, duration, size, flags in 90 kHz ticks) is kept beside it.
# The packets' sizes add up to the elementary stream's size, so a test can cut the stream at
# packet boundaries and give every buffer the times of its packet.
set -e
cd "$(dirname "$0")"
SRC="-f lavfi -i testsrc2=size=176x96:rate=25 -frames:v 60 -pix_fmt yuv420p"

make() { # name codec-args...
  name=$1; shift
  ffmpeg -v error -y $SRC "$@" -f mpegts -muxdelay 0 -muxpreload 0 "$name.ts"
  case "$name" in hevc*) fmt=hevc; bsf=hevc_mp4toannexb;; *) fmt=h264; bsf=h264_mp4toannexb;; esac
  ffmpeg -v error -y -i "$name.ts" -c copy -bsf:v $bsf -f $fmt "$name.es"
  ffprobe -v error -select_streams v -show_packets \
    -show_entries packet=pts,dts,duration,size,flags -of csv=p=0 "$name.ts" \
    | grep -E '^-?[0-9]+,' | cut -d, -f1-5 > "$name.packets.csv"
  rm -f "$name.ts"
}

# B-frames, four slices a picture, HRD with buffering-period and picture-timing SEI.
make h264_hrd_slices -c:v libx264 -preset veryfast -g 24 -bf 3 \
  -x264-params slices=4:nal-hrd=cbr:force-cfr=1:scenecut=0 -b:v 300k -maxrate 300k -bufsize 300k
# B-frames, one slice a picture, no HRD: no picture-timing SEI at all.
make h264_plain -c:v libx264 -preset veryfast -g 24 -bf 2 -x264-params scenecut=0 -crf 30
# HEVC with B-frames and closed GOPs, so that every key picture is an IDR.
make hevc_bframes -c:v libx265 -preset veryfast -g 24 -bf 3 \
  -x265-params log-level=error:open-gop=0:scenecut=0:keyint=24:min-keyint=24 -crf 30

# A larger stream for the Annex B scanning benchmark only (no packet list needed).
ffmpeg -v error -y -f lavfi -i testsrc2=size=640x360:rate=25 -frames:v 50 -pix_fmt yuv420p \
  -c:v libx264 -preset veryfast -bf 3 -crf 16 -f h264 h264_bench_640x360.es

# The framings of the video kinds that are parsed but not packaged, three pictures each, as bare streams:
# MPEG-2 video 720x576 4:3 at 25 fps, H.263 and MPEG-4 Visual QCIF, and ProRes 64x64 taken out of its MOV whole.
ffmpeg -v error -y -f lavfi -i testsrc2=size=720x576:rate=25 -frames:v 3 -c:v mpeg2video -q:v 31 -aspect 4:3 \
  -f mpeg2video mpeg2_720x576.m2v
ffmpeg -v error -y -f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 3 -c:v h263 -q:v 31 -f h263 h263_qcif.h263
ffmpeg -v error -y -f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 3 -c:v mpeg4 -q:v 31 -f m4v mpeg4_qcif.m4v
ffmpeg -v error -y -f lavfi -i testsrc2=size=64x64:rate=25 -frames:v 3 -c:v prores -profile:v 0 prores.mov
ffmpeg -v error -y -i prores.mov -map 0:v -c:v copy -f rawvideo prores_64x64.prores
rm -f prores.mov
