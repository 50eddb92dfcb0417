#!/usr/bin/python3
"""draw.py: writes the pictures of docs/architecture.md beside itself. The pictures of measurements
come from ./demo and bench/run.
"""

import pathlib
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parents[1]))
from lab.tour.picture import FRAME, box, text  # noqa: E402  found by the line before

HEAD = """<defs>
<marker id="head" markerWidth="8" markerHeight="8" refX="7" refY="4" orient="auto-start-reverse">
<path d="M0,0 L8,4 L0,8 z"/></marker></defs>"""
PLAIN, SERVES, LOST = "#e8edf3", "#cfe6d2", "#f3d6d6"


def arrow(x, y, to_x, to_y, words="", both=False):
    ends = 'marker-end="url(#head)"' + (' marker-start="url(#head)"' if both else "")
    label = text((x + to_x) / 2, (y + to_y) / 2 - 5, words, "middle") if words else ""
    return f'<path d="M{x},{y} L{to_x},{to_y}" stroke="black" {ends}/>' + label


def panel(x, y, width, height, lines, colour=PLAIN):
    """A box with centred lines, the first in bold."""
    top = y + height / 2 - 8 * len(lines) + 12
    return box(x, y, width, height, colour) + "".join(
        text(x + width / 2, top + 16 * row, words, "middle", "normal" if row else "bold")
        for row, words in enumerate(lines))


def write(name, title, width, height, parts):
    body = "\n".join([HEAD, *parts])
    picture = FRAME.format(width=width, height=height, title=title, body=body)
    (HERE / f"{name}.svg").write_text(picture, encoding="utf-8")


def structure():
    frame = '<rect x="20" y="60" width="700" height="330" fill="none" stroke="black"/>'
    write("structure", "A node, its programs and the other nodes", 740, 415, [
        '<g transform="translate(0,-50)">', frame, text(32, 80, "node", weight="bold"),
        panel(40, 95, 150, 44, ["duskvalectl", "what operators use"]),
        panel(215, 95, 250, 44, ["systemd", "starts both daemons again"]),
        panel(490, 95, 210, 44, ["the services", "address, web server, volume"], SERVES),
        box(40, 165, 660, 16, "#d9d9d9"), text(48, 178, "system bus"),
        panel(40, 215, 200, 60, ["duskvale-keeper", "keeps, watches and moves", "mastership"]),
        panel(290, 215, 220, 60, [
            "duskvale-corosync-bridge", "elects one master,", "runs the steps"]),
        panel(560, 215, 140, 60, ["steps", "*.run", "start or stop"]),
        panel(40, 330, 660, 40, ["corosync: the ring, the process group, quorum"]),
        arrow(115, 139, 115, 163, both=True), arrow(340, 139, 340, 163, both=True),
        arrow(140, 213, 140, 183, both=True), arrow(400, 213, 400, 183, both=True),
        arrow(510, 245, 558, 245), arrow(640, 215, 640, 141),
        arrow(140, 328, 140, 277), text(150, 308, "quorum, nodes"),
        arrow(400, 328, 400, 277, both=True),
        text(410, 308, 'group "duskvale": one order of messages'),
        arrow(370, 418, 370, 372, both=True), text(380, 412, "one or two links"),
        panel(190, 420, 360, 34, ["the other nodes, with the same programs"]),
        '</g>',
    ])


def sequence(name, title, lanes, rows):
    """Lanes from left to right and time from the top: a row is (height, parts), and a part is drawn
    at its y."""
    left, distance, y = 110, 200, 60
    parts = []
    for height, *drawn in rows:
        parts += [part(lambda lane: left + distance * lane, y) for part in drawn]
        y += height
    lines = [f'<path d="M{left + distance * lane},46 V{y}" stroke="#808080" stroke-dasharray="4"/>'
             for lane in range(len(lanes))]
    lines += [panel(left + distance * lane - 85, 8, 170, 38, words)
              for lane, words in enumerate(lanes)]
    write(name, title, left * 2 + distance * (len(lanes) - 1), y + 12, lines + parts)


def note(lane, *lines, colour=PLAIN, wide=170):
    height = 16 * len(lines) + 8
    return lambda x, y: box(x(lane) - wide / 2, y, wide, height, colour) + "".join(
        text(x(lane), y + 16 * row + 16, words, "middle") for row, words in enumerate(lines))


def message(lane, to, words):
    return lambda x, y: arrow(x(lane), y + 14, x(to), y + 14, words)


def election():
    sequence("election", "An election after the loss of the master", [
        ["node 1", "master"], ["node 2", "slave, counter 57"], ["node 3", "slave, counter 57"]], [
        (40, note(0, "loses its power", colour=LOST)),
        (36, note(1.5, "corosync reports that node 1 left", wide=300)),
        (24, message(1, 2, "election start")),
        (36, message(2, 1, "election start")),
        (56, note(1.5, "Each start that is delivered: forget the proposals,",
                  "begin the 500 ms again, propose yourself", wide=360)),
        (24, message(1, 2, "proposal: counter 57")),
        (36, message(2, 1, "proposal: counter 57")),
        (52, note(1.5, "500 ms after the last start: a tie,", "and the first one delivered wins",
                  wide=300)),
        (36, message(1, 2, "take-over")),
        (30, note(1, "master: steps, start", colour=SERVES), note(2, "slave: steps, stop")),
    ])


def failover():
    sequence("failover", "A failover with keepers: the master loses its cable", [
        ["node 1", "keeper"], ["node 1, master", "daemon and unit"], ["node 2", "daemon and unit"],
        ["node 2", "keeper"]], [
        (40, note(1.5, "the cable of node 1 is cut; node 2 still reaches node 3", colour=LOST,
                  wide=380)),
        (40, note(0.5, "corosync: no quorum", wide=300),
         note(2.5, "corosync: node 1 left", wide=300)),
        (44, message(0, 1, "SIGKILL"), note(2, "election: 0.5 s")),
        (60, note(1, "steps, stop;", "the next start", "waits for quorum", colour=LOST),
         note(2, "master:", "steps, start", colour=SERVES)),
        (40, message(3, 2, "prefer: node 2 stays")),
        (40, note(1.5, "the cable is repaired; the ring has all nodes again", wide=380)),
        (40, note(0.5, "corosync: quorum", wide=300)),
        (36, note(1, "the daemon starts")),
        (36, message(1, 2, "joins: an election")),
        (30, note(1, "slave: steps, stop"), note(2, "stays master", colour=SERVES)),
    ])


structure()
election()
failover()
