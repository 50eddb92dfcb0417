"""What the shipped service unit says of the daemon's starts and ends: rules for Node.supervise."""

import re

from .cluster import CHECKOUT
from .filesystem import PACKAGED_UNIT
from .node import COROSYNC
from .waiting import LabError

DATA = CHECKOUT / "data"
UNIT = DATA / "duskvale-corosync-bridge.service.in"

# Where meson puts what the unit calls is where it is taken from here.
_INSTALLED = {"@libexecdir@": str(DATA)}
_UNITS_OF_TIME = {"ms": 0.001, "s": 1.0, "": 1.0, "min": 60.0}
_SERVICES = {"corosync.service": COROSYNC}


def rules(restart=True, unit=UNIT):
    """The rules of the file `unit`; without `restart` a daemon that has ended stays down."""
    return {
        "requires": [_SERVICES[name] for name in " ".join(_values(unit, "Requires")).split()],
        "before_start": [_command(_ignored(value)) for value in _values(unit, "ExecStartPre")],
        "start_limit": {
            "interval": _seconds(_values(unit, "StartLimitIntervalSec")[-1]),
            "burst": int(_values(unit, "StartLimitBurst")[-1]),
        },
        "start_timeout": _seconds(_values(unit, "TimeoutStartSec")[-1]),
        "rest_limit": _seconds(_values(unit, "TimeoutStopSec")[-1]),
        "after_end": [_command(value) for value in _values(unit, "ExecStopPost")],
        "restart_after": _seconds(_values(unit, "RestartSec")[-1]) if restart else None,
    }


def rules_on(node):
    """The rules of the unit that the node has: that of its package, or the one in this tree."""
    return rules(unit=node.file(PACKAGED_UNIT) if node.package else UNIT)


def _values(unit, key):
    lines = unit.read_text(encoding="utf-8").splitlines()
    values = [line.partition("=")[2].strip() for line in lines if line.startswith(f"{key}=")]
    if not any(values):
        raise LabError(f"{unit.name} does not set {key}")
    return list(filter(None, values))


def _ignored(text):
    """The command without the sign that its failure does not matter, which is all that is played."""
    if not text.startswith("-"):
        raise LabError(f"the lab starts the daemon also after a failure of '{text}'")
    return text[1:]


def _command(text):
    for name, path in _INSTALLED.items():
        text = text.replace(name, path)
    return text.split()


def _seconds(text):
    match = re.fullmatch(r"(\d+)\s*(ms|s|min|)", text)
    if not match:
        raise LabError(f"the unit has a time that is not understood here: '{text}'")
    return int(match[1]) * _UNITS_OF_TIME[match[2]]
