"""The package built, installed, upgraded, removed, purged; and a daemon that finds no cluster."""

import os
import re
import shutil
import subprocess

import pytest
from support import NAME, STOPPED, steps, write

from lab.paths import DAEMON, PACKAGE, RUN_DIRECTORY, SETTINGS

pytestmark = pytest.mark.usefixtures("package")

# Logs, the books of the package system and of systemd, and what the lab and these tests have made.
OF_OTHERS = re.compile(
    r"/(var/(log|cache|lib/(dpkg|systemd|corosync)|tmp)|etc/(corosync|systemd)|srv|root/.ssh)(/|$)"
)


def changes(node):
    """The files and directories that the node has and this machine has not."""
    layers = [node.lab.host.directory / name / "upper" for name in (node.image, node.name)]
    names = {"/" + str(path.relative_to(layer)) for layer in layers for path in layer.rglob("*")}
    return {
        name for name in names if not os.path.lexists(name) and os.path.lexists(node.file(name))
    }


def test_lintian_finds_nothing(package):
    [changes] = package.parent.glob(f"{NAME}_*.changes")
    complaints = "--fail-on=error,warning,pedantic"
    subprocess.run(["lintian", "--pedantic", complaints, changes], check=True)


def test_version_is_that_of_meson(node, package, pytestconfig):
    root = pytestconfig.rootpath.parents[1]
    version = re.search(r"version: '(.*?)'", (root / "meson.build").read_text(encoding="utf-8"))[1]
    built = subprocess.run(
        ["dpkg-deb", "--field", package, "Version"], stdout=subprocess.PIPE, text=True, check=True,
    ).stdout.strip()
    changes = (root / "CHANGELOG.md").read_text(encoding="utf-8")
    # The last release, or the one that is being prepared.
    named = re.search(r"(?m)^## \[(\d.*?)\]|^.*The next release is (\S+)\.$", changes)
    assert (built, named[1] or named[2]) == (version, version)
    assert node.duskvalectl("--version").stdout == f"duskvalectl {version}\n"


def test_package_passes_the_test_that_it_brings(node, pytestconfig):
    node.stop()
    script = pytestconfig.rootpath.parents[1] / "debian/tests/election"
    assert re.search("^this node +.*, master$", node.run([script]).stdout, re.MULTILINE)


def test_keepers_package_passes_the_test_that_it_brings(node, package, pytestconfig):
    [keeper] = package.parent.glob("duskvale-keeper_*.deb")
    shutil.copy(keeper, node.file("/var/tmp/keeper.deb"))
    node.run(["dpkg", "--install", "/var/tmp/keeper.deb"])
    node.run([pytestconfig.rootpath.parents[1] / "debian/tests/keeper"], limit=90.0)
    node.run(["dpkg", "--purge", "duskvale-keeper"])


def newer(package, directory):
    """The same package with a higher version."""
    tree = directory / "tree"
    subprocess.run(["dpkg-deb", "--raw-extract", package, tree], check=True)
    control = tree / "DEBIAN/control"
    text = control.read_text(encoding="utf-8")
    control.write_text(re.sub(r"(?m)^(Version: .*)$", r"\1+newer", text), encoding="utf-8")
    result = directory / "newer.deb"
    subprocess.run(["dpkg-deb", "--root-owner-group", "--build", tree, result], check=True)
    return result


def test_install_leaves_the_start_to_the_operator(node):
    node.run(["dpkg", "--purge", NAME])
    node.run(["rm", "-rf", RUN_DIRECTORY])
    node.run(["dpkg", "--install", PACKAGE])
    assert node.systemctl("is-enabled", DAEMON, check=False).stdout == "disabled\n"
    assert node.show("ActiveState") == "inactive"
    for directory in (SETTINGS, RUN_DIRECTORY):
        shown = node.run(["stat", "-c", "%U:%G %a %F", directory]).stdout
        assert shown == "root:root 755 directory\n"


def test_upgrade_leaves_a_running_daemon_and_all_settings_alone(node, package, tmp_path):
    node.systemctl("enable", DAEMON)
    write(node, f"{SETTINGS}/preferred_master", "1\n")
    before = node.pid()
    shutil.copy(newer(package, tmp_path), node.file("/var/tmp/newer.deb"))
    node.run(["dpkg", "--install", "/var/tmp/newer.deb"])
    assert node.pid() == before
    assert steps(node) == []
    assert node.show("NeedDaemonReload") == "no"
    assert node.show("UnitFileState") == "enabled"
    assert node.file(f"{SETTINGS}/preferred_master").read_text("ascii") == "1\n"
    node.run(["dpkg", "--install", "--force-downgrade", PACKAGE])


def test_removal_stops_the_services_and_leaves_what_is_the_operators(node):
    node.systemctl("enable", DAEMON)
    write(node, f"{SETTINGS}/preferred_master", "1\n")
    node.run(["dpkg", "--remove", NAME])
    assert steps(node) == STOPPED
    assert node.show("LoadState") == "not-found"
    assert node.file(f"{SETTINGS}/preferred_master").read_text("ascii") == "1\n"

    assert "stay there" in node.run(["dpkg", "--purge", NAME]).stdout
    assert not node.file(SETTINGS).exists()
    left = {step.name for step in node.file(RUN_DIRECTORY).iterdir()}
    assert left == {"10-first.run", "20-last.run"}


def test_purge_leaves_nothing_behind(node):
    node.systemctl("enable", DAEMON)
    node.stop()
    write(node, f"{SETTINGS}/preferred_master", "1\n")
    for step in node.file(RUN_DIRECTORY).iterdir():
        step.unlink()
    assert {f"/usr/sbin/{NAME}", RUN_DIRECTORY, SETTINGS} <= changes(node)
    node.run(["dpkg", "--purge", NAME])
    assert {name for name in changes(node) if not OF_OTHERS.match(name)} == set()
    assert node.run(["find", "/etc", "/lib/systemd", "-name", "*duskvale*"]).stdout == ""
