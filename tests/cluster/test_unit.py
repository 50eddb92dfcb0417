"""What the unit promises, kept by systemd itself."""

import json

import pytest
from support import (HEALED, LIMIT_S, NAME, STARTED, STEP, STOPPED, forget_steps, steps,
                     wait_steps, write)

from lab.bus import NAME as BUS_NAME
from lab.paths import COROSYNC, COROSYNC_CONFIG, DAEMON, EXAMPLES, RUN_DIRECTORY
from lab.waiting import now, wait_until

pytestmark = pytest.mark.package

ABSENT = "nodelist {\n  node {\n    nodeid: 2\n    ring0_addr: 192.0.2.2\n  }\n"


def wait_shown(node, name, value, unit=NAME):
    """Waits for a property of a unit."""
    what = f"{unit} has {name}={value}"
    wait_until(lambda: node.show(name, unit) == value, LIMIT_S, what, pause=0.05)


def drop_in(node, text):
    """Adds lines to the daemon's unit, until the next reset."""
    node.write_drop_in(text)
    node.systemctl("daemon-reload")


def hang(node, step, argument, seconds):
    """What the step does when it is asked for that the next time."""
    write(node, f"/run/hang-{argument}-{step}", f"{seconds}\n")


def errors(node):
    """The lines of the unit's programs with priority err and above, since the last reset."""
    return [entry.text for entry in node.log if entry.fields["PRIORITY"] <= 3]


def unit_findings(node):
    """What the doctor says of the unit."""
    findings = json.loads(node.duskvalectl("doctor", "--json", check=False).stdout)["findings"]
    return [(entry["level"], entry["text"]) for entry in findings if entry["area"] == "unit"]


def kill(node, signal, unit=DAEMON):
    node.systemctl("kill", "--kill-who=main", f"--signal={signal}", unit)


def test_unit_is_sound_and_as_closed_as_it_was(node):
    verified = node.run(["systemd-analyze", "verify", "--man=no", DAEMON])
    assert verified.stdout + verified.stderr == ""
    # In tenths; lower is more closed. What it was measured to be is in docs/install.md.
    security = ["systemd-analyze", "security", "--offline=true", "--threshold=93"]
    node.run([*security, node.show("FragmentPath")])


def test_start_is_over_when_the_name_is_owned(node):
    node.systemctl("restart", DAEMON)
    node.run(["busctl", "status", BUS_NAME])


def test_boot_brings_the_daemon_after_corosync(node):
    node.systemctl("enable", DAEMON)
    node.systemctl("disable", COROSYNC)
    node.reboot()
    wait_steps(node, STARTED)
    began = int(node.show("ExecMainStartTimestampMonotonic"))
    assert began > int(node.show("ActiveEnterTimestampMonotonic", COROSYNC))


@pytest.mark.parametrize("signal, unit", [
    ("KILL", DAEMON), ("ABRT", DAEMON), ("HUP", DAEMON),
    ("KILL", COROSYNC), ("KILL", "dbus.service"),
])
def test_whatever_ends_it_the_steps_stop_and_it_starts_again(node, signal, unit):
    before = node.pid()
    kill(node, signal, unit)
    wait_steps(node, HEALED)
    wait_shown(node, "ActiveState", "active")
    assert node.pid() != before
    assert node.is_active(unit)


def test_stop_runs_the_steps_and_says_when_one_failed(node):
    node.write_step("15-fails.run", "#!/bin/sh\nexit 3\n")
    write(node, f"{RUN_DIRECTORY}/16-not-executable.run", STEP)
    node.write_step(".17-hidden.run", STEP)
    node.stop()
    assert steps(node) == STOPPED
    assert node.show("ActiveState") == "failed"
    assert errors(node)[-1].endswith("15-fails.run stop: status 3")


def test_step_that_runs_when_the_daemon_dies_is_ended_before_the_stop(node):
    node.stop()
    forget_steps(node)
    hang(node, "20-last.run", "start", 1000)
    node.start()
    wait_steps(node, STARTED)
    kill(node, "KILL")
    wait_steps(node, STARTED + HEALED)


def test_step_that_hangs_at_the_stop_keeps_nothing_else_running(node):
    drop_in(node, f"[Service]\nExecStopPost=\nExecStopPost=/usr/libexec/{NAME}/stop-steps 1\n")
    hang(node, "20-last.run", "stop", 1000)
    node.stop()
    assert steps(node) == STOPPED
    assert errors(node)[-1].endswith("20-last.run stop: not done after 1 s, ended")


def test_steps_may_take_longer_to_stop_than_the_daemon(node):
    drop_in(node, "[Service]\nTimeoutStopSec=1\n")
    hang(node, "20-last.run", "stop", 3)
    node.stop()
    assert steps(node) == STOPPED
    assert node.show("ActiveState") == "inactive"


