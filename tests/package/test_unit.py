"""What the unit promises, kept by systemd itself."""

import json
import pathlib

import pytest

from installed import BUS_NAME, LIMIT_S, NAME, RUN_DIR, STARTED, STEP, STOPPED, UNIT
from lab.waiting import wait_until

DROP_IN = pathlib.Path(__file__).parents[2] / "data/examples/keep-services.conf"

HEALED = STOPPED + STARTED
TALKS = "#!/bin/sh\n[ $1 != start ] || { echo said; echo lamented >&2; }\n"


def unit_findings(machine):
    """What the doctor says of the unit."""
    text = machine.output("duskvalectl", "doctor", "--json", check=False)
    findings = json.loads(text)["findings"]
    return [(entry["level"], entry["text"]) for entry in findings if entry["area"] == "unit"]


def test_unit_is_sound_and_as_closed_as_it_was(machine, daemon):
    assert machine.output("systemd-analyze", "verify", "--man=no", UNIT) == ""
    # In tenths; lower is more closed. What it was measured to be is in docs/install.md.
    path = daemon.property("FragmentPath")
    machine.run("systemd-analyze", "security", "--offline=true", "--threshold=93", path)


def test_start_is_over_when_the_name_is_owned(machine, daemon):
    daemon.systemctl("restart", UNIT)
    assert machine.output("busctl", "status", BUS_NAME)


def test_boot_brings_the_daemon_after_corosync(machine, daemon):
    daemon.systemctl("enable", UNIT)
    daemon.systemctl("disable", "corosync")
    machine.reboot()
    daemon.wait_steps(STARTED)
    began = int(daemon.property("ExecMainStartTimestampMonotonic"))
    assert began > int(daemon.property("ActiveEnterTimestampMonotonic", "corosync.service"))


@pytest.mark.parametrize("signal, unit", [
    ("KILL", UNIT), ("ABRT", UNIT), ("HUP", UNIT), ("KILL", "corosync.service"),
    ("KILL", "dbus.service"),
])
def test_whatever_ends_it_the_steps_stop_and_it_starts_again(daemon, signal, unit):
    before = daemon.pid()
    daemon.systemctl("kill", "--kill-who=main", f"--signal={signal}", unit)
    daemon.wait_steps(HEALED)
    daemon.wait_active()
    assert daemon.pid() != before
    assert daemon.property("ActiveState", unit) == "active"


def test_stop_runs_the_steps_and_tells_when_one_failed(machine, daemon):
    machine.write(f"{RUN_DIR}/15-fails.run", "#!/bin/sh\nexit 3\n", mode=0o755)
    machine.write(f"{RUN_DIR}/16-not-executable.run", STEP)
    machine.write(f"{RUN_DIR}/.17-hidden.run", STEP, mode=0o755)
    daemon.systemctl("stop", UNIT)
    assert daemon.steps() == STOPPED
    assert daemon.property("ActiveState") == "failed"
    [failure] = daemon.journal("-p", "err", "-n", "1")
    assert failure["MESSAGE"].endswith("15-fails.run stop: status 3")


def test_step_that_runs_when_the_daemon_dies_is_ended_before_the_stop(daemon):
    daemon.systemctl("stop", UNIT)
    daemon.forget_steps()
    daemon.hang("20-last.run", "start", 1000)
    daemon.systemctl("start", UNIT)
    daemon.wait_steps(STARTED)
    daemon.systemctl("kill", "--kill-who=main", "--signal=KILL", UNIT)
    daemon.wait_steps(STARTED + HEALED)


def test_step_that_hangs_at_the_stop_keeps_nothing_else_running(daemon):
    program = f"/usr/libexec/{NAME}/stop-steps"
    daemon.drop_in(f"[Service]\nExecStopPost=\nExecStopPost={program} 1\n")
    daemon.hang("20-last.run", "stop", 1000)
    daemon.systemctl("stop", UNIT)
    assert daemon.steps() == STOPPED
    error = daemon.journal("-p", "err")[-1]["MESSAGE"]
    assert error.endswith("20-last.run stop: not done after 1 s, ended")


def test_steps_may_take_longer_to_stop_than_the_daemon(daemon):
    daemon.drop_in("[Service]\nTimeoutStopSec=1\n")
    daemon.hang("20-last.run", "stop", 3)
    daemon.systemctl("stop", UNIT)
    assert daemon.steps() == STOPPED
    assert daemon.property("ActiveState") == "inactive"


def test_drop_in_keeps_the_services(machine, daemon):
    daemon.drop_in(DROP_IN.read_text(encoding="utf-8"))
    daemon.systemctl("kill", "--kill-who=main", "--signal=KILL", UNIT)
    daemon.wait_steps(STARTED)
    daemon.systemctl("stop", UNIT)
    assert daemon.steps() == STARTED


