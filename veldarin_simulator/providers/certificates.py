"""Whether a certificate file is valid now, for the management interface's expiry check.

Source: the file itself, read through `cryptography`; the time is this machine's clock.
"""

from __future__ import annotations

import os
import stat
from datetime import datetime, timezone
from enum import IntEnum

# A certificate takes a few kilobytes; a chain with its key some tens.
_LARGEST_FILE = 1 << 20


class Status(IntEnum):
    """The status codes of the check; only `VALID` counts as success."""

    VALID = 0
    EXPIRED = 1
    NOT_YET_VALID = 2
    UNREADABLE = -1


def check(path: bytes) -> Status:
    """The state of the first certificate in the file, PEM or DER; in a chain the server's own.

    `UNREADABLE` stands for everything that prevents an answer: no such file, no permission, not a
    regular file, larger than a megabyte, no certificate in it. Never raises for what a path holds.
    """
    try:
        begin, end = _validity(_content(path))
    except (OSError, ValueError):
        return Status.UNREADABLE
    now = datetime.now(timezone.utc)
    if now < begin:
        return Status.NOT_YET_VALID
    return Status.EXPIRED if now > end else Status.VALID


def _content(path: bytes) -> bytes:
    # Non-blocking, so that a pipe at the path cannot hold up the caller.
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    with os.fdopen(descriptor, "rb") as file:
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            raise ValueError("not a regular file")
        content = file.read(_LARGEST_FILE + 1)
    if len(content) > _LARGEST_FILE:
        raise ValueError("too large for a certificate")
    return content


def _validity(content: bytes) -> tuple[datetime, datetime]:
    from cryptography import x509  # costs every start more than the rest of the stand-in together

    pem = b"-----BEGIN" in content
    load = x509.load_pem_x509_certificate if pem else x509.load_der_x509_certificate
    try:
        certificate = load(content)
    except x509.InvalidVersion as unknown:
        raise ValueError("a certificate of an unknown version") from unknown
    return certificate.not_valid_before_utc, certificate.not_valid_after_utc
