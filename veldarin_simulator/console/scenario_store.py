"""Scenarios on disk: one directory for each, in one parent directory.

The store checks names, does not follow links, and writes only into a scenario's own directory.
"""

from __future__ import annotations

import errno
import os
import re
import secrets
from collections.abc import Iterator, Mapping
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from pathlib import Path

from veldarin_simulator import Scenario
from veldarin_simulator.console.errors import ApiError

_NAME = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,63}")
_CLI = "cli"
_MAX_BYTES = 8 * 1024 * 1024
_OPEN_DIR = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC
_OPEN_FILE = os.O_RDONLY | os.O_NOFOLLOW | os.O_CLOEXEC | os.O_NONBLOCK
_CREATE_FILE = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC


@dataclass(frozen=True)
class ScenarioStore:
    """The scenarios.

    Attributes:
        directory: The parent directory of saved scenarios; it need not exist yet.
        initial: The directory of the command line's scenario, which is listed first.
    """

    directory: Path
    initial: Path | None = None

    def names(self) -> list[str]:
        """Return the names of the scenarios, the initial one first."""
        first = [] if self.initial is None else [self.initial.name]
        found: list[str] = []
        with suppress(OSError):  # `save` creates the directory, or reports the error
            entries = os.scandir(self.directory)
            found = sorted(entry.name for entry in entries if entry.is_dir(follow_symlinks=False))
        return first + [name for name in found if _NAME.fullmatch(name) and name not in first]

    def path(self, name: str) -> Path:
        """Return the directory of a scenario, whether or not it exists.

        Raises:
            ApiError: The name is not valid.
        """
        if self.initial is not None and name == self.initial.name:
            return self.initial
        if not _NAME.fullmatch(name):
            raise ApiError(422, "a scenario name consists of at most 64 letters, digits and . - _")
        return self.directory / name

    def load(self, name: str) -> Scenario:
        """Read a scenario.

        Raises:
            ApiError: The scenario does not exist or cannot be read.
            ScenarioError: The scenario is invalid.
        """
        path = self.path(name)
        with translate_oserror(path), open_dir(path) as directory:
            files = _read_files(directory, "")
            if _CLI in os.listdir(directory):
                with open_dir(Path(_CLI), directory) as cli:
                    files.update(_read_files(cli, f"{_CLI}/"))
        if sum(map(len, files.values())) > _MAX_BYTES:
            raise ApiError(409, f"{path} is larger than {_MAX_BYTES} bytes")
        return Scenario(files)

    def save(self, name: str, scenario: Scenario) -> None:
        """Replace the files of a scenario, each atomically; ignored files stay.

        Raises:
            ApiError: The name is not valid, or the files cannot be written.
        """
        path = self.path(name)
        cli = {
            file[len(_CLI) + 1 :]: text
            for file, text in scenario.items()
            if file.startswith(f"{_CLI}/")
        }
        with translate_oserror(path):
            path.mkdir(parents=True, exist_ok=True)
            with open_dir(path) as directory:
                replace_contents(directory, {k: v for k, v in scenario.items() if "/" not in k})
                if cli and _CLI not in os.listdir(directory):
                    os.mkdir(_CLI, dir_fd=directory)
                if _CLI in os.listdir(directory):
                    with open_dir(Path(_CLI), directory) as subdirectory:
                        replace_contents(subdirectory, cli)


@contextmanager
def translate_oserror(path: Path) -> Iterator[None]:
    """Raise an `OSError` of the block as an `ApiError` about the scenario's directory."""
    try:
        yield
    except OSError as error:
        reason = (error.strerror or str(error)).lower()
        if error.errno in (errno.ELOOP, errno.ENOTDIR):
            reason = "expected a directory of regular files; links are not followed"
        status = 404 if isinstance(error, FileNotFoundError) else 409
        raise ApiError(status, f"{path}: {reason}") from error


@contextmanager
def open_dir(path: Path, parent: int | None = None) -> Iterator[int]:
    """Open a directory that is not a link, and yield its descriptor."""
    descriptor = os.open(path, _OPEN_DIR, dir_fd=parent)
    try:
        yield descriptor
    finally:
        os.close(descriptor)


def is_ignored(name: str) -> bool:
    """Return whether a file is not a reply; the store then leaves it alone."""
    return name.startswith(".") or name in ("README.md", _CLI)


def _read_files(directory: int, prefix: str) -> dict[str, bytes]:
    files = {}
    for name in sorted(os.listdir(directory)):
        if not is_ignored(name):
            with open(os.open(name, _OPEN_FILE, dir_fd=directory), "rb") as file:
                files[prefix + name] = file.read(_MAX_BYTES + 1)
    return files


def replace_contents(directory: int, files: Mapping[str, bytes]) -> None:
    """Write the files to a directory and delete the others, except ignored ones."""
    for name, content in files.items():
        draft = f".{name[:32]}.{secrets.token_hex(4)}"
        try:
            with open(os.open(draft, _CREATE_FILE, 0o644, dir_fd=directory), "wb") as file:
                file.write(content)
            os.replace(draft, name, src_dir_fd=directory, dst_dir_fd=directory)
        except OSError:
            with suppress(OSError):
                os.unlink(draft, dir_fd=directory)
            raise
    for name in os.listdir(directory):
        if name not in files and not is_ignored(name):
            os.unlink(name, dir_fd=directory)
