"""Texts about the state of a lab for people: the table of "lab status", and a failure's report."""

from . import agreement
from .host import SWITCH
from .paths import COROSYNC
from .waiting import LabError


def rows(lab):
    """One tuple for each node: name, address, power, cable, ring, daemon, master."""
    return [_row(lab, node) for node in lab.nodes]


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


def _row(lab, node):
    if not node.is_on():
        return (node.name, node.address, "off", "-", "-", "-", "-")
    side, state = lab.host.cable(node.name)
    cable = "cut" if state == "down" else "ok" if side == SWITCH else side
    ring = ",".join(map(str, sorted(node.ring()))) if node.is_active(COROSYNC) else "no corosync"
    daemon = f"{node.show('ActiveState')} ({node.show('SubState')})"
    named = {None: "-", 0: "none"}
    master = agreement.master_of(node)
    return (node.name, node.address, "on", cable, ring, daemon, named.get(master, str(master)))
