"""The only error of the HTTP interface, in the form of RFC 9457 (problem details)."""

from __future__ import annotations

import json
from http import HTTPStatus
from typing import Any

CONTENT_TYPE = "application/problem+json"


class ApiError(Exception):
    """A request that the console rejects.

    Args:
        status: The HTTP status.
        detail: What is wrong, in one sentence.
        extra: Further members of the response, such as the `file` and `line` at fault. None leaves
            a member out.
    """

    def __init__(self, status: int, detail: str, **extra: Any) -> None:
        super().__init__(detail)
        self.status = HTTPStatus(status)
        self.detail = detail
        self.extra = {name: value for name, value in extra.items() if value is not None}

    def to_dict(self) -> dict[str, Any]:
        """Return the members of the problem details."""
        title, status = self.status.phrase, self.status.value
        # "about:blank" is the RFC's type for problems that the status explains.
        head = {"type": "about:blank", "title": title, "status": status, "detail": self.detail}
        return {**head, **self.extra}

    def to_json(self) -> bytes:
        """Return the problem details as the body of a response."""
        return json.dumps(self.to_dict(), indent=2).encode() + b"\n"
