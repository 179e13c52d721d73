"""The chart of a run in docs/robustness/ and its figures in docs/robustness.md."""

from __future__ import annotations

import re
from pathlib import Path

from checks.soak.metrics import METRICS, Growth, Samples
from tests.support.isolated import ROOT

PAGE = ROOT / "docs" / "robustness.md"
CHART = ROOT / "docs" / "robustness" / "soak.svg"


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
    import matplotlib as mpl

    mpl.use("svg")
    # Reproducible output: text stays text, and IDs are not random.
    mpl.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "soak", "font.size": 9})
    from matplotlib import pyplot as plt

    figure, axes = plt.subplots(2, 2, figsize=(8.4, 5.2), sharex=True, layout="constrained")
    calls = [calls / 1000 for calls in samples.calls]
    # The remaining metrics are constantly 0.
    for axis, metric, values, growth in zip(axes.flat, METRICS, samples.values, growths):
        axis.plot(calls, values, color="#0072b2", linewidth=1)
        axis.axhline(growth.before, color="#009e73", linewidth=0.8)
        axis.axhline(growth.before + growth.limit, color="#c1272d", linewidth=0.8, linestyle="--")
        axis.set_title(metric.name)
        axis.ticklabel_format(useOffset=False)
        axis.locator_params(nbins=5)
        axis.spines[["top", "right"]].set_visible(False)
    for axis in axes[-1]:
        axis.set_xlabel("thousand calls")
    CHART.parent.mkdir(exist_ok=True)
    figure.savefig(CHART, metadata=dict.fromkeys(("Creator", "Date", "Format", "Type")))
