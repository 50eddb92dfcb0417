"""What happened on the nodes: events from their signals and logs, in order of time."""

import re
import signal
from typing import NamedTuple

from .. import corosync
from ..paths import COROSYNC, DAEMON, KEEPER

# The same text from several nodes within this time is one line.
TOGETHER = 0.05

_STEP = "ran"
_STOPPED = re.compile(r"INFO: stop-steps: finished, (\d+) failed")


class Event(NamedTuple):
    time: float
    who: str
    text: str


def collect(lab, since):
    """The events on all nodes from that time on, oldest first; the same on several nodes is one."""
    events = []
    for node in lab.nodes:
        found = sorted([*_signals(lab, node, since), *_units(node, since), *_rings(node, since)])
        events.extend(Event(time, node.name, text) for time, text in _without_repeats(found))
    return _merged(sorted(events))


def _signals(lab, node, since):
    names = {other.id: other.name for other in lab.nodes}
    frozen = 0
    for entry in node.signals:
        text = _signal_text(entry, node, names, frozen)
        if entry.name == "NotifyFrozenMaster":
            frozen = entry.arguments[0]
        if text and entry.time >= since:
            yield entry.time, text


def _signal_text(entry, node, names, frozen):
    first, *rest = entry.arguments
    if entry.name == "NotifyNewMaster":
        return "is master" if first == node.id else f"follows {names[first]}"
    if entry.name == "NotifyJoined":
        return f"{names[first]} joined the group, now of {rest[0]}"
    if entry.name == "NotifyLeft":
        return f"{names[first]} left the group, now of {rest[0]}"
    if entry.name == "NotifyFrozenMaster":
        # Each join repeats the state, mostly that there is no freeze.
        if first == frozen:
            return None
        return f'frozen to {names[first]}: "{rest[0]}"' if first else "the freeze is lifted"
    if entry.name == "NotifyLumacrateHotplug":
        count, added, hardware_id, location, _path = rest
        what = f"got {hardware_id} at {location}" if added else "lost a device"
        return f"{names[first]} {what}; devices there: {count}"
    if entry.name == "NotifyRunstepEnd":
        action, status = rest
        failure = f" (wait status {status})" if status else ""
        return f"{_STEP} {first.rpartition('/')[2]} {action}{failure}"
    return None


def _units(node, since):
    """What its systemd noted of the daemon, and how the steps were stopped."""
    for entry in node.journal.entries(since, DAEMON):
        if match := _STOPPED.match(entry.text):
            failed = f" ({match[1]} failed)" if match[1] != "0" else ""
            yield entry.time, f"its unit ran the steps with stop{failed}"
        elif entry.text == "INFO: Starting":
            yield entry.time, "daemon started"
    for entry in node.journal.entries(since, KEEPER):
        if re.match("[A-Z]+: ", entry.text):
            yield entry.time, f"keeper: {entry.text}"
    for end in node.exits(since):
        how = signal.Signals(end.status).name if end.how != "exited" else f"status {end.status}"
        yield end.time, f"daemon ended ({how})"


def _rings(node, since):
    names = {other.id: other.name for other in node.lab.nodes}
    for time, members in corosync.views(node.journal.entries(0.0, COROSYNC)):
        if time >= since:
            yield time, f"corosync: ring of {', '.join(names[id] for id in sorted(members))}"


def _without_repeats(entries):
    """Leaves out a role that is only confirmed, as in each election, and its steps' second run."""
    role = None
    steps = set()
    for time, text in entries:
        if text == "is master" or text.startswith("follows "):
            if text == role:
                continue
            role = text
            steps = set()
        elif text.startswith(_STEP):
            if text in steps:
                continue
            steps.add(text)
        yield time, text


def _merged(events):
    merged = []
    for event in events:
        for index in range(len(merged) - 1, -1, -1):
            earlier = merged[index]
            if event.time - earlier.time > TOGETHER:
                merged.append(event)
                break
            if earlier.text == event.text and event.who not in earlier.who.split():
                who = " ".join(sorted([*earlier.who.split(), event.who]))
                merged[index] = earlier._replace(who=who)
                break
        else:
            merged.append(event)
    return merged
