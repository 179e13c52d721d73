"""A self-signed certificate, for the demo on a machine without certificates and for tests."""

from __future__ import annotations

from datetime import datetime, timedelta, timezone

from cryptography import x509
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.serialization import Encoding
from cryptography.x509.oid import NameOID


def certificate(
    begin: timedelta = timedelta(hours=-1),
    end: timedelta = timedelta(hours=1),
    encoding: Encoding = Encoding.PEM,
) -> bytes:
    """Return a certificate that is valid between two times relative to now, without its key."""
    key = ec.generate_private_key(ec.SECP256R1())
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "simulator.invalid")])
    now = datetime.now(timezone.utc)
    builder = (
        x509.CertificateBuilder()
        .subject_name(name)
        .issuer_name(name)
        .public_key(key.public_key())
        .serial_number(x509.random_serial_number())
        .not_valid_before(now + begin)
        .not_valid_after(now + end)
    )
    return builder.sign(key, hashes.SHA256()).public_bytes(encoding)
