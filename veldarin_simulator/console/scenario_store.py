"""Scenarios on disk: one directory for each, in one parent directory.

The store checks names, does not follow links, and writes only into a scenario's own directory. A
save changes only the files that it is about, and a crash leaves all of them old or all of them new:

1. It writes and syncs the new files under names that begin with a dot.
2. It creates `.save`, the list of these files. From then on the save counts.
3. It renames the files and removes `.save`. After a crash the next load or save does that.
"""

from __future__ import annotations

import errno
import fcntl
import hashlib
import json
import os
import re
import secrets
from collections.abc import Collection, Iterator, Mapping
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from pathlib import Path

from veldarin_simulator.console.errors import ApiError

MAX_REPLY_BYTES = 1024 * 1024
MAX_SCENARIO_BYTES = 8 * MAX_REPLY_BYTES

NAME = r"[A-Za-z0-9][A-Za-z0-9._-]{0,63}"

_CURRENT = "current"  # names the loaded scenario in the HTTP interface
_CLI = "cli"
_SAVE = ".save"
_TRASH = ".trash"
_OPEN_DIR = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC
_OPEN_FILE = os.O_RDONLY | os.O_NOFOLLOW | os.O_CLOEXEC | os.O_NONBLOCK
_CREATE_FILE = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC

# File name, relative to the scenario's directory, to text.
Files = Mapping[str, bytes]


@dataclass(frozen=True)
class ScenarioStore:
    """The scenarios.

    Every method raises `ApiError` if the name is not valid, the scenario does not exist, or a file
    cannot be read or written.

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
        with suppress(OSError):  # `create` creates the directory, or reports the error
            entries = os.scandir(self.directory)
            found = sorted(entry.name for entry in entries if entry.is_dir(follow_symlinks=False))
        return first + [name for name in found if re.fullmatch(NAME, name) and name not in first]

    def path(self, name: str) -> Path:
        """Return the directory of a scenario, whether or not it exists."""
        if self.is_fixed(name):
            return self.initial or Path()
        if not re.fullmatch(NAME, name):
            detail = "a scenario name consists of at most 64 letters, digits and . - _"
            raise ApiError("invalid-name", detail)
        return self.directory / name

    def is_fixed(self, name: str) -> bool:
        """Return whether the scenario is the command line's, which stays where it is."""
        return self.initial is not None and name == self.initial.name

    def read(self, name: str) -> dict[str, bytes]:
        """Return the files of a scenario; ignored ones are left out."""
        path = self.path(name)
        with translate_oserror(path), _open_dir(path) as directory:
            _finish_save(directory)
            files = _read_files(directory, "")
            if _CLI in os.listdir(directory):
                with _open_dir(Path(_CLI), directory) as cli:
                    files.update(_read_files(cli, f"{_CLI}/"))
        check_size(files)
        return files

    def create(self, name: str, files: Files) -> None:
        """Write a new scenario, all of it or nothing."""
        path = self._new_path(name)
        check_size(files)
        draft = self.directory / f".new-{secrets.token_hex(8)}"
        with translate_oserror(path):
            draft.mkdir(parents=True)
            try:
                with _open_dir(draft) as directory:
                    _replace_files(directory, files, {})
                self._rename(draft, path)
            except BaseException:
                for file in [*draft.glob(f"{_CLI}/*"), *draft.glob("*")]:
                    file.rmdir() if file.is_dir() else file.unlink()
                draft.rmdir()
                raise

    def save(self, name: str, files: Files, base: Files, overwrite: Collection[str] = ()) -> None:
        """Write the files that differ from `base`, and delete those that only `base` has.

        Args:
            name: The scenario.
            files: What the scenario shall contain.
            base: What it contained when it was read.
            overwrite: Files that may differ on disk from `base`.

        Raises:
            ApiError: Another file differs on disk: nothing is written.
        """
        path = self.path(name)
        check_size(files)
        with translate_oserror(path):
            path.mkdir(parents=True, exist_ok=True)
            with _open_dir(path) as directory:
                fcntl.flock(directory, fcntl.LOCK_EX)  # another console may save too
                _finish_save(directory)
                known = sorted({*files, *base})
                disk = {file: _read_file(directory, file) for file in known}
                changed = [
                    file
                    for file in known
                    if disk[file] not in (base.get(file), files.get(file)) and file not in overwrite
                ]
                if changed:
                    detail = f"changed on disk since they were loaded: {', '.join(changed)}"
                    raise ApiError("scenario-changed", detail, files=changed)
                new = {file: files.get(file) for file in known if files.get(file) != disk[file]}
                _replace_files(directory, new, disk)

    def rename(self, name: str, to: str) -> None:
        """Rename a scenario."""
        self._rename(self._existing(name), self._new_path(to))

    def delete(self, name: str) -> None:
        """Move a scenario into the directory `.trash` of the store."""
        path, trash = self._existing(name), self.directory / _TRASH
        with translate_oserror(trash):
            trash.mkdir(exist_ok=True)
        self._rename(path, trash / f"{name}.{secrets.token_hex(4)}")

    def _existing(self, name: str) -> Path:
        path = self.path(name)
        if self.is_fixed(name):
            raise ApiError("scenario-in-use", f"{path} is the scenario of --scenario")
        with translate_oserror(path), _open_dir(path):
            return path

    def _new_path(self, name: str) -> Path:
        path = self.path(name)
        if name == _CURRENT:
            detail = f'the loaded scenario is addressed as "{_CURRENT}": choose another name'
            raise ApiError("invalid-name", detail)
        if name in self.names() or os.path.lexists(path):
            detail = f"the scenario {name} already exists: load it, or choose another name"
            raise ApiError("scenario-exists", detail)
        return path

    def _rename(self, path: Path, to: Path) -> None:
        with translate_oserror(path), _open_dir(self.directory) as directory:
            os.rename(path, to)
            os.fsync(directory)


