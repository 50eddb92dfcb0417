"""What the shipped service unit makes of a daemon that ended."""

# Steps in the reverse order of a start, as for a slave.
_STOP_STEPS = """\
for step in $(ls -r /usr/share/duskvale/run.d/*.run 2>/dev/null); do "$step" stop; done"""


def after_end():
    """The commands run after each end of the daemon, for Lab.supervise."""
    return [["/bin/sh", "-c", _STOP_STEPS]]


def restart_after():
    """Seconds from the end of a daemon that failed to its next start."""
    return 0.1
