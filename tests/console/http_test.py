#!/usr/bin/env python3
"""The console's web server at the HTTP level, against three real agents: what a page may do, what
another site's page may not, hostile requests refused with clear answers while the server keeps
serving, and (in a network namespace of its own, as root) the password and TLS that guard it
beyond loopback.

usage: http_test.py BUILD_DIR"""

import base64
import hashlib
import http.client
import json
import os
import socket
import ssl
import struct
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(__file__))
from console_fixture import Fleet, wait_for  # noqa: E402

failures = []


def check(name, condition, detail=""):
    print(("ok      " if condition else "FAILED  ") + name + ("" if condition else f": {detail}"))
    if not condition:
        failures.append(name)


def request(fleet, method, path, body=None, headers=None, marker=True, context=None, cookie=None):
    if context is None:
        connection = http.client.HTTPConnection("127.0.0.1", fleet.port, timeout=30)
    else:
        connection = http.client.HTTPSConnection("127.0.0.1", fleet.port, timeout=30, context=context)
    sent = {"Host": f"127.0.0.1:{fleet.port}"}
    if marker:
        sent["X-Kestrin-Console"] = "1"
    if cookie:
        sent["Cookie"] = cookie
    if body is not None and not isinstance(body, (bytes, str)):
        body = json.dumps(body)
        sent["Content-Type"] = "application/json"
    sent.update(headers or {})
    connection.request(method, path, body=body, headers=sent)
    response = connection.getresponse()
    data = response.read()
    connection.close()
    return response.status, data, response


def raw(port, data, read_seconds=5):
    with socket.create_connection(("127.0.0.1", port), timeout=read_seconds) as s:
        try:
            s.sendall(data)
        except OSError:
            pass
        try:
            return s.recv(65536)
        except OSError:
            return b""


def websocket(port, origin=None):
    s = socket.create_connection(("127.0.0.1", port), timeout=10)
    key = base64.b64encode(os.urandom(16)).decode()
    lines = [f"GET /api/live HTTP/1.1", f"Host: 127.0.0.1:{port}", "Upgrade: websocket",
             "Connection: Upgrade", f"Sec-WebSocket-Key: {key}", "Sec-WebSocket-Version: 13"]
    if origin:
        lines.append(f"Origin: {origin}")
    s.sendall(("\r\n".join(lines) + "\r\n\r\n").encode())
    head = b""
    while b"\r\n\r\n" not in head:
        chunk = s.recv(1)
        if not chunk:
            break
        head += chunk
    return s, head.decode(errors="replace")


def frame(payload, opcode=1):
    mask = os.urandom(4)
    masked = bytes(b ^ mask[i % 4] for i, b in enumerate(payload))
    length = len(payload)
    header = bytes([0x80 | opcode])
    if length < 126:
        header += bytes([0x80 | length])
    else:
        header += bytes([0x80 | 126]) + struct.pack(">H", length)
    return header + mask + masked


def read_frame(s):
    def exactly(n):
        data = b""
        while len(data) < n:
            chunk = s.recv(n - len(data))
            if not chunk:
                raise EOFError
            data += chunk
        return data

    first, second = exactly(2)
    length = second & 0x7F
    if length == 126:
        length = struct.unpack(">H", exactly(2))[0]
    elif length == 127:
        length = struct.unpack(">Q", exactly(8))[0]
    return first & 0x0F, exactly(length)


