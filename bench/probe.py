"""probe.py serve: answers datagrams. probe.py ask ADDRESS: asks there once a millisecond, and
writes a stamped line for each answer: when it came, when it was asked for, who gave it."""

import contextlib
import os
import select
import socket
import sys

from lab.record import write_line
from lab.waiting import now

PORT = 7
INTERVAL = 0.001


def serve():
    name = socket.gethostname().encode()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("", PORT))
        while True:
            question, peer = server.recvfrom(100)
            server.sendto(question + b" " + name, peer)


def ask(address):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        due = now()
        while True:
            if select.select([client], [], [], max(due - now(), 0.0))[0]:
                write_line(client.recv(100).decode())
            if now() >= due:
                with contextlib.suppress(OSError):  # Nobody has the address: no answer, then.
                    client.sendto(b"%.6f" % now(), (address, PORT))
                due = max(due + INTERVAL, now())


if __name__ == "__main__":
    os.nice(-10)  # A client that the bench itself holds up would see silences that there are not.
    serve() if sys.argv[1] == "serve" else ask(sys.argv[2])