def test_drop_in_keeps_the_services(node):
    drop_in(node, node.file(f"{EXAMPLES}/keep-services.conf").read_text("utf-8"))
    kill(node, "KILL")
    wait_steps(node, STARTED)
    node.stop()
    assert steps(node) == STARTED


def test_start_waits_for_a_ring_while_corosync_is_new_and_has_peers_to_look_for(node):
    def waits():
        return [entry.text for entry in node.log
                if "wait-for-ring" in entry.text and "waited" in entry.text]

    kill(node, "KILL", COROSYNC)
    wait_steps(node, HEALED)
    assert waits() == []

    drop_in(node, f"[Service]\nExecStartPre=\nExecStartPre=-/usr/libexec/{NAME}/wait-for-ring 5\n")
    conf = node.file(COROSYNC_CONFIG)
    text = conf.read_text("utf-8")
    conf.write_text(text.replace("nodelist {\n", ABSENT), "utf-8")
    try:
        kill(node, "KILL", COROSYNC)
        waiting = "it is activating (start-pre): it waits until corosync has formed its ring"
        wait_until(lambda: ("warning", waiting) in unit_findings(node), LIMIT_S, waiting)
        wait_steps(node, HEALED + HEALED)
        [line] = waits()
        assert line.startswith("INFO: wait-for-ring: nodes in the ring: 1 of 2, waited ")
        node.systemctl("restart", DAEMON)
        wait_steps(node, HEALED + HEALED + HEALED)
        assert waits() == [line]
        forget_steps(node)

        # Called off while it waits.
        kill(node, "KILL", COROSYNC)
        wait_shown(node, "SubState", "start-pre")
        node.stop()
        assert steps(node) == STOPPED + STOPPED
        assert node.show("ActiveState") == "inactive"
    finally:
        conf.write_text(text, "utf-8")
        node.systemctl("stop", COROSYNC)


def test_start_that_takes_too_long_runs_the_steps_with_stop_and_begins_again(node):
    node.stop()
    forget_steps(node)
    drop_in(node, "[Service]\nExecStartPre=\nExecStartPre=sleep 600\nTimeoutStartSec=1\n")
    node.systemctl("start", "--no-block", DAEMON)
    wait_until(lambda: steps(node) == STOPPED + STOPPED, LIMIT_S, "given up twice")
    failed = "the daemon did not start (timeout)"
    assert len([entry for entry in node.log if failed in entry.text]) == 2


def test_daemon_stops_before_corosync_and_starts_with_it(node):
    node.systemctl("enable", DAEMON)
    node.systemctl("stop", COROSYNC)
    assert steps(node) == STOPPED
    assert not node.is_active()
    stopped = int(node.show("InactiveEnterTimestampMonotonic"))
    assert stopped < int(node.show("InactiveEnterTimestampMonotonic", COROSYNC))
    node.systemctl("start", COROSYNC)
    wait_steps(node, HEALED)
    node.systemctl("restart", COROSYNC)
    wait_steps(node, HEALED + HEALED)


def test_corosync_that_cannot_start_ends_the_attempts(node):
    node.systemctl("enable", DAEMON)
    conf = node.file(COROSYNC_CONFIG)
    conf.rename(conf.with_name("away"))
    kill(node, "KILL", COROSYNC)
    # While an attempt waits for corosync the daemon is inactive, too, but has a job.
    wait_until(
        lambda: node.show("ActiveState") == "inactive" and not node.show("Job"),
        LIMIT_S, "no further attempt",
    )
    conf.with_name("away").rename(conf)
    node.systemctl("start", COROSYNC)
    wait_steps(node, HEALED)


def test_loop_of_failing_starts_ends_visibly(node):
    node.stop()
    # Forgets the starts so far; the stop alone does for a disabled unit.
    node.systemctl("daemon-reload")
    node.run(["systemd-run", "--unit=second", f"/usr/sbin/{NAME}", "-f"])
    wait_until(node.bus.has_daemon, LIMIT_S, "the second daemon has the name")
    node.systemctl("start", DAEMON, check=False)
    try:
        wait_shown(node, "SubState", "failed")
        assert node.show("NRestarts") == "10"  # The last one is refused.
        given_up = "it is failed (failed): exit-code; restarts before that: 10"
        assert ("critical", given_up) in unit_findings(node)
    finally:
        node.systemctl("stop", "second")


