#!/usr/bin/env python3
"""Adds an SCTE-35 stream to an MPEG-TS file: ffmpeg cannot write one, so the sections are built here field by field
from ANSI/SCTE 35 and carried in transport packets of their own.

  python3 scte35_fixture.py IN.ts OUT.ts EXPECTED.json [--silent]

The PMT gains a stream of type 0x86 on PID 0x1F0 and, in its program loop, a registration descriptor "CUEI"; its
CRC is computed again. Two sections go out 2 s ahead of their splice (the first once more 1 s ahead, as encoders
repeat a cue), each just before the video PES that the demuxer reads at that time:
  - a splice_insert() out of the network, 3.0 s after the first video picture, with a break_duration of 2 s;
  - a time_signal() 6.0 s after it, with a segmentation_descriptor() (a provider advertisement start).
Both carry a pts_adjustment of 2^33 - 90000 (one second before the wrap), so pts_time is the splice's PTS plus
90000: only the sum taken modulo 2^33 lands on the splice.
With --silent the stream is declared and sends nothing, as an SCTE-35 PID does between ad breaks.
EXPECTED.json lists, per section, its hexadecimal bytes and its splice's distance from the first video picture in
seconds.
"""
import json
import sys

PID = 0x1F0
WRAP = 1 << 33
ADJUST = WRAP - 90000


def crc32_mpeg2(data):
    crc = 0xFFFFFFFF
    for b in data:
        crc ^= b << 24
        for _ in range(8):
            crc = ((crc << 1) ^ 0x04C11DB7) if crc & 0x80000000 else crc << 1
            crc &= 0xFFFFFFFF
    return crc


def splice_time(pts):
    # time_specified_flag 1, 6 reserved bits (all ones), pts_time (33 bits)
    return bytes([0xFE | (pts >> 32)]) + (pts & 0xFFFFFFFF).to_bytes(4, 'big')


def section(command_type, command, descriptors=b''):
    body = bytes([0x00])                                   # protocol_version
    body += bytes([0x00 | (ADJUST >> 32)])                 # encrypted_packet 0, encryption_algorithm 0, pts_adjustment[32]
    body += (ADJUST & 0xFFFFFFFF).to_bytes(4, 'big')       # pts_adjustment[31..0]
    body += bytes([0x00])                                  # cw_index
    body += bytes([0xFF, 0xF0 | (len(command) >> 8), len(command) & 0xFF])  # tier 0xFFF, splice_command_length
    body += bytes([command_type]) + command
    body += len(descriptors).to_bytes(2, 'big') + descriptors
    length = len(body) + 4                                 # section_length counts the CRC too
    head = bytes([0xFC, 0x30 | (length >> 8), length & 0xFF])  # table_id; syntax 0, private 0, sap_type 3
    data = head + body
    return data + crc32_mpeg2(data).to_bytes(4, 'big')


def splice_insert(event_id, pts, duration):
    cmd = event_id.to_bytes(4, 'big')
    cmd += bytes([0x7F])          # splice_event_cancel_indicator 0, reserved
    cmd += bytes([0xEF])          # out_of_network 1, program_splice 1, duration_flag 1, splice_immediate 0, reserved
    cmd += splice_time((pts + WRAP - ADJUST) % WRAP)
    cmd += bytes([0xFE | (duration >> 32)]) + (duration & 0xFFFFFFFF).to_bytes(4, 'big')  # auto_return 1, duration
    cmd += (0x0001).to_bytes(2, 'big') + bytes([0, 0])    # unique_program_id, avail_num, avails_expected
    return section(0x05, cmd)


def time_signal(pts):
    # segmentation_descriptor(): tag 2, "CUEI", event id 0x4800008F, not cancelled, program segmentation, no
    # duration, delivery not restricted, no UPID, type 0x30 (provider advertisement start), segment 1 of 1.
    seg = b'CUEI' + (0x4800008F).to_bytes(4, 'big') + bytes([0x7F, 0xFF, 0x00, 0x00, 0x30, 0x01, 0x01])
    desc = bytes([0x02, len(seg)]) + seg
    return section(0x06, splice_time((pts + WRAP - ADJUST) % WRAP), desc)


