"""Which nodes have the virtual address, by the kernels' reports of every change."""

import datetime
import os
import tempfile

from .examples import ADDRESS
from .waiting import wait_until

MONITOR = ("ip", "-tshort", "-oneline", "-4", "monitor", "address")


def has_address(node):
    return f" {ADDRESS}/" in node.run(["ip", "-oneline", "-4", "address"]).stdout


class Watch:
    """Records the changes of addresses on the nodes, in the context, by the wall clock."""

    def __init__(self, nodes):
        self._nodes = nodes

    def __enter__(self):
        self._files = [tempfile.TemporaryFile("w+") for _ in self._nodes]
        self._monitors = [
            node.popen(MONITOR, stdout=file) for node, file in zip(self._nodes, self._files)
        ]
        for node, file in zip(self._nodes, self._files):
            self._wait_listening(node, file)
        return self

    def __exit__(self, *_):
        self._end()
        for file in self._files:
            file.close()

    def changes(self):
        """Ends the watch: (time, node number, has it the address from then on), by time."""
        self._end()
        found = []
        for node, file in zip(self._nodes, self._files):
            file.seek(0)
            for line in file:
                if f" {ADDRESS}/" in line:
                    stamp, text = line[1:].split("]", 1)
                    at = datetime.datetime.fromisoformat(stamp).timestamp()
                    found.append((at, node.number, not text.lstrip().startswith("Deleted")))
        return sorted(found)

    def _end(self):
        for monitor in self._monitors:
            monitor.kill()
            monitor.wait()

    @staticmethod
    def _wait_listening(node, file):
        def seen():
            node.run(["ip", "address", "replace", "192.0.2.99/32", "dev", "lo"])
            node.run(["ip", "address", "delete", "192.0.2.99/32", "dev", "lo"])
            return os.fstat(file.fileno()).st_size > 0

        wait_until(seen, 10.0, f"changes on {node} are reported")


def overlap(holders, changes, since, until):
    """Seconds with two or more holders between the times, and the holders at the end."""
    holders = set(holders)
    total, last = 0.0, since
    for at, number, has in [*changes, (until, None, False)]:
        if at > since:
            total += at - last if len(holders) > 1 else 0.0
            last = at
        (holders.add if has else holders.discard)(number)
    return total, holders
