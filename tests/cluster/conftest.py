"""Cluster tests: the installed daemon on booted machines with corosync, in a lab (see
lab/cluster.py).

    def test_survivors_elect(lab):
        lab.start()                                     # the daemon on all three nodes
        master = lab.wait_master()                      # they agree, and all elections are over
        lab.node(master).stop()                         # a killed one is started again by its unit
        rest = [n for n in (1, 2, 3) if n != master]
        assert lab.wait_master(agreed_on=rest) in rest

`lab` is one lab of three nodes for the whole session, reset before each test: one ring, cables
whole, no daemon running, no settings, steps or devices. Logs and signals count from that reset on;
`since=now()` narrows a wait to what comes after. A ring takes seconds to form, so a test that cuts
cables or kills corosync costs the next reset some seconds, and one that does not costs 0.3 s.

`cluster` is that lab with the daemons running and agreed on a master.

`make_lab(nodes=4, ids={1: 3232235777})` gives a lab of the test's own (some 3 s), ended with it.

Every wait has a limit and ends with Overdue, which shows the state and the last lines of each node;
a test that fails otherwise gets them as a section of its report.

Run as root:  /usr/bin/python3 -m pytest tests/cluster [--build DIRECTORY] [--package FILE.deb]

With --package nodes 1 and 2 of each lab have the package installed instead of the build tree.
"""

import os

import pytest

from lab.cluster import BUILD, Lab


def pytest_addoption(parser):
    parser.addoption("--build", default=str(BUILD), help="the build directory to test")
    parser.addoption("--package", help="test this .deb on the nodes 1 and 2")


@pytest.fixture(name="make_lab", scope="session")
def _make_lab(request):
    """A function that starts a lab; whatever it started ends with the session at the latest."""
    labs = []

    def make(**options):
        for option in ("build", "package"):
            options.setdefault(option, request.config.getoption(f"--{option}"))
        lab = Lab(f"tests-{os.getpid()}-{len(labs)}", **options)
        labs.append(lab)
        return lab.up()

    yield make
    for lab in labs:
        lab.down()


@pytest.fixture(name="_shared", scope="session")
def _shared_lab(make_lab):
    return make_lab(nodes=3)


@pytest.fixture
def lab(_shared):
    _shared.reset()
    return _shared


@pytest.fixture
def cluster(lab):
    """The lab with a daemon on each node, and a master that all agree on."""
    lab.start()
    lab.wait_master()
    return lab


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if call.when == "call" and report.failed:
        for name, value in item.funcargs.items():
            if isinstance(value, Lab):
                report.sections.append((f"the lab '{name}'", value.diagnosis()))
