"""The chart of a run in docs/robustness/ and its figures in docs/robustness.md."""

from __future__ import annotations

import re
from pathlib import Path

from checks.soak.metrics import Growth, Samples
from tests.support.isolated import ROOT

PAGE = ROOT / "docs" / "robustness.md"
CHART = ROOT / "docs" / "robustness" / "soak.png"


def write(samples: Samples, growths: list[Growth], seconds: float, threads: int) -> list[Path]:
    """Write both files and return their paths."""
    _draw(samples, growths)
    lines = [
        f"{samples.calls[-1]:,.0f} calls from {threads} threads in {seconds:.0f} s:",
        "",
        "| metric | second quarter | last quarter | growth | limit |",
        "|---|---:|---:|---:|---:|",
    ]
    lines += [f"| {' | '.join(growth.row)} |" for growth in growths]
    block = "".join(f"{line}\n" for line in lines)
    place = r"(?s)(?<=<!-- soak -->\n).*?(?=<!-- /soak -->)"
    text, count = re.subn(place, lambda _: block, PAGE.read_text())
    assert count == 1, f"{PAGE} has no place for the figures"
    PAGE.write_text(text)
    return [CHART, PAGE]


def _draw(samples: Samples, growths: list[Growth]) -> None:
    """Draw a panel for each metric that is not constantly 0: the samples, the median, the limit."""
    from matplotlib import pyplot as plt

    thousands = [calls / 1000 for calls in samples.calls]
    changing = [(row, values) for row, values in zip(growths, samples.values) if any(values)]
    figure, axes = plt.subplots(-(-len(changing) // 2), 2, figsize=(8, 4.5), layout="constrained")
    for axis, (growth, values) in zip(axes.flat, changing):
        axis.plot(thousands, values)
        axis.axhline(growth.before, color="tab:green")
        axis.axhline(growth.before + growth.limit, color="tab:red")
        axis.set(title=growth.metric.name, xlabel="thousand calls")
        axis.ticklabel_format(useOffset=False, style="plain")
    CHART.parent.mkdir(exist_ok=True)
    figure.savefig(CHART, dpi=80, pil_kwargs={"optimize": True})
