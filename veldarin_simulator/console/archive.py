"""Scenarios as zip archives: an entry for each file, named as in the scenario's directory."""

from __future__ import annotations

import io
import stat
import zipfile
import zlib
from collections.abc import Mapping

from veldarin_simulator.console.errors import ApiError
from veldarin_simulator.console.scenario_store import MAX_REPLY_BYTES, check_size, is_ignored

_MAX_ENTRIES = 1000
_ENCRYPTED = 1
_EPOCH = (1980, 1, 1, 0, 0, 0)  # archives of equal files are equal


def pack(files: Mapping[str, bytes]) -> bytes:
    """Return an archive."""
    content = io.BytesIO()
    with zipfile.ZipFile(content, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, text in files.items():
            entry = zipfile.ZipInfo(name, _EPOCH)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.external_attr = (stat.S_IFREG | 0o644) << 16
            archive.writestr(entry, text)
    return content.getvalue()


def unpack(content: bytes) -> dict[str, bytes]:
    """Return the files of an archive; directories and ignored files are left out.

    Raises:
        ApiError: It is not an archive, or an entry is a link, encrypted, in another directory, or
            too large.
    """
    files: dict[str, bytes] = {}
    try:
        with zipfile.ZipFile(io.BytesIO(content)) as archive:
            entries = archive.infolist()
            if len(entries) > _MAX_ENTRIES:
                raise _error(f"expected at most {_MAX_ENTRIES} entries")
            for entry in entries:
                folder, _, name = entry.filename.rpartition("/")
                if entry.filename == "cli/" or (not folder and is_ignored(name)):
                    continue
                _check(entry, files)
                with archive.open(entry) as opened:  # the size in the entry may be wrong
                    files[entry.filename] = opened.read(MAX_REPLY_BYTES + 1)
                check_size(files)
    except (zipfile.BadZipFile, EOFError, ValueError, NotImplementedError, zlib.error) as error:
        raise _error(str(error)) from error
    return files


def _check(entry: zipfile.ZipInfo, files: Mapping[str, bytes]) -> None:
    mode = entry.external_attr >> 16
    folder, _, name = entry.filename.rpartition("/")
    if entry.filename in files:
        raise _error("it occurs twice", entry)
    if folder not in ("", "cli") or is_ignored(name) or "\\" in name or "\0" in name:
        raise _error("expected a reply's file, or cli/COMMAND.txt", entry)
    if stat.S_IFMT(mode) not in (0, stat.S_IFREG):
        raise _error("expected a regular file", entry)
    if entry.flag_bits & _ENCRYPTED:
        raise _error("it is encrypted", entry)
    if entry.compress_type not in (zipfile.ZIP_STORED, zipfile.ZIP_DEFLATED):
        raise _error("its compression is not supported", entry)


def _error(detail: str, entry: zipfile.ZipInfo | None = None) -> ApiError:
    file = None if entry is None else entry.filename
    return ApiError("invalid-archive", f"{file}: {detail}" if file else detail, file=file)
