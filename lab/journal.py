"""Files of time-stamped lines: the stamping side (in a node) and the reading side.

A line is the CLOCK_MONOTONIC time of its arrival in seconds, a blank, and the text.
"""

import bisect
import os
import re
from typing import NamedTuple

from .waiting import now, wait_until


class Entry(NamedTuple):
    time: float
    text: str


def write_line(descriptor, time, text):
    """Appends one line; `text` is bytes without a newline."""
    os.write(descriptor, b"%.6f %b\n" % (time, text))


class Stamper:
    """Moves what arrives on a pipe, line by line and with the time, into a file.

    A text without a newline waits for the rest of its line, or for the end of the pipe.
    """

    def __init__(self, source, target):
        os.set_blocking(source, False)
        self._source = source
        self._target = target
        self._rest = b""
        self._rest_time = 0.0

    @property
    def closed(self):
        return self._source is None

    def fileno(self):
        return self._source

    def move(self):
        """Takes all that has arrived. Returns False once the pipe has ended."""
        while True:
            try:
                data = os.read(self._source, 65536)
            except BlockingIOError:
                return True
            if not data:
                return False
            self._take(data, now())

    def close(self):
        if self._rest:
            write_line(self._target, self._rest_time, self._rest)
        os.close(self._source)
        self._source = None

    def _take(self, data, time):
        *lines, rest = (self._rest + data).split(b"\n")
        times = [self._rest_time if self._rest else time] + [time] * len(lines)
        for line, stamp in zip(lines, times):
            write_line(self._target, stamp, line)
        self._rest_time = times[len(lines)]
        self._rest = rest


class Journal:
    """The reading side: the entries of such a file, read on as it grows."""

    def __init__(self, path):
        self.path = path
        self._offset = 0
        self._rest = b""
        self._entries = []

    def entries(self, since=0.0):
        """All entries so far that are not older than the time `since`."""
        self._read_on()
        return self._entries[bisect.bisect_left(self._entries, (since,)) :]

    def find(self, pattern, since=0.0):
        """The first entry not older than `since` that the regular expression matches, or None."""
        matches = re.compile(pattern).search
        return next((entry for entry in self.entries(since) if matches(entry.text)), None)

    def wait(self, pattern, limit, since=0.0, explain=lambda: ""):
        """Waits for `find` to give an entry and returns it."""
        what = f"a line that matches {pattern!r} in {os.path.basename(self.path)}"
        return wait_until(lambda: self.find(pattern, since), limit, what, 0.005, explain)

    def _read_on(self):
        try:
            with open(self.path, "rb") as file:
                file.seek(self._offset)
                data = file.read()
        except FileNotFoundError:
            return  # Nothing was logged yet.
        self._offset += len(data)
        *lines, self._rest = (self._rest + data).split(b"\n")
        for line in lines:
            stamp, _, text = line.decode(errors="backslashreplace").partition(" ")
            # The stamp is that of a line's first byte, which may be older than the line before.
            time = max(float(stamp), self._entries[-1].time if self._entries else 0.0)
            self._entries.append(Entry(time, text))
