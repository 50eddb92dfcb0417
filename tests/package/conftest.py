"""Package tests: the Debian package on one booted machine (see lab/cluster.py), as an operator
would use it.

Its unit is made to do all that it promises. The cluster is that one node, which is master as soon
as its daemon runs.

`node` is the machine with the package installed and the daemon running, not enabled; two steps have
been started, which note in a file what they are asked for (support.py).

Run as root:  /usr/bin/python3 -m pytest tests/package [--package FILE.deb]
"""

import os
import pathlib
import shutil
import subprocess

import pytest
from support import NAME, PACKAGE, STARTED, STEP, forget_steps, wait_steps

from lab.cluster import CHECKOUT, Lab
from lab.paths import DAEMON


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
def lab(package):
    with Lab(f"package-{os.getpid()}", nodes=1, package=package) as lab:
        shutil.copy(package, lab.nodes[0].file(PACKAGE))
        yield lab


@pytest.fixture
def node(lab):
    [node] = lab.nodes
    lab.reset()
    if not node.file(f"/usr/sbin/{NAME}").exists():
        node.run(["dpkg", "--install", PACKAGE])
    node.systemctl("disable", DAEMON)
    for step in ("10-first.run", "20-last.run"):
        node.write_step(step, STEP)
    forget_steps(node)
    node.start()
    wait_steps(node, STARTED)
    forget_steps(node)
    return node


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if call.when != "teardown" and report.failed and "lab" in item.funcargs:
        [node] = item.funcargs["lab"].nodes
        last = node.run(["journalctl", "--lines=60", "--no-pager"], check=False).stdout
        report.sections.append(("the last of the node's journal", last))
