"""The results of a run as JSON and as tables of Markdown."""

import json
import math
import statistics

from .peers import PEERS
from .rows import ROWS


def percentile(values, share):
    """The smallest of the values that this share of them does not exceed."""
    return sorted(values)[math.ceil(share * len(values)) - 1]


def figures(runs):
    silent = [run.silent for run in runs]
    limits = [run.limit for run in runs if run.limit is not None]
    return {
        "runs": len(runs),
        "median": statistics.median(silent),
        "percentile_95": percentile(silent, 0.95),
        "maximum": max(silent),
        "on_two_nodes": sum(run.twice > 0 for run in runs) / len(runs),
        "on_two_nodes_longest": max(run.twice for run in runs),
        "limit": statistics.median(limits) if limits else None,
    }


def as_json(machine, results, costs):
    """Seconds; null for a silence that did not end."""
    def finite(value):
        return None if isinstance(value, float) and math.isinf(value) else value

    rows = [
        {"row": row, "peer": peer, **{key: finite(value) for key, value in figures(runs).items()},
         "silences": [finite(run.silent) for run in runs],
         "on_two_nodes_seconds": [run.twice for run in runs]}
        for (row, peer), runs in results.items()
    ]
    rest = [{"peer": peer, "role": role, **cost._asdict()}
            for (peer, role), cost in costs.items()]
    return json.dumps({"schema": 1, "machine": machine, "rows": rows, "rest": rest}, indent=1)


def _ms(seconds):
    if seconds is None:
        return "-"
    return "for good" if math.isinf(seconds) else f"{seconds * 1e3:.{0 if seconds > 0.01 else 1}f}"


def _line(*cells):
    return f"| {' | '.join(map(str, cells))} |\n"


def as_markdown(machine, results, costs):
    text = f"{machine}\n\n" + _line(
        "What happens", "With", "Runs", "No answer, ms: median", "95 %", "most",
        "On two nodes: share of the runs", "most, ms", "Limit, ms") + _line(*["---"] * 9)
    for row in ROWS:
        for peer in PEERS:
            if (row, peer) in results:
                of = figures(results[row, peer])
                text += _line(
                    ROWS[row].name, PEERS[peer].name, of["runs"], _ms(of["median"]),
                    _ms(of["percentile_95"]), _ms(of["maximum"]), f"{of['on_two_nodes']:.0%}",
                    _ms(of["on_two_nodes_longest"]), _ms(of["limit"]))
    if costs:
        text += "\n" + _line("At rest", "Role", "PSS, MiB", "Processor, s in an hour",
                             "Wake-ups a second", "Log, bytes a day") + _line(*["---"] * 6)
    for (peer, role), cost in costs.items():
        text += _line(PEERS[peer].name, role, f"{cost.pss / 2**20:.1f}", f"{cost.processor:.1f}",
                      f"{cost.wake_ups:.1f}", f"{cost.log:.0f}")
    return text
