"""The package built, installed, upgraded, removed, purged; and a daemon that finds no cluster."""

import re
import subprocess

from installed import NAME, RUN_DIR, STOPPED, UNIT

SETTINGS = "/etc/duskvale"
# Logs, the books of the package system and of systemd, and what these tests themselves have made.
OF_OTHERS = re.compile(
    r"/(var/(log|cache|lib/(dpkg|systemd|corosync)|tmp)|etc/(corosync|systemd))(/|$)"
)


def test_lintian_finds_nothing(package):
    [changes] = package.parent.glob(f"{NAME}_*.changes")
    complaints = "--fail-on=error,warning,pedantic"
    subprocess.run(["lintian", "--pedantic", complaints, changes], check=True)


def test_version_is_that_of_meson(machine, package, daemon, pytestconfig):
    root = pytestconfig.rootpath.parents[1]
    version = re.search(r"version: '(.*?)'", (root / "meson.build").read_text(encoding="utf-8"))[1]
    built = subprocess.run(
        ["dpkg-deb", "--field", package, "Version"], stdout=subprocess.PIPE, text=True, check=True,
    ).stdout.strip()
    changes = (root / "CHANGELOG.md").read_text(encoding="utf-8")
    released = re.search(r"(?m)^## \[(\d.*?)\]", changes)[1]
    assert (built, released) == (version, version)
    assert machine.output("duskvalectl", "--version") == f"duskvalectl {version}"


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


def test_install_leaves_the_start_to_the_operator(machine, package, daemon):
    machine.run("dpkg", "--purge", NAME)
    machine.shell(f"rm -rf {RUN_DIR}")
    machine.run("dpkg", "--install", "/var/tmp/package.deb")
    assert machine.output("systemctl", "is-enabled", UNIT, check=False) == "disabled"
    assert daemon.property("ActiveState") == "inactive"
    for directory in (SETTINGS, RUN_DIR):
        assert machine.output("stat", "-c", "%U:%G %a %F", directory) == "root:root 755 directory"


def test_upgrade_leaves_a_running_daemon_and_all_settings_alone(machine, package, daemon, tmp_path):
    daemon.systemctl("enable", UNIT)
    machine.write(f"{SETTINGS}/preferred_master", "1\n")
    before = daemon.pid()
    machine.copy_in(newer(package, tmp_path), "/var/tmp/newer.deb")
    machine.run("dpkg", "--install", "/var/tmp/newer.deb")
    assert daemon.pid() == before
    assert daemon.steps() == []
    assert daemon.property("NeedDaemonReload") == "no"
    assert machine.output("systemctl", "is-enabled", UNIT) == "enabled"
    assert machine.output("cat", f"{SETTINGS}/preferred_master") == "1"
    machine.run("dpkg", "--install", "--force-downgrade", "/var/tmp/package.deb")


def test_removal_stops_the_services_and_leaves_what_is_the_operators(machine, daemon):
    daemon.systemctl("enable", UNIT)
    machine.write(f"{SETTINGS}/preferred_master", "1\n")
    machine.run("dpkg", "--remove", NAME)
    assert daemon.steps() == STOPPED
    assert daemon.property("LoadState") == "not-found"
    assert machine.output("cat", f"{SETTINGS}/preferred_master") == "1"

    assert "stay there" in machine.output("dpkg", "--purge", NAME)
    assert not machine.path(SETTINGS).exists()
    assert machine.output("ls", RUN_DIR).split() == ["10-first.run", "20-last.run"]


def test_purge_leaves_nothing_behind(machine, daemon):
    daemon.systemctl("enable", UNIT)
    daemon.systemctl("stop", UNIT)
    machine.write(f"{SETTINGS}/preferred_master", "1\n")
    machine.shell(f"rm {RUN_DIR}/*.run")
    assert {f"/usr/sbin/{NAME}", RUN_DIR, SETTINGS} <= machine.changes()
    machine.run("dpkg", "--purge", NAME)
    assert {name for name in machine.changes() if not OF_OTHERS.match(name)} == set()
    assert machine.output("find", "/etc", "/lib/systemd", "-name", "*duskvale*") == ""


def test_daemon_of_a_user_is_refused(machine, daemon):
    daemon.systemctl("stop", UNIT)
    nobody = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups")
    result = machine.run(*nobody, f"/usr/sbin/{NAME}", "-f", check=False)
    assert result.returncode == 1
    assert "ERR(duskvale_cpg_new):Failed: cpg_initialize()\n" in result.stdout
