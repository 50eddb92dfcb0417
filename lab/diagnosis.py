"""Texts about the state of a lab for people: the table of "lab status", and a failure's report."""

from . import agreement
from .daemon import FAILED, RESTING, STARTING, WAITING
from .network import MAIN
from .node import COROSYNC, DAEMON
from .waiting import LabError

_DOING = {WAITING: "starting", STARTING: "starting", RESTING: "restarting", FAILED: "given up"}


def rows(lab):
    """One tuple for each node: name, address, power, cable, ring, daemon, master."""
    states = lab.node_states()
    return [_row(node, states[node.name]) for node in lab.nodes]


def table(lab):
    """The rows with a heading, in columns."""
    heading = ("NODE", "ADDRESS", "POWER", "CABLE", "RING", "DAEMON", "SEES AS MASTER")
    lines = [heading, *rows(lab)]
    widths = [max(len(line[column]) for line in lines) for column in range(len(heading))]
    return "\n".join(
        "  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip() for line in lines
    )


def text(lab):
    """The table and the last lines of each daemon; for messages, and so raises no error itself."""
    try:
        parts = [table(lab)]
        for node in lab.nodes:
            parts.append(f"--- last lines of the daemon of {node}\n{node.last_lines()}")
        return "\n".join(parts)
    except (LabError, OSError) as error:
        return f"(the lab cannot be asked: {error})"


def _row(node, state):
    if not state["on"]:
        return (node.name, node.address, "off", "-", "-", "-", "-")
    services = node.status()
    cable = "cut" if state["cut"] else "ok" if state["side"] == MAIN else state["side"]
    ring = ",".join(map(str, sorted(node.ring()))) if services[COROSYNC]["pid"] else "no corosync"
    daemon = services[DAEMON]
    master = agreement.master_of(node) if daemon["pid"] else None
    named = {None: "-", 0: "none"}.get(master, str(master))
    return (node.name, node.address, "on", cable, ring or "none", _process(daemon), named)


def _process(daemon):
    if daemon["pid"]:
        return f"pid {daemon['pid']}"
    doing = _DOING.get(daemon["manager"], "ended")
    if daemon["status"] is not None:
        return f"{doing} ({daemon['status']})"
    return doing if daemon["manager"] else "never started"
