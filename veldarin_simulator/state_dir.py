"""The directory for files that outlive a process: the cookie key, the preference secret.

There is one for each user: $VELDARIN_SIMULATOR_STATE, or one in the XDG state directory. Only the
user can read its files.
"""

from __future__ import annotations

import os
import secrets
from pathlib import Path

VARIABLE = "VELDARIN_SIMULATOR_STATE"


def directory() -> Path:
    """Return the state directory, created (mode 0700) if it is missing.

    Raises:
        OSError: The directory cannot be created.
    """
    if os.environ.get(VARIABLE):
        path = Path(os.environ[VARIABLE])
    else:
        base = os.environ.get("XDG_STATE_HOME") or Path.home() / ".local" / "state"
        path = Path(base) / "veldarin-simulator"
    path.mkdir(mode=0o700, parents=True, exist_ok=True)
    return path.absolute()


def load_or_create_secret(name: str, size: int) -> bytes:
    """Return random bytes that stay the same from process to process.

    If several processes race for the first use, all of them read the file that one created.

    Args:
        name: The file in the state directory.
        size: The number of bytes.

    Raises:
        OSError: The file cannot be created or read.
        ValueError: The file has another size.
    """
    path = directory() / name
    try:
        secret = path.read_bytes()
    except FileNotFoundError:
        _create_atomically(path, secrets.token_bytes(size))
        secret = path.read_bytes()
    if len(secret) != size:
        raise ValueError(f"{path}: expected {size} bytes, found {len(secret)}; remove the file")
    return secret


def _create_atomically(path: Path, content: bytes) -> None:
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
