#!/usr/bin/python3
"""A TFTP server that answers every request with one ERROR packet (code 1) whose message is the
bytes given, to see what a client prints of a hostile server's error text.

Usage: tftp_error_server.py MESSAGE_HEX

Binds 127.0.0.1 on a port the kernel chooses and prints the port on standard output as one line
once the socket is bound (requests sent from then on are queued, so the port is ready at once).
"""

import socket
import struct
import sys

MESSAGE = bytes.fromhex(sys.argv[1])

sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sock.bind(("127.0.0.1", 0))
print(sock.getsockname()[1], flush=True)
while True:
    request, client = sock.recvfrom(65536)
    opcode = struct.unpack("!H", request[:2])[0] if len(request) >= 2 else 0
    if opcode in (1, 2):  # read or write request
        sock.sendto(struct.pack("!HH", 5, 1) + MESSAGE + b"\0", client)
