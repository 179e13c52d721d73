"""README and docs: the commands print the output shown, the programs run, links and paths exist."""

from __future__ import annotations

import os
import re
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from tests.support import isolated
from tests.support.function_table import FUNCTIONS

README = isolated.ROOT / "README.md"
SIMULATOR = isolated.ROOT / "docs" / "simulator.md"
EMBEDDING = isolated.ROOT / "docs" / "embedding.md"
PAGES = [*isolated.ROOT.glob("*.md"), *isolated.ROOT.glob("docs/*.md")]


def blocks(page: Path, language: str) -> list[str]:
    """The fenced blocks of a page in a language, or in none."""
    fenced = re.findall(r"^```(\w*)\n(.*?)^```$", page.read_text(), re.MULTILINE | re.DOTALL)
    return [content for named, content in fenced if named == language]


def sessions() -> list[tuple[str, str]]:
    """Every command shown at a prompt, with the output shown below it."""
    return [
        (command, output)
        for block in blocks(SIMULATOR, "console")
        for command, output in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", block, re.MULTILINE)
    ]


def test_simulator_page_shows_each_command() -> None:
    shown = " ".join(command for command, _output in sessions())
    assert "veldarin_simulator call" in shown
    assert "veldarin_simulator parse" in shown


@pytest.mark.parametrize(("command", "output"), sessions())
def test_simulator_page_command_prints_shown_output(command: str, output: str) -> None:
    assert ".venv/bin/python " in command
    done = subprocess.run(
        # Both streams as a terminal shows them, one after the other.
        ["sh", "-c", f"({command.replace('.venv/bin/python', shlex.quote(sys.executable))}) 2>&1"],
        cwd=isolated.ROOT,
        capture_output=True,
        text=True,
        timeout=120,
    )
    shown, printed = output.splitlines(), done.stdout.splitlines()
    # Standard error is not buffered: its lines may come before those of standard output.
    assert sorted(printed) == sorted(shown)
    assert without_messages(printed) == without_messages(shown)


def without_messages(lines: list[str]) -> list[str]:
    return [line for line in lines if not line.startswith("veldarin_simulator: ")]


def test_demo_output_has_one_line_per_function() -> None:
    shown = re.findall(
        r"^ ?(\d+)  (\w+)\(.*  (?:live|recorded|no call)  ", blocks(README, "")[0], re.M
    )
    assert len(shown) == len(blocks(README, "")[0].splitlines())
    for number, name in shown:
        assert FUNCTIONS[int(number) - 1].name == name


def run_python(source: str, folder: Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [sys.executable, "-W", "ignore", "-c", source],
        cwd=folder,
        env={**os.environ, "PYTHONPATH": str(isolated.ROOT)},
        capture_output=True,
        text=True,
        timeout=120,
    )


def test_simulator_page_script_gives_shown_results() -> None:
    (program,) = blocks(SIMULATOR, "python")
    (output,) = blocks(SIMULATOR, "")
    done = run_python(program, isolated.ROOT)
    assert (done.stdout, done.returncode) == (output, 0), done.stderr


def test_embedding_page_program_needs_services(tmp_path: Path) -> None:
    (host,) = blocks(EMBEDDING, "python")
    shutil.copytree(isolated.BUILD / "stage", tmp_path / "import-root")
    shutil.copy(isolated.BUILD / "libsimulator.so", tmp_path / "libservices.so")
    done = run_python(host, tmp_path)
    assert (done.stdout, done.returncode) == ("0\n", 0), done.stderr

    without_services = re.sub(r"^ctypes\.CDLL.*\n", "", host, flags=re.MULTILINE)
    assert without_services != host
    done = run_python(without_services, tmp_path)
    assert done.returncode == 1
    assert re.search(r"^ImportError: .* undefined symbol: \w+$", done.stderr, re.MULTILINE)


def test_make_targets_of_the_pages_exist() -> None:
    makefile = (isolated.ROOT / "Makefile").read_text()
    documented = set(re.findall(r"^([a-z-]+):.*?## +[A-Z]", makefile, re.MULTILINE))
    assert len(documented) > 20
    shown = {
        target
        for page in PAGES
        for target in re.findall(
            r"^    make ([a-z-]+)|`make ([a-z-]+)", page.read_text(), re.MULTILINE
        )
    }
    assert {first or second for first, second in shown} <= documented


def links() -> list[tuple[Path, str]]:
    found = []
    for page in PAGES:
        text = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.MULTILINE | re.DOTALL)
        found += [(page, target) for target in re.findall(r"\]\((?!https?:)([^)\s]+)\)", text)]
    return found


def anchors(page: Path) -> set[str]:
    headings = re.findall(r"^#+ (.*)$", page.read_text(), re.MULTILINE)
    return {
        re.sub(r"[^\w -]", "", heading).strip().lower().replace(" ", "-") for heading in headings
    }


def test_page_links_resolve() -> None:
    assert len(links()) > 30
    for page, target in links():
        path, _, anchor = target.partition("#")
        file = page.parent / path if path else page
        assert file.exists(), f"{page.name}: {target}"
        assert not anchor or anchor in anchors(file), f"{page.name}: {target}"


# A path of the project in a page: in backquotes, with a slash, or a file's name.
PLACE = re.compile(r"`([\w.-]+(?:/[\w.-]+)*/?)`")


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_page_paths_exist(page: Path) -> None:
    known = [
        isolated.ROOT,
        isolated.ROOT / "veldarin" / "modules",
        isolated.ROOT / "veldarin" / "modules" / "python",
        isolated.ROOT / "veldarin_simulator",
    ]
    text = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.MULTILINE | re.DOTALL)
    for place in PLACE.findall(text):
        is_file = re.search(r"\.(cpp|h|py|pyi|md|txt|toml)$", place)
        is_folder = place.endswith("/")
        if is_file or is_folder:
            assert any((folder / place).exists() for folder in known), place
