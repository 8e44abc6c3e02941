#!/usr/bin/env python3
"""A throwaway HTTP(S) server on 127.0.0.1 for the key-server transport tests.

Prints "PORT <n>" once it listens on an ephemeral port (or the --port given), answers a few fixed paths, and exits by itself after
--lifetime seconds (or when its parent closes its stdin). With --cert and --key it speaks TLS; with --client-ca as well, it asks
for a client certificate signed by that CA.

  POST /echo     200, "posted:" + the body; the X-Test request header comes back as X-Seen
  GET  /hello    200, "hello"
  GET  /status/N N with reason phrase, body "status N"
  GET  /slow     waits --delay seconds, then 200
  POST /soap     a SOAP answer of GetKeyAndSignalization for a GetKeyAndSignalizationRequest element of the
                 service's namespace; a body that holds "fault-me", or any other request, gets a SOAP fault
  POST /session/active|flaky|standby, POST /keys/<name>   a scripted Harmonic KMS: see harmonic() for the answers
  GET  /calls    the Harmonic requests so far, "<path> <operation> <time or resourceId>" a line
  POST /irdeto/<scenario>, GET /vmx/<scenario>?..., PUT|GET /cei/...   scripted Irdeto and Verimatrix key
                 servers: see key_servers.py; GET /calls-of/irdeto|vmx|cei and /last-irdeto/<operation> tell
                 what they were asked
  GET  /last/<operation>   the body of the last Harmonic request of that operation ("widevine" for Widevine's)
  POST /widevine/<name>    a scripted Widevine key server: see widevine()
  POST /insidesecure/<name>, POST /keyos/<name>   scripted Inside Secure and BuyDRM KeyOS servers (their last
                 requests at /last/insidesecure and /last/keyos)
  POST /viaccess/<name>, POST /prpackaging/<name>   scripted Viaccess and PlayReady packaging services (their
                 last requests at /last/viaccess and /last/prpackaging)
"""
import argparse
import base64
import hashlib
import html
import json
import http.server
import os
import re
import ssl
import subprocess
import sys
import threading
import time

import key_servers

NS = "urn:tovrane:kms:harmonic:2.4"

SOAP_ANSWER = """<?xml version="1.0" encoding="UTF-8"?>
<SOAP-ENV:Envelope xmlns:SOAP-ENV="http://schemas.xmlsoap.org/soap/envelope/" xmlns:h="{ns}">
 <SOAP-ENV:Body>
  <h:GetKeyAndSignalizationResponse>
   <h:returnCode>0</h:returnCode>
   <h:scheduledKey>
    <h:time>{time}</h:time>
    <h:contentKey><h:keyId>0a0b0c0d-0102-0304-0506-0708090a0b0c</h:keyId><h:key>q83vASNFZ4mrze8BI0VniQ==</h:key></h:contentKey>
   </h:scheduledKey>
   <h:signalization><h:dash><h:drmSystemId>edef8ba9-79d6-4ace-a3c8-27dcd51d21ed</h:drmSystemId><h:manifestHeader>hdr</h:manifestHeader></h:dash></h:signalization>
   <h:unknownToTheClient>skipped</h:unknownToTheClient>
  </h:GetKeyAndSignalizationResponse>
 </SOAP-ENV:Body>
</SOAP-ENV:Envelope>
"""

SOAP_FAULT = """<?xml version="1.0" encoding="UTF-8"?>
<SOAP-ENV:Envelope xmlns:SOAP-ENV="http://schemas.xmlsoap.org/soap/envelope/">
 <SOAP-ENV:Body>
  <SOAP-ENV:Fault><faultcode>SOAP-ENV:Server</faultcode><faultstring>resource unknown</faultstring></SOAP-ENV:Fault>
 </SOAP-ENV:Body>
</SOAP-ENV:Envelope>
"""

