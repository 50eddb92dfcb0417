"""Package tests: the Debian package, on a machine of its own with systemd (see scratch.py).

The package is built from a copy of this tree and installed as an operator would do it; then the
unit is made to do all that it promises. The cluster is one node, which is master as soon as its
daemon runs.

`machine` is one machine for all tests; `daemon` is the installed and running daemon on it.

Run as root:  /usr/bin/python3 -m pytest tests/package [--package FILE.deb]
"""

import pathlib
import subprocess

import pytest

from installed import NAME, RUN_DIR, STARTED, STEP, UNIT, Daemon
from scratch import ScratchMachine

CHECKOUT = pathlib.Path(__file__).parents[2]

COROSYNC_CONF = """\
totem {
    version: 2
    cluster_name: scratch
}
system {
    sched_rr: no
}
nodelist {
    node {
        nodeid: 1
        ring0_addr: 127.0.0.1
    }
}
"""


def pytest_addoption(parser):
    parser.addoption("--package", help="test this .deb instead of building one")


@pytest.fixture(scope="session")
def package(request, tmp_path_factory):
    """The path of the built package."""
    if request.config.getoption("--package"):
        return pathlib.Path(request.config.getoption("--package")).resolve()
    directory = tmp_path_factory.mktemp("package")
    subprocess.run([CHECKOUT / "scripts/make-package", directory], check=True)
    [built] = directory.glob(f"{NAME}_*.deb")
    return built


@pytest.fixture(scope="session")
def machine():
    with ScratchMachine() as scratch:
        scratch.run("dpkg", "--purge", NAME, check=False)
        scratch.write("/etc/corosync/corosync.conf", COROSYNC_CONF)
        yield scratch


@pytest.fixture(name="daemon")
def _daemon(machine, package):
    """Installed and running, with two steps started; all else as after the installation."""
    daemon = Daemon(machine)
    machine.copy_in(package, "/var/tmp/package.deb")
    query = ("dpkg-query", "--show", "--showformat", "${db:Status-Status}", NAME)
    if machine.output(*query, check=False) != "installed":
        machine.run("dpkg", "--install", "/var/tmp/package.deb")
    machine.run("systemctl", "stop", UNIT)
    machine.shell(f"rm -rf {RUN_DIR}/* /etc/duskvale/*")
    daemon.forget_steps()
    daemon.drop_in(None)
    # Also forgets how often they were started; fails for a unit that systemd has forgotten itself.
    for unit in (UNIT, "corosync.service"):
        machine.run("systemctl", "reset-failed", unit, check=False)
    for step in ("10-first.run", "20-last.run"):
        machine.write(f"{RUN_DIR}/{step}", STEP, mode=0o755)
    machine.run("systemctl", "start", "corosync", UNIT)
    daemon.wait_steps(STARTED)
    daemon.forget_steps()
    return daemon


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if call.when != "teardown" and report.failed and "machine" in item.funcargs:
        journal = item.funcargs["machine"].output("journalctl", "-n", "60", check=False)
        report.sections.append(("the last of the machine's journal", journal))
