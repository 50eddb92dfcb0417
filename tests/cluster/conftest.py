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

`kept` is another lab of three, with keepers and the virtual address, whose keepers have settled.

`make_lab(nodes=4, ids={1: 3232235777})` gives a lab of the test's own (some 3 s), ended with it.

`node` is one node, which is master as soon as its daemon runs. It runs, is not enabled, and has
started two steps that note what they are asked for (support.py).

Every wait has a limit and ends with Overdue, which shows the state and the last lines of each node;
a test that fails otherwise gets them as a section of its report.

Run as root:  /usr/bin/python3 -m pytest tests/cluster [--build DIRECTORY] [--package FILE.deb]
    [--keepers N]

With --package, as ./check calls it, the nodes have the package installed instead of the build, and
that of the keeper where the lab has keepers; the tests that are about packages need it. With
--keepers the first N nodes of each lab have a keeper, also in tests that are not about it.
"""

import os
import pathlib

import pytest
from support import NAME, STARTED, STEP, forget_steps, wait_settled, wait_steps

from lab.cluster import BUILD, Lab
from lab.examples import install_address
from lab.node import Node
from lab.paths import DAEMON, PACKAGE


def pytest_addoption(parser):
    parser.addoption("--build", default=str(BUILD), help="the build directory to test")
    parser.addoption("--keepers", type=int, default=0, help="how many nodes have one, by default")
    parser.addoption("--package", type=pathlib.Path, help="test this .deb instead")


@pytest.fixture(scope="session")
def make_lab(request):
    """A function that starts a lab; whatever it started ends with the session at the latest."""
    labs = []

    def make(**options):
        for option in ("build", "package"):
            options.setdefault(option, request.config.getoption(f"--{option}"))
        keepers = min(request.config.getoption("--keepers"), options["nodes"])
        options.setdefault("keepers", range(1, keepers + 1))
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


@pytest.fixture(name="_shared_kept", scope="session")
def _shared_kept_lab(make_lab):
    return make_lab(nodes=3, keepers=(1, 2, 3))


@pytest.fixture
def kept(_shared_kept):
    """A lab whose keepers have done what they do after a start."""
    _shared_kept.reset()
    for node in _shared_kept.nodes:
        install_address(node)
    _shared_kept.start()
    wait_settled(_shared_kept)
    return _shared_kept


@pytest.fixture
def package(request):
    """The path of the package."""
    path = request.config.getoption("--package")
    if path is None:
        pytest.skip("needs --package")
    return path


@pytest.fixture(name="_lab_of_one", scope="session")
def _make_lab_of_one(make_lab):
    return make_lab(nodes=1)


@pytest.fixture
def node(_lab_of_one):
    node = _lab_of_one.node(1)
    _lab_of_one.reset()
    if not node.file(f"/usr/sbin/{NAME}").exists():
        node.run(["dpkg", "--install", PACKAGE])
    node.systemctl("disable", DAEMON)
    for step in ("10-first.run", "20-last.run"):
        node.write_step(step, STEP)
    node.start()
    wait_steps(node, STARTED)
    forget_steps(node)
    return node


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if call.when == "call" and report.failed:
        for name, value in item.funcargs.items():
            if isinstance(value, (Lab, Node)):
                lab = value if isinstance(value, Lab) else value.lab
                report.sections.append((f"the lab of '{name}'", lab.diagnosis()))
