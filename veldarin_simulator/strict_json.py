"""JSON as RFC 8259 has it: without NaN, infinities, and numbers that become one."""

from __future__ import annotations

import json
import math
from collections.abc import Callable
from typing import Any


def loads(text: str, parse_int: Callable[[str], int] = int) -> Any:
    """Return the value of a JSON text.

    Args:
        text: The text.
        parse_int: What converts the digits of an integer.

    Raises:
        ValueError: The text is not JSON; `json.JSONDecodeError` if the place is known.
        RecursionError: It is nested too deeply.
    """
    return json.loads(
        text, parse_constant=_reject_constant, parse_float=finite, parse_int=parse_int
    )


def _reject_constant(name: str) -> None:
    raise ValueError(f"{name} is not valid JSON")


def finite(text: str) -> float:
    """Convert a number with a fraction or an exponent.

    Raises:
        ValueError: It is greater than every float.
    """
    number = float(text)
    if math.isinf(number):
        raise ValueError(f"{text[:40]} is greater than every float")
    return number
