"""The chart of a run in docs/robustness/ and its figures in docs/robustness.md."""

from __future__ import annotations

import re
import xml.etree.ElementTree as ElementTree
from pathlib import Path

from checks.soak.metrics import Growth, Samples
from tests.support.isolated import ROOT

PAGE = ROOT / "docs" / "robustness.md"
CHART = ROOT / "docs" / "robustness" / "soak.svg"
WIDTH, HEIGHT = 240, 120  # of a panel


def write(samples: Samples, growths: list[Growth], seconds: float, threads: int) -> list[Path]:
    """Write both files and return their paths."""
    _draw(samples, growths)
    lines = [
        f"{samples.calls[-1]:,.0f} calls from {threads} threads in {seconds:.0f} s:",
        "",
        "| metric | second quarter | last quarter | growth | limit |",
        "|---|---:|---:|---:|---:|",
    ]
    for metric, before, after, limit in growths:
        digits = ".2f" if metric.short == "MiB" else ",.0f"
        figures = (f"{value:{digits}}" for value in (before, after, after - before, limit))
        lines.append(f"| {metric.name} | {' | '.join(figures)} |")
    block = "".join(f"{line}\n" for line in lines)
    place = r"(?s)(?<=<!-- soak -->\n).*?(?=<!-- /soak -->)"
    text, count = re.subn(place, lambda _: block, PAGE.read_text())
    assert count == 1, f"{PAGE} has no place for the figures"
    PAGE.write_text(text)
    return [CHART, PAGE]


def _draw(samples: Samples, growths: list[Growth]) -> None:
    """Draw a panel for each metric that is not constantly 0: the samples, the median, the limit."""
    svg = ElementTree.Element("svg", xmlns="http://www.w3.org/2000/svg", viewBox="0 0 720 400")
    svg.set("font-family", "sans-serif")
    svg.set("font-size", "11")
    for number, (growth, values) in enumerate(zip(growths, samples.values)):
        if not any(values):
            continue
        x, y = 80 + 340 * (number % 2), 30 + 190 * (number // 2)
        limit = growth.before + growth.limit
        low, high = min(values), max(*values, limit)
        scale = HEIGHT / (high - low)
        for levels, color in (
            (values, "#0072b2"),
            ([growth.before] * 2, "#009e73"),
            ([limit] * 2, "#c1272d"),
        ):
            points = " ".join(
                f"{x + i * WIDTH / (len(levels) - 1):.1f},{y + (high - level) * scale:.1f}"
                for i, level in enumerate(levels)
            )
            ElementTree.SubElement(svg, "polyline", points=points, stroke=color, fill="none")
        for left, top, text in (
            (x, y - 12, growth.metric.name),
            (x - 70, y + 8, f"{high:,.1f}"),
            (x - 70, y + HEIGHT, f"{low:,.1f}"),
            (x, y + HEIGHT + 16, f"{samples.calls[0]:,.0f} to {samples.calls[-1]:,.0f} calls"),
        ):
            ElementTree.SubElement(svg, "text", x=str(left), y=str(top)).text = text
    ElementTree.indent(svg)
    CHART.parent.mkdir(exist_ok=True)
    ElementTree.ElementTree(svg).write(CHART)