HK = ('<?xml version="1.0"?>\n<S:Envelope xmlns:S="http://schemas.xmlsoap.org/soap/envelope/" xmlns:h="' + NS +
      '"><S:Body><h:%sResponse><h:returnCode>%s</h:returnCode>%s</h:%sResponse></S:Body></S:Envelope>\n')
HK_KEYS = {True: ("11111111-2222-3333-4444-555555555555", "AAECAwQFBgcICQoLDA0ODw=="),
           False: ("66666666-7777-8888-9999-aaaaaaaaaaaa", "EBESExQVFhcYGRobHB0eHw==")}
HK_SIGNALLING = ('<h:signalization><h:dash><h:drmSystemId>edef8ba9-79d6-4ace-a3c8-27dcd51d21ed</h:drmSystemId>'
                 '<h:manifestHeader>&lt;cenc:pssh&gt;AAAA&lt;/cenc:pssh&gt;</h:manifestHeader><h:psshBox>'
                 '<h:data>CAESEA==</h:data></h:psshBox></h:dash></h:signalization>'
                 '<h:commonEncryptionParam><h:any>kept</h:any></h:commonEncryptionParam>')
hk_calls, hk_last = [], {}


# Key session: Heartbeat (STANDBY for /session/standby), CreateKeySession (the key address /keys/ok, or
# /keys/fail-after-first for /session/flaky), InvalidKeySession (/keys/ok), DestroyKeySession. Keys, worked out by
# hand: time 0 key id 1111..., bytes 00..0f; other times 6666..., bytes 10..1f; IV 01..08; pssh data 08 01 12 10.
# /keys/rotating gives a key of its own to each key period; /keys/hang-after-first answers every request but the
# first after --delay seconds.
def harmonic(path, operation, detail, port, body):
    kind, _, name = path.strip("/").partition("/")
    if kind == "session":
        keys = "fail-after-first" if name == "flaky" and operation == "CreateKeySession" else "ok"
        extra = {"Heartbeat": "<h:status>%s</h:status>" % ("STANDBY" if name == "standby" else "ACTIVE"),
                 "DestroyKeySession": "<h:resourceId>%s</h:resourceId>" % detail}.get(
                     operation, "<h:keySessionURI>http://127.0.0.1:%d/keys/%s</h:keySessionURI>" % (port, keys))
        return 200, HK % (operation, "0", extra, operation)
    if name == "fault":
        return 500, SOAP_FAULT
    op = "GetKeyAndSignalization"
    if name == "refused" or (name == "fail-after-first" and detail != "0"):
        code, text = ("3", "unknown resource") if name == "refused" else ("5", "key not ready")
        return 200, HK % (op, code, "<h:errorMessage>%s</h:errorMessage>" % text, op)
    if name == "malformed":
        return 200, HK % (op, "&bogus;", "", op)
    if name == "hang-after-first" and detail != "0":
        time.sleep(Handler.delay)
    if name == "rotating":
        # One key per key period: period n = time / (cryptoPeriod x 10^7) has key id n as 8 hex digits then
        # -0000-4000-8000-000000000000, and key bytes n, n+1, ..., n+15 (mod 256).
        period = int(re.search(r":cryptoPeriod>(\d+)<", body).group(1))
        n = int(detail) // (period * 10000000) if period else 0
        key_id = "%08x-0000-4000-8000-000000000000" % n
        key = base64.b64encode(bytes((n + i) % 256 for i in range(16))).decode()
    else:
        key_id, key = HK_KEYS[detail == "0"]
    key = {"empty-key": "", "short-key": "AAECAwQFBgc="}.get(name, key)
    at = str(int(detail) + 1) if name == "other-time" else detail
    return 200, HK % (op, "0", '<h:scheduledKey><h:time>%s</h:time><h:contentKey><h:keyId>%s</h:keyId><h:key>%s'
                      '</h:key><h:iv>AQIDBAUGBwg=</h:iv></h:contentKey></h:scheduledKey>%s'
                      % (at, key_id, key, HK_SIGNALLING), op)


