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
  GET  /last/<operation>   the body of the last Harmonic request of that operation
"""
import argparse
import base64
import http.server
import os
import re
import ssl
import sys
import threading
import time

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

    def do_GET(self):
        if self.path == "/hello":
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
