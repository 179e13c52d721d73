"""The appliance's command line: which provider runs which command.

The user's scenario comes first, then the live commands, then the default scenario. An unknown
command has no output, which the module reports as a failure.
"""

from __future__ import annotations

from collections import Counter
from collections.abc import Callable

from veldarin_simulator.extras import explain_missing_package
from veldarin_simulator.providers import bfd
from veldarin_simulator.reply import Reply
from veldarin_simulator.scenario import Scenario


# The netlink library is slow to import: only a command that needs it imports it.
def _arp_listing() -> str:
    from veldarin_simulator.providers import arp

    return arp.listing()


def _routing_detail(*words: str) -> str:
    from veldarin_simulator.providers import routing

    return routing.detail(" ".join(words))


# A handler takes the words after the command; it returns None if this machine has no output.
_Handler = Callable[..., "str | None"]
_HANDLERS: tuple[tuple[str, int | None, _Handler], ...] = (
    # command, number of arguments (None: any), handler
    ("get system arp", 0, _arp_listing),
    ("get router info routing-table detail", None, _routing_detail),
    ("get router info bfd neighbor", 0, lambda: bfd.neighbors(4)),
    ("get router info bfd neighbor", 2, lambda *session: bfd.neighbor(4, *session)),
    ("get router info6 bfd neighbor", 0, lambda: bfd.neighbors(6)),
    ("get router info6 bfd neighbor", 2, lambda *session: bfd.neighbor(6, *session)),
)


class CommandRunner:
    """Runs commands.

    Attributes:
        user: The user's scenario; may be replaced.
    """

    def __init__(self, user: Scenario, default: Scenario, live: bool) -> None:
        self.user = user
        self._default = default
        self._live = live
        self._calls: Counter[bytes] = Counter()  # of commands with a sequence of outputs

    def reply(self) -> Reply | None:
        """Return the reply of the command line, or None if no command can have output.

        Its sequences are at their beginning.
        """
        if not (self._live or self.user.commands):
            return None
        runner = CommandRunner(self.user, self._default, self._live)
        return Reply(runner.run, "live" if self._live else "recorded")

    def run(self, command: bytes) -> Reply:
        """Return the output of a command with its source, or a null reply if it is unknown.

        Args:
            command: The text that reached the command line, at most 127 bytes of it. Any white
                space separates words.

        Raises:
            OSError: A live handler could not read this machine's state.
        """
        words = command.split()
        normalized = b" ".join(words)
        user = self._recorded(self.user, normalized)
        if user is not None:
            return user
        if self._live:
            live = _run_live([word.decode("utf-8", "replace") for word in words])
            if live is not None:
                return Reply(live, "live")
        return self._recorded(self._default, normalized) or Reply(None, "none")

    def _recorded(self, scenario: Scenario, command: bytes) -> Reply | None:
        outputs = scenario.command_outputs(command)
        if len(outputs) < 2:
            return Reply(outputs[0], "recorded") if outputs else None
        self._calls[command] += 1
        return Reply(outputs[min(self._calls[command], len(outputs)) - 1], "recorded")


def _run_live(words: list[str]) -> str | None:
    for command, count, handler in _HANDLERS:
        known = command.split()
        arguments = words[len(known) :]
        if words[: len(known)] == known and count in (None, len(arguments)):
            with explain_missing_package(f"the live output of {command!r}"):
                return handler(*arguments)
    return None
