"""What a client sees of the virtual address while mastership is moved as planned."""

import sys

from lab.cluster import CHECKOUT
from lab.examples import ADDRESS, install_address
from lab.record import Record
from lab.waiting import now

LIMIT = 20.0
ANSWERS = 200
BEFORE = 0.01  # so that answers from before the move are among those looked at


def _probe(machine, *arguments, **options):
    return machine.popen(
        [sys.executable, "-B", "-m", "bench.probe", *arguments],
        env={"PYTHONPATH": str(CHECKOUT)}, **options)


def moves(lab, runs):
    """Seconds without an answer, for each of `runs` moves of the address by a take-over."""
    lab.reset()
    for node in lab.nodes:
        install_address(node)
    record = Record()
    probes = [_probe(node, "serve") for node in lab.nodes]
    probes.append(_probe(lab.client(), "ask", ADDRESS, stdout=record.file))

    def answers(node, since):
        """All since that time, once enough of them are from the node."""
        found = record.lines(since)
        count = sum(1 for entry in found if entry.text.endswith(f" {node}"))
        return found if count >= ANSWERS else None

    def wait_answers(node, since):
        return lab.wait(lambda: answers(node, since), LIMIT, f"answers from {node}")

    silences = []
    try:
        lab.start()
        wait_answers(lab.node(lab.wait_master()), lab.mark)
        for _ in range(runs):
            node = lab.node(lab.wait_master() % len(lab.nodes) + 1)
            before = now() - BEFORE
            node.call("TakeOver")
            times = [entry.time for entry in wait_answers(node, before)]
            silences.append(max(later - earlier for earlier, later in zip(times, times[1:])))
    finally:
        for probe in probes:
            probe.kill()
            probe.wait()
        record.close()
    return silences
