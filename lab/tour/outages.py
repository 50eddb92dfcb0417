"""What the client saw: who answered, and for how long nobody did."""

from typing import NamedTuple

from ..examples import ADDRESS
from ..record import Record


class Change(NamedTuple):
    """From `time` on `answer` is the name of the node that answers; None: nobody does."""

    time: float
    answer: str | None


class Client:
    """The process that asks, on a machine of its own on the nodes' network."""

    def __init__(self, machine, python, checkout):
        self._record = Record()
        self._process = machine.popen(
            [python, "-B", "-m", "lab.tour.client", ADDRESS],
            env={"PYTHONPATH": str(checkout)},
            stdout=self._record.file,
        )

    def changes(self, since):
        """The Changes since that time, which begin with the state there.

        A silence begins when the first attempt that failed began, and ends with the next answer. A
        gap in which nothing was asked is none.
        """
        changes = []
        for began, ended, answer in self._attempts(since):
            time = ended if answer else began
            if not changes:
                changes.append(Change(time, answer))
            elif changes[-1].answer != answer:
                # An attempt that hung may be answered after a later one has failed.
                changes.append(Change(max(time, changes[-1].time), answer))
        return changes

    def is_asking(self):
        """True once the first attempt is over."""
        return bool(self._record.lines())

    def answered(self, since):
        """The number of attempts begun since that time that were answered."""
        return sum(1 for _, _, answer in self._attempts(since) if answer)

    def _attempts(self, since):
        """(began, ended, answer or None) in the order of their beginning."""
        found = []
        for entry in self._record.lines(since):
            began, answer = entry.text.split(" ", 1)
            if float(began) >= since:
                found.append((float(began), entry.time, None if answer == "-" else answer))
        return sorted(found)


def longest_silence(changes, end):
    """The longest time without an answer, in seconds; `end` is when the changes were taken."""
    silences = [
        (following.time if following else end) - change.time
        for change, following in zip(changes, [*changes[1:], None])
        if change.answer is None
    ]
    return max(silences, default=0.0)
