"""The command "lab": one function for each verb, and the table that says what the verbs take."""

import argparse
import os
import sys

from . import diagnosis, host
from .chaos.run import chaos
from .cluster import BUILD, DEMO_BUILD, Lab
from .paths import DAEMON
from .processes import environment, inside
from .waiting import LabError

DEFAULT_NAME = "lab"


def up(options):
    build = options.build or next(filter(os.path.exists, (BUILD, DEMO_BUILD)), BUILD)
    keepers = range(1, options.nodes + 1) if options.keepers else ()
    lab = Lab(options.name, options.nodes, build, token=options.token, package=options.package,
              keepers=keepers)
    with lab:
        if options.start:
            lab.wait_master()
        else:
            lab.reset()
        lab.detach()
        print(diagnosis.table(lab))


def down(options):
    found = host.Host.find(options.name)
    if found:
        found.end()


def status(options):
    print(diagnosis.table(Lab.attach(options.name)))


def list_labs(_options):
    for name in host.names():
        print(name)


def on(options):
    lab = Lab.attach(options.name)
    node = lab.client() if options.node == "client" else lab.node(_number(options.node))
    argv = inside(node.init, options.command or [os.environ.get("SHELL", "/bin/sh")])
    os.environ.update(environment())
    sys.stdout.flush()
    os.execvp(argv[0], argv)


def show_log(options):
    node = Lab.attach(options.name).node(options.node)
    follow = ["--follow"] if options.follow else []
    os.execvp("journalctl", [
        "journalctl", f"--directory={node.journal_path}", f"--unit={options.unit}", "--no-hostname",
        "--output=short-monotonic", "--no-pager", "--all", *follow])


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
        (("--build",), {"metavar": "DIRECTORY", "help": "build directory to install from (build)"}),
        (("--package",), {"metavar": "FILE.deb", "help": "install this on the nodes instead"}),
        (("--keepers",), {"action": "store_true", "help": "with the keeper on each node"}),
        (("--token",),
         {"type": int, "default": 1000, "metavar": "MS", "help": "corosync's (1000)"}),
        (("--no-start",), {"dest": "start", "action": "store_false", "help": "stop the daemons"}),
    ]),
    "chaos": (chaos, "random faults on a lab of its own, and what must hold after each burst", [
        (("-n", "--nodes"), {"type": int, "default": 3, "help": "how many nodes (3)"}),
        (("--keepers",),
         {"type": int, "default": 99, "metavar": "N", "help": "on the first N nodes (all)"}),
        (("--minutes",), {"type": float, "default": 60.0, "help": "for how long (60)"}),
        (("--seed",), {"type": int, "help": "of the choice of faults; printed at the start"}),
        (("--build",), {"metavar": "DIRECTORY", "default": BUILD, "help": "what to run (build)"}),
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
    "heal": (_verb("heal"), "repair the node's network cable", [_NODE]),
    "start": (_verb("start"), "start the daemon: systemctl start", [_NODE]),
    "stop": (_verb("stop"), "stop the daemon: systemctl stop", [_NODE]),
    "kill": (_verb("kill"), "kill the daemon (SIGKILL); its unit starts it again", [_NODE]),
    "pause": (_verb("pause"), "stop the daemon in its tracks (SIGSTOP)", [_NODE]),
    "resume": (_verb("resume"), "let a paused daemon go on (SIGCONT)", [_NODE]),
    "corosync-kill": (
        _verb("kill_corosync"), "kill corosync; the daemon's unit starts both again", [_NODE]
    ),
    "corosync-start": (_verb("start_corosync"), "start corosync, and with it the daemon", [_NODE]),
    "power-off": (_verb("power_off"), "end everything on the node at once", [_NODE]),
    "power-on": (_verb("power_on"), "boot the node", [_NODE]),
    "reboot": (_verb("reboot"), "reboot the node, as from its shell", [_NODE]),
    "log": (show_log, "show the journal of the daemon's unit", [_NODE, _FOLLOW, (
        ("--unit",), {"default": DAEMON, "help": "of another unit: corosync, dbus, lab-signals"})]),
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
        prog="lab", description="A cluster in a box: booted machines with corosync on this one.",
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
