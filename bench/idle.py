"""What the daemon costs while nothing happens."""

import time
from typing import NamedTuple


class Cost(NamedTuple):
    """Of a slave: bytes of proportional set size beside the other nodes' daemons, and as the only
    one on the machine; wake-ups a second; the share of one processor."""

    pss: int
    pss_alone: int
    wake_ups: float
    processor: float


def slave(lab, seconds):
    lab.reset()
    lab.start()
    node = lab.node(lab.wait_master() % len(lab.nodes) + 1)
    process = node.file(f"/proc/{node.pid()}")
    switches, busy = _wake_ups(process), _busy(process)
    time.sleep(seconds)
    switches, busy = _wake_ups(process) - switches, _busy(process) - busy
    pss = _pss(process)
    for other in lab.nodes:
        if other is not node:
            other.stop()
    lab.wait_master(agreed_on=[node.number])
    return Cost(pss, _pss(process), switches / seconds, busy / seconds)


def _pss(process):
    for line in (process / "smaps_rollup").read_text(encoding="ascii").splitlines():
        name, *rest = line.split()
        if name == "Pss:":
            return int(rest[0]) * 1024
    raise ValueError(f"no Pss in {process}/smaps_rollup")


def _wake_ups(process):
    """How often its threads gave up the processor to wait, and so how often they woke."""
    lines = [
        line for status in process.glob("task/*/status")
        for line in status.read_text(encoding="utf-8").splitlines()
    ]
    return sum(int(line.split()[1]) for line in lines if line.startswith("voluntary_ctxt"))


def _busy(process):
    """Seconds of processor time of its threads."""
    return sum(int(file.read_text().split()[0]) for file in process.glob("task/*/schedstat")) / 1e9
