"""The command "lab": one function for each verb, and the table that says what the verbs take."""

import argparse
import os
import sys
import time

from . import diagnosis, state, unit
from .cluster import DAEMON_PATH, DEMO_DAEMON_PATH, Lab
from .processes import SEARCH_PATH, inside
from .waiting import LabError

DEFAULT_NAME = "lab"


def up(options):
    daemon = options.daemon or next(filter(os.path.exists, (DAEMON_PATH, DEMO_DAEMON_PATH)), None)
    lab = Lab(options.name, options.nodes, daemon, options.policy, package=options.package,
              packaged=options.nodes)
    if state.find(options.name):
        raise LabError(f"the lab '{options.name}' is up already")
    with lab:
        if options.supervised:
            for node in lab.nodes:
                node.supervise(unit.rules_on(node))
        if options.start and lab.has_daemon:
            lab.start()
            lab.wait_master()
        lab.detach()
        print(diagnosis.table(lab))
    if not lab.has_daemon:
        print("The daemon is not built; on the nodes there are only corosync and the bus.")


def down(options):
    process = state.find(options.name)
    if process:
        process.end()
    state.forget(options.name)


def status(options):
    lab = Lab.attach(options.name)
    print(diagnosis.table(lab))


def list_labs(_options):
    for name in state.names():
        print(name)


def on(options):
    lab = Lab.attach(options.name)
    node = lab.client() if options.node == "client" else lab.node(_number(options.node))
    argv = inside(node.pid, options.command or [os.environ.get("SHELL", "/bin/sh")])
    # duskvalectl can be called by its name, as on a node that it is installed on.
    if os.path.isabs(node.ctl_path):
        path = os.environ.get("PATH", SEARCH_PATH)
        os.environ["PATH"] = f"{os.path.dirname(node.ctl_path)}:{path}"
    sys.stdout.flush()
    os.execvp(argv[0], argv)


def show_log(options):
    _show(options, options.journal, str)


def show_signals(options):
    _show(options, "signals", str)


def _show(options, journal, form):
    node = Lab.attach(options.name).node(options.node)
    shown = 0
    while True:
        entries = node.journal(journal).entries()
        for entry in entries[shown:]:
            print(f"{entry.time:.6f}  {form(entry.text)}", flush=True)
        shown = len(entries)
        if not options.follow:
            return
        time.sleep(0.1)


def _verb(name):
    """A verb that is a method of a node."""

    def run(options):
        getattr(Lab.attach(options.name).node(options.node), name)()

    return run


_NODE = (("node",), {"type": int, "metavar": "N", "help": "number of the node"})
_FOLLOW = (("-f", "--follow"), {"action": "store_true", "help": "go on as more arrives"})

VERBS = {
    "up": (up, "start a lab and leave it running", [
        (("-n", "--nodes"), {"type": int, "default": 3, "help": "how many nodes (3)"}),
        (("--daemon",), {"help": "path of the daemon (the one that was built)"}),
        (("--policy",), {"help": "path of its bus policy (that of data/)"}),
        (("--package",), {"metavar": "FILE.deb", "help": "install this on the nodes instead"}),
        (("--supervised",), {"action": "store_true",
                             "help": "do what the unit says when a daemon starts or has ended"}),
        (("--no-start",), {"dest": "start", "action": "store_false",
                           "help": "do not start the daemons"}),
    ]),
    "down": (down, "end a lab; nothing of it is left", []),
    "status": (status, "show the nodes", []),
    "list": (list_labs, "show the names of the labs that are up", []),
    "on": (on, "run a command on a node (a shell if none is given)", [
        (("node",), {"metavar": "N", "help": "number of the node, or 'client'"}),
        (("command",), {"nargs": argparse.REMAINDER, "metavar": "COMMAND",
                      "help": "what to run, with its arguments"}),
    ]),
    "cut": (_verb("cut"), "cut the node's network cable", [_NODE]),
    "heal": (_verb("heal"), "mend the node's network cable", [_NODE]),
    "start": (_verb("start"), "start the daemon; supervised, what it requires first", [_NODE]),
    "stop": (_verb("stop"), "end the daemon (SIGTERM); supervised, or its start that is under way", [_NODE]),
    "kill": (_verb("kill"), "kill the daemon (SIGKILL)", [_NODE]),
    "pause": (_verb("pause"), "stop the daemon in its tracks (SIGSTOP)", [_NODE]),
    "resume": (_verb("resume"), "let a paused daemon go on (SIGCONT)", [_NODE]),
    "corosync-kill": (_verb("kill_corosync"), "kill corosync", [_NODE]),
    "corosync-start": (_verb("start_corosync"), "start corosync", [_NODE]),
    "power-off": (_verb("power_off"), "end everything on the node at once", [_NODE]),
    "power-on": (_verb("power_on"), "start the node, without the daemon", [_NODE]),
    "log": (show_log, "show what the daemon wrote", [_NODE, _FOLLOW, (
        ("--of",), {"dest": "journal", "default": "daemon", "metavar": "SERVICE",
                    "choices": ("daemon", "corosync", "bus"), "help": "daemon, corosync or bus"})]),
    "signals": (show_signals, "show the D-Bus signals the daemon sent", [_NODE, _FOLLOW]),
}


def _number(text):
    try:
        return int(text)
    except ValueError as error:
        raise LabError(f"not a node: '{text}'; give a number or 'client'") from error


def parser():
    naming = argparse.ArgumentParser(add_help=False)
    naming.add_argument("--name", default=argparse.SUPPRESS, help="name of the lab (lab)")
    top = argparse.ArgumentParser(
        prog="lab", description="A cluster in a box: real corosync nodes on this machine.",
        parents=[naming],
    )
    verbs = top.add_subparsers(dest="verb", required=True, metavar="VERB")
    for name, (function, text, arguments) in VERBS.items():
        verb = verbs.add_parser(name, help=text, description=text, parents=[naming])
        verb.set_defaults(function=function)
        for flags, settings in arguments:
            verb.add_argument(*flags, **settings)
    return top


def main():
    options = parser().parse_args()
    options.name = getattr(options, "name", DEFAULT_NAME)
    try:
        options.function(options)
    except LabError as error:
        sys.exit(f"lab: {error}")
    except BrokenPipeError:
        sys.exit(1)
    except KeyboardInterrupt:
        sys.exit(130)
