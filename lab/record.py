"""What a program of a measurement writes: lines with a time each, kept in memory while it runs."""

import bisect
import os
from typing import NamedTuple

from .waiting import now


def write_line(text):
    """Writes one line with the time to standard output, whole."""
    os.write(1, f"{now():.6f} {text}\n".encode())


class Line(NamedTuple):
    time: float
    text: str


class Record:
    """`file` is for the program's standard output. The lines are read on as it grows."""

    def __init__(self):
        # Without a name: nothing stays, however this process ends.
        self.file = os.memfd_create("record")
        self._offset = 0
        self._rest = b""
        self._lines = []

    def lines(self, since=0.0):
        """All so far that are not older than the time `since`."""
        data = os.pread(self.file, os.fstat(self.file).st_size - self._offset, self._offset)
        self._offset += len(data)
        *lines, self._rest = (self._rest + data).split(b"\n")
        for line in lines:
            stamp, _, text = line.decode().partition(" ")
            self._lines.append(Line(float(stamp), text))
        return self._lines[bisect.bisect_left(self._lines, (since,)):]

    def close(self):
        os.close(self.file)
