"""Packet-capture control over recorded sniffer profiles: their state, kept while the process runs.

A plain machine has no sniffer profiles. The recorded summary says which there are; starting,
stopping, pausing and deleting a capture changes what the next summary says. No packet is captured.
"""

from __future__ import annotations

from typing import Any

NAME = "profile-name"

# States are named as the management interface names them; "None" is a profile without a capture.
_AFTER_DELETE = "None"


class Captures:
    """The profiles of a recorded summary: a list of objects, each with "profile-name" and "state".

    The summary is taken over and changed. One of another form is answered as it is, and no profile
    can be controlled.
    """

    def __init__(self, summary: Any) -> None:
        self._summary = summary
        rows = self._summary if isinstance(self._summary, list) else []
        self._profiles = {
            row[NAME]: row
            for row in rows
            if isinstance(row, dict) and isinstance(row.get(NAME), str)
        }

    def summary(self, _request: Any = None) -> Any:
        """The profiles in their present state."""
        return self._summary

    def start(self, request: Any) -> dict[str, Any]:
        """Begins a capture or goes on with a paused one."""
        return self._enter(request, "Running")

    def stop(self, request: Any) -> dict[str, Any]:
        """Ends a running or paused capture; its packets stay."""
        return self._enter(request, "Stop", only_from=("Running", "Pause", "Stop"))

    def pause(self, request: Any) -> dict[str, Any]:
        """Holds a running capture."""
        return self._enter(request, "Pause", only_from=("Running", "Pause"))

    def delete(self, request: Any) -> dict[str, Any]:
        """Throws the capture and its packets away; the profile stays."""
        reply = self._enter(request, _AFTER_DELETE)
        if reply["result"] == "done":
            self._profiles[request[NAME]]["packets"] = 0
        return reply

    def _enter(
        self, request: Any, state: str, only_from: tuple[str, ...] | None = None
    ) -> dict[str, Any]:
        """The acknowledgement: "result" is "done" or "refused", then with a "reason"."""
        name = request.get(NAME)
        profile = self._profiles.get(name) if isinstance(name, str) else None
        if profile is None:
            return {NAME: name, "result": "refused", "reason": "no such profile"}
        before = profile.get("state")
        if only_from is not None and before not in only_from:
            reason = f"no capture to change, its state is {before}"
            return {NAME: name, "result": "refused", "reason": reason, "state": before}
        profile["state"] = state
        return {NAME: name, "result": "done", "state": state}
