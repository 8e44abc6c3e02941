"""Scripted Irdeto and Verimatrix key servers for loopback_server.py, written from the protocols' descriptions
alone (no code shared with the clients). Every answer is fixed here, worked out by hand:

Irdeto (SOAP 1.2, POST /irdeto/<scenario>): GenerateKeys for crypto period P answers, per protection system
asked, one Key with
  KeyId      a1a1a1a1-b2b2-c3c3-d4d4-<P as 12 hexadecimal digits>
  ContentKey 16 bytes, each P % 256 (P = 1000: e8 e8 ... e8, base64 6Ojo6Ojo6Ojo6Ojo6Ojo6A==)
  IV         00 01 02 ... 0f (base64 AAECAwQFBgcICQoLDA0ODw==)
  SystemId and PSSH by system: PlayReady 9a04f079-9840-4286-ab92-e65be0885f95 with 01 02 03 (AQID) and no
  element; Widevine edef8ba9-79d6-4ace-a3c8-27dcd51d21ed with 08 01 12 10 (CAESEA==) and its element;
  ClearKey 1077efec-c0b2-4d02-ace3-3c1e52e2fb4b with 04 05 (BAU=); any other system
  00000000-0000-0000-0000-0000000000ee with no data.
Verimatrix key file (GET /vmx/<scenario>?<query>): the connection request (e=DASH) gets the key 00 01 ... 0f and
the DASH headers; a request at position p gets 16 bytes each 0x40 + (p // 10,000,000) % 64.
Verimatrix REST (PUT /cei/v1.1/content/<scenario>[/position/<n>/key], GET /cei/v1.1/heartbeat): JSON answers below.
"""
import base64
import html
import re

IRDETO_NS = "urn:tovrane:drm:irdeto:live"
SOAP12 = "http://www.w3.org/2003/05/soap-envelope"
SYSTEMS = {
    "PlayReady": ("9a04f079-9840-4286-ab92-e65be0885f95", "AQID", ""),
    "Widevine": ("edef8ba9-79d6-4ace-a3c8-27dcd51d21ed", "CAESEA==",
                 '<ContentProtection schemeIdUri="urn:uuid:edef8ba9-79d6-4ace-a3c8-27dcd51d21ed">'
                 '<cenc:pssh>AAAAJHBzc2gAAAAA7e+LqXnWSs6jyCfc1R0h7QAAAAQIARIQ</cenc:pssh></ContentProtection>'),
    "ClearKey": ("1077efec-c0b2-4d02-ace3-3c1e52e2fb4b", "BAU=", ""),
}
OTHER_SYSTEM = ("00000000-0000-0000-0000-0000000000ee", "", "")
calls, last = [], {}
served = {}


def soap12(body, status=200):
    return status, ('<?xml version="1.0" encoding="utf-8"?>\n<env:Envelope xmlns:env="%s" xmlns:i="%s"><env:Body>%s'
                    '</env:Body></env:Envelope>\n' % (SOAP12, IRDETO_NS, body))


def soap12_fault(text):  # SOAP 1.2: the text is the Reason's
    return soap12('<env:Fault><env:Code><env:Value>env:Sender</env:Value></env:Code><env:Reason>'
                  '<env:Text xml:lang="en">%s</env:Text></env:Reason></env:Fault>' % text, 500)


def irdeto_key(period, system, scenario, index):
    system_id, pssh, element = SYSTEMS.get(system, OTHER_SYSTEM)
    if scenario == "new-system" and served.get("/irdeto/new-system", 0) > 1:
        system_id = OTHER_SYSTEM[0]
    key = base64.b64encode(bytes([period % 256]) * 16).decode()
    iv = "AAECAwQFBgcICQoLDA0ODw=="
    key_id = "a1a1a1a1-b2b2-c3c3-d4d4-%012x" % period
    if scenario == "short-key":
        key = "AAECAwQFBgc="  # 8 bytes
    if scenario == "short-iv":
        iv = "AAECAwQFBgcICQ=="  # 10 bytes
    if scenario == "bad-kid":
        key_id = "a1a1"
    if scenario == "iv-differs" and index == 1:
        iv = "EBESExQVFhcYGRobHB0eHw=="
    if scenario == "no-system" and index == 0:
        system_id = ""
    account = "" if scenario == "missing-account" else "account-1"
    # Some fields as attributes, others as child elements: the client reads both.
    return ('<Key Version="1" AccountId="%s" ContentId="content-1" KeyId="%s" ContentKey="%s" SystemId="%s">'
            '<IV>%s</IV><PSSH>%s</PSSH><ContentProtectionElement>%s</ContentProtectionElement>'
            '<PlayReadyKeySeed>c2VlZC1TRUNSRVQtc2VlZA==</PlayReadyKeySeed></Key>'
            % (account, key_id, key, system_id, iv, pssh, html.escape(element)))


