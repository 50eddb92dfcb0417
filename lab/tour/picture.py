"""The tour as a picture: for each act a bar of the nodes that answered the client, and the gaps."""

from html import escape

COLOURS = {"node1": "#3b78b5", "node2": "#e0a030", "node3": "#4d9960", None: "#c02020"}
LEFT, SCALE_WIDTH, RIGHT, ROW, TOP = 210, 470, 160, 26, 34
FRAME = """<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}"
  viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="13" role="img">
<title>{title}</title>
<rect width="100%" height="100%" fill="white"/>
{body}
</svg>
"""


def text(x, y, words, anchor="start", weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-weight="{weight}">'
            f'{escape(words)}</text>')


def box(x, y, width, height, colour):
    return (f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}"'
            f' fill="{colour}"/>')


def draw(acts):
    """The text of an SVG; an act is (title, start, end, changes, what is said of the silence)."""
    longest = max(end - start for _, start, end, _, _ in acts)
    scale = SCALE_WIDTH / longest
    bottom = TOP + ROW * len(acts)
    parts = [text(LEFT, 20, "Who answered the client, since each act began", weight="bold")]
    gaps = []
    for row, (title, start, end, changes, silence) in enumerate(acts):
        y = TOP + ROW * row
        parts.append(text(LEFT - 8, y + 16, title, "end"))
        ends = [change.time for change in changes[1:]] + [end]
        for change, until in zip(changes, ends):
            x, width = LEFT + (change.time - start) * scale, (until - change.time) * scale
            # What is shorter than a line can be is still to be seen, over its neighbours.
            found = gaps if change.answer is None else parts
            found.append(box(x, y + 4, max(width, 1.5), ROW - 8, COLOURS[change.answer]))
        parts.append(text(LEFT + (end - start) * scale + 8, y + 16, silence))
    for second in range(0, int(longest) + 1, 2):
        x = LEFT + second * scale
        parts.append(box(x, bottom, 1, 5, "black") + text(x, bottom + 18, f"{second} s", "middle"))
    x = LEFT
    for name, colour in COLOURS.items():
        parts.append(box(x, bottom + 30, 14, 14, colour))
        parts.append(text(x + 20, bottom + 42, name or "no answer"))
        x += 90
    return FRAME.format(width=LEFT + SCALE_WIDTH + RIGHT, height=bottom + 56,
                        title="What a client of the demo's cluster saw",
                        body="\n".join(parts + gaps))
