"""Cookie services: identifiers, the hash for cookie names, the encryption of cookie values.

Values are encrypted with AES-256-GCM and a key of this machine and user. The text form is a random
nonce, the ciphertext and the tag in URL-safe Base64 without padding: it fits into a cookie, has no
NUL and is always longer than the value.
"""

from __future__ import annotations

import base64
import os
import secrets
import zlib
from typing import TYPE_CHECKING

from veldarin_simulator import state_dir
from veldarin_simulator.extras import explain_missing_package

if TYPE_CHECKING:  # slow to import
    from cryptography.hazmat.primitives.ciphers.aead import AESGCM

_NONCE_SIZE = 12
_ASSOCIATED_DATA = b"appliance cookie value, version 1"


def new_identifier() -> int:
    """Return a cookie identifier: 32 random bits."""
    return secrets.randbits(32)


def text_hash(text: bytes) -> int:
    """Return the CRC-32 (ISO-HDLC, as in zlib) of a text."""
    return zlib.crc32(text)


class ValueCipher:
    """Wraps and unwraps cookie values; reads the key on first use."""

    def __init__(self) -> None:
        self._aesgcm: AESGCM | None = None

    def wrap(self, plain: bytes) -> bytes:
        """Return the wrapped value.

        Raises:
            OSError, ValueError: As in `state_dir.load_or_create_secret`.
        """
        nonce = os.urandom(_NONCE_SIZE)
        return _encode(nonce + self._cipher().encrypt(nonce, plain, _ASSOCIATED_DATA))

    def unwrap(self, wrapped: bytes) -> bytes:
        """Return the value, or b"" if `wrap` did not make the text with this key.

        Raises:
            OSError, ValueError: As in `state_dir.load_or_create_secret`.
        """
        cipher = self._cipher()
        from cryptography.exceptions import InvalidTag

        try:
            sealed = _decode(wrapped)
            return cipher.decrypt(sealed[:_NONCE_SIZE], sealed[_NONCE_SIZE:], _ASSOCIATED_DATA)
        except (ValueError, InvalidTag):
            return b""

    def _cipher(self) -> AESGCM:
        if self._aesgcm is None:
            key = state_dir.load_or_create_secret("cookie-key", 32)
            with explain_missing_package("the encryption of cookie values"):
                from cryptography.hazmat.primitives.ciphers.aead import AESGCM

            self._aesgcm = AESGCM(key)
        return self._aesgcm


def _encode(sealed: bytes) -> bytes:
    return base64.urlsafe_b64encode(sealed).rstrip(b"=")


def _decode(text: bytes) -> bytes:
    sealed = base64.urlsafe_b64decode(text + b"=" * (-len(text) % 4))
    # The decoder ignores foreign characters and spare bits: accept the canonical text only.
    if _encode(sealed) != text:
        raise ValueError("not canonical Base64")
    return sealed