def test_start_waits_for_a_ring_while_corosync_is_new_and_has_peers_to_look_for(machine, daemon):
    def waits():
        said = [line["MESSAGE"] for line in daemon.journal()]
        return [text for text in said if "wait-for-ring" in text and "waited" in text]

    before = waits()
    daemon.systemctl("kill", "--signal=KILL", "corosync.service")
    daemon.wait_steps(HEALED)
    assert waits() == before

    program = f"/usr/libexec/{NAME}/wait-for-ring"
    daemon.drop_in(f"[Service]\nExecStartPre=\nExecStartPre=-{program} 5\n")
    conf = machine.path("/etc/corosync/corosync.conf")
    text = conf.read_text(encoding="utf-8")
    absent = "nodelist {\n    node {\n        nodeid: 2\n        ring0_addr: 127.0.0.2\n    }\n"
    conf.write_text(text.replace("nodelist {\n", absent), encoding="utf-8")
    try:
        daemon.systemctl("kill", "--signal=KILL", "corosync.service")
        waiting = "it is activating (start-pre): it waits until corosync has formed its ring"
        wait_until(lambda: ("warning", waiting) in unit_findings(machine), LIMIT_S, waiting)
        daemon.wait_steps(HEALED + HEALED)
        [line] = waits()[len(before):]
        assert line.startswith("INFO: wait-for-ring: nodes in the ring: 1 of 2, waited ")
        daemon.systemctl("restart", UNIT)
        daemon.wait_steps(HEALED + HEALED + HEALED)
        assert waits() == [*before, line]
    finally:
        conf.write_text(text, encoding="utf-8")
        machine.run("systemctl", "stop", "corosync")


def test_daemon_stops_before_corosync_and_starts_with_it(daemon):
    daemon.systemctl("enable", UNIT)
    daemon.systemctl("stop", "corosync.service")
    assert daemon.steps() == STOPPED
    assert not daemon.is_active()
    stopped = int(daemon.property("InactiveEnterTimestampMonotonic"))
    assert stopped < int(daemon.property("InactiveEnterTimestampMonotonic", "corosync.service"))
    daemon.systemctl("start", "corosync.service")
    daemon.wait_steps(HEALED)
    daemon.systemctl("restart", "corosync.service")
    daemon.wait_steps(HEALED + HEALED)


def test_corosync_that_cannot_start_ends_the_attempts(machine, daemon):
    daemon.systemctl("enable", UNIT)
    machine.shell("mv /etc/corosync/corosync.conf /run; systemctl kill --signal=KILL corosync")
    # While an attempt waits for corosync the daemon is inactive, too, but has a job.
    wait_until(
        lambda: daemon.property("ActiveState") == "inactive" and not daemon.property("Job"),
        LIMIT_S, "no further attempt",
    )
    machine.shell("mv /run/corosync.conf /etc/corosync; systemctl start corosync")
    daemon.wait_steps(HEALED)


def test_loop_of_failing_starts_ends_visibly(machine, daemon):
    daemon.systemctl("stop", UNIT)
    daemon.systemctl("daemon-reload")  # Forgets the starts so far; the stop alone does for a disabled unit.
    machine.run("systemd-run", "--unit=second", f"/usr/sbin/{NAME}", "-f")
    wait_until(
        lambda: machine.run("busctl", "status", BUS_NAME, check=False).returncode == 0,
        LIMIT_S, "the second daemon has the name",
    )
    daemon.systemctl("start", UNIT, check=False)
    try:
        wait_until(lambda: daemon.property("SubState") == "failed", LIMIT_S, "given up")
        assert int(daemon.property("NRestarts")) == 10  # The last one is refused.
        given_up = "it is failed (failed) after 10 restarts: exit-code"
        assert ("critical", given_up) in unit_findings(machine)
    finally:
        machine.run("systemctl", "stop", "second")


def test_doctor_knows_how_the_unit_stands(machine, daemon):
    enabled = ("ok", "it is enabled: started at boot, and with corosync")
    running = ("ok", "it is active (running)")
    daemon.systemctl("enable", UNIT)
    assert unit_findings(machine) == [enabled, running]
    machine.run("touch", daemon.property("FragmentPath"))
    changed = ("warning", "its file has changed, and systemd has not read it since")
    assert unit_findings(machine) == [enabled, changed, running]
    daemon.systemctl("daemon-reload")
    daemon.systemctl("disable", "--now", UNIT)
    assert unit_findings(machine) == [
        ("warning", "it is not started at boot: disabled"), ("critical", "it is inactive (dead)")
    ]
    machine.run("systemctl", "mask", "--runtime", UNIT)
    try:
        [masked] = unit_findings(machine)
        assert masked == ("critical", "it is masked: nothing can start it")
    finally:
        machine.run("systemctl", "unmask", "--runtime", UNIT)


