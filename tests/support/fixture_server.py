#!/usr/bin/python3
"""The tests' own HTTP/1.1 server, for answers a production server will not give on demand.

Usage: fixture_server.py ROUTES_FILE REQUEST_LOG

ROUTES_FILE is JSON written by the C++ side (FixtureServer):
    {"/path": [response, response, ...], ...}
The responses of a path are given in turn, one per request; the last one repeats once the list
is used up. The file is read again at every request, so routes may change while the server runs;
a path whose list changed starts again at its first response. A path without a route gets 404.
The query string is ignored when no route names the path with it.

A response is an object with these keys, all optional:
    status        status code (200)
    reason        reason phrase (the usual one for the code)
    headers       [[name, value], ...] in order; "{port}" in a value becomes the server's port
    body          text of the body ("")
    contentLength the Content-Length to declare; by default the body's length. Not sent at all
                  when a header of that name is given or the value is -1
    action        "respond" (default); "hang": read the request, never answer, keep the
                  connection open; "close": close the connection without an answer;
                  "truncate": send the head and half of the body, then close; "slow": send the
                  body in pieces of chunkSize bytes with delayMs between them
    chunkSize     bytes per piece for "slow" (1)
    delayMs       pause between pieces for "slow" (100)
    close         true: answer with "Connection: close" and close afterwards

Every request is appended to REQUEST_LOG as one JSON line before it is answered:
    {"method", "path", "version", "headers": [[name, value], ...], "body"}
When the server listens, its port is printed on standard output as one line.
"""

import http.server
import json
import os
import socketserver
import sys
import threading
import time

ROUTES_FILE = sys.argv[1]
REQUEST_LOG = sys.argv[2]

_lock = threading.Lock()
_state = {}  # path -> [serialized response list, next index]


def _next_response(path):
    try:
        with open(ROUTES_FILE, encoding="utf-8") as f:
            routes = json.load(f)
    except FileNotFoundError:
        routes = {}
    key = path if path in routes else path.split("?", 1)[0]
    responses = routes.get(key)
    if not responses:
        return {"status": 404, "body": "no route for %s\n" % path}
    serialized = json.dumps(responses, sort_keys=True)
    with _lock:
        entry = _state.get(key)
        if entry is None or entry[0] != serialized:
            entry = [serialized, 0]
            _state[key] = entry
        index = min(entry[1], len(responses) - 1)
        entry[1] += 1
    return responses[index]


def _record(request):
    line = json.dumps(request) + "\n"
    with _lock:
        with open(REQUEST_LOG, "a", encoding="utf-8") as f:
            f.write(line)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, format, *args):  # noqa: A002 (name given by the base class)
        sys.stderr.write("%s\n" % (format % args))

    def _handle(self):
        length = int(self.headers.get("Content-Length") or 0)
        body = self.rfile.read(length) if length > 0 else b""
        _record({
            "method": self.command,
            "path": self.path,
            "version": self.request_version,
            "headers": [[k, v] for k, v in self.headers.items()],
            "body": body.decode("utf-8", "replace"),
        })
        response = _next_response(self.path)
        action = response.get("action", "respond")
        if action == "hang":
            self.close_connection = True
            while self.rfile.read(1):
                pass
            return
        if action == "close":
            self.close_connection = True
            return
        self._send(response, action)

    def _send(self, response, action):
        port = str(self.server.server_address[1])
        status = int(response.get("status", 200))
        reason = response.get("reason")
        if reason is None:
            reason = self.responses.get(status, ("",))[0]
        body = response.get("body", "").replace("{port}", port).encode("utf-8")
        headers = [(n, v.replace("{port}", port)) for n, v in response.get("headers", [])]
        names = {n.lower() for n, _ in headers}
        declared = response.get("contentLength", len(body))
        if "content-length" not in names and declared != -1:
            headers.append(("Content-Length", str(declared)))
        if response.get("close") or action == "truncate":
            self.close_connection = True
            if "connection" not in names:
                headers.append(("Connection", "close"))
        head = "HTTP/1.1 %d %s\r\n" % (status, reason)
        head += "".join("%s: %s\r\n" % h for h in headers) + "\r\n"
        self.wfile.write(head.encode("utf-8"))
        if self.command == "HEAD":
            body = b""
        if action == "truncate":
            self.wfile.write(body[: len(body) // 2])
            self.wfile.flush()
            return
        if action == "slow":
            size = max(1, int(response.get("chunkSize", 1)))
            delay = int(response.get("delayMs", 100)) / 1000.0
            for start in range(0, len(body), size):
                if start:
                    time.sleep(delay)
                self.wfile.write(body[start:start + size])
                self.wfile.flush()
            return
        self.wfile.write(body)
        self.wfile.flush()

    do_GET = do_HEAD = do_POST = do_PUT = do_DELETE = do_OPTIONS = do_PATCH = _handle


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def server_bind(self):
        # Skips HTTPServer's reverse name lookup of the address, which can stall without DNS.
        socketserver.TCPServer.server_bind(self)
        self.server_name = "127.0.0.1"
        self.server_port = self.server_address[1]


def main():
    server = Server(("127.0.0.1", 0), Handler)
    sys.stdout.write("%d\n" % server.server_address[1])
    sys.stdout.flush()
    server.serve_forever()


if __name__ == "__main__":
    os.umask(0o022)
    main()
