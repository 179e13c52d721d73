"""The serial number of this machine.

Source: a keyed hash of the system's machine identifier (machine-id), which is confidential; without
one, of random bytes in the state directory.
"""

from __future__ import annotations

import hashlib
import hmac
from pathlib import Path

from veldarin_simulator import state_dir

_MACHINE_IDS = (Path("/etc/machine-id"), Path("/var/lib/dbus/machine-id"))
_PURPOSE = b"appliance serial number"


def read() -> bytes:
    """Return sixteen ASCII characters, "SIMUL-" and ten hexadecimal digits, stable across boots.

    Raises:
        OSError: The machine has no identifier and none can be stored.
    """
    digest = hmac.new(_machine_identity(), _PURPOSE, hashlib.sha256).hexdigest()
    return f"SIMUL-{digest[:10].upper()}".encode("ascii")


def _machine_identity() -> bytes:
    for path in _MACHINE_IDS:
        try:
            identity = path.read_bytes().strip()
        except OSError:
            continue
        # An image before its first boot has an empty file or the word "uninitialized".
        if len(identity) == 32:
            return identity
    return state_dir.load_or_create_secret("machine-identity", 32)
