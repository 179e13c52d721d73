"""Cookie services: identifiers, the hash behind cookie names, the cipher of cookie values.

Values are enciphered with AES-256-GCM under a key of this machine and user (`state.secret`). The
text form is a random nonce, the ciphertext and the tag in URL-safe Base64 without padding, so it
fits into a cookie, holds no NUL and is always longer than what it holds.
"""

from __future__ import annotations

import base64
import os
import secrets
import zlib
from typing import TYPE_CHECKING

from veldarin_simulator import state_dir

if TYPE_CHECKING:  # imported when a value is to be wrapped: the library takes long to load
    from cryptography.hazmat.primitives.ciphers.aead import AESGCM

_KEY_FILE = "cookie-key"
_KEY_SIZE = 32
_NONCE_SIZE = 12
_PURPOSE = b"appliance cookie value, version 1"


def new_identifier() -> int:
    """A cookie identifier: 32 bits from the system's random source."""
    return secrets.randbits(32)


def text_hash(text: bytes) -> int:
    """The CRC-32 (ISO-HDLC, as in zlib) of the text, an unsigned 32-bit number."""
    return zlib.crc32(text)


class ValueCipher:
    """Wraps and unwraps cookie values. The key is fetched on first use and kept."""

    def __init__(self) -> None:
        self._cipher: AESGCM | None = None

    def wrap(self, plain: bytes) -> bytes:
        """The wrapped value. Raises `OSError` or `ValueError` where the key cannot be had."""
        nonce = os.urandom(_NONCE_SIZE)
        return _to_text(nonce + self._keyed().encrypt(nonce, plain, _PURPOSE))

    def unwrap(self, wrapped: bytes) -> bytes:
        """The value, or the empty text for anything that `wrap` did not make under this key.

        Raises `OSError` or `ValueError` where the key cannot be had.
        """
        from cryptography.exceptions import InvalidTag

        cipher = self._keyed()
        try:
            sealed = _from_text(wrapped)
            return cipher.decrypt(sealed[:_NONCE_SIZE], sealed[_NONCE_SIZE:], _PURPOSE)
        except (ValueError, InvalidTag):
            return b""

    def _keyed(self) -> AESGCM:
        if self._cipher is None:
            key = state_dir.secret(_KEY_FILE, _KEY_SIZE)
            from cryptography.hazmat.primitives.ciphers.aead import AESGCM

            self._cipher = AESGCM(key)
        return self._cipher


def _to_text(sealed: bytes) -> bytes:
    return base64.urlsafe_b64encode(sealed).rstrip(b"=")


def _from_text(text: bytes) -> bytes:
    sealed = base64.urlsafe_b64decode(text + b"=" * (-len(text) % 4))
    # The decoder skips foreign characters and ignores spare bits; one value has one text here.
    if _to_text(sealed) != text:
        raise ValueError("not in the encoder's form")
    return sealed
