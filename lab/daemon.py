"""The daemon as a service that the node's service manager looks after, by the rules of its unit.

What systemd would do is done here, so that the nodes need none: see Daemon.supervise.
"""

import contextlib
import os
import signal

from .service import Service
from .waiting import LabError, now

POLL = 0.01

# What the service manager does: until the services that the daemon requires run, before the daemon runs, after
# that, and until it starts it again; or it has given up. None: nothing.
WAITING, STARTING, ENDING, RESTING, FAILED = "waiting", "starting", "ending", "resting", "failed"

CANNOT_EXECUTE = 203  # The status by which systemd says so of a program.


class Daemon(Service):
    def __init__(self, init, argv, environment, journal, strays, others):
        """`strays()` gives the pids of the node's processes that belong to no service; `others` are
        the other services by their names."""
        super().__init__(init, argv, environment, journal)
        self._strays = strays
        self._others = others
        self._rules = None
        self._arguments = []
        self._manager = None
        self._attempt = 0
        self._stop_wanted = False
        self._starts = []

    def supervise(self, rules):
        """From now on, when the daemon is to be started:

        After more than rules["start_limit"]["burst"] starts in "interval" seconds it stays down; new
        rules forget the starts. The services rules["requires"] that are down are started first, and
        waited for; if one fails, the daemon stays down. The commands rules["before_start"] are run, one
        after another, whatever their status. They have rules["start_timeout"] seconds together; the
        time that the daemon then takes to its name on the bus, which systemd counts too, has no limit here.

        And whenever it has ended, however that came, or such commands took too long or `stop` cut them short:

        What is left running gets SIGTERM and, if it is there after rules["rest_limit"] seconds,
        SIGKILL. The commands rules["after_end"] are run. Then, unless the end was asked for with
        `stop`, it is started again after rules["restart_after"] seconds (None: it is not).

        Without rules (None) nothing of that is done.
        """
        if rules is None and self._manager in (WAITING, STARTING, RESTING):
            self._call_off()
        self._rules = rules
        self._starts = []
        if self._manager == FAILED:
            self._manager = None

    def start(self, arguments):
        if self._manager in (WAITING, STARTING, ENDING):
            raise LabError(f"the service manager is busy with the daemon: {self._manager}")
        if self._pid is not None:
            raise LabError(f"the daemon runs already, with pid {self._pid}")
        self._arguments = arguments
        self._stop_wanted = False
        if self._rules is None:
            super().start(arguments)
        else:
            self._begin_start()

    def stop(self):
        """Returns whether the daemon ran. There may be none: then its next start is called off."""
        self._stop_wanted = True
        if self._manager in (WAITING, STARTING, RESTING):
            self._call_off()
        elif self._manager != ENDING:
            self.signal(signal.SIGTERM)
        return self._pid is not None

    def state(self):
        return {**super().state(), "manager": self._manager}

    # The start

    def _begin_start(self):
        self._manager = WAITING
        self._attempt += 1
        for name in self._rules["requires"]:
            if self._others[name].state()["pid"] is None:
                self._note(f"starts {name}")
                self._others[name].start([])
        self._wait_for_required(self._attempt)

    def _wait_for_required(self, attempt):
        if attempt != self._attempt:
            return
        required = {name: self._others[name] for name in self._rules["requires"]}
        failed = [name for name, service in required.items() if service.state()["pid"] is None]
        if failed:
            self._give_up(f"{failed[0]} has failed")
        elif not all(service.is_ready() for service in required.values()):
            self._init.after(POLL, lambda: self._wait_for_required(attempt))
        elif self._too_many_starts():
            self._give_up("too many starts")
        else:
            self._manager = STARTING
            self._init.after(self._rules["start_timeout"], lambda: self._time_out(attempt))
            self._run_commands(self._rules["before_start"], (), self._start_now)

    def _give_up(self, reason):
        self._manager = FAILED
        self._note(f"not started: {reason}")

    def _too_many_starts(self):
        # As systemd counts: an interval begins with the first start after the one before.
        limit = self._rules["start_limit"]
        if not self._starts or self._starts[0] + limit["interval"] < now():
            self._starts = []
        if len(self._starts) >= limit["burst"]:
            return True
        self._starts.append(now())
        return False

    def _start_now(self):
        self._manager = None
        try:
            super().start(self._arguments)
        except OSError as error:
            self._note(f"cannot be started: {error}")
            self._note_end(CANNOT_EXECUTE)

    def _call_off(self):
        """A start that is under way, or waits for its time."""
        self._note("the start is called off")
        self._attempt += 1
        if self._manager == STARTING:
            self._begin_end({"SERVICE_RESULT": "success"})
        else:
            self._manager = None

    def _time_out(self, attempt):
        if self._manager == STARTING and self._attempt == attempt:
            self._note("the start takes too long")
            self._attempt += 1
            self._begin_end({"SERVICE_RESULT": "timeout"})

    # The end

    def _finish(self):
        if self._rules is None:
            super()._finish()
        else:
            self._begin_end(self._how_it_ended())

    def _begin_end(self, variables):
        """Of the daemon, or of a start that has not come to it: its command is among the strays."""
        self._manager = ENDING
        self._signal_strays(signal.SIGTERM)
        # These rules to the end, though others may be set meanwhile.
        self._wait_for_strays(self._rules, variables, now() + self._rules["rest_limit"])

    def _wait_for_strays(self, rules, variables, deadline):
        if not self._strays():
            self._run_commands(rules["after_end"], variables, self._end)
            return
        if now() > deadline:
            self._signal_strays(signal.SIGKILL)
        self._init.after(POLL, lambda: self._wait_for_strays(rules, variables, deadline))

    def _signal_strays(self, number):
        for pid in self._strays():
            with contextlib.suppress(ProcessLookupError):  # Its parent was not this process.
                os.kill(pid, number)

    def _end(self):
        self._manager = None
        super()._finish()
        restart_after = self._rules and self._rules["restart_after"]
        if restart_after is not None and not self._stop_wanted:
            self._manager = RESTING
            self._init.after(restart_after, self._restart)

    def _restart(self):
        if self._manager == RESTING:  # Neither called off in the meantime nor started by somebody.
            self._begin_start()

    def _how_it_ended(self):
        """The variables that systemd sets for such commands."""
        if self._status < 0:
            result, code = "signal", "killed"
            status = signal.Signals(-self._status).name.removeprefix("SIG")
        else:
            result, code = "exit-code" if self._status else "success", "exited"
            status = str(self._status)
        return {"SERVICE_RESULT": result, "EXIT_CODE": code, "EXIT_STATUS": status}

    # Both

    def _run_commands(self, commands, variables, then):
        """Runs them one after another and calls `then()`; not, when what they belong to was called off."""
        if not commands:
            then()
            return
        command, *rest = commands
        attempt = self._attempt

        def on_end(status):
            self._note(f"ran {' '.join(command)}, status {status}")
            if self._attempt == attempt:
                self._run_commands(rest, variables, then)

        try:
            self._spawn(command, on_end, variables)
        except OSError as error:
            self._note(f"cannot run {' '.join(command)}: {error}")
            self._run_commands(rest, variables, then)
