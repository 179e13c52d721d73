"""Scenarios on disk: a folder for each, all in one folder, the shelf; and the one that the console
was started with, wherever that is.

Names are checked, links are neither followed nor written through, and nothing outside a scenario's
own folder is touched. What a scenario's files mean is not known here.
"""

from __future__ import annotations

import errno
import os
import re
import secrets
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from pathlib import Path

from veldarin_simulator.console.errors import Problem

# Relative file name to content: what a scenario's folder holds.
Files = dict[str, bytes]

_NAME = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,63}")
_SUBFOLDER = "cli"
_MOST_BYTES = 8 * 1024 * 1024
_FOLDER = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC
_FILE = os.O_RDONLY | os.O_NOFOLLOW | os.O_CLOEXEC | os.O_NONBLOCK
_NEW_FILE = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC


@dataclass(frozen=True)
class Shelf:
    """Where scenarios are kept. `given`: the scenario of the command line, which comes first."""

    folder: Path
    given: Path | None = None

    def names(self) -> list[str]:
        """The scenarios there are, the given one first."""
        first = [] if self.given is None else [self.given.name]
        try:
            found = sorted(entry.name for entry in os.scandir(self.folder) if _is_folder(entry))
        except OSError:
            found = []  # not made yet; what is wrong with it, saving tells
        return first + [name for name in found if _NAME.fullmatch(name) and name not in first]

    def path(self, name: str) -> Path:
        """The folder of a scenario, there or not. Raises `Problem` for what is no name."""
        if self.given is not None and name == self.given.name:
            return self.given
        if not _NAME.fullmatch(name):
            raise Problem(422, "a scenario's name has letters, digits and . - _, 64 at most")
        return self.folder / name

    def read(self, name: str) -> Files:
        """What a scenario holds. Raises `Problem`: there is none, or it cannot be read."""
        with _told(name), _opened(self.path(name)) as folder:
            files = _contents(folder, "")
            if _SUBFOLDER in os.listdir(folder):
                with _opened(Path(_SUBFOLDER), folder) as subfolder:
                    files.update(_contents(subfolder, f"{_SUBFOLDER}/"))
        if sum(map(len, files.values())) > _MOST_BYTES:
            raise Problem(409, f"scenario {name} holds more than {_MOST_BYTES} bytes")
        return files

    def write(self, name: str, files: Files) -> None:
        """Makes a scenario hold these files and no others, but for its README.md and what begins
        with a dot. Each file is replaced as a whole. Raises `Problem`."""
        path = self.path(name)
        with _told(name):
            path.parent.mkdir(parents=True, exist_ok=True)
            if not path.is_symlink():
                path.mkdir(exist_ok=True)
            with _opened(path) as folder:
                _fill(folder, {k: v for k, v in files.items() if "/" not in k})
                below = {k.split("/", 1)[1]: v for k, v in files.items() if "/" in k}
                if below and _SUBFOLDER not in os.listdir(folder):
                    os.mkdir(_SUBFOLDER, dir_fd=folder)
                if _SUBFOLDER in os.listdir(folder):
                    with _opened(Path(_SUBFOLDER), folder) as subfolder:
                        _fill(subfolder, below)


def _is_folder(entry: os.DirEntry[str]) -> bool:
    return entry.is_dir(follow_symlinks=False)


@contextmanager
def _told(name: str) -> Iterator[None]:
    """What the system refuses, as a problem."""
    try:
        yield
    except FileNotFoundError as error:
        raise Problem(404, f"there is no scenario {name}") from error
    except OSError as error:
        reason = (error.strerror or str(error)).lower()
        if error.errno in (errno.ELOOP, errno.ENOTDIR):
            reason = "not a folder and files of its own, and links are not followed"
        raise Problem(409, f"scenario {name}: {reason}") from error


@contextmanager
def _opened(path: Path, within: int | None = None) -> Iterator[int]:
    """A folder that is no link, as a descriptor."""
    descriptor = os.open(path, _FOLDER, dir_fd=within)
    try:
        yield descriptor
    finally:
        os.close(descriptor)


def _kept(name: str) -> bool:
    """Not an answer: left as it is."""
    return name.startswith(".") or name == "README.md"


def _contents(folder: int, prefix: str) -> Files:
    files: Files = {}
    for name in sorted(os.listdir(folder)):
        if _kept(name) or (not prefix and name == _SUBFOLDER):
            continue
        with open(os.open(name, _FILE, dir_fd=folder), "rb") as file:
            files[prefix + name] = file.read(_MOST_BYTES + 1)
    return files


def _fill(folder: int, files: Files) -> None:
    for name, content in files.items():
        draft = f".{name[:32]}.{secrets.token_hex(4)}"
        try:
            with open(os.open(draft, _NEW_FILE, 0o644, dir_fd=folder), "wb") as file:
                file.write(content)
            os.replace(draft, name, src_dir_fd=folder, dst_dir_fd=folder)
        except OSError:
            with suppress(OSError):
                os.unlink(draft, dir_fd=folder)
            raise
    for name in os.listdir(folder):
        if name not in files and name != _SUBFOLDER and not _kept(name):
            os.unlink(name, dir_fd=folder)
