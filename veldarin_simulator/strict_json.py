"""JSON as RFC 8259 has it: without NaN, infinities, and numbers that become one."""

from __future__ import annotations

import json
import math
from typing import Any


def loads(text: str) -> Any:
    """Return the value of a JSON text.

    Raises:
        ValueError: The text is not JSON; `json.JSONDecodeError` if the place is known.
        RecursionError: It is nested too deeply.
    """
    return json.loads(text, parse_constant=_reject_constant, parse_float=_finite)


def _reject_constant(name: str) -> None:
    raise ValueError(f"{name} is not valid JSON")


def _finite(text: str) -> float:
    number = float(text)
    if math.isinf(number):
        raise ValueError(f"{text[:40]} is greater than every float")
    return number
