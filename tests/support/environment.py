"""Fresh virtual environments that know nothing of this checkout, made without a network."""

from __future__ import annotations

import os
import re
import subprocess
import sys
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

from tests.support.isolated import ROOT

LOCK = ROOT / "requirements" / "example.txt"
# What the base installation consists of, besides the simulator: the module's imports, and theirs.
BASE = """
    hupper pastedeploy plaster plaster-pastedeploy pyramid setuptools translationstring ujson
    venusian webob zope-deprecation zope-interface
""".split()
# Of the variables here, those that a project's own test run has.
ENVIRONMENT = {name: os.environ[name] for name in ("HOME", "PATH") if name in os.environ}


@dataclass(frozen=True)
class Environment:
    """A virtual environment, used from a folder outside of the checkout."""

    path: Path
    folder: Path

    def run(self, *command: str | Path, folder: Path | None = None) -> tuple[int, str]:
        """Run a command of the environment. Return its status and both outputs."""
        done = subprocess.run(
            [self.path / "bin" / command[0], *command[1:]],
            cwd=folder or self.folder,
            env=ENVIRONMENT,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=300,
        )
        return done.returncode, done.stdout

    def python(self, source: str, *arguments: str) -> str:
        """Run a program, which must succeed, and return its output."""
        status, output = self.run("python", "-W", "ignore", "-c", source, *arguments)
        assert status == 0, output
        return output

    def install(self, *arguments: str | Path) -> None:
        """Install packages without a network and without resolving dependencies."""
        python = self.path / "bin" / "python"
        uv("pip", "install", "--no-deps", "--python", python, *arguments)

    def uninstall(self, package: str) -> None:
        """Remove a package."""
        uv("pip", "uninstall", "--python", self.path / "bin" / "python", package)

    def packages(self) -> set[str]:
        """Return the names of the installed packages."""
        listed = uv("pip", "freeze", "--python", self.path / "bin" / "python")
        return set(re.findall(r"^[\w-]+", listed, re.MULTILINE))


def uv(*arguments: str | Path) -> str:
    """Run uv without a network."""
    done = subprocess.run(
        [ROOT / "tools" / "uv", "--offline", *arguments],
        env={**os.environ, "PYTHON": sys.executable, "LD_PRELOAD": ""},
        capture_output=True,
        text=True,
        timeout=300,
    )
    assert done.returncode == 0, f"{done.stderr}(tools/bootstrap example fetches the packages)"
    return done.stdout


def create(folder: Path, *wheels: Path, names: Iterable[str] | None = None) -> Environment:
    """Create an environment with wheels and the locked packages of these names, or all of them."""
    environment = Environment(folder / "environment", folder)
    uv("venv", "--python", sys.executable, environment.path)
    lock = folder / "lock.txt"
    locked = re.findall(r"^(?:[^\s#].*\\\n(?: .*\n)+)", LOCK.read_text(), re.MULTILINE)
    wanted = [text for text in locked if names is None or text.partition("==")[0] in set(names)]
    assert wanted
    assert names is None or len(wanted) == len(set(names))
    lock.write_text("".join(wanted))
    environment.install("--require-hashes", "-r", lock)
    if wheels:
        environment.install(*wheels)
    return environment
