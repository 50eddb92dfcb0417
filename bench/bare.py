"""Bare corosync: the time until a member's death is reported, and until a message comes back."""

import subprocess

from lab.cluster import CHECKOUT
from lab.record import Record
from lab.waiting import LabError

PROGRAM = CHECKOUT / "build/bench/cpg-member"
LIMIT = 10.0
PINGS = 200


class Member:
    """A process of cpg-member.cpp on a node."""

    def __init__(self, node):
        if not PROGRAM.exists():
            raise LabError(f"{PROGRAM} is missing: meson setup build && meson compile -C build")
        self._node = node
        self._record = Record()
        self._process = node.popen([str(PROGRAM)], stdin=subprocess.PIPE, stdout=self._record.file)

    def send(self, command):
        self._process.stdin.write(command + "\n")
        self._process.stdin.flush()

    def lines(self, word, since=0.0):
        return [line for line in self._record.lines(since) if line.text.startswith(word)]

    def time_of(self, text, since=0.0):
        [first, *_] = self._node.lab.wait(lambda: self.lines(text, since), LIMIT, text)
        return first.time

    def wait_members(self, count):
        """Waits until the group, as the member sees it now, is of that size."""
        def reached():
            lines = self.lines("members")
            return lines and lines[-1].text == f"members {count}"

        self._node.lab.wait(reached, LIMIT, f"{count} members")

    def close(self):
        self._process.stdin.close()
        self._process.wait()
        self._record.close()


def measure(lab, runs):
    """The seconds from a death to its report on the last survivor, and of multicast round trips."""
    lab.reset()
    members = {node: Member(node) for node in lab.nodes}
    try:
        deaths = []
        for run in range(runs):
            for member in members.values():
                member.wait_members(len(members))
            node = lab.nodes[run % len(members)]
            members[node].send("die")
            died = members[node].time_of("dies")
            survivors = [member for other, member in members.items() if other is not node]
            reports = [member.time_of(f"left {node.id}", since=died) for member in survivors]
            deaths.append(max(reports) - died)
            members[node].close()
            members[node] = Member(node)
        for member in members.values():
            member.wait_members(len(members))
        pinger = members[lab.nodes[0]]
        for count in range(PINGS):
            pinger.send("ping")
            lab.wait(lambda: len(pinger.lines("ping")) > count, LIMIT, "the message came back")
        return deaths, [float(line.text.split()[1]) / 1e6 for line in pinger.lines("ping")]
    finally:
        for member in members.values():
            member.close()
