#!/usr/bin/python3
"""A TFTP server that never finishes: it answers every read request from the UDP socket it
inherits as descriptor 3, then sends one 512-byte block per acknowledgement, each a while after
the acknowledgement came, so that the client's own timeouts and retries never end the transfer.

    tftp_trickle.py DELAY_MS
"""
import socket
import sys
import threading
import time


def trickle(client, delay):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("127.0.0.1", 0))
    block = 1
    while True:
        # Block numbers wrap after 65535; the transfer only has to outlast the test.
        data = b"\x00\x03" + (block & 0xFFFF).to_bytes(2, "big") + b"x" * 512
        sock.sendto(data, client)
        while True:
            packet, _ = sock.recvfrom(1024)
            if packet[:2] == b"\x00\x04" and int.from_bytes(packet[2:4], "big") == block & 0xFFFF:
                break
        time.sleep(delay)
        block += 1


def main():
    delay = int(sys.argv[1]) / 1000.0
    server = socket.socket(fileno=3)
    while True:
        _, client = server.recvfrom(1024)
        threading.Thread(target=trickle, args=(client, delay), daemon=True).start()


if __name__ == "__main__":
    main()