# A Widevine key server, worked out from its public description: the posted {"request": base64 of the inner
# JSON, "signature", "signer"}. A signature must be the SHA-1 of the inner text, PKCS#7-padded to 32 bytes and
# AES-256-CBC-encrypted (by the openssl command) under key 20 21 .. 3f and IV 40 41 .. 4f; a bad one gets status
# "SIGNATURE_FAILED". The n-th answer of the run (n from 0) gives key id d0d0d0d0 + n (32 bits) + 8 zero bytes,
# key bytes 80+n, 81+n, ... (mod 256) and pssh data 08 01 12 10 + the key id. The name after /widevine/ picks a
# fault instead of an answer.
WV_KEY = bytes(range(0x20, 0x40))
WV_IV = bytes(range(0x40, 0x50))
wv_count = [0]


def widevine(name, body):
    outer = json.loads(body)
    inner_text = base64.b64decode(outer["request"])
    inner = json.loads(inner_text)
    if "signature" in outer:
        digest = hashlib.sha1(inner_text).digest()
        padded = digest + bytes([12]) * 12
        made = subprocess.run(["openssl", "enc", "-aes-256-cbc", "-nopad", "-K", WV_KEY.hex(), "-iv", WV_IV.hex()],
                              input=padded, capture_output=True, check=True).stdout
        if base64.b64decode(outer["signature"]) != made:
            return 200, json.dumps({"response": base64.b64encode(b'{"status":"SIGNATURE_FAILED"}').decode()})
    if name == "http-500":
        return 500, "the key server is in trouble"
    if name == "empty":
        return 200, ""
    if name == "broken":
        return 200, '{"response": '
    n = wv_count[0]
    wv_count[0] += 1
    key_id = bytes([0xD0] * 4) + n.to_bytes(4, "big") + bytes(8)
    key = bytes((0x80 + n + i) % 256 for i in range(16))
    if name == "short-key":
        key = key[:8]
    track = {"type": "HD", "key_id": base64.b64encode(key_id).decode(), "key": base64.b64encode(key).decode(),
             "pssh": [{"drm_type": "WIDEVINE", "data": base64.b64encode(bytes([8, 1, 0x12, 0x10]) + key_id).decode()}]}
    answer = {"status": "OK", "drm": [{"type": "WIDEVINE", "system_id": "edef8ba979d64acea3c827dcd51d21ed"}],
              "tracks": [track], "content_id": inner["content_id"]}
    if name == "not-found":
        answer["status"] = "NOT_FOUND"
    elif name == "no-widevine":
        answer["drm"] = [{"type": "PLAYREADY"}]
    elif name == "no-tracks":
        answer["tracks"] = []
    elif name == "no-key":
        del track["key"]
    return 200, json.dumps({"response": base64.b64encode(json.dumps(answer).encode()).decode()})


# Inside Secure's key provisioning (SOAP): the n-th answer of the run (n from 0) gives key id
# 15150000-<n as 4 hex digits>-4151-8000-000000000000, key bytes 40+n, 41+n, ... (mod 256) and a seed. The name
# after /insidesecure/ picks a fault instead.
IS_NS = "urn:tovrane:kms:insidesecure:1"
is_count = [0]


def inside_secure(name, body):
    if name == "fault":
        return 500, SOAP_FAULT
    n = is_count[0]
    is_count[0] += 1
    key_id = "15150000-%04x-4151-8000-000000000000" % n
    key = bytes((0x40 + n + i) % 256 for i in range(16))
    if name == "short-key":
        key = key[:8]
    if name == "bad-key-id":
        key_id = "not-a-key-id"
    return 200, ('<?xml version="1.0"?>\n<S:Envelope xmlns:S="http://schemas.xmlsoap.org/soap/envelope/" xmlns:i="%s">'
                 '<S:Body><i:PlayReadyProvisionKeyResponse><i:keyID>%s</i:keyID><i:seed>c2VlZA==</i:seed>'
                 '<i:encryptionKey>%s</i:encryptionKey></i:PlayReadyProvisionKeyResponse></S:Body></S:Envelope>\n'
                 % (IS_NS, key_id, base64.b64encode(key).decode()))


