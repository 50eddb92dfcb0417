"""What the service manager makes of a daemon that has ended: rules for Lab.supervise."""

REST_LIMIT_S = 20.0
RESTART_AFTER_S = 0.2

# Steps in the reverse order of a start, as for a slave.
_STOP_STEPS = """\
for step in $(ls -r /usr/share/duskvale/run.d/*.run 2>/dev/null); do "$step" stop; done"""


def rules(restart=True):
    """The rules; without `restart` a daemon that has ended stays down."""
    return {
        "rest_limit": REST_LIMIT_S,
        "after_end": [["/bin/sh", "-c", _STOP_STEPS]],
        "restart_after": RESTART_AFTER_S if restart else None,
    }
