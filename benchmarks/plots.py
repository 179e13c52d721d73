"""Cost against size as SVG, log-log: one picture a parser, and one of the bridge."""

from __future__ import annotations

from pathlib import Path
from typing import Any

from benchmarks import workloads
from benchmarks.cli_samples import Variant
from benchmarks.competitors import CYTHON, PRODUCT
from benchmarks.measure import Run
from benchmarks.workloads import FLOOR

# Colour and mark by contender, in the order of the legend.
_STYLES = {
    PRODUCT: ("#c1272d", "o"),
    FLOOR: ("#555555", "x"),
    CYTHON: ("#0072b2", "s"),
    "split": ("#009e73", "^"),
    "regex": ("#e69f00", "v"),
    "TextFSM": ("#cc79a7", "D"),
    "TTP": ("#56b4e9", "P"),
}


def draw(run: Run, folder: Path) -> list[Path]:
    """Writes the pictures and gives their paths."""
    folder.mkdir(exist_ok=True)
    files = [_parser(run, parser, folder) for parser in workloads.PARSERS]
    return [*files, _bridge(run, folder)]


def _parser(run: Run, parser: workloads.Parser, folder: Path) -> Path:
    title, unit = parser(1, Variant.REPEATING).name.replace("1 ", "").split(", ")[:2]
    figure, axes = _figure(len(Variant))
    for axis, variant in zip(axes, Variant):
        for name, style in _STYLES.items():
            points = [
                (size, run.times[parser(size, variant).name][name].median * size / 1000)
                for size in workloads.SIZES
                if name in run.times[parser(size, variant).name]
            ]
            _line(axis, name, style, points)
        axis.set_title(f"{title}, {variant.value}")
        axis.set_xlabel(unit)
    return _written(figure, axes, folder / f"{title.lower()}.svg")


def _bridge(run: Run, folder: Path) -> Path:
    figure, axes = _figure(1)
    sizes = (1_000, 100_000, 5_000_000)
    for name in (PRODUCT, FLOOR, CYTHON):
        points = [
            (size, run.times[workload.name][name].median / 1000)
            for size, workload in zip(sizes, workloads.BRIDGES[1:])
        ]
        _line(axes[0], name, _STYLES[name], points)
    axes[0].set_title("status query")
    axes[0].set_xlabel("bytes of the reply")
    return _written(figure, axes, folder / "bridge.svg")


def _line(axis: Any, name: str, style: tuple[str, str], points: list[tuple[int, float]]) -> None:
    if points:
        colour, mark = style
        axis.plot(*zip(*points), color=colour, marker=mark, markersize=4, linewidth=1, label=name)


def _figure(columns: int) -> tuple[Any, Any]:
    import matplotlib as mpl

    mpl.use("svg")
    # The same picture for the same figures: text stays text, names are not random.
    mpl.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "benchmarks", "font.size": 9})
    from matplotlib import pyplot as plt

    figure, axes = plt.subplots(
        1, columns, figsize=(4.2 * columns, 3.6), sharey=True, squeeze=False, layout="constrained"
    )
    return figure, axes[0]


def _written(figure: Any, axes: Any, file: Path) -> Path:
    for axis in axes:
        axis.set(xscale="log", yscale="log")
        axis.grid(visible=True, which="major", linewidth=0.3)
    axes[0].set_ylabel("µs a call, processor time")
    axes[-1].legend(frameon=False)
    figure.savefig(file, metadata={"Date": None})
    return file