# BuyDRM's KeyOS (SOAP): the request document arrives escaped in one string; the answer document goes back the
# same way. The user key must be "user-SECRET-1", else Status says so. The key of any key id: bytes 60 .. 6f. The
# name after /keyos/ leaves an element out, or picks another fault.
KOS_NS = "urn:tovrane:kms:keyos:5"
KOS_HEADER = ('<WRMHEADER xmlns="http://schemas.microsoft.com/DRM/2007/03/PlayReadyHeader" version="4.0.0.0"><DATA>'
              '<PROTECTINFO><KEYLEN>16</KEYLEN><ALGID>AESCTR</ALGID></PROTECTINFO><KID>kid-from-keyos</KID>'
              '<LA_URL>https://keyos.invalid/licence</LA_URL></DATA></WRMHEADER>')


def keyos(name, body):
    if name == "fault":
        return 500, SOAP_FAULT
    request = html.unescape(re.search(r"requestXml>([^<]*)<", body).group(1))
    field = lambda tag: (re.search("<%s>([^<]*)</%s>" % (tag, tag), request) or [None, ""])[1]
    parts = {"Status": "OK", "KeyID": field("KeyID"), "ContentKey": base64.b64encode(bytes(range(0x60, 0x70))).decode(),
             "LicAcqURL": "https://keyos.invalid/licence", "LicUIURL": "https://keyos.invalid/ui", "PRHeader": KOS_HEADER}
    if field("UserKey") != "user-SECRET-1":
        parts["Status"] = "Invalid user key"
    if name == "short-key":
        parts["ContentKey"] = "YGFiY2RlZmc="
    for element in ("KeyID", "ContentKey", "LicAcqURL", "LicUIURL", "PRHeader"):
        if name == "no-" + element.lower():
            del parts[element]
    document = "<KeyOSEncryptionInfoResponse>%s</KeyOSEncryptionInfoResponse>" % "".join(
        "<%s>%s</%s>" % (k, html.escape(v, quote=False), k) for k, v in parts.items())
    if name == "not-xml":
        document = "<KeyOSEncryptionInfoResponse><Status>"
    return 200, ('<?xml version="1.0"?>\n<S:Envelope xmlns:S="http://schemas.xmlsoap.org/soap/envelope/" xmlns:k="%s">'
                 '<S:Body><k:RequestEncryptionInfoResponse><k:RequestEncryptionInfoResult>%s'
                 '</k:RequestEncryptionInfoResult></k:RequestEncryptionInfoResponse></S:Body></S:Envelope>\n'
                 % (KOS_NS, html.escape(document, quote=False)))


# Viaccess's encoder key service (SOAP): key bytes 70 .. 7f, a PLAYREADY entry with its header fields and a VODRM
# entry, each with its pssh. The name after /viaccess/ leaves a part out instead.
VIA_NS = "urn:tovrane:kms:viaccess:1"


