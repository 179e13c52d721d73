"""The errors of the HTTP interface, in the form of RFC 9457 (problem details)."""

from __future__ import annotations

import json
from typing import Any, NamedTuple

CONTENT_TYPE = "application/problem+json"


class Problem(NamedTuple):
    """A type of error; `title` is the sentence that the RFC requires to be the same each time."""

    status: int
    title: str


# The types, named by the last part of their address: docs/console.md has the same table.
PROBLEMS = {
    "malformed-request": Problem(400, "The request is not valid HTTP, or its path is not UTF-8."),
    "body-not-json": Problem(400, "The body is not a JSON object."),
    "invalid-member": Problem(
        400, "A member of the body is missing, unknown or of the wrong type."
    ),
    "invalid-argument": Problem(400, "An argument of the call cannot be decoded."),
    "token-required": Problem(401, "A console that other machines can reach requires its token."),
    "foreign-request": Problem(
        403, "The request comes from another site, or addresses another host."
    ),
    "unknown-resource": Problem(404, "The console has no such resource."),
    "unknown-function": Problem(404, "The module has no such function."),
    "unknown-scenario": Problem(404, "The scenario does not exist."),
    "method-not-allowed": Problem(
        405, "The resource does not have the method; `Allow` lists those it has."
    ),
    "scenario-exists": Problem(409, "Another scenario has the name."),
    "scenario-changed": Problem(409, "Files of the scenario changed on disk since it was loaded."),
    "scenario-in-use": Problem(409, "The scenario is loaded, or is that of `--scenario`."),
    "storage": Problem(409, "A file or directory cannot be read or written."),
    "reply-unreadable": Problem(409, "The text of the reply cannot be shown."),
    "reply-changed": Problem(409, "The reply is not the one that the request is based on."),
    "too-large": Problem(413, "The body, a reply or a scenario is larger than its limit."),
    "media-type": Problem(415, "The body has another type than the resource takes."),
    "invalid-name": Problem(422, "A scenario or command cannot have the name."),
    "invalid-reply": Problem(422, "The service cannot return the text."),
    "invalid-archive": Problem(
        422, "The archive cannot be read, or has other entries than replies."
    ),
    "unrecognized-text": Problem(422, "No parser's header occurs in the text."),
    "internal": Problem(500, "The console itself failed."),
    "busy": Problem(503, "Another call runs."),
    "closed": Problem(503, "The console is shutting down."),
}


class ApiError(Exception):
    """A request that the console rejects.

    Args:
        kind: The type, a key of `PROBLEMS`.
        detail: What is wrong, in one sentence.
        extra: Further members of the response, such as the `file` and `line` at fault. None leaves
            a member out. `status` replaces that of the type.
    """

    def __init__(self, kind: str, detail: str, **extra: Any) -> None:
        super().__init__(detail)
        self.kind, self.detail = kind, detail
        self.problem = PROBLEMS[kind]
        self.status: int = extra.pop("status", self.problem.status)
        self.extra = {name: value for name, value in extra.items() if value is not None}

    def to_json(self) -> bytes:
        """Return the problem details as the body of a response."""
        head = {"type": f"/problems/{self.kind}", "title": self.problem.title}
        members = {**head, "status": self.status, "detail": self.detail, **self.extra}
        return json.dumps(members, indent=2).encode() + b"\n"
