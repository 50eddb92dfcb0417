"""A node's journal, read from outside. All nodes have the same CLOCK_MONOTONIC, so their times
compare."""

import bisect
import json
import re
from typing import NamedTuple
from uuid import UUID

from systemd import journal

from .paths import SIGNALS

# systemd-catalog: "unit process exited" with a failure, and "unit succeeded".
_FAILED_EXIT = UUID("98e322203f7a4ed290d09fe03c09fe15")
_SUCCESS = UUID("7ad2d189f7e94e70a38c781354912448")


class Entry(NamedTuple):
    """`fields` are all those of systemd.journal-fields(7)."""

    time: float
    text: str
    fields: dict


class Signal(NamedTuple):
    time: float
    name: str
    arguments: list


class Exit(NamedTuple):
    """`how` is "exited", "killed" or "dumped", `status` the status or the number of the signal."""

    time: float
    how: str
    status: int


class Journal:
    """Reads on as the journal grows, from the node's first boot on, also over the end of a boot."""

    def __init__(self, directory):
        self._reader = journal.Reader(path=str(directory))
        self._reader.fileno()  # From now on it also watches for new files.
        self._arrivals = []
        self._entries = []

    def entries(self, since=0.0, unit=None):
        """Those not older than the time `since`, written by processes of `unit`."""
        self._read_on()
        # What was sent after that time has also arrived after it.
        return [entry for entry in self._entries[bisect.bisect_left(self._arrivals, since):]
                if entry.time >= since and unit in (None, entry.fields.get("_SYSTEMD_UNIT"))]

    def signals(self, since=0.0):
        """The D-Bus signals of the daemon."""
        lines = [(entry.time, json.loads(entry.text))
                 for entry in self.entries(since, SIGNALS) if entry.text.startswith("{")]
        return [Signal(time, line["member"], line["payload"]["data"]) for time, line in lines]

    def exits(self, unit, since=0.0):
        """How the main processes of `unit` ended, by systemd."""
        found = []
        for entry in self.entries(since, "init.scope"):
            if entry.fields.get("UNIT") == unit:
                if entry.fields.get("MESSAGE_ID") == _SUCCESS:
                    found.append(Exit(entry.time, "exited", 0))
                elif (entry.fields.get("MESSAGE_ID"), entry.fields.get("COMMAND")) == (
                    _FAILED_EXIT, "ExecStart"
                ):
                    status = int(entry.fields["EXIT_STATUS"])
                    found.append(Exit(entry.time, entry.fields["EXIT_CODE"], status))
        return found

    def find(self, pattern, since=0.0, unit=None):
        """The first such entry that the regular expression matches, or None."""
        matches = re.compile(pattern).search
        return next((entry for entry in self.entries(since, unit) if matches(entry.text)), None)

    def _read_on(self):
        self._reader.process()
        while fields := self._reader.get_next():
            stamp = fields["__MONOTONIC_TIMESTAMP"].timestamp.total_seconds()
            # When it was sent, where that is known.
            sent = fields.get("_SOURCE_REALTIME_TIMESTAMP", fields["__REALTIME_TIMESTAMP"])
            delay = (fields["__REALTIME_TIMESTAMP"] - sent).total_seconds()
            text = fields.get("MESSAGE", "")
            if isinstance(text, bytes):
                text = text.decode(errors="backslashreplace")
            # Sorted, whatever becomes of the wall clock at a boot.
            self._arrivals.append(max(stamp, self._arrivals[-1] if self._arrivals else 0.0))
            self._entries.append(Entry(stamp - delay, text, fields))
