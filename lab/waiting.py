"""Waiting for a condition with a limit, and the two errors of the lab."""

import time


class LabError(Exception):
    """Something of the lab itself failed; the text is for the person at the terminal."""


class Overdue(LabError):
    """A condition that was waited for did not come true in time."""


def now():
    """The time line of every lab: CLOCK_MONOTONIC in seconds, the same on all nodes."""
    return time.monotonic()


def wait_until(condition, limit, what, pause=0.01, explain=lambda: ""):
    """Calls `condition` until its result is true and returns that result.

    After `limit` seconds raises Overdue, naming `what` and adding the text that `explain()` gives.
    """
    deadline = now() + limit
    while True:
        result = condition()
        if result:
            return result
        if now() >= deadline:
            raise Overdue(f"not within {limit:g} s: {what}\n{explain()}".rstrip())
        time.sleep(pause)
