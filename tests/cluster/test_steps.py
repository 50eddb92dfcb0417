"""The run steps on a real cluster: order, roles, failures, and a role change in mid-sequence."""

import re

from support import TRACE, assert_idle, lines, others, steps_held, take_over

from lab.paths import RUN_DIRECTORY


def step_signals(node, since):
    """As ("Begin", step, action), ("End", step, action, status) and ("Done", errors); all texts."""
    return [
        (re.sub("NotifyRunsteps?", "", entry.name),
         *(str(part).removeprefix(RUN_DIRECTORY + "/") for part in entry.arguments))
        for entry in node.signals_since(since) if entry.name.startswith("NotifyRunstep")
    ]


def test_steps_run_in_order_and_a_failing_one_stops_nothing(lab):
    bodies = {"10-first.run": ":", "20-bad.run": "exit 3", "25-dead.run": "kill -9 $$"}
    statuses = dict(zip(bodies, ("0", "768", "9")))
    for node in lab.nodes:
        for name, body in bodies.items():
            node.write_step(name, f"#!/bin/sh\n{body}\n")
        node.file(f"{RUN_DIRECTORY}/27-text.run").touch()
    lab.start()
    master = others(lab, lab.wait_master())[0]
    since = take_over(lab, master.number)
    for node in lab.nodes:
        node.wait_signal("NotifyRunstepsDone", since=since)
        action, role = ("start", "master") if node is master else ("stop", "slave")
        names = sorted(statuses, reverse=node is not master)
        expected = [
            entry for name in names
            for entry in (("Begin", name, action), ("End", name, action, statuses[name]))
        ]
        assert step_signals(node, since) == [*expected, ("Done", "2")]
        *_, last = errors = lines(node, "ERR(", since)
        assert last == "ERR(run_steps_done):run_steps_done: done with 2 errors"
        errors = [line.partition(f"{RUN_DIRECTORY}/")[2] for line in errors]
        how = {"20-bad.run": "exited, status 3", "25-dead.run": "killed by signal 9"}
        assert [error for error in errors if " -- " in error] == [
            f"{name} {role} -- {how[name]}" for name in names if name in how
        ]
        assert len(lines(node, "27-text.run", since)) == 1  # the spawn's error
        assert not node.get("InTransition")


def test_role_change_during_a_sequence_waits_for_its_end(lab):
    lab.start(*TRACE)
    node, rival = others(lab, lab.wait_master())
    with steps_held(node):
        since = take_over(lab, node.number)
        for number in (node.number, rival.number):
            take_over(lab, number)  # Of these only the last is remembered.
        assert step_signals(node, since) == [("Begin", "hold.run", "start")]
        assert (node.get("MasterNodeId"), node.get("InTransition")) == (rival.id, True)
        assert_idle(lab.nodes, ticker=rival)
    lab.wait(lambda: len(step_signals(node, since)) == 6, 10.0, "the second sequence has ended")
    assert step_signals(node, since) == [
        entry for action in ("start", "stop") for entry in (
            ("Begin", "hold.run", action), ("End", "hold.run", action, "0"), ("Done", "0"))
    ]
