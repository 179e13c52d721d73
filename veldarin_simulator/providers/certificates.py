"""The check of a certificate's validity period, by this machine's clock."""

from __future__ import annotations

import os
import stat
from datetime import datetime, timezone
from enum import IntEnum

_MAX_BYTES = 1 << 20  # a chain with its key has tens of kilobytes


class Status(IntEnum):
    """The status codes of the check; the module treats all but `VALID` alike."""

    VALID = 0
    EXPIRED = 1
    NOT_YET_VALID = 2
    UNREADABLE = -1


def check(path: bytes) -> Status:
    """Check the first certificate in a PEM or DER file; in a chain this is the server's own.

    Returns:
        `UNREADABLE` if the file is missing, not readable, not regular, larger than a megabyte or
        without a certificate.
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
    # Opening a pipe must not block.
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    with os.fdopen(descriptor, "rb") as file:
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            raise ValueError("not a regular file")
        content = file.read(_MAX_BYTES + 1)
    if len(content) > _MAX_BYTES:
        raise ValueError("too large for a certificate")
    return content


def _validity(content: bytes) -> tuple[datetime, datetime]:
    from cryptography import x509  # the slowest import of the simulator

    pem = b"-----BEGIN" in content
    load = x509.load_pem_x509_certificate if pem else x509.load_der_x509_certificate
    try:
        certificate = load(content)
    except x509.InvalidVersion as error:
        raise ValueError("unknown certificate version") from error
    return certificate.not_valid_before_utc, certificate.not_valid_after_utc
