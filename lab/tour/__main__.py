"""./demo: a tour of a real cluster of three nodes on this machine."""

import argparse
import os
import pathlib
import sys

from .. import diagnosis
from ..cluster import Lab
from ..host import Host
from ..waiting import LabError
from .paper import Paper
from .story import Story

NAME = "demo"


def main():
    parser = argparse.ArgumentParser(prog="demo", description="A tour of a real cluster.")
    parser.add_argument("--keep", action="store_true", help="leave the cluster up at the end")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    try:
        tour(options)
    except LabError as error:
        sys.exit(f"demo: {error}")
    except KeyboardInterrupt:
        sys.exit(130)


def tour(options):
    if options.keep and Host.find(NAME):
        raise LabError(f"the lab '{NAME}' is up already; end it with: lab/lab --name {NAME} down")
    paper = Paper()
    paper.text(
        "Booting three machines in memory, each with its own systemd, journal, bus and corosync ..."
    )
    name = NAME if options.keep else f"{NAME}-{os.getpid()}"
    with Lab(name, nodes=3, build=options.build, keepers=(1, 2, 3)) as lab:
        story = Story(lab, paper)
        story.run()
        file = pathlib.Path(options.build, "demo.svg")
        file.write_text(story.picture(), encoding="utf-8")
        paper.text(f"\nA picture of this run: {file}")
        if options.keep:
            lab.detach()
            paper.title("The cluster stays up")
            paper.text(diagnosis.table(lab))
            paper.text(KEPT)


KEPT = f"""
To look around:
  lab/lab --name {NAME} on 1 duskvalectl                     who is master, by node 1
  lab/lab --name {NAME} on 1 duskvalectl take-over --wait    make it node 1
  lab/lab --name {NAME} on 2 duskvalectl monitor             what happens, as it happens
  lab/lab --name {NAME} on 1                                 a shell on node 1; duskvalectl --help
  lab/lab --name {NAME} on 1 duskvalectl why                 why it is that node
  lab/lab --name {NAME} on 1 journalctl -u duskvale-corosync-bridge
  lab/lab --name {NAME} kill 1                               its daemon; more: lab/lab --help
  lab/lab --name {NAME} down                                 the end of it"""

main()
