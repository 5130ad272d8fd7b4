"""Malformed HTTP requests and WebSocket frames sent to the browser console
as raw bytes: each gets an error answer or a closed connection, and after
each a normal request still answers promptly."""
import base64
import os
import socket
import struct
import time
import unittest

import webhost

# Requests that are no proper HTTP, or ask for what the console does not do.
MALFORMED_REQUESTS = [
    b"\r\n\r\n",
    b"GARBAGE\r\n\r\n",
    b"GET\r\n\r\n",
    b"GET / HTTP/9.9\r\n\r\n",
    b"GET /" + b"a" * 70000 + b" HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
    b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n" + b"X-Long: " + b"b" * 70000 + b"\r\n\r\n",
    b"GET / HTTP/1.1\r\n" + b"".join(b"X-%d: y\r\n" % i for i in range(2000)) + b"\r\n",
    b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: -5\r\n\r\n",
    b"POST /module/echo/restart HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 99999999999999999999\r\n\r\n",
    b"POST /module/echo/restart HTTP/1.1\r\nHost: 127.0.0.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
    b"POST /module/echo/restart HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 10\r\n\r\nabc",
    b"DELETE /status.json HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
    b"GET /%00%ff%2e%2e/%2e%2e/etc/passwd HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
    b"GET /../../../../etc/passwd HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
    b"GET /status.json HTTP/1.1\r\nHost: 127.0.0.1\r\nHost: elsewhere\r\n\r\n",
    b"GET /status.json HTTP/1.1\r\n\x00\x01\x02\xff\xfe: \x80\r\n\r\n",
    b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + b"\x00" * 64,
    bytes(range(256)) * 8,
    b"GET /module/echo/terminal HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    b"Sec-WebSocket-Version: 13\r\n\r\n",
    b"GET /module/echo/terminal HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    b"Sec-WebSocket-Key: short\r\nSec-WebSocket-Version: 99\r\nSec-WebSocket-Protocol: nxa-terminal\r\n\r\n",
]


def frame(opcode, payload, fin=True, masked=True, rsv=0, length=None):
    """One WebSocket frame as a client sends it, possibly wrong on purpose."""
    first = (0x80 if fin else 0) | (rsv << 4) | opcode
    size = len(payload) if length is None else length
    if size < 126:
        header = struct.pack("!BB", first, (0x80 if masked else 0) | size)
    elif size < 65536:
        header = struct.pack("!BBH", first, (0x80 if masked else 0) | 126, size)
    else:
        header = struct.pack("!BBQ", first, (0x80 if masked else 0) | 127, size)
    if not masked:
        return header + payload
    key = os.urandom(4)
    return header + key + bytes(b ^ key[i % 4] for i, b in enumerate(payload))


# Frames a terminal's WebSocket must not take (or takes harmlessly).
MALFORMED_FRAMES = [
    frame(0x2, b"unmasked", masked=False),
    frame(0x2, b"reserved bits", rsv=7),
    frame(0x3, b"unknown opcode"),
    frame(0xB, b"unknown control opcode"),
    frame(0x9, b"p" * 200),
    frame(0x9, b"fragmented ping", fin=False),
    frame(0x8, b"\x03"),
    frame(0x8, b"\x00\x01"),
    frame(0x1, b"\xff\xfe not UTF-8"),
    frame(0x0, b"continuation of nothing"),
    frame(0x1, b"start", fin=False) + frame(0x2, b"new message inside a fragmented one"),
    frame(0x2, b"", length=2 ** 63 - 1),
    frame(0x2, b"short", length=1000),
    frame(0x2, b"x" * 100000),
    b"\x00" * 32,
    b"".join(frame(0x9, b"ping") for _ in range(500)),
]


def handshake(sock):
    key = base64.b64encode(os.urandom(16))
    sock.sendall(b"GET /module/echo/terminal HTTP/1.1\r\nHost: 127.0.0.1:20080\r\nUpgrade: websocket\r\n"
                 b"Connection: Upgrade\r\nSec-WebSocket-Key: " + key + b"\r\nSec-WebSocket-Version: 13\r\n"
                 b"Sec-WebSocket-Protocol: nxa-terminal\r\n\r\n")
    answer = b""
    while b"\r\n\r\n" not in answer:
        chunk = sock.recv(4096)
        if not chunk:
            break
        answer += chunk
    return answer.startswith(b"HTTP/1.1 101")


def drain(sock, limit=1.5):
    """Reads until the console closes the connection or `limit` passes."""
    deadline = time.monotonic() + limit
    sock.settimeout(0.2)
    while time.monotonic() < deadline:
        try:
            if not sock.recv(65536):
                return
        except socket.timeout:
            continue
        except OSError:
            return


class WebFuzz(unittest.TestCase):
    def setUp(self):
        self.host = webhost.start_examples(names=("echo",))

    def tearDown(self):
        self.host.stop()

    def assertStillAnswers(self, what):
        started = time.monotonic()
        code, _ = webhost.http("/status.json", timeout=5)
        self.assertEqual(code, 200, what)
        self.assertLess(time.monotonic() - started, 2.0, what)
        self.assertIsNone(self.host.process.poll(), self.host.describe())

    def test_malformed_requests_get_an_error_or_a_closed_connection(self):
        for request in MALFORMED_REQUESTS:
            with socket.create_connection(("127.0.0.1", 20080), timeout=5) as sock:
                try:
                    sock.sendall(request)
                except OSError:
                    pass
                drain(sock)
            self.assertStillAnswers(request[:60])

    def test_malformed_frames_get_a_closed_connection_or_are_harmless(self):
        for data in MALFORMED_FRAMES:
            with socket.create_connection(("127.0.0.1", 20080), timeout=5) as sock:
                self.assertTrue(handshake(sock))
                try:
                    sock.sendall(data)
                except OSError:
                    pass
                drain(sock)
            self.assertStillAnswers(data[:20])

    def test_a_connection_that_sends_half_a_request_is_closed_in_time(self):
        with socket.create_connection(("127.0.0.1", 20080), timeout=30) as sock:
            sock.sendall(b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n")
            self.assertStillAnswers("half a request open")
            started = time.monotonic()
            sock.settimeout(30)
            try:
                while sock.recv(4096):
                    pass
            except OSError:
                pass
            self.assertLess(time.monotonic() - started, 25)


if __name__ == "__main__":
    unittest.main()
