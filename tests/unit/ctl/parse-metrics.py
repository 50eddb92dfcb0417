"""What real parsers of both text formats read from standard input, a sample a line."""

import sys

from prometheus_client.openmetrics.parser import text_string_to_metric_families as openmetrics
from prometheus_client.parser import text_string_to_metric_families as older


def samples(parse, text):
    for family in parse(text):
        assert family.type == "gauge" and family.documentation, family
        for name, labels, value, *_ in family.samples:
            shown = ",".join(f"{key}={labels[key]}" for key in sorted(labels))
            yield f"{name}{{{shown}}} {value:g}" if shown else f"{name} {value:g}"


text = sys.stdin.read()
read = sorted(samples(openmetrics, text))
assert read == sorted(samples(older, text))
print("\n".join(read))
