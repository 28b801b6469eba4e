#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""An https server that misbehaves as the path of the URL says. Prints its port.

Usage: https_server.py CERTIFICATE KEY
"""
import gzip
import http.server
import ssl
import sys
import time

SIZE = 100_000
BODY = b"G1 X10 Y10 F3000\n" * SIZE
BODY = BODY[:SIZE]
BOMB = gzip.compress(bytes(20_000_000))


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *_):
        pass

    def head(self, status, length=None, **headers):
        self.close_connection = True
        self.send_response(status)
        if length is not None:
            self.send_header("Content-Length", str(length))
        self.send_header("Connection", "close")
        for name, value in headers.items():
            self.send_header(name.replace("_", "-"), value)
        self.end_headers()

    def redirect(self, to):
        self.head(302, 0, Location=to)

    def drip(self):
        self.head(200, SIZE)
        while True:
            self.wfile.write(b"G")
            time.sleep(0.1)

    def endless(self):
        self.head(200)
        while True:
            self.wfile.write(BODY)

    def body(self, length=None, data=BODY, **headers):
        self.head(200, len(data) if length is None else length, **headers)
        self.wfile.write(data)

    def do_GET(self):
        here = f"https://localhost:{self.server.server_port}"
        actions = {
            "/good": self.body,
            "/redirected": lambda: self.redirect("/good"),
            "/endless": self.endless,
            "/long-length": lambda: self.body(SIZE * 1000),
            "/cut": lambda: self.body(SIZE, BODY[:1000]),
            "/short": lambda: self.body(1000, BODY[:1000]),
            "/other": lambda: self.body(data=BODY[:-1] + b"!"),
            "/drip": self.drip,
            "/silent": lambda: time.sleep(20),
            "/loop": lambda: self.redirect(here + "/loop"),
            "/to-http": lambda: self.redirect("http://localhost:1/good"),
            "/to-file": lambda: self.redirect("file:///etc/passwd"),
            "/unauthorized": lambda: self.head(401, 0, WWW_Authenticate="Basic realm=jobs"),
            "/missing": lambda: self.head(404, 0),
            "/part": lambda: self.head(206, 0),
            "/bomb": lambda: self.body(data=BOMB, Content_Encoding="gzip"),
            "/packed-bomb": lambda: self.packed_bomb(),
        }
        try:
            actions[self.path.split("?")[0]]()
        except (ConnectionError, ssl.SSLError):
            pass

    def packed_bomb(self):
        self.head(200, None, Transfer_Encoding="gzip, chunked")
        self.wfile.write(b"%x\r\n%s\r\n0\r\n\r\n" % (len(BOMB), BOMB))


def main():
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[1], sys.argv[2])
    server.socket = context.wrap_socket(server.socket, server_side=True)
    print(server.server_port, flush=True)
    server.serve_forever()


main()
