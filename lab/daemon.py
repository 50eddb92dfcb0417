"""The daemon as a service that the node's service manager looks after, by the rules of its unit.

What systemd would do is done here, so that the nodes need none: see Daemon.supervise.
"""

import contextlib
import os
import signal

from .service import Service
from .waiting import now

POLL = 0.01


class Daemon(Service):
    def __init__(self, init, argv, environment, journal, strays):
        """`strays()` gives the pids of the node's processes that belong to no service."""
        super().__init__(init, argv, environment, journal)
        self._strays = strays
        self._rules = None
        self._arguments = []
        self._ending = False
        self._stop_wanted = False

    def supervise(self, rules):
        """From now on, whenever the daemon has ended, however that came:

        What it has left running gets SIGTERM and, if it is there after rules["rest_limit"] seconds,
        SIGKILL. The commands rules["after_end"] are run, one after another. Then, unless the end
        was asked for with `stop`, it is started again after rules["restart_after"] seconds (None:
        it is not). Without rules (None) nothing is done.
        """
        self._rules = rules

    def start(self, arguments):
        if self._ending:
            raise RuntimeError("the service manager has not done with the daemon's last end")
        self._arguments = arguments
        self._stop_wanted = False
        return super().start(arguments)

    def stop(self):
        self._stop_wanted = True
        self.signal(signal.SIGTERM)

    def state(self):
        return {**super().state(), "ending": self._ending}

    def _finish(self):
        if self._rules is None:
            super()._finish()
            return
        self._ending = True
        self._signal_strays(signal.SIGTERM)
        # These rules to the end, though others may be set meanwhile.
        self._wait_for_strays(self._rules, now() + self._rules["rest_limit"])

    def _wait_for_strays(self, rules, deadline):
        if not self._strays():
            self._run_commands(rules["after_end"])
            return
        if now() > deadline:
            self._signal_strays(signal.SIGKILL)
        self._init.after(POLL, lambda: self._wait_for_strays(rules, deadline))

    def _signal_strays(self, number):
        for pid in self._strays():
            with contextlib.suppress(ProcessLookupError):  # Its parent was not this process.
                os.kill(pid, number)

    def _run_commands(self, commands):
        if not commands:
            self._ending = False
            super()._finish()
            if self._restart_after() is not None and not self._stop_wanted:
                self._init.after(self._restart_after(), self._restart)
            return
        command, *rest = commands

        def on_end(status):
            self._note(f"ran {' '.join(command)}, status {status}")
            self._run_commands(rest)

        try:
            self._spawn(command, on_end, self._how_it_ended())
        except OSError as error:
            self._note(f"cannot run {' '.join(command)}: {error}")
            self._run_commands(rest)

    def _restart_after(self):
        return self._rules and self._rules["restart_after"]

    def _restart(self):
        # In the meantime somebody may have started it, or have called off the restarts.
        if self._pid is not None or self._ending or self._restart_after() is None:
            return
        try:
            self.start(self._arguments)
        except OSError as error:
            self._note(f"cannot start again: {error}")

    def _how_it_ended(self):
        """The variables that systemd sets for such commands."""
        if self._status < 0:
            result, code = "signal", "killed"
            status = signal.Signals(-self._status).name.removeprefix("SIG")
        else:
            result, code = "exit-code" if self._status else "success", "exited"
            status = str(self._status)
        return {"SERVICE_RESULT": result, "EXIT_CODE": code, "EXIT_STATUS": status}
