"""The machine's serial number.

Source: the machine identifier that the system keeps (machine-id), under a keyed hash since the
identifier itself is confidential; without one, random bytes kept in the state directory.
"""

from __future__ import annotations

import hashlib
import hmac
from pathlib import Path

from veldarin_simulator import state_dir

_MACHINE_IDS = (Path("/etc/machine-id"), Path("/var/lib/dbus/machine-id"))
_PURPOSE = b"appliance serial number"


def read() -> bytes:
    """Sixteen ASCII characters, "STAND-" and ten hexadecimal digits, the same from boot to boot.

    Raises `OSError` where there is no machine identifier and none can be kept.
    """
    digest = hmac.new(_machine_identity(), _PURPOSE, hashlib.sha256).hexdigest()
    return f"STAND-{digest[:10].upper()}".encode("ascii")


def _machine_identity() -> bytes:
    for path in _MACHINE_IDS:
        try:
            identity = path.read_bytes().strip()
        except OSError:
            continue
        # An image that never booted holds the word "uninitialized" or nothing.
        if len(identity) == 32:
            return identity
    return state_dir.secret("machine-identity", 32)