def loopback(build):
    fleet = Fleet(build)
    try:
        status, body, response = request(fleet, "GET", "/", marker=False)
        check("the page is served with a strict content policy and a session cookie",
              status == 200 and b"console.js" in body
              and "default-src 'self'" in (response.getheader("Content-Security-Policy") or "")
              and "HttpOnly; SameSite=Strict" in (response.getheader("Set-Cookie") or ""), status)
        cookie = (response.getheader("Set-Cookie") or "").split(";")[0]

        def all_reachable():
            status, body, _ = request(fleet, "GET", "/api/state")
            rows = json.loads(body)["agents"] if status == 200 else []
            return len(rows) == 3 and all(row["reachable"] for row in rows)
        check("the table lists every agent of the hosts file, reachable", wait_for(all_reachable, 30))

        status, _, _ = request(fleet, "GET", "/api/state", marker=False)
        check("an API request without the console's header is refused", status == 403, status)
        status, _, _ = request(fleet, "GET", "/api/state", headers={"Host": f"evil.example:{fleet.port}"})
        check("a request under another host name is refused (DNS rebinding)", status == 403, status)
        status, _, _ = request(fleet, "POST", "/api/refresh", body={},
                               headers={"Origin": "http://evil.example"})
        check("a request from another origin is refused", status == 403, status)

        agent = fleet.addresses[0]
        status, body, _ = request(fleet, "POST", "/api/call", {"agent": agent, "selector": "ping"})
        check("a page calls an agent", status == 200 and json.loads(body) == {"answer": None}, body)
        status, body, _ = request(fleet, "POST", "/api/call",
                                  {"agent": agent, "selector": "setErrorCallback:", "arguments": [None]})
        check("a selector outside the console's list is refused", status == 403, (status, body))
        status, body, _ = request(fleet, "POST", "/api/call",
                                  {"agent": agent, "selector": "authWithDict:",
                                   "arguments": [{"$credentials": None}]})
        check("an action that needs credentials asks for them", status == 428, (status, body))
        status, _, _ = request(fleet, "POST", "/api/call", {"agent": "10.9.9.9:1", "selector": "ping"})
        check("an agent outside the fleet is not called", status == 404, status)
        status, _, _ = request(fleet, "POST", "/api/call", "[1, 2")
        check("a body that is not JSON is refused", status == 400, status)

        for name in ("../../../../etc/passwd", "/etc/passwd", "..%2f..%2fetc%2fpasswd"):
            status, body, _ = request(fleet, "GET", f"/api/log?agent={agent}&name={name}", cookie=cookie)
            check(f"a log download names only the agent's own logs ({name})",
                  status == 404 and b"root:" not in body, (status, body[:80]))
        status, _, _ = request(fleet, "GET", "/../../etc/passwd", marker=False)
        check("a page path outside the console's pages is not found", status in (400, 404), status)
        status, _, _ = request(fleet, "GET", "/api/nowhere")
        check("an unknown route is not found", status == 404, status)
        status, _, _ = request(fleet, "PUT", "/api/state")
        check("a known route with the wrong method says so", status == 405, status)

        # Refused from its length, before it is read: the sender may not get far.
        answer = raw(fleet.port, (f"POST /api/call HTTP/1.1\r\nHost: 127.0.0.1:{fleet.port}\r\n"
                                  f"X-Kestrin-Console: 1\r\nContent-Length: {2 << 20}\r\n\r\n").encode()
                     + b"x" * 65536)
        check("a huge body is refused", answer.startswith(b"HTTP/1.1 413"), answer[:40])
        answer = raw(fleet.port, (f"POST /api/call HTTP/1.1\r\nHost: 127.0.0.1:{fleet.port}\r\n"
                                  "X-Kestrin-Console: 1\r\nTransfer-Encoding: chunked\r\n\r\n").encode()
                     + b"".join(b"10000\r\n" + b"x" * 0x10000 + b"\r\n" for _ in range(20)))
        check("a huge body in chunks is refused", answer.startswith(b"HTTP/1.1 413"), answer[:40])
        answer = raw(fleet.port, b"GET /api/state HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Big: " +
                     b"y" * (1 << 20) + b"\r\n\r\n")
        check("a huge header is refused", answer.startswith(b"HTTP/1.1 4") or answer == b"", answer[:40])
        answer = raw(fleet.port, b"\x16\x03\x01 not http at all\r\n\r\n")
        check("a request that is not HTTP is refused",
              answer.startswith((b"HTTP/1.1 400", b"HTTP/1.1 501")) or answer == b"",
              answer[:40])

        s, head = websocket(fleet.port, origin="http://evil.example")
        check("a WebSocket from another site's page is refused", " 403 " in head.split("\r\n")[0], head[:60])
        s.close()
        s, head = websocket(fleet.port, origin=f"http://127.0.0.1:{fleet.port}")
        check("the console's page gets its WebSocket", " 101 " in head.split("\r\n")[0], head[:60])
        opcode, payload = read_frame(s)
        check("the WebSocket starts with the table", opcode == 1 and b'"type":"state"' in payload, payload[:60])
        try:
            for _ in range(200):
                s.sendall(frame(b"ping"))
        except OSError:
            pass
        closed = None
        try:
            deadline = time.monotonic() + 10
            while time.monotonic() < deadline:
                opcode, payload = read_frame(s)
                if opcode == 8:
                    closed = struct.unpack(">H", payload[:2])[0]
                    break
        except (EOFError, OSError):
            closed = closed or "dropped"
        check("a WebSocket flood is ended with 1008", closed == 1008, closed)
        s.close()

        results = []

        def ping():
            status, body, _ = request(fleet, "POST", "/api/call",
                                      {"agent": fleet.addresses[len(results) % 3], "selector": "ping"})
            results.append(status)
        threads = [threading.Thread(target=ping) for _ in range(24)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        check("several pages call at once", results.count(200) == 24, results)
        status, _, _ = request(fleet, "GET", "/api/state")
        check("after all that the console still serves", status == 200 and fleet.alive(), status)
    finally:
        fleet.close()


def beyond_loopback(build):
    salt = os.urandom(16)
    key = hashlib.pbkdf2_hmac("sha256", b"render-room-7", salt, 1000)
    stored = f"pbkdf2-sha256$1000${salt.hex()}${key.hex()}"
    fleet = Fleet(build, agents=1, listen="0.0.0.0:0", console_password_hash=stored)
    try:
        check("bound beyond loopback the console says https", fleet.url.startswith("https://"), fleet.url)
        context = ssl.create_default_context()
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        status, body, response = request(fleet, "GET", "/api/state", context=context)
        check("no API request works before the console password", status == 401, status)
        cookie = (response.getheader("Set-Cookie") or "").split(";")[0]
        check("the session cookie is only sent over TLS", "; Secure" in (response.getheader("Set-Cookie") or ""))
        status, _, _ = request(fleet, "POST", "/api/login", {"password": "wrong"}, context=context, cookie=cookie)
        check("a wrong console password is refused", status == 401, status)
        s = socket.create_connection(("127.0.0.1", fleet.port), timeout=10)
        secured = context.wrap_socket(s)
        key64 = base64.b64encode(os.urandom(16)).decode()
        secured.sendall((f"GET /api/live HTTP/1.1\r\nHost: 127.0.0.1:{fleet.port}\r\nUpgrade: websocket\r\n"
                         f"Connection: Upgrade\r\nSec-WebSocket-Key: {key64}\r\nSec-WebSocket-Version: 13\r\n"
                         f"Cookie: {cookie}\r\n\r\n").encode())
        head = secured.recv(4096).decode(errors="replace")
        check("no WebSocket before the console password", " 401 " in head.split("\r\n")[0], head[:60])
        secured.close()
        status, _, _ = request(fleet, "POST", "/api/login", {"password": "render-room-7"},
                               context=context, cookie=cookie)
        check("the right console password lets the session in", status == 204, status)
        status, body, _ = request(fleet, "GET", "/api/state", context=context, cookie=cookie)
        check("then the API answers", status == 200 and b'"agents"' in body, status)
        answer = raw(fleet.port, f"GET /api/state HTTP/1.1\r\nHost: 127.0.0.1:{fleet.port}\r\n\r\n".encode())
        check("plain HTTP gets nothing beyond loopback", not answer.startswith(b"HTTP/1.1 200"), answer[:40])
    finally:
        fleet.close()


def main():
    build = sys.argv[1]
    loopback(build)
    # 0.0.0.0 only where nothing but this test can reach it: a network namespace of its own.
    if os.environ.get("KESTRIN_AVAHI_CONFIG"):
        beyond_loopback(build)
    else:
        print("skipped beyond-loopback checks: not in a network namespace of the test's own")
    print(f"{'all passed' if not failures else f'{len(failures)} failed'}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
