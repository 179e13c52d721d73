"""Simulated `migbase.cmdbapi.cmdbapi_util`: queries of the configuration database."""

from __future__ import annotations

SERIAL_NUMBER = b"SIMULATOR0000001"  # not a real device's

serial_number = SERIAL_NUMBER  # the simulator sets it


def serial_number_ascii() -> bytes:
    """Return the serial number of the appliance."""
    return serial_number