def viaccess(name):
    if name == "fault":
        return 500, SOAP_FAULT
    key = "" if name == "no-key" else "<v:Key>%s</v:Key>" % base64.b64encode(bytes(range(0x70, 0x80))).decode()
    pr_key_id = "" if name == "no-playready-key-id" else "<v:KeyId>0a0b0c0d-0102-0304-0506-0708090a0b0c</v:KeyId>"
    playready = ("<v:ProtectionSpecificInformation><v:ProtectionSystem>PLAYREADY</v:ProtectionSystem>"
                 "<v:PlayReadySpecificInformation>%s<v:LicenseAcquisitionUrl>https://via.invalid/pr</v:LicenseAcquisitionUrl>"
                 "<v:LicenseAcquisitionUiUrl>https://via.invalid/ui</v:LicenseAcquisitionUiUrl><v:CustomData>cd</v:CustomData>"
                 "<v:ServiceId>svc</v:ServiceId><v:ProtectionSystemId>9a04f079-9840-4286-ab92-e65be0885f95</v:ProtectionSystemId>"
                 "</v:PlayReadySpecificInformation>%s</v:ProtectionSpecificInformation>"
                 % (pr_key_id, "" if name == "no-pssh" else "<v:Pssh>AAAAAQ==</v:Pssh>"))
    vodrm = ("<v:ProtectionSpecificInformation><v:ProtectionSystem>VODRM</v:ProtectionSystem>%s<v:Pssh>AAAAAg==</v:Pssh>"
             "</v:ProtectionSpecificInformation>"
             % ("" if name == "unknown-system" else "<v:VODRMSpecificInformation><v:Data>vodrm</v:Data></v:VODRMSpecificInformation>"))
    entries = "" if name == "no-list" else playready + vodrm
    return 200, ('<?xml version="1.0"?>\n<S:Envelope xmlns:S="http://schemas.xmlsoap.org/soap/envelope/" xmlns:v="%s">'
                 '<S:Body><v:getProtectionInfoResponse><v:OutputProtectionListInformation>%s%s'
                 '</v:OutputProtectionListInformation></v:getProtectionInfoResponse></S:Body></S:Envelope>\n'
                 % (VIA_NS, key, entries))


