"""Stand-in `migbase.cmdbapi.cmdbapi_util`: what the configuration database says of the device."""

from __future__ import annotations

SERIAL_NUMBER = b"STANDIN000000001"  # of no real device

serial_number = SERIAL_NUMBER  # for a workstation to set


def serial_number_ascii() -> bytes:
    """The device's serial number."""
    return serial_number
