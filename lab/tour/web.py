"""web.py PID_FILE PORT: a web server that answers each request with the name of its node.

Returns to the caller once it can be asked; a child goes on. Imports little: that would delay it.
"""

import os
import socket
import sys

REQUEST_LIMIT = 1.0


def main():
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("", int(sys.argv[2])))
    listener.listen(128)
    pid = os.fork()
    if pid:
        with open(sys.argv[1], "w", encoding="ascii") as file:
            file.write(f"{pid}\n")
        return
    os.setsid()
    serve(listener, socket.gethostname().encode() + b"\n")


def serve(listener, body):
    head = b"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: %d\r\n\r\n" % len(body)
    while True:
        connection, _ = listener.accept()
        with connection:
            connection.settimeout(REQUEST_LIMIT)
            try:
                connection.recv(4096)
                connection.sendall(head + body)
            except OSError:
                continue  # That client has gone or is silent; the next one waits.


main()
