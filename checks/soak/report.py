"""The picture of a run in docs/robustness/, and its figures in docs/robustness.md."""

from __future__ import annotations

import re
from pathlib import Path

from checks.soak.metrics import COUNTS, Growth, Record
from tests.support.isolated import ROOT

PAGE = ROOT / "docs" / "robustness.md"
PICTURE = ROOT / "docs" / "robustness" / "soak.svg"
PLOTTED = 4  # the first counts; the others are nought throughout


def write(record: Record, growths: list[Growth], seconds: float, threads: int) -> list[Path]:
    """Writes both and gives their paths."""
    PICTURE.parent.mkdir(exist_ok=True)
    _draw(record, growths)
    block = "\n".join(_figures(record, growths, seconds, threads))
    place = r"(?s)(?<=<!-- soak -->\n).*?(?=<!-- /soak -->)"
    text, places = re.subn(place, lambda _: block, PAGE.read_text())
    assert places == 1, "the page has no place for the figures"
    PAGE.write_text(text)
    return [PICTURE, PAGE]


def _figures(record: Record, growths: list[Growth], seconds: float, threads: int) -> list[str]:
    lines = [
        f"{record.calls[-1]:,.0f} calls from {threads} threads in {seconds:.0f} s:",
        "",
        "| | second quarter | last quarter | growth | limit |",
        "|---|---:|---:|---:|---:|",
    ]
    for count, before, after, limit in growths:
        digits = ".2f" if count.short == "MiB" else ",.0f"
        figures = (f"{value:{digits}}" for value in (before, after, after - before, limit))
        lines.append(f"| {count.name} | {' | '.join(figures)} |")
    return [*lines, ""]


def _draw(record: Record, growths: list[Growth]) -> None:
    import matplotlib as mpl

    mpl.use("svg")
    # The same picture for the same figures: text stays text, names are not random.
    mpl.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "soak", "font.size": 9})
    from matplotlib import pyplot as plt

    figure, axes = plt.subplots(2, 2, figsize=(8.4, 5.2), sharex=True, layout="constrained")
    calls = [calls / 1000 for calls in record.calls]
    for i, axis in enumerate(axes.flat[:PLOTTED]):
        axis.plot(calls, record.counts[i], color="#0072b2", linewidth=1)
        axis.axhline(growths[i].before, color="#009e73", linewidth=0.8)
        axis.axhline(
            growths[i].before + growths[i].limit, color="#c1272d", linewidth=0.8, linestyle="--"
        )
        axis.set_title(COUNTS[i].name)
        axis.ticklabel_format(useOffset=False)
        axis.grid(visible=True, linewidth=0.3)
    for axis in axes[-1]:
        axis.set_xlabel("thousand calls")
    figure.savefig(PICTURE, metadata={"Date": None})
