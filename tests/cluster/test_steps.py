"""The run steps on a real cluster: order, roles, failures, and a role change in mid-sequence."""

import errno
import os
import re

from support import RUN_DIRECTORY, TRACE, assert_idle, lines, others, take_over

NOTE = '#!/bin/sh\necho "${0##*/} $1" >>/run/steps\n'
GATE = "/run/gate"


def step_signals(node, since):
    """As ("Begin", step, action), ("End", step, action, status) and ("Done", errors); all texts."""
    return [
        (re.sub("NotifyRunsteps?", "", entry.name),
         *(str(part).removeprefix(RUN_DIRECTORY + "/") for part in entry.arguments))
        for entry in node.signals_since(since) if entry.name.startswith("NotifyRunstep")
    ]


def test_steps_run_in_order_and_a_failing_one_stops_nothing(lab):
    for node in lab.nodes:
        for name in ("30-last.run", "10-first.run", ".hidden.run", "15-no.run.bak", "17-no.sh"):
            node.write_step(name, NOTE)
        node.write_step("20-bad.run", NOTE + "exit 3\n")
        node.write_step("25-dead.run", NOTE + "kill -9 $$\n")
        node.write_step("27-text.run", NOTE)
        node.file(f"{RUN_DIRECTORY}/27-text.run").chmod(0o644)
    lab.start()
    master = others(lab, lab.wait_master())[0]
    for node in lab.nodes:
        node.file("/run/steps").unlink()
    since = take_over(lab, master.number)

    statuses = {"10-first.run": 0, "20-bad.run": 3 << 8, "25-dead.run": 9, "30-last.run": 0}
    for node in lab.nodes:
        node.wait_signal("NotifyRunstepsDone", since=since)
        action, role = ("start", "master") if node is master else ("stop", "slave")
        names = sorted(statuses, reverse=node is not master)
        expected = [
            entry for name in names
            for entry in (("Begin", name, action), ("End", name, action, str(statuses[name])))
        ]
        assert step_signals(node, since) == [*expected, ("Done", "2")]
        ran = node.file("/run/steps").read_text(encoding="utf-8").splitlines()
        assert ran == [f"{name} {action}" for name in names]
        *_, last = errors = lines(node, "ERR(", since)
        assert last == "ERR(run_steps_done):run_steps_done: done with 2 errors"
        errors = [line.partition(f"{RUN_DIRECTORY}/")[2] for line in errors]
        how = {"20-bad.run": "exited, status 3", "25-dead.run": "killed by signal 9"}
        assert [error for error in errors if " -- " in error] == [
            f"{name} {role} -- {how[name]}" for name in names if name in how
        ]
        assert len(lines(node, "27-text.run", since)) == 1  # the spawn's error
        assert not node.get("InTransition")


def open_gate(lab, node):
    """Lets the step that waits at the gate go on, once it waits there."""

    def opened():
        try:
            return os.open(node.file(GATE), os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            assert error.errno == errno.ENXIO
            return None  # Nobody reads from it.

    writer = lab.wait(opened, 10.0, f"a step of {node} waits")
    os.write(writer, b"\n")
    os.close(writer)


def test_role_change_during_a_sequence_waits_for_its_end(lab):
    lab.start(*TRACE)
    node, rival = others(lab, lab.wait_master())
    os.mkfifo(node.file(GATE))
    # Again when it read nothing: the one who opened it for the step before may not have left yet.
    node.write_step("gate.run", f"#!/bin/sh\nuntil read -r line <{GATE}; do :; done\n")
    since = take_over(lab, node.number)
    for number in (node.number, rival.number):
        take_over(lab, number)  # Of these only the last is remembered.
    assert step_signals(node, since) == [("Begin", "gate.run", "start")]
    assert (node.get("MasterNodeId"), node.get("InTransition")) == (rival.id, True)
    assert_idle(lab.nodes, ticker=rival)

    open_gate(lab, node)
    node.wait_signal("NotifyRunstepBegin", f"{RUN_DIRECTORY}/gate.run", "stop", since=since)
    assert node.get("InTransition") is False  # It ended with the first sequence.
    open_gate(lab, node)
    lab.wait(lambda: len(step_signals(node, since)) == 6, 10.0, "the second sequence has ended")
    assert step_signals(node, since) == [
        entry for action in ("start", "stop") for entry in (
            ("Begin", "gate.run", action), ("End", "gate.run", action, "0"), ("Done", "0"))
    ]
    pending = [line for line in lines(node, "INFO: ", since) if "pending" in line]
    remembered = "INFO: Already running -- remember pending transition (is_master=%d)"
    assert pending == [
        remembered % 1, remembered % 0, "INFO: Run pending transition (is_master=0)"
    ]
    node.file(GATE).unlink()
