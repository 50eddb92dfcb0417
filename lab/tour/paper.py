"""The tour's print: plain text, with colours on a terminal that wants them."""

import os
import sys
import textwrap

WIDTH = 88
_CODES = {"title": "1", "time": "2", "node1": "36", "node2": "32", "node3": "35", "client": "33"}


class Paper:
    def __init__(self, stream=sys.stdout):
        self._stream = stream
        self._coloured = stream.isatty() and "NO_COLOR" not in os.environ

    def title(self, text):
        self._print(self._in("title", f"\n{text}"))

    def prose(self, text):
        self._print(textwrap.indent(textwrap.fill(text, WIDTH - 2), "  "))

    def event(self, milliseconds, who, text):
        names = " ".join(self._in(name, name) for name in who.split())
        gap = " " * max(1, 19 - len(who))
        self._print(f"  {self._in('time', f'{milliseconds:8.0f} ms')}  {names}{gap} {text}")

    def result(self, name, text):
        self._print(f"  {'':8}     {self._in('title', name + ':')} {text}")

    def table(self, heading, rows):
        lines = [heading, *rows]
        widths = [max(len(line[column]) for line in lines) for column in range(len(heading))]
        for line in lines:
            cells = (cell.ljust(width) for cell, width in zip(line, widths))
            self._print("  " + "   ".join(cells).rstrip())

    def text(self, text):
        self._print(textwrap.indent(text, "  "))

    def _in(self, name, text):
        code = _CODES.get(name)
        return f"\033[{code}m{text}\033[0m" if self._coloured and code else text

    def _print(self, text):
        print(text, file=self._stream, flush=True)
