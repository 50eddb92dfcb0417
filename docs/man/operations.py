#!/usr/bin/python3
"""operations.py FILE: prints the manual page that is made of the runbook, docs/operations.md.

A page has no title, so its headings begin a level higher, and a table is too wide for it, so each
row becomes an item of a list.
"""

import pathlib
import re
import subprocess
import sys

NAME = """# NAME

duskvale-operations - what to do when a cluster with duskvale-corosync-bridge reports something

# DESCRIPTION
"""
SEE_ALSO = """
# SEE ALSO

duskvalectl(1), duskvale-run-steps(7), duskvale-corosync-bridge(8), duskvale-keeper(8)
"""
# The names of alerts and the texts of the log stay whole.
LAYOUT = ".nh\n.ad l\n"


def listed(match):
    """The rows of a table as a list of definitions; the third column begins with its heading."""
    rows = [[cell.strip() for cell in line.strip("|").split(" | ")]
            for line in match[0].strip().splitlines()]
    [*_, last], _, *rows = rows
    return "\n".join(f"\n{first}\n\n: {'. ' f'{last}: '.join(rest)}\n" for first, *rest in rows)


text = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8").split("\n", 1)[1]
text = re.sub(r"^#(?=#+ )", "", text, flags=re.MULTILINE)
text = re.sub(r"(?:^\|.*\n)+", listed, text, flags=re.MULTILINE)
page = subprocess.run(
    ["lowdown", "-s", "-T", "man", "--nroff-nolinks", "-M", "title=DUSKVALE-OPERATIONS",
     "-M", "section=7"],
    input=NAME + text + SEE_ALSO, stdout=subprocess.PIPE, text=True, check=True).stdout
# mandoc does not have the font for literal text.
print(page.replace(r"\fC", r"\fB").replace(".SH\n", LAYOUT + ".SH\n", 1), end="")
