"""The results as pictures, drawn to a file without a display."""

import math

import matplotlib

from .peers import PEERS
from .report import figures
from .rows import ROWS

matplotlib.use("svg")
# The same figures make the same file.
matplotlib.rcParams["svg.hashsalt"] = "bench"

from matplotlib import pyplot  # noqa: E402  chooses its output at once

_FAILOVER = ["move", "stop", "daemon", "power"]
_BAR = 0.16
_LEAST_S = 1e-3  # what a client that asks once a millisecond can see


def draw(results, directory):
    """All rows, and for the README those in which a node fails or is relieved."""
    _draw(results, list(ROWS), directory / "outages.svg")
    _draw(results, _FAILOVER, directory / "failover.svg")


def _draw(results, rows, path):
    rows = [row for row in rows if any(row == key for key, _ in results)]
    figure, axes = pyplot.subplots(figsize=(8, 0.6 + 0.9 * len(rows)), layout="constrained")
    for index, (peer, its) in enumerate(PEERS.items()):
        found = [(y, figures(results[row, peer])) for y, row in enumerate(rows)
                 if (row, peer) in results]
        if found:
            _bars(axes, found, (index - (len(PEERS) - 1) / 2) * _BAR, f"C{index}", its.name)
    labels = ["limit: corosync alone, and an election"]
    for y, row in enumerate(rows):
        limits = [of["limit"] for (key, _), runs in results.items() if key == row
                  for of in [figures(runs)] if of["limit"] is not None]
        if limits:
            limit = max(min(limits), _LEAST_S) * 1e3
            axes.plot([limit] * 2, [y - 0.45, y + 0.45], "k:", linewidth=1,
                      label=labels.pop() if labels else None)
    axes.set_xscale("log")
    axes.set_xlim(left=_LEAST_S * 1e3)
    axes.set_xlabel("longest time without an answer, ms: median, and a line to the largest")
    axes.set_yticks(range(len(rows)), [ROWS[row].name for row in rows])
    axes.invert_yaxis()
    axes.legend(fontsize="small", loc="upper center", bbox_to_anchor=(0.4, -0.12), ncols=3)
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def _bars(axes, found, offset, colour, label):
    """An outage that did not end has no bar, but a word."""
    ended = [(y + offset, of) for y, of in found if math.isfinite(of["median"])]
    for y, of in found:
        if not math.isfinite(of["median"]):
            axes.text(_LEAST_S * 1e3, y + offset, "for good", color=colour, fontsize="x-small",
                      verticalalignment="center")
    medians = [max(of["median"], _LEAST_S) * 1e3 for _, of in ended]
    axes.barh([y for y, _ in ended], medians, _BAR, color=colour, label=label)
    axes.hlines([y for y, _ in ended], medians, [
        max(of["maximum"] if math.isfinite(of["maximum"]) else of["median"], _LEAST_S) * 1e3
        for _, of in ended], color=colour, linewidth=1)
