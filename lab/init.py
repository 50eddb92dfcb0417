"""What the first process of a pid namespace has to do: reap, and wait for many things at once."""

import heapq
import itertools
import os
import selectors
import signal

from .waiting import now


class Init:
    """A loop over descriptors and ended children. Everything runs in the one thread."""

    def __init__(self):
        self._selector = selectors.DefaultSelector()
        self._on_exit = {}
        self._timers = []
        self._order = itertools.count()  # of timers for the same time
        wake_reader, wake_writer = os.pipe()
        os.set_blocking(wake_reader, False)
        os.set_blocking(wake_writer, False)
        signal.set_wakeup_fd(wake_writer)
        # Without a handler no byte would be written to the descriptor above.
        signal.signal(signal.SIGCHLD, lambda *_: None)
        self.watch(wake_reader, lambda: self._reap(wake_reader))

    def watch(self, source, callback):
        """Calls `callback()` whenever `source` (a descriptor, or what has one) is readable."""
        self._selector.register(source, selectors.EVENT_READ, callback)

    def unwatch(self, source):
        self._selector.unregister(source)

    def spawn(self, argv, environment, output, errors, on_exit):
        """Starts a program in a process group of its own and returns its pid. Raises OSError.

        `output` and `errors` are the descriptors for its standard output and error.
        `on_exit(status)` gets the exit status, or the negative number of the signal that ended it.
        """
        null = os.open(os.devnull, os.O_RDONLY)
        try:
            pid = os.posix_spawnp(
                argv[0],
                argv,
                environment,
                file_actions=[
                    (os.POSIX_SPAWN_DUP2, null, 0),
                    (os.POSIX_SPAWN_DUP2, output, 1),
                    (os.POSIX_SPAWN_DUP2, errors, 2),
                ],
                setpgroup=0,
                setsigdef=[signal.SIGPIPE, signal.SIGXFSZ],  # ignored in Python, and inherited
            )
        finally:
            os.close(null)
        self._on_exit[pid] = on_exit
        return pid

    def after(self, delay, callback):
        """Calls `callback()` once, `delay` seconds from now."""
        heapq.heappush(self._timers, (now() + delay, next(self._order), callback))

    def run(self):
        while True:
            limit = max(0.0, self._timers[0][0] - now()) if self._timers else None
            for key, _ in self._selector.select(limit):
                key.data()
            while self._timers and self._timers[0][0] <= now():
                heapq.heappop(self._timers)[2]()

    def _reap(self, wake_reader):
        os.read(wake_reader, 4096)
        while True:
            try:
                pid, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            if pid == 0:
                return
            on_exit = self._on_exit.pop(pid, None)
            if on_exit:
                on_exit(os.waitstatus_to_exitcode(status))
