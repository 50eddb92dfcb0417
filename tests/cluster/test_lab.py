"""The lab itself: nothing of it outlives its owner."""

import os
import pathlib
import subprocess
import sys

from lab.cluster import CHECKOUT
from lab.waiting import wait_until

OWNER = """
import sys, time
from lab.cluster import Lab
with Lab(sys.argv[1], nodes=2) as lab:
    print(*[node.init for node in lab.nodes], flush=True)
    time.sleep(600)
"""


def machine_state():
    """What a lab could leave on the machine: mounts and interfaces."""
    return pathlib.Path("/proc/self/mounts").read_text("utf-8"), os.listdir("/sys/class/net")


def test_nothing_is_left_of_a_lab_whose_owner_was_killed():
    before = machine_state()
    with subprocess.Popen(
        [sys.executable, "-c", OWNER, f"owned-{os.getpid()}"],
        cwd=CHECKOUT, stdout=subprocess.PIPE, text=True,
    ) as owner:
        processes = [pathlib.Path("/proc", pid) for pid in owner.stdout.readline().split()]
        [group] = {(process / "cgroup").read_text("ascii").rpartition("0::/")[2].split("/")[0]
                   for process in processes}
        owner.kill()
    groups = pathlib.Path("/sys/fs/cgroup")
    assert [*groups.glob(f"{group}/node*"), *groups.glob(f"*/{group}/node*")]
    wait_until(lambda: not [*groups.glob(group), *groups.glob(f"*/{group}")], 30.0, "all has ended")
    assert not any(process.exists() for process in processes)
    assert machine_state() == before
