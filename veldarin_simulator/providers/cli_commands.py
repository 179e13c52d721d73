"""The appliance's command line: which command is answered from where.

A command is looked up in the user's scenario, then among the live commands, then in the recorded
ones. One that nobody knows has no output at all, which the management module reports as a failure.
"""

from __future__ import annotations

from collections.abc import Callable

from veldarin_simulator.providers import bfd
from veldarin_simulator.reply import Reply
from veldarin_simulator.scenario import Scenario


# The netlink library takes long to load: what stands on it is imported when it is asked.
def _arp_listing() -> str:
    from veldarin_simulator.providers import arp

    return arp.listing()


def _routing_detail(*words: str) -> str:
    from veldarin_simulator.providers import routing

    return routing.detail(" ".join(words))


# The words of a command, and what prints its output given the words that follow; None from a
# printer: this machine has nothing to say, a recording may.
_Printer = Callable[..., "str | None"]
_LIVE: tuple[tuple[str, int | None, _Printer], ...] = (
    # command, number of arguments (None: any), printer
    ("get system arp", 0, _arp_listing),
    ("get router info routing-table detail", None, _routing_detail),
    ("get router info bfd neighbor", 0, lambda: bfd.neighbors(4)),
    ("get router info bfd neighbor", 2, lambda *session: bfd.neighbor(4, *session)),
    ("get router info6 bfd neighbor", 0, lambda: bfd.neighbors(6)),
    ("get router info6 bfd neighbor", 2, lambda *session: bfd.neighbor(6, *session)),
)


class CommandLine:
    """Answers commands. `own` is the user's scenario, `stock` what is recorded for everybody."""

    def __init__(self, own: Scenario, stock: Scenario, live: bool) -> None:
        self._own = own
        self._stock = stock
        self._live = live

    def output(self, command: bytes) -> Reply:
        """The text that the command prints, with its source; a null reply for an unknown one.

        `command` is the text that reached the command line, at most 127 bytes of it. Words may be
        apart by any white space. Raises what the live printers raise.
        """
        words = command.split()
        spoken = b" ".join(words)
        own = self._own.command_output(spoken)
        if own is not None:
            return Reply(own, "recorded")
        live = _printed([word.decode("utf-8", "replace") for word in words]) if self._live else None
        if live is not None:
            return Reply(live, "live")
        stock = self._stock.command_output(spoken)
        return Reply(stock, "none" if stock is None else "recorded")


def _printed(words: list[str]) -> str | None:
    for command, count, printer in _LIVE:
        known = command.split()
        arguments = words[len(known) :]
        if words[: len(known)] == known and count in (None, len(arguments)):
            return printer(*arguments)
    return None
