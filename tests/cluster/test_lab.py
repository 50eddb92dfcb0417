"""The lab itself: that nothing of it outlives it, and that it ends nothing else."""

import json
import os
import pathlib
import signal
import subprocess
import sys

import pytest
from support import daemon_program

from lab import state, unit
from lab.cluster import CHECKOUT, Lab
from lab.filesystem import PACKAGED_DAEMON
from lab.processes import Process
from lab.waiting import now

LAB = str(CHECKOUT / "lab/lab")
OWNER = """
import signal, sys, time
from lab.cluster import Lab
signal.signal(signal.SIGINT, signal.default_int_handler)
with Lab("owned", nodes=2) as lab:
    print(*[node.pid for node in lab.nodes], flush=True)
    time.sleep(600)
"""


def machine_state():
    """What a lab could leave on the machine: mounts, interfaces, named namespaces."""
    mounts = pathlib.Path("/proc/self/mounts").read_text(encoding="utf-8")
    names = pathlib.Path("/run/netns")
    return mounts, os.listdir("/sys/class/net"), os.path.isdir(names) and os.listdir(names)


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT])
def test_lab_ends_with_its_owner_however_that_ends(number):
    before = machine_state()
    with subprocess.Popen(
        [sys.executable, "-c", OWNER],
        cwd=CHECKOUT, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
    ) as owner:
        inits = [Process(int(pid)) for pid in owner.stdout.readline().split()]
        owner.send_signal(number)
    assert len(inits) == 2
    assert all(init.ended(limit=30) for init in inits)
    assert machine_state() == before


def test_lab_up_stays_until_down_and_a_crashed_one_is_forgotten():
    name = f"stays-{os.getpid()}"
    verb = [LAB, "--name", name]
    subprocess.run([*verb, "up", "-n", "1", "--no-start"], check=True)
    try:
        supervisor = state.find(name)
        assert supervisor is not None
        assert subprocess.run([*verb, "up"], check=False).returncode != 0  # it is up already
        assert not supervisor.ended()
        supervisor.end()  # as a crash
        subprocess.run([*verb, "up", "-n", "1", "--no-start"], check=True)
        init = Process(Lab.attach(name).node(1).pid)
    finally:
        subprocess.run([*verb, "down"], check=True)
    assert init.ended(limit=30)
    assert name not in state.names()


def test_down_does_not_end_a_process_that_has_the_old_pid():
    name = f"recycled-{os.getpid()}"
    with subprocess.Popen(["sleep", "600"]) as stranger:
        facts = {"pid": stranger.pid, "started": Process(stranger.pid).started - 1}
        state.DIRECTORY.mkdir(exist_ok=True)
        path = state.DIRECTORY / f"{name}.json"
        path.write_text(json.dumps(facts), encoding="utf-8")
        subprocess.run([LAB, "--name", name, "down"], check=True)
        assert stranger.poll() is None
        assert not path.exists()
        stranger.kill()


def test_each_node_runs_what_it_was_given(lab, pytestconfig):
    lab.start()
    for node in lab.nodes:
        [package] = node.run(["sh", "-c", "dpkg-query -W | grep -c ^duskvale || :"]).stdout.split()
        built = os.path.abspath(pytestconfig.getoption("--daemon"))
        given = ("1", PACKAGED_DAEMON) if node.package else ("0", built)
        assert (package, daemon_program(node)) == given


def test_service_manager_follows_the_unit_when_a_daemon_is_killed(lab):
    node = lab.node(1)
    node.write_step("10-note.run", "#!/bin/sh\necho $1 >>/run/noted\n(sleep 600; :) &\n")
    node.supervise(unit.rules_on(node))
    node.start()
    node.wait_log("run steps done")
    noted = node.file("/run/noted")
    assert "stop" not in noted.read_text(encoding="utf-8")
    killed = now()
    assert node.kill() == -signal.SIGKILL
    assert "stop" in noted.read_text(encoding="utf-8")
    node.wait_log("INFO: Registered on dbus", since=killed)
