#!/usr/bin/env python3
"""Small HTTP(S) server for the HTTP client tests.

Binds 127.0.0.1 on a free port, prints "PORT <n>" on standard output once it listens, and serves
until it is terminated, its parent process goes away, or ten minutes have passed (so that a test
that crashed leaves no server behind). With --cert/--key it speaks HTTPS; with --client-ca as well
it admits only clients whose certificate that CA issued.

Paths:
  /file/<n>              200 with a body of n bytes ("0123456789" repeated)
  /status/<code>         that status with a short body
  /created               201 with a body
  /basic/<realm>         401 Basic challenge with realm="<realm>" unless credentials were sent;
                         with credentials 200 and the body is exactly "<user>:<password>" as
                         decoded from the Authorization header
  /digest/<realm>        401 Digest challenge, realm="<realm>", always
  /moved                 301 to an absolute URL on this server
  /found                 302 with the relative Location "/new/cfg.txt"
  /hang                  200 headers and part of the body, then nothing until the client leaves
"""

import base64
import http.server
import os
import socketserver
import ssl
import sys
import threading
import time

BODY_PATTERN = b"0123456789"


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def version_string(self):
        return "fixture/1"

    def log_message(self, *args):  # keep the test output clean
        pass

    def send_body(self, status, body, headers=()):
        if status in (204, 304):
            body = b""
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        if status not in (204, 304):
            self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if body and self.command != "HEAD":
            self.wfile.write(body)

    def do_GET(self):
        parts = self.path.split("/")
        head = parts[1] if len(parts) > 1 else ""
        arg = "/".join(parts[2:])
        if head == "file":
            size = int(arg)
            body = (BODY_PATTERN * (size // len(BODY_PATTERN) + 1))[:size]
            self.send_body(200, body)
        elif head == "status":
            self.send_body(int(arg), b"status body\n")
        elif head == "created":
            self.send_body(201, b"created body\n")
        elif head == "basic":
            auth = self.headers.get("Authorization")
            if auth and auth.startswith("Basic "):
                self.send_body(200, base64.b64decode(auth[6:]))
            else:
                self.send_body(401, b"denied\n",
                               [("WWW-Authenticate", 'Basic realm="%s"' % arg)])
        elif head == "digest":
            self.send_body(401, b"denied\n",
                           [("WWW-Authenticate",
                             'Digest realm="%s", nonce="abc123", qop="auth"' % arg)])
        elif head == "moved":
            host, port = self.server.server_address[:2]
            self.send_body(301, b"moved\n",
                           [("Location", "http://%s:%d/file/10" % (host, port))])
        elif head == "found":
            self.send_body(302, b"found\n", [("Location", "/new/cfg.txt")])
        elif head == "hang":
            self.send_response(200)
            self.send_header("Content-Length", "1000000")
            self.end_headers()
            self.wfile.write(BODY_PATTERN * 10)
            self.wfile.flush()
            # Wait for the client to go away; the read returns empty (or fails) when it does.
            try:
                self.rfile.read(1)
            except OSError:
                pass
        else:
            self.send_body(404, b"not found\n")

    do_HEAD = do_GET


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True


def main():
    args = sys.argv[1:]
    server = Server(("127.0.0.1", 0), Handler)
    if "--cert" in args:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args[args.index("--cert") + 1], args[args.index("--key") + 1])
        if "--client-ca" in args:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(args[args.index("--client-ca") + 1])
        server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    sys.stdout.write("PORT %d\n" % server.server_address[1])
    sys.stdout.flush()
    parent = os.getppid()
    deadline = time.monotonic() + 600
    while os.getppid() == parent and time.monotonic() < deadline:
        time.sleep(0.5)


if __name__ == "__main__":
    main()
