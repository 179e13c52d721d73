"""docs/benchmarks.md: the tables and pictures of a run, the machine they are of, and what people
have noted beside them."""

from __future__ import annotations

import platform
from collections.abc import Iterable, Sequence
from importlib import metadata
from pathlib import Path

from benchmarks import regression
from benchmarks.measure import Run
from benchmarks.tables import Table, all_tables
from veldarin_simulator import native_library

PAGE = native_library.ROOT / "docs" / "benchmarks.md"
PICTURES = PAGE.with_suffix("")
_NOTES = Path(__file__).with_name("notes.md")
_PEERS = ("Cython", "textfsm", "ttp")

_OPENING = """\
# What a call costs

Written by `make bench`, from one run. What people add goes into `benchmarks/notes.md` and comes at
the end.

The module is `{product}`; it is compared with

- **floor**: what nobody can do without. A builtin that makes the result again from strings that are
  ready: new dictionaries, new strings, a new list, nothing searched. Keys are shared ones.
- **Cython** {cython}: the same functions written statement by statement and compiled with Cython's
  defaults and the interpreter's own flags, over the same native services.
- **split** and **regex**: plain Python, by `str.split` and by one compiled pattern a table.
- **TextFSM** {textfsm} and **TTP** {ttp}: templates, compiled once. They are not asked for more
  than 1,000 rows.

All but the Cython module get their text from the module's own `get_cli_command_output`. Each
returns the same as the module, compared by `repr` before anything is measured. Native replies are
canned: no Python runs inside a native call. Texts come in two variants: *repeating*, where ages,
interfaces and markers come again as in a real table, and *distinct*, where no value comes twice.

Times are processor time of the calling thread; every round runs each contender once, back and
forth, and the median round counts. The release of the result is in every figure. The garbage
collector is off. Measured on {machine}; {toolchain}.
"""


def write(run: Run, pictures: Iterable[Path]) -> None:
    """Writes the page."""
    parts = [_opening(), *(_section(table) for table in all_tables(run))]
    parts.append("## Cost against size\n\n" + "\n".join(map(_picture, pictures)) + "\n")
    parts.append(_NOTES.read_text())
    PAGE.write_text("\n".join(parts))


def _opening() -> str:
    return _OPENING.format(
        product="veldarin.modules.modules_util",
        **{name.lower(): metadata.version(name) for name in _PEERS},
        machine=_processor(),
        toolchain=regression.toolchain(),
    )


def _section(table: Table) -> str:
    return f"## {table.title}\n\n{table.explanation}\n\n{_markdown(table.head, table.rows)}\n"


def _markdown(head: Sequence[str], rows: Sequence[Sequence[str]]) -> str:
    rule = ["---", *("--:" for _ in head[1:])]
    return "\n".join("| " + " | ".join(cells) + " |" for cells in (head, rule, *rows))


def _picture(file: Path) -> str:
    return f"![{file.stem}]({PICTURES.name}/{file.name})"


def _processor() -> str:
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.partition(":")[2].strip()
    return platform.machine()
