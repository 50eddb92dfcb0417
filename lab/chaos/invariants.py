"""What must hold in every set of nodes that reach each other, a moment after the last event."""

import re

from ..bus import Unanswered
from ..holders import has_address
from ..paths import DAEMON, SETTINGS
from ..waiting import LabError

_STEPS = re.compile(r"INFO: -+ started .* \(is_master=(\d)\)")
_DONE = re.compile(r"INFO: -+ run steps done \((\d+) errors\)")


def broken(nodes, together):
    """Why it does not hold for the set `together` of all `nodes`; empty if it does. In a set
    without quorum the nodes with a keeper must only have given the address up."""
    kept = [node for node in together if node.image == "keeper"]
    try:
        if kept and 2 * len(together) <= len(nodes):
            return [f"{node} has the address without quorum" for node in kept if has_address(node)]
        return list(_broken(together))
    except Unanswered as error:
        return [f"a daemon does not answer: {error}"]
    except LabError as error:
        return [f"a node cannot be asked: {error}"]


def _broken(together):
    states = {node: node.bus.get_all(limit=1.0) for node in together}
    masters = {state["MasterNodeId"] for state in states.values()}
    frozen = {state["FrozenMaster"] for state in states.values()}
    if frozen != {0}:  # Who joins meanwhile runs no steps, and knows no master until it is lifted.
        masters.discard(0)
    ids = {node.id for node in together}
    lost = not masters <= ids and frozen == {0}  # Else nobody replaces it until it is lifted.
    if len(masters) > 1 or lost or masters == {0}:
        yield f"the masters are {masters}"
    if len(frozen) != 1:
        yield f"mastership is frozen to {frozen}"
    for node, state in states.items():
        if state["NodeCount"] != len(together):
            yield f"{node} counts {state['NodeCount']} members"
        if state["InTransition"]:
            yield f"the steps of {node} run"
        elif has_address(node) != state["IsMaster"]:
            yield f"{node} {'has not' if state['IsMaster'] else 'has'} the address"
        role = _last_role(node)
        if role not in (None, state["IsMaster"]):
            yield f"the last steps of {node} were for the other role"
        yield from _badly_stored(node, state)


def _last_role(node):
    """Whether the last sequence of the daemon that runs was that of a master; None: it had none."""
    last = _last_line(node, _STEPS)
    return last[1] == "1" if last else None


def steps_failed(node):
    """Whether a step of the last sequence of the daemon that runs has."""
    last = _last_line(node, _DONE)
    return last is not None and last[1] != "0"


def _last_line(node, pattern):
    begun = int(node.show("ExecMainStartTimestampMonotonic")) / 1e6
    found = [match for entry in node.journal.entries(begun, DAEMON)
             if (match := pattern.search(entry.text))]
    return found[-1] if found else None


def _badly_stored(node, state):
    for name, value in (("preferred_master", int(state["PreferredMaster"])),
                        ("frozen_master", state["FrozenMaster"])):
        file = node.file(f"{SETTINGS}/{name}")
        text = file.read_text(encoding="utf-8") if file.exists() else ""
        stored = re.match(r"-?\d+", text)
        if value != (int(stored[0]) if stored else 0):
            yield f"{node} has stored {text!r} as {name}, and {value} is in force"