# The PlayReady packaging server (SOAP): key id 0a0b0c0d-..., key bytes 50 .. 5f and a header text; the name after
# /prpackaging/ picks a fault instead.
def playready_packaging(name):
    if name == "fault":
        return 500, SOAP_FAULT
    key = bytes(range(0x50, 0x60 if name != "short-key" else 0x58))
    header = "" if name == "no-header" else "<p:PlayReadyHeader>&lt;WRMHEADER/&gt;</p:PlayReadyHeader>"
    return 200, ('<?xml version="1.0"?>\n<S:Envelope xmlns:S="http://schemas.xmlsoap.org/soap/envelope/" '
                 'xmlns:p="urn:tovrane:kms:playready-packaging:1"><S:Body><p:AcquirePackagingDataResponse>'
                 '<p:PackagingDataResult><p:KeyId>0a0b0c0d-0102-0304-0506-0708090a0b0c</p:KeyId><p:ContentKey>%s'
                 '</p:ContentKey>%s</p:PackagingDataResult></p:AcquirePackagingDataResponse></S:Body></S:Envelope>\n'
                 % (base64.b64encode(key).decode(), header))


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    delay = 0.0

    def log_message(self, *args):
        pass

    def answer(self, status, body, content_type="text/plain", extra=None):
        data = body.encode()
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(data)))
        for name, value in (extra or {}).items():
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(data)

    def body(self):
        return self.rfile.read(int(self.headers.get("Content-Length", "0"))).decode(errors="replace")

    def do_PUT(self):
        body = self.body()
        self.answer(*key_servers.verimatrix_rest("PUT", self.path, body), "application/json")

    def do_GET(self):
        if self.path.startswith("/vmx/"):
            path, _, query = self.path.partition("?")
            if path == "/vmx/slow":
                time.sleep(Handler.delay)
            status, data, headers = key_servers.verimatrix_key_file(path, "?" + query)
            self.send_response(status)
            self.send_header("Content-Length", str(len(data)))
            for name, value in headers.items():
                self.send_header(name, value)
            self.end_headers()
            self.wfile.write(data)
        elif self.path.startswith("/cei/"):
            self.answer(*key_servers.verimatrix_rest("GET", self.path, ""), "application/json")
        elif self.path.startswith("/calls-of/"):
            prefix = {"irdeto": "/irdeto/", "vmx": "/vmx/", "cei": "PUT /cei/"}.get(self.path[10:], "?")
            self.answer(200, "".join(c + "\n" for c in key_servers.calls if c.startswith(prefix)))
        elif self.path.startswith("/last-irdeto/"):
            self.answer(200, key_servers.last.get(self.path[13:], ""))
        elif self.path == "/hello":
            self.answer(200, "hello")
        elif self.path.startswith("/status/"):
            code = int(self.path.rsplit("/", 1)[1])
            self.answer(code, "status %d" % code)
        elif self.path == "/calls":
            self.answer(200, "".join(c + "\n" for c in hk_calls))
        elif self.path.startswith("/last/"):
            self.answer(200, hk_last.get(self.path[6:], ""))
        elif self.path == "/slow":
            time.sleep(Handler.delay)
            self.answer(200, "late")
        else:
            self.answer(404, "no such path")

    def do_POST(self):
        body = self.body()
        if self.path == "/echo":
            self.answer(200, "posted:" + body, extra={"X-Seen": self.headers.get("X-Test", "")})
        elif self.path.startswith("/irdeto/"):
            if self.path == "/irdeto/slow":
                time.sleep(Handler.delay)
            self.answer(*key_servers.irdeto(self.path, body), "application/soap+xml; charset=utf-8")
        elif self.path.startswith(("/viaccess/", "/prpackaging/")):
            kind, _, name = self.path.strip("/").partition("/")
            hk_last[kind] = body
            self.answer(*(viaccess if kind == "viaccess" else playready_packaging)(name), "text/xml")
        elif self.path.startswith(("/insidesecure/", "/keyos/")):
            kind, _, name = self.path.strip("/").partition("/")
            if name == "slow":  # an answer later than the client's time-out
                time.sleep(Handler.delay)
            hk_last[kind] = body
            self.answer(*(inside_secure if kind == "insidesecure" else keyos)(name, body), "text/xml")
        elif self.path.startswith("/widevine/"):
            if self.path == "/widevine/slow":
                time.sleep(Handler.delay)
            hk_last["widevine"] = body
            self.answer(*widevine(self.path[len("/widevine/"):], body), "application/json")
        elif self.path.startswith(("/keys/", "/session/")):
            request = re.search(r"<\w+:(\w+)Request[ >]", body)
            detail = re.search(r":(?:time|resourceId)>([^<]*)<", body)
            operation, detail = request.group(1) if request else "-", detail.group(1) if detail else "-"
            hk_last[operation] = body
            hk_calls.append("%s %s %s" % (self.path, operation, detail))
            self.answer(*harmonic(self.path, operation, detail, self.server.server_address[1], body), "text/xml")
        elif self.path == "/soap":
            request = re.search(r"<(\w+):GetKeyAndSignalizationRequest[ >]", body)
            if not request or ('xmlns:%s="%s"' % (request.group(1), NS)) not in body:
                self.answer(500, SOAP_FAULT.replace("resource unknown", "unknown request"), "text/xml; charset=utf-8")
            elif "fault-me" in body:
                self.answer(500, SOAP_FAULT, "text/xml; charset=utf-8")
            else:
                start = body.find("time>")
                asked = body[start + 5:body.find("<", start)] if start >= 0 else "0"
                self.answer(200, SOAP_ANSWER.format(ns=NS, time=asked), "text/xml; charset=utf-8")
        else:
            self.answer(404, "no such path")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert")
    parser.add_argument("--key")
    parser.add_argument("--client-ca")
    parser.add_argument("--delay", type=float, default=2.0)
    parser.add_argument("--lifetime", type=float, default=60.0)
    parser.add_argument("--port", type=int, default=0)
    args = parser.parse_args()
    Handler.delay = args.delay

    server = http.server.ThreadingHTTPServer(("127.0.0.1", args.port), Handler)
    server.daemon_threads = True
    server.handle_error = lambda request, address: None  # a client that gave up (time-out tests) is no news
    if args.cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args.cert, args.key)
        if args.client_ca:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(args.client_ca)
        server.socket = context.wrap_socket(server.socket, server_side=True)

    # Bounded life: a timer, and the end of the parent's pipe on stdin.
    threading.Timer(args.lifetime, lambda: os._exit(0)).start()
    threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()

    print("PORT %d" % server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