def packets(data):
    return [bytearray(data[i:i + 188]) for i in range(0, len(data) - 187, 188)]


def pid_of(p):
    return ((p[1] & 0x1F) << 8) | p[2]


def payload_at(p):
    control = (p[3] >> 4) & 3
    return 5 + p[4] if control == 3 else 4


def pes_pts(p):
    at = payload_at(p)
    pes = p[at:]
    if pes[:3] != b'\x00\x00\x01' or not (pes[7] & 0x80):
        return None
    b = pes[9:14]
    return ((b[0] >> 1) & 7) << 30 | b[1] << 22 | (b[2] >> 1) << 15 | b[3] << 7 | b[4] >> 1


def section_packet(sec, cc):
    payload = bytes([0]) + sec  # pointer_field
    return bytearray(bytes([0x47, 0x40 | (PID >> 8), PID & 0xFF, 0x10 | (cc & 15)]) + payload +
                     b'\xff' * (184 - len(payload)))


def new_pmt(p):
    at = payload_at(p)
    start = at + 1 + p[at]
    sec = p[start:]
    length = ((sec[1] & 0x0F) << 8) | sec[2]
    body = bytearray(sec[3:3 + length - 4])                # from program_number to the last ES entry
    info_length = ((body[7] & 0x0F) << 8) | body[8]
    reg = bytes([0x05, 0x04]) + b'CUEI'                    # registration_descriptor, format_identifier "CUEI"
    info_length += len(reg)
    body[7:9] = bytes([0xF0 | (info_length >> 8), info_length & 0xFF])
    body[9:9] = reg
    body += bytes([0x86, 0xE0 | (PID >> 8), PID & 0xFF, 0xF0, 0x00])  # stream_type, PID, ES_info_length 0
    new_length = len(body) + 4
    head = bytes([sec[0], (sec[1] & 0xF0) | (new_length >> 8), new_length & 0xFF])
    data = head + bytes(body)
    data += crc32_mpeg2(data).to_bytes(4, 'big')
    out = p[:start] + data
    return out + b'\xff' * (188 - len(out))


def main():
    src, dst, expected = sys.argv[1:4]
    ts = packets(open(src, 'rb').read())
    pmt_pid = None
    for p in ts:
        if pid_of(p) == 0:
            at = payload_at(p) + 1 + p[payload_at(p)]
            pmt_pid = ((p[at + 10] & 0x1F) << 8) | p[at + 11]
            break
    video_pid = 0x100
    first = min(pes_pts(p) for p in ts if pid_of(p) == video_pid and p[1] & 0x40 and pes_pts(p) is not None)
    cues = [(first + 3 * 90000, splice_insert(0x1234, first + 3 * 90000, 2 * 90000)),
            (first + 6 * 90000, time_signal(first + 6 * 90000))]
    # (when, section): each cue 2 s ahead, and the splice_insert once more 1 s ahead, as encoders repeat a cue.
    sends = sorted([(t - 2 * 90000, c) for t, c in cues] + [(cues[0][0] - 90000, cues[0][1])])
    if sys.argv[4:] == ['--silent']:
        sends = []
    out = bytearray()
    sent = 0
    for p in ts:
        if pid_of(p) == pmt_pid and p[1] & 0x40:
            p = new_pmt(p)
        if sent < len(sends) and pid_of(p) == video_pid and p[1] & 0x40:
            pts = pes_pts(p)
            if pts is not None and pts >= sends[sent][0]:
                out += section_packet(sends[sent][1], sent)
                sent += 1
        out += p
    if sent != len(sends):
        sys.exit('scte35_fixture: the input is too short for its cues')
    open(dst, 'wb').write(out)
    json.dump([{'hex': c[1].hex(), 'after_first_picture': (c[0] - first) / 90000} for c in cues], open(expected, 'w'))


if __name__ == '__main__':
    main()
