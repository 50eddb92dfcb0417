"""lab chaos: bursts of faults, and the time until all is as it must be."""

import collections
import random
import signal
import statistics
import sys
import time
from typing import NamedTuple

from ..cluster import CHECKOUT, Lab
from ..holders import Watch, has_address, overlap
from ..paths import DAEMON, EXAMPLES, KEEPER
from ..tour import services
from ..tour.outages import Client, longest_silence
from ..waiting import LabError, now
from .faults import Faults
from .invariants import broken, steps_failed

HEAL_LIMIT_S = 60.0
HOLD_S = 2.0      # for so long without a break it must hold
SANITIZER = r"(runtime error|ERROR: \w+Sanitizer):"  # where the build has them
WATCH = "90-virtual-address.watch"


class Burst(NamedTuple):
    """`silent`: the client's longest time without an answer until then. `twice`: for how long two
    of the nodes that were on when it began had the address, on either side of a cut, too."""

    names: list
    healed: float
    silent: float
    twice: float

    @property
    def cause(self):
        return self.names[0] if len(self.names) == 1 else "several at once"


class Chaos:
    def __init__(self, lab):
        self.lab = lab
        self.faults = Faults(lab)
        self.done = collections.Counter()
        self.aborts = collections.Counter()  # by the faults of the burst
        self.bursts = []
        self.history = []
        lab.reset()
        for node in lab.nodes:
            services.install(node)
            if node.image == "keeper":
                watch = node.file(f"{EXAMPLES}/watch.d/{WATCH}").read_text(encoding="utf-8")
                node.write_watch(WATCH, watch)
        self.client = Client(lab.client(), sys.executable, CHECKOUT)
        lab.start()
        lab.wait_master()
        self._wait_healed()

    def run(self, minutes):
        end = now() + 60 * minutes
        while now() < end:
            self._one_burst()
        self.faults.repair()
        self._start_what_failed()
        self._wait_healed()

    def _one_burst(self):
        there = [node for group in self.faults.groups() for node in group]
        with Watch(there) as watch:
            holders = {node.number for node in there if has_address(node)}
            since, wall = now(), time.time()
            names = self._burst()
            self.faults.resume()
            self.faults.repair() if random.random() < 0.3 else self._start_what_gave_up()
            self._start_what_failed()
            healed = self._wait_healed()
            gone = [(at, number, False) for at, number in self.faults.lost_power if at > wall]
            twice, _ = overlap(holders, sorted(watch.changes() + gone), wall, time.time())
        silent = longest_silence(self.client.changes(since), now())
        self.bursts.append(Burst(names, healed, silent, twice))
        for node in self.lab.nodes:
            if any(end.status == signal.SIGABRT for end in node.exits(since)):
                self.aborts[", ".join(names)] += 1
            for unit in (DAEMON, KEEPER):
                if found := node.journal.find(SANITIZER, since, unit):
                    raise LabError(f"{unit} of {node}: {found.text}")

    def _burst(self):
        names = []
        for _ in range(random.randint(1, 4)):
            done = self.faults.do_one()
            if done:
                self.history.append(f"{now():.3f} {done[1]}: {done[0]}")
                self.done[done[0]] += 1
                names.append(done[0])
            time.sleep(random.choice((0, 0, 0.1, 1, 4)))
        return names

    def _start_what_gave_up(self):
        """The units give up after ten starts in 30 s, for all to see; here nobody would look."""
        for group in self.faults.groups():
            for node in group:
                node.systemctl("reset-failed", check=False)
                node.systemctl("start", "--no-block", "corosync", "duskvale-corosync-bridge",
                               check=False)
                node.duskvalectl("fit", check=False)

    def _start_what_failed(self):
        """What was not started is not watched: somebody repairs the step, and starts again."""
        for group in self.faults.groups():
            for node in filter(steps_failed, group):
                self.faults.remove_step(node)
                node.systemctl("restart", "--no-block", DAEMON, check=False)

    def _wait_healed(self):
        """Seconds from now until it held, for good."""
        begun = now()
        held_since, why = None, []
        while now() - begun < HEAL_LIMIT_S:
            why = [text for group in self.faults.groups()
                   for text in broken(self.lab.nodes, group)]
            held_since = None if why else held_since or now()
            if held_since and now() - held_since >= HOLD_S:
                return held_since - begun
            time.sleep(0.1)
        raise LabError(f"not healed within {HEAL_LIMIT_S:g} s: {'; '.join(why)}")

    def report(self):
        times = sorted(burst.healed for burst in self.bursts)
        longest = max(self.bursts, key=lambda burst: burst.healed)
        silent, twice = (max(self.bursts, key=lambda burst: getattr(burst, value))
                         for value in ("silent", "twice"))
        print(f"{sum(self.done.values())} faults in {len(times)} bursts: {dict(self.done)}")
        print(f"until all was well, s: median {statistics.median(times):.1f}, 95 of 100 "
              f"{times[len(times) * 95 // 100]:.1f}, longest {longest.healed:.1f} "
              f"({', '.join(longest.names)})")
        print(f"longest without an answer {silent.silent:.2f} s ({', '.join(silent.names)}), "
              f"on two nodes {twice.twice:.2f} s ({', '.join(twice.names)})")
        print(f"daemons that ended themselves: {sum(self.aborts.values())} {dict(self.aborts)}")
        print("| Cause | Bursts | No answer, s: median / most | On two nodes, s: most |\n"
              "| --- | --- | --- | --- |")
        for cause in sorted({burst.cause for burst in self.bursts if burst.names}):
            those = [burst for burst in self.bursts if burst.cause == cause]
            silent = [burst.silent for burst in those]
            print(f"| {cause} | {len(those)} | {statistics.median(silent):.2f} / "
                  f"{max(silent):.2f} | {max(burst.twice for burst in those):.2f} |")


def chaos(options):
    seed = options.seed if options.seed is not None else time.time_ns()
    random.seed(seed)
    print(f"--nodes {options.nodes} --keepers {options.keepers} --seed {seed}", flush=True)
    with Lab(f"{options.name}-chaos", nodes=options.nodes, build=options.build,
             keepers=range(1, min(options.keepers, options.nodes) + 1)) as lab:
        run = Chaos(lab)
        try:
            run.run(options.minutes)
        except LabError:
            print(*run.history, lab.diagnosis(), sep="\n")
            for node in lab.nodes:
                lines = node.journal.entries(now() - 2 * HEAL_LIMIT_S, KEEPER)
                print(f"--- the keeper of {node}", *(f"{e.time:.3f} {e.text}" for e in lines),
                      sep="\n")
            raise
        run.report()
