"""client.py ADDRESS: asks the web server at ADDRESS all the time, each time on a new connection.

One stamped line for each attempt: when it ended, when it began, and the answer or "-".
"""

import asyncio
import sys

from ..record import write_line
from ..waiting import now
from .services import PORT

INTERVAL = 0.005
ATTEMPT_LIMIT = 0.25


async def ask(address):
    reader, writer = await asyncio.open_connection(address, PORT)
    try:
        writer.write(b"GET / HTTP/1.0\r\n\r\n")
        reply = await reader.read()
    finally:
        writer.close()
    head, _, body = reply.partition(b"\r\n\r\n")
    if not head.startswith(b"HTTP/1.0 200 ") or not body:
        raise OSError("half an answer")
    return body.decode().strip()


async def attempt(address):
    began = now()
    try:
        answer = await asyncio.wait_for(ask(address), ATTEMPT_LIMIT)
    except (OSError, asyncio.TimeoutError):
        answer = "-"
    write_line(f"{began:.6f} {answer}")


async def main(address):
    attempts = set()
    due = now()
    while True:
        # Attempts overlap: one that hangs must not hide the moment when answers come again.
        task = asyncio.create_task(attempt(address))
        attempts.add(task)
        task.add_done_callback(attempts.discard)
        due = max(due + INTERVAL, now())
        await asyncio.sleep(due - now())


asyncio.run(main(sys.argv[1]))
