#!/usr/bin/env python3
"""A scripted Harmonic KMS on 127.0.0.1 for the provider's tests: hand-written SOAP envelopes, chosen by path.

Prints "PORT <n>", then serves until --lifetime seconds have passed or its parent closes its stdin.

Key session service (POST /session/<name>):
  /session/active   Heartbeat status ACTIVE; CreateKeySession gives /keys/ok of this server (InvalidKeySession
                    too); DestroyKeySession answers returnCode 0
  /session/flaky    as active, but CreateKeySession gives /keys/fail-after-first (InvalidKeySession /keys/ok)
  /session/standby  Heartbeat status STANDBY
Key provisioning service (POST /keys/<name>), GetKeyAndSignalization:
  ok                the key of the asked time (table below), with a DASH signalling entry
  fail-after-first  as ok for time 0; returnCode 5 "key not ready" for any other time
  refused           returnCode 3 "unknown resource"
  fault             a SOAP fault "key service unavailable"
  malformed         a body that is not well-formed XML (an undeclared entity)
  empty-key         a key element with no bytes
  short-key         an 8-byte key
  other-time        the key scheduled for the asked time + 1 only
GET /calls          each request received so far, one line each: "<path> <operation> <time or resourceId>"
GET /last           the body of the last request

Keys, worked out by hand: time 0 -> key id 11111111-2222-3333-4444-555555555555, key bytes 00..0f
("AAECAwQFBgcICQoLDA0ODw=="); any other time -> key id 66666666-7777-8888-9999-aaaaaaaaaaaa, key bytes 10..1f
("EBESExQVFhcYGRobHB0eHw=="). The IV is 01..08 ("AQIDBAUGBwg="). The pssh data is 08 01 12 10 ("CAESEA==").
"""
import argparse
import http.server
import os
import re
import sys
import threading

NS = "urn:tovrane:kms:harmonic:2.4"
ENVELOPE = ('<?xml version="1.0" encoding="UTF-8"?>\n<S:Envelope xmlns:S="http://schemas.xmlsoap.org/soap/envelope/" '
            'xmlns:h="' + NS + '"><S:Body>%s</S:Body></S:Envelope>\n')
FAULT = ('<S:Fault><faultcode>S:Server</faultcode><faultstring>key service unavailable</faultstring></S:Fault>')
KEYS = {True: ("11111111-2222-3333-4444-555555555555", "AAECAwQFBgcICQoLDA0ODw=="),
        False: ("66666666-7777-8888-9999-aaaaaaaaaaaa", "EBESExQVFhcYGRobHB0eHw==")}
SIGNALLING = ('<h:signalization><h:dash><h:drmSystemId>edef8ba9-79d6-4ace-a3c8-27dcd51d21ed</h:drmSystemId>'
              '<h:drmName>Widevine</h:drmName><h:manifestHeader>&lt;cenc:pssh&gt;AAAA&lt;/cenc:pssh&gt;'
              '</h:manifestHeader><h:psshBox><h:data>CAESEA==</h:data></h:psshBox></h:dash></h:signalization>'
              '<h:commonEncryptionParam><h:anything>kept</h:anything></h:commonEncryptionParam>')

calls = []
last = [""]


def key_answer(name, time):
    if name == "refused" or (name == "fail-after-first" and time != "0"):
        code, message = ("3", "unknown resource") if name == "refused" else ("5", "key not ready")
        return 200, ENVELOPE % ('<h:GetKeyAndSignalizationResponse><h:returnCode>%s</h:returnCode>'
                                '<h:errorMessage>%s</h:errorMessage></h:GetKeyAndSignalizationResponse>'
                                % (code, message))
    if name == "fault":
        return 500, ENVELOPE % FAULT
    if name == "malformed":
        return 200, ENVELOPE % '<h:GetKeyAndSignalizationResponse><h:returnCode>&bogus;</h:returnCode></h:GetKeyAndSignalizationResponse>'
    key_id, key = KEYS[time == "0"]
    if name == "empty-key":
        key = ""
    elif name == "short-key":
        key = "AAECAwQFBgc="
    scheduled = str(int(time) + 1) if name == "other-time" else time
    return 200, ENVELOPE % ('<h:GetKeyAndSignalizationResponse><h:returnCode>0</h:returnCode><h:scheduledKey>'
                            '<h:time>%s</h:time><h:contentKey><h:keyId>%s</h:keyId><h:key>%s</h:key>'
                            '<h:iv>AQIDBAUGBwg=</h:iv></h:contentKey></h:scheduledKey>%s'
                            '</h:GetKeyAndSignalizationResponse>' % (scheduled, key_id, key, SIGNALLING))


def session_answer(name, operation, port):
    keys = "fail-after-first" if name == "flaky" and operation == "CreateKeySession" else "ok"
    uri = "<h:keySessionURI>http://127.0.0.1:%d/keys/%s</h:keySessionURI>" % (port, keys)
    if operation == "Heartbeat":
        body = "<h:returnCode>0</h:returnCode><h:status>%s</h:status>" % (
            "STANDBY" if name == "standby" else "ACTIVE")
    elif operation in ("CreateKeySession", "InvalidKeySession"):
        body = "<h:returnCode>0</h:returnCode>" + uri
    else:
        body = "<h:returnCode>0</h:returnCode><h:resourceId>r</h:resourceId>"
    return 200, ENVELOPE % ("<h:%sResponse>%s</h:%sResponse>" % (operation, body, operation))


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def answer(self, status, text, content_type="text/xml; charset=utf-8"):
        data = text.encode()
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def do_GET(self):
        if self.path == "/calls":
            self.answer(200, "".join(line + "\n" for line in calls), "text/plain")
        elif self.path == "/last":
            self.answer(200, last[0], "text/plain")
        else:
            self.answer(404, "no such path", "text/plain")

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0"))).decode(errors="replace")
        last[0] = body
        request = re.search(r"<(\w+):(\w+)Request[ >]", body)
        if not request or ('xmlns:%s="%s"' % (request.group(1), NS)) not in body:
            self.answer(500, ENVELOPE % FAULT.replace("key service unavailable", "unknown request"))
            return
        operation = request.group(2)
        detail = re.search(r":(?:time|resourceId)>([^<]*)<", body)
        calls.append("%s %s %s" % (self.path, operation, detail.group(1) if detail else "-"))
        kind, _, name = self.path.strip("/").partition("/")
        if kind == "keys" and operation == "GetKeyAndSignalization":
            self.answer(*key_answer(name, detail.group(1) if detail else "0"))
        elif kind == "session" and operation != "GetKeyAndSignalization":
            self.answer(*session_answer(name, operation, self.server.server_address[1]))
        else:
            self.answer(404, "no such service", "text/plain")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--lifetime", type=float, default=60.0)
    args = parser.parse_args()
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    threading.Timer(args.lifetime, lambda: os._exit(0)).start()
    threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    print("PORT %d" % server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
