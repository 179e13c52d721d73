"""Control of packet captures on recorded sniffer profiles.

A workstation has no sniffer profiles. The recorded summary lists some; starting, stopping,
pausing and deleting a capture changes the next summary. The simulator captures no packet.
"""

from __future__ import annotations

import copy
from collections.abc import Callable
from typing import Any

SUMMARY = "build_system_sniffer_profile_summary"
CONTROLS = (
    "build_start_sniffer_profile_capture",
    "build_stop_sniffer_profile_capture",
    "build_pause_sniffer_profile_capture",
    "build_delete_sniffer_profile_capture",
)

_NAME = "profile-name"
_NO_CAPTURE = "None"  # the management interface's name for this state


class SnifferProfiles:
    """The profiles of a recorded summary and the state of their captures.

    Args:
        summary: A list of objects, each with "profile-name" and "state". A value of another form is
            returned as it is, and no profile can be controlled.
    """

    def __init__(self, summary: Any) -> None:
        self._summary = copy.deepcopy(summary)
        rows = self._summary if isinstance(self._summary, list) else []
        self._profiles = {
            row[_NAME]: row
            for row in rows
            if isinstance(row, dict) and isinstance(row.get(_NAME), str)
        }

    def replies(self) -> dict[str, Callable[[Any], Any]]:
        """Return the reply of the summary service and of each control service."""
        controls = (self.start, self.stop, self.pause, self.delete)
        return {SUMMARY: self.summary, **dict(zip(CONTROLS, controls))}

    def summary(self, _request: Any = None) -> Any:
        """Return the profiles in their present state."""
        return self._summary

    def start(self, request: Any) -> dict[str, Any]:
        """Start a capture or resume a paused one."""
        return self._set_state(request, "Running")

    def stop(self, request: Any) -> dict[str, Any]:
        """Stop a running or paused capture and keep its packets."""
        return self._set_state(request, "Stop", only_from=("Running", "Pause", "Stop"))

    def pause(self, request: Any) -> dict[str, Any]:
        """Pause a running capture."""
        return self._set_state(request, "Pause", only_from=("Running", "Pause"))

    def delete(self, request: Any) -> dict[str, Any]:
        """Delete the capture and its packets; the profile stays."""
        reply = self._set_state(request, _NO_CAPTURE)
        if reply["result"] == "done":
            self._profiles[request[_NAME]]["packets"] = 0
        return reply

    def _set_state(
        self, request: Any, state: str, only_from: tuple[str, ...] | None = None
    ) -> dict[str, Any]:
        """Return the acknowledgment: "result" is "done", or "refused" with a "reason"."""
        name = request.get(_NAME)
        profile = self._profiles.get(name) if isinstance(name, str) else None
        if profile is None:
            return {_NAME: name, "result": "refused", "reason": "no such profile"}
        before = profile.get("state")
        if only_from is not None and before not in only_from:
            reason = f"no capture to change, its state is {before}"
            return {_NAME: name, "result": "refused", "reason": reason, "state": before}
        profile["state"] = state
        return {_NAME: name, "result": "done", "state": state}
