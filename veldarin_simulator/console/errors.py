"""What the console refuses, in the one form that every error of its interface has."""

from __future__ import annotations

import json
from http import HTTPStatus
from typing import Any


class Problem(Exception):
    """A request that cannot be served: the HTTP status, one sentence, and where it is wrong."""

    def __init__(self, status: int, sentence: str, **where: Any) -> None:
        super().__init__(sentence)
        self.status = HTTPStatus(status)
        self.sentence = sentence
        self.where = where

    def described(self) -> dict[str, Any]:
        """As the interface answers it."""
        about = {"status": self.status.value, "title": self.status.phrase, "problem": self.sentence}
        return {"error": {**about, **self.where}}

    def body(self) -> bytes:
        """The same as bytes of JSON."""
        return json.dumps(self.described(), indent=2).encode() + b"\n"
