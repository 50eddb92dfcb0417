"""What a peer costs on a node while nothing happens."""

import pathlib
import re
import time
from typing import NamedTuple

from lab.waiting import now

DAY_S = 86400
HOUR_S = 3600
SETTLED_S = 5.0  # an address is announced for some seconds
_LOGS = "/var/log/pacemaker"  # beside the journal


class Cost(NamedTuple):
    """Of all processes of its units, so without corosync: bytes of proportional set size, beside
    the same on the other nodes; seconds of processor time an hour; wake-ups a second, without those
    of processes that come and go; bytes of log a day, extrapolated."""

    pss: int
    processor: float
    wake_ups: float
    log: float


def measure(lab, peer, nodes, seconds):
    """The Cost on each of the nodes, by their names there."""
    time.sleep(SETTLED_S)
    meters = {name: _Meter(lab, node, peer.units) for name, node in nodes.items()}
    time.sleep(seconds)
    return {name: meter.cost() for name, meter in meters.items()}


class _Meter:
    def __init__(self, lab, node, units):
        groups = lab.host.directory / "cgroup" / node.name / "system.slice"
        self._groups = [groups / unit for unit in units]
        self._node, self._units = node, units
        self._since, self._wall = now(), time.time()
        self._before = self._counts()

    def cost(self):
        seconds = now() - self._since
        after = self._counts()
        busy, log = (after[key] - self._before[key] for key in ("busy", "log"))
        wake_ups = sum(count - self._before["waits"][process]
                       for process, count in after["waits"].items()
                       if process in self._before["waits"])
        pss = sum(_number(process / "smaps_rollup", "Pss:") for process in self._processes())
        return Cost(pss * 1024, busy / seconds * HOUR_S, wake_ups / seconds,
                    (log + self._journal()) / seconds * DAY_S)

    def _processes(self):
        """As seen from here."""
        return [pathlib.Path("/proc", pid) for group in self._groups
                for pid in (group / "cgroup.procs").read_text().split()]

    def _counts(self):
        return {
            "busy": sum(_number(group / "cpu.stat", "usage_usec") for group in self._groups) / 1e6,
            # How often its threads gave up the processor to wait, and so how often they woke.
            "waits": {process: sum(_number(status, "voluntary_ctxt_switches:")
                                   for status in process.glob("task/*/status"))
                      for process in self._processes()},
            "log": sum(file.stat().st_size for file in self._node.file(_LOGS).glob("*")),
        }

    def _journal(self):
        """Bytes of all fields, uncompressed."""
        self._node.sync()
        return len(self._node.run(["journalctl", "--output=export", "--quiet",
                                   f"--since=@{self._wall:.6f}",
                                   *(f"--unit={unit}" for unit in self._units)]).stdout.encode())


def _number(file, name):
    return int(re.search(rf"^{name}\s+(\d+)", file.read_text(encoding="utf-8"), re.M)[1])