def irdeto(path, body):
    scenario = path.strip("/").partition("/")[2]
    operation = re.search(r"<\w+:(GenerateKeys|CreateLiveEvent)[ >]", body)
    operation = operation.group(1) if operation else "-"
    detail = re.search(r":(?:cryptoPeriod|sName)>([^<]*)<", body)
    calls.append("%s %s %s" % (path, operation, detail.group(1) if detail else "-"))
    last[operation] = body
    if operation == "CreateLiveEvent":
        if scenario == "event-fails":
            return soap12_fault("event refused")
        return soap12("<i:CreateLiveEventResponse><i:CreateLiveEventResult>created</i:CreateLiveEventResult>"
                      "</i:CreateLiveEventResponse>")
    if operation != "GenerateKeys" or "<irdeto:Password>" not in body:
        return soap12_fault("unknown request or no service header")
    served[path] = served.get(path, 0) + 1
    if scenario == "fault" or (scenario == "fail-after-first" and served[path] > 1):
        return soap12_fault("account unknown")
    if scenario == "http-503":
        return 503, "<html>busy</html>"
    if scenario == "bad-envelope":
        return 200, '<?xml version="1.0"?><env:Envelope xmlns:env="%s"><env:Body><i:Gene' % SOAP12
    period = int(detail.group(1)) if detail else 0
    asked = re.search(r":protectionSystem>(.*?)</\w+:protectionSystem>", body, re.S)
    systems = re.findall(r"<\w+:string>([^<]*)<", asked.group(1)) if asked else []
    if scenario == "malformed-xml":
        result = "<Keys><Key AccountId="
    elif scenario == "one-key-short":
        result = "<Keys>%s</Keys>" % irdeto_key(period, systems[0], scenario, 0)
    else:
        result = "<Keys>%s</Keys>" % "".join(irdeto_key(period, s, scenario, i) for i, s in enumerate(systems))
    return soap12("<i:GenerateKeysResponse><i:GenerateKeysResult>%s</i:GenerateKeysResult></i:GenerateKeysResponse>"
                  % html.escape(result))


def verimatrix_key_file(path, query):
    """(status, body bytes, headers) of a key file request."""
    scenario = path.strip("/").partition("/")[2]
    calls.append("%s %s" % (path, query))
    served[path] = served.get(path, 0) + 1
    connect = "e=DASH" in query
    if scenario.startswith("status-"):
        return int(scenario[7:]), b"refused", {}
    if scenario == "fail-after-first" and served[path] > 1:
        return 500, b"down", {}
    position = int(re.search(r"[?&]p=(\d+)", query).group(1))
    key = bytes(range(16)) if connect else bytes([0x40 + (position // 10_000_000) % 64]) * 16
    if scenario == "short-body":
        key = key[:8]
    headers = {}
    if connect or scenario == "keyid-always":
        # key id 0f0e0d0c-0b0a-0908-0706-050403020100, pssh data 56 4d 58 (VMX)
        headers = {"dash-keyid": "Dw4NDAsKCQgHBgUEAwIBAA==", "dash-pssh": "Vk1Y", "dash-mpd": "mpd-text",
                   "location": "http://127.0.0.1/licence", "dash-systemid": "9a27dd82-fde2-4725-8cbc-4234aa06ec09"}
    if scenario == "bad-headers":
        headers = {"dash-keyid": "%%%", "dash-pssh": "***"}
    return 200, key, headers


REST = {
    "ok": '{"contentResponse":{"statusCode":"OPERATION_SUCCESS","statusMessage":"created"}}',
    "dup": '{"contentResponse":{"statusCode":"DUPLICATE_CONTENT","statusMessage":"exists"}}',
    "refused": '{"contentResponse":{"statusCode":"INVALID_REQUEST","statusMessage":"no"}}',
    "no-root": '{"statusCode":"OPERATION_SUCCESS"}',
    "bad-json": '{"contentResponse":{"statusCode":',
    "empty": "",
}
KEY_ANSWERS = {
    "ok": '{"keyResponse":{"statusCode":"OPERATION_SUCCESS","statusMessage":"keys","drmList":[{"drmName":"WIDEVINE",'
          '"streamingProtocol":"DASH"}],"keyData":[{"contentKey":{"keyId":"0f0e0d0c-0b0a-0908-0706-050403020100",'
          '"key":"AAECAwQFBgcICQoLDA0ODw==","position":7},"drmData":{"drmSystemId":'
          '"edef8ba9-79d6-4ace-a3c8-27dcd51d21ed","pssh":{"data":"CAESEA=="}}}]}}',
    "drm-not-array": '{"keyResponse":{"statusCode":"OPERATION_SUCCESS","drmList":{}}}',
    "key-not-array": '{"keyResponse":{"statusCode":"OPERATION_SUCCESS","keyData":"x"}}',
    "bad-drm": '{"keyResponse":{"statusCode":"OPERATION_SUCCESS","drmList":[{"drmName":"OTHER"}]}}',
    "bad-protocol": '{"keyResponse":{"statusCode":"OPERATION_SUCCESS","drmList":[{"drmName":"PLAYREADY",'
                    '"streamingProtocol":"FTP"}]}}',
    "no-key": '{"keyResponse":{"statusCode":"OPERATION_SUCCESS","keyData":[{"contentKey":{"keyId":"k"}}]}}',
    "no-status": '{"keyResponse":{}}',
    "no-root": '[1]',
    "bad-json": '{"keyResponse":',
}


def verimatrix_rest(method, path, body):
    """(status, body) of a REST request."""
    calls.append("%s %s %s" % (method, path, body))
    if method == "GET":
        return (200, '{"statusCode":"OPERATION_SUCCESS","statusMessage":"alive"}') if path == "/cei/v1.1/heartbeat" \
            else (404, "")
    match = re.match(r"/cei/v1\.1/content/([\w-]+)(/position/\d+/key)?(\?siteId=\d+)?$", path)
    if method != "PUT" or not match:
        return 404, "no such path"
    scenario = match.group(1)
    if scenario == "status-500":
        return 500, "broken"
    if match.group(2):
        return 200, KEY_ANSWERS.get(scenario, "")
    return 200, REST.get(scenario, "")