def test_doctor_knows_the_state_of_the_unit(node):
    enabled = ("ok", "it is enabled: started at boot, and with corosync")
    running = ("ok", "it is active (running)")
    node.systemctl("enable", DAEMON)
    assert unit_findings(node) == [enabled, running]
    node.file(node.show("FragmentPath")).touch()
    changed = ("warning", "its file has changed, and systemd has not read it since")
    assert unit_findings(node) == [enabled, changed, running]
    node.systemctl("daemon-reload")
    node.systemctl("disable", "--now", DAEMON)
    assert unit_findings(node) == [
        ("warning", "it is not started at boot: disabled"), ("critical", "it is inactive (dead)")
    ]
    node.systemctl("mask", "--runtime", DAEMON)
    try:
        [masked] = unit_findings(node)
        assert masked == ("critical", "it is masked: nothing can start it")
    finally:
        node.systemctl("unmask", "--runtime", DAEMON)


def test_journal_has_the_lines_with_their_priorities(node):
    write(node, f"{RUN_DIRECTORY}/30-cannot-be-executed.run", STEP)
    talk = "#!/bin/sh\n[ $1 != start ] || { echo said; echo lamented >&2; }\n"
    node.write_step("40-talks.run", talk)
    since = now()
    node.systemctl("restart", DAEMON)
    for text, priority in [
        ("INFO: Starting", 6), (r"ERR\(run_next\):", 3), ("said", 6), ("lamented", 5)
    ]:
        assert node.wait_log(f"^{text}", since=since).fields["PRIORITY"] == priority


def test_steps_reach_the_node_and_not_a_sandbox(node):
    write(node, "/run/systemd/system/managed.service", "[Service]\nExecStart=/bin/sleep infinity\n")
    node.write_step(
        "05-real.run",
        "#!/bin/sh -e\n[ $1 = start ] || exit 0\n"
        "mount -t tmpfs tmpfs /mnt\n"
        "ip address replace 192.0.2.7/32 dev lo\n"
        "systemctl start managed\n",
    )
    node.systemctl("daemon-reload")
    node.systemctl("restart", DAEMON)
    wait_shown(node, "ActiveState", "active", "managed")
    node.run(["umount", "/mnt"])
    node.run(["ip", "address", "delete", "192.0.2.7/32", "dev", "lo"])
    node.stop()
    assert node.is_active("managed")
    node.systemctl("stop", "managed")


def test_example_step_keeps_a_service_where_the_daemon_runs(node):
    service = "example.service"
    settings = "/etc/default/duskvale-service"
    step = f"{RUN_DIRECTORY}/50-service.run"

    def wait_started(after=0):
        """The service's pid, once that is another."""
        def pid():
            found = node.pid(service)
            return found if found not in (after, 0) else None

        return wait_until(pid, LIMIT_S, "the service was started")

    def twice(action):
        return [node.run([step, action], check=False).returncode for _ in range(2)]

    unit = "[Unit]\nStartLimitIntervalSec=0\n[Service]\nExecStart=/bin/sleep infinity\n"
    write(node, f"/run/systemd/system/{service}", unit)
    write(node, settings, f'UNITS="{service}"\n')
    node.run(["install", f"{EXAMPLES}/run.d/50-service.run", step])
    node.systemctl("daemon-reload")
    node.systemctl("restart", DAEMON)
    pid = wait_started()
    assert twice("start") == [0, 0]
    assert node.pid(service) == pid
    for signal, unit in ("KILL", DAEMON), ("ABRT", DAEMON), ("HUP", DAEMON), ("KILL", COROSYNC):
        kill(node, signal, unit)
        pid = wait_started(after=pid)
    node.stop()
    assert node.show("ActiveState", service) == "inactive"
    assert twice("stop") == [0, 0]
    node.start(drop_in="[Service]\nRestart=no\n")
    wait_started(after=pid)
    kill(node, "KILL")
    wait_shown(node, "ActiveState", "inactive", service)

    write(node, settings, f'UNITS="{service} none.service"\n')
    assert twice("start") == [5, 5]  # that of systemctl
    assert node.is_active(service)


def test_start_and_stop_have_the_same_surroundings(node):
    node.write_step(
        "10-first.run",
        "#!/bin/sh\nexec >/run/part\n"
        "pwd; umask; id -u; echo $PATH $LC_ALL; grep Sig[BI] /proc/self/status\n"
        "mv /run/part /run/$1\n",
    )
    node.systemctl("restart", DAEMON)
    wait_until(node.file("/run/start").exists, LIMIT_S, "started")
    node.stop()
    start, stop = (node.file(f"/run/{name}").read_text("utf-8") for name in ("start", "stop"))
    assert start == stop
    directory, umask, user, variables, *_signals = start.splitlines()
    assert (directory, umask, user) == ("/", "0022", "0")
    assert variables == "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin C.UTF-8"