def test_journal_has_the_lines_with_their_priorities(machine, daemon):
    machine.write(f"{RUN_DIR}/30-cannot-be-executed.run", STEP)
    machine.write(f"{RUN_DIR}/40-talks.run", TALKS, mode=0o755)
    daemon.systemctl("restart", UNIT)
    wanted = {"INFO: Starting": "6", "ERR(run_next):": "3", "said": "6", "lamented": "5"}

    def found():
        entries = [(entry["MESSAGE"], entry["PRIORITY"]) for entry in daemon.journal()]
        return {
            text: {priority for message, priority in entries if message.startswith(text)}
            for text in wanted
        }

    wait_until(
        lambda: found() == {text: {priority} for text, priority in wanted.items()},
        LIMIT_S, "the lines", explain=lambda: str(found()),
    )


def test_steps_reach_the_node_and_not_a_sandbox(machine, daemon):
    unit = "[Service]\nExecStart=/bin/sleep infinity\n"
    machine.write("/etc/systemd/system/managed.service", unit)
    machine.write(
        f"{RUN_DIR}/05-real.run",
        "#!/bin/sh -e\n[ $1 = start ] || exit 0\n"
        "mount -t tmpfs tmpfs /mnt\n"
        "ip address replace 192.0.2.7/32 dev lo\n"
        "systemctl start managed\n",
        mode=0o755,
    )
    machine.run("systemctl", "daemon-reload")
    daemon.systemctl("restart", UNIT)
    wait_until(
        lambda: daemon.property("ActiveState", "managed.service") == "active", LIMIT_S, "started",
    )
    machine.run("mountpoint", "/mnt")
    assert "192.0.2.7/32" in machine.output("ip", "address", "show", "dev", "lo")
    daemon.systemctl("stop", UNIT)
    assert daemon.property("ActiveState", "managed.service") == "active"


def test_example_step_keeps_a_service_where_the_daemon_runs(machine, daemon):
    service = "example.service"
    settings = "/etc/default/duskvale-service"
    step = f"{RUN_DIR}/50-service.run"

    def wait_started(after):
        """The service's pid, once that is another."""
        def pid():
            found = daemon.property("MainPID", service)
            return found if found not in (after, "0") else None

        return wait_until(pid, LIMIT_S, "the service was started")

    def is_stopped():
        return daemon.property("ActiveState", service) == "inactive"

    def twice(action):
        return [machine.run(step, action, check=False).returncode for _ in range(2)]

    machine.write(
        f"/etc/systemd/system/{service}",
        "[Unit]\nStartLimitIntervalSec=0\n[Service]\nExecStart=/bin/sleep infinity\n",
    )
    machine.write(settings, f'UNITS="{service}"\n')
    machine.run("install", f"/usr/share/doc/{NAME}/examples/run.d/50-service.run", step)
    machine.run("systemctl", "daemon-reload")
    daemon.systemctl("restart", UNIT)
    pid = wait_started(after=None)
    assert twice("start") == [0, 0]
    assert daemon.property("MainPID", service) == pid
    for signal, unit in ("KILL", UNIT), ("ABRT", UNIT), ("HUP", UNIT), ("KILL", "corosync"):
        daemon.systemctl("kill", "--kill-who=main", f"--signal={signal}", unit)
        pid = wait_started(after=pid)
    daemon.systemctl("stop", UNIT)
    assert is_stopped()
    assert twice("stop") == [0, 0]
    daemon.systemctl("start", UNIT)
    wait_started(after=pid)
    daemon.drop_in("[Service]\nRestart=no\n")
    daemon.systemctl("kill", "--kill-who=main", "--signal=KILL", UNIT)
    wait_until(is_stopped, LIMIT_S, "the service was stopped")

    machine.write(settings, f'UNITS="{service} none.service"\n')
    assert twice("start") == [5, 5]  # that of systemctl
    assert not is_stopped()


def test_start_and_stop_have_the_same_surroundings(machine, daemon):
    machine.write(
        f"{RUN_DIR}/10-first.run",
        "#!/bin/sh\nexec >/run/part\n"
        "pwd; umask; id -u; echo $PATH $LC_ALL; grep Sig[BI] /proc/self/status\n"
        "mv /run/part /run/$1\n",
        mode=0o755,
    )
    daemon.systemctl("restart", UNIT)
    wait_until(lambda: machine.path("/run/start").exists(), LIMIT_S, "started")
    daemon.systemctl("stop", UNIT)
    start, stop = (machine.output("cat", f"/run/{name}") for name in ("start", "stop"))
    assert start == stop
    directory, umask, user, variables, *_signals = start.splitlines()
    assert (directory, umask, user) == ("/", "0022", "0")
    assert variables == "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin C.UTF-8"
