"""What the shipped service unit says of a daemon that has ended: rules for Node.supervise."""

import re

from .cluster import CHECKOUT
from .filesystem import PACKAGED_UNIT
from .waiting import LabError

DATA = CHECKOUT / "data"
UNIT = DATA / "duskvale-corosync-bridge.service.in"

# Where meson puts what the unit calls is where it is taken from here.
_INSTALLED = {"@libexecdir@": str(DATA)}
_UNITS_OF_TIME = {"ms": 0.001, "s": 1.0, "": 1.0, "min": 60.0}


def rules(restart=True, unit=UNIT):
    """The rules of the file `unit`; without `restart` a daemon that has ended stays down."""
    commands = [_command(value) for value in _values(unit, "ExecStopPost") if value]
    return {
        "rest_limit": _seconds(_values(unit, "TimeoutStopSec")[-1]),
        "after_end": commands,
        "restart_after": _seconds(_values(unit, "RestartSec")[-1]) if restart else None,
    }


def rules_on(node):
    """The rules of the unit that the node has: that of its package, or the one in this tree."""
    return rules(unit=node.file(PACKAGED_UNIT) if node.package else UNIT)


def _values(unit, key):
    lines = unit.read_text(encoding="utf-8").splitlines()
    values = [line.partition("=")[2].strip() for line in lines if line.startswith(f"{key}=")]
    if not values:
        raise LabError(f"{unit.name} does not set {key}")
    return values


def _command(text):
    for name, path in _INSTALLED.items():
        text = text.replace(name, path)
    return text.split()


def _seconds(text):
    match = re.fullmatch(r"(\d+)\s*(ms|s|min|)", text)
    if not match:
        raise LabError(f"the unit has a time that is not understood here: '{text}'")
    return int(match[1]) * _UNITS_OF_TIME[match[2]]
