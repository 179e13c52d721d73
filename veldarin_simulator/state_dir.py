"""Where the stand-in keeps what must outlive a process: its cookie key, the preference secret.

One directory per user: `$APPLIANCE_STATE`, else below the XDG state directory. Files in it belong
to the user alone.
"""

from __future__ import annotations

import os
import secrets
from pathlib import Path


def directory() -> Path:
    """The state directory, made if it is missing (mode 0700). Raises `OSError` if it cannot be."""
    named = os.environ.get("APPLIANCE_STATE")
    if named:
        path = Path(named)
    else:
        base = os.environ.get("XDG_STATE_HOME") or Path.home() / ".local" / "state"
        path = Path(base) / "veldarin-appliance"
    path.mkdir(mode=0o700, parents=True, exist_ok=True)
    return path.absolute()


def secret(name: str, size: int) -> bytes:
    """`size` random bytes that stay the same from process to process, kept in the file `name`.

    Made on first use, whole or not at all: of several processes that race for it one wins, and all
    read the winner's. Raises `OSError` where the file cannot be made or read, `ValueError` for a
    file of another size.
    """
    path = directory() / name
    try:
        kept = path.read_bytes()
    except FileNotFoundError:
        _keep(path, secrets.token_bytes(size))
        kept = path.read_bytes()
    if len(kept) != size:
        raise ValueError(f"{path}: holds {len(kept)} bytes in place of {size}; remove the file")
    return kept


def _keep(path: Path, content: bytes) -> None:
    draft = path.with_name(f"{path.name}.{os.getpid()}.{secrets.token_hex(4)}")
    descriptor = os.open(draft, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o600)
    try:
        with os.fdopen(descriptor, "wb") as file:
            file.write(content)
        os.link(draft, path)
    except FileExistsError:
        pass  # another process was first
    finally:
        draft.unlink()