@contextmanager
def translate_oserror(path: Path) -> Iterator[None]:
    """Raise an `OSError` of the block as an `ApiError` about the scenario's directory."""
    try:
        yield
    except OSError as error:
        reason = (error.strerror or str(error)).lower()
        if error.errno in (errno.ELOOP, errno.ENOTDIR):
            reason = "expected a directory of regular files; links are not followed"
        kind = "unknown-scenario" if isinstance(error, FileNotFoundError) else "storage"
        raise ApiError(kind, f"{path}: {reason}") from error


def check_size(files: Files) -> None:
    """Check the limits that hold for every reply and scenario, whatever its way in.

    Raises:
        ApiError: One is larger.
    """
    for file, content in files.items():
        if len(content) > MAX_REPLY_BYTES:
            detail = f"{file} is larger than {MAX_REPLY_BYTES} bytes"
            raise ApiError("too-large", detail, file=file, max_bytes=MAX_REPLY_BYTES)
    if sum(map(len, files.values())) > MAX_SCENARIO_BYTES:
        detail = f"the scenario is larger than {MAX_SCENARIO_BYTES} bytes"
        raise ApiError("too-large", detail, max_bytes=MAX_SCENARIO_BYTES)


@contextmanager
def _open_dir(path: Path, parent: int | None = None) -> Iterator[int]:
    """Open a directory that is not a link, and yield its descriptor."""
    descriptor = os.open(path, _OPEN_DIR, dir_fd=parent)
    try:
        yield descriptor
    finally:
        os.close(descriptor)


@contextmanager
def _open_parent(directory: int, file: str) -> Iterator[tuple[int, str]]:
    """Yield the descriptor of the directory that a file is in, and the file's name there."""
    folder, slash, name = file.rpartition("/")
    if not slash:
        yield directory, name
    elif folder == _CLI:
        with _open_dir(Path(_CLI), directory) as cli:
            yield cli, name
    else:
        raise ValueError(f"unexpected file {file}")


def is_ignored(name: str) -> bool:
    """Return whether a file is not a reply; the store then leaves it alone."""
    return name.startswith(".") or name in ("README.md", _CLI)


def _read_files(directory: int, prefix: str) -> dict[str, bytes]:
    files = {}
    for name in sorted(os.listdir(directory)):
        if not is_ignored(name):
            files[prefix + name] = _read_file(directory, name) or b""
    return files


def _read_file(directory: int, file: str) -> bytes | None:
    """Return the content of a file up to just above the limit, or None without one."""
    try:
        with _open_parent(directory, file) as (parent, name):
            descriptor = os.open(name, _OPEN_FILE, dir_fd=parent)
    except FileNotFoundError:
        return None
    with open(descriptor, "rb") as opened:
        return opened.read(MAX_REPLY_BYTES + 1)


def _hash(content: bytes | None) -> str | None:
    return None if content is None else hashlib.sha256(content).hexdigest()


def _replace_files(
    directory: int, new: Mapping[str, bytes | None], old: Mapping[str, bytes | None]
) -> None:
    """Write or delete (None) files: all of them, or none if that fails."""
    if any(file.startswith(f"{_CLI}/") for file in new):
        with suppress(FileExistsError):
            os.mkdir(_CLI, dir_fd=directory)
    drafts: dict[str, str | None] = {}
    try:
        for file, content in new.items():
            drafts[file] = None if content is None else _write_draft(directory, file, content)
        listed = [[file, draft, _hash(old.get(file))] for file, draft in drafts.items()]
        drafts[_SAVE] = _write_draft(directory, _SAVE, json.dumps(listed).encode())
        os.replace(drafts[_SAVE] or "", _SAVE, src_dir_fd=directory, dst_dir_fd=directory)
    except BaseException:
        for file, draft in drafts.items():
            with suppress(OSError), _open_parent(directory, file) as (parent, _):
                os.unlink(draft or "", dir_fd=parent)
        raise
    _finish_save(directory)


def _write_draft(directory: int, file: str, content: bytes) -> str:
    draft = f".draft-{secrets.token_hex(8)}"
    with _open_parent(directory, file) as (parent, _):
        try:
            with open(os.open(draft, _CREATE_FILE, 0o644, dir_fd=parent), "wb") as opened:
                opened.write(content)
                opened.flush()
                os.fsync(opened.fileno())
            os.fsync(parent)
        except BaseException:
            with suppress(OSError):
                os.unlink(draft, dir_fd=parent)
            raise
    return draft


def _finish_save(directory: int) -> None:
    """Do the third step of a save, if there is one to finish.

    After a crash a file may have been changed by its owner: that file stays.
    """
    listed = _read_file(directory, _SAVE)
    if listed is None:
        return
    os.fsync(directory)
    with suppress(AttributeError, TypeError, ValueError):  # not a list of this store
        for file, draft, before in json.loads(listed):
            if is_ignored(file) or _hash(_read_file(directory, file)) != before:
                continue
            with _open_parent(directory, file) as (parent, name), suppress(FileNotFoundError):
                if draft is None:
                    os.unlink(name, dir_fd=parent)
                else:
                    os.replace(draft, name, src_dir_fd=parent, dst_dir_fd=parent)
                os.fsync(parent)
    os.unlink(_SAVE, dir_fd=directory)
