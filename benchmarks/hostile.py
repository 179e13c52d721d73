"""Hostile texts: command output on which a scan within a scan would take quadratic time.

Each text is one piece, repeated. The regression test counts a call on both sizes.
"""

from __future__ import annotations

from dataclasses import dataclass

FACTOR = 16
# Characters. Under callgrind a quadratic scan of the larger size ends within a minute or so.
SIZES = (1024, 1024 * FACTOR)

RUNNER = "get_cli_command_output"


@dataclass(frozen=True)
class HostileText:
    """Output for one function: `head`, then `piece` as often as fits the size, then `tail`.

    `fails`: the call raises, because the function finds no table in the text.
    """

    name: str
    function: str
    piece: str
    head: str = ""
    tail: str = ""
    fails: bool = False

    def output(self, size: int) -> str:
        """Return the text with about `size` characters, one of `SIZES`, between head and tail."""
        # The larger text has exactly FACTOR times the pieces of the smaller.
        pieces = SIZES[0] // len(self.piece) * (size // SIZES[0])
        return self.head + self.piece * pieces + self.tail

    def arguments(self) -> tuple[object, ...]:
        """Return new arguments for one call of the function."""
        return {
            RUNNER: ("get system arp",),
            "get_bfd_neighbor": ("get router info bfd neighbor", {}),
            "get_routing_table_result": ("192.0.2.7",),
            "get_system_arp_result": (),
        }[self.function]


def _bfd(name: str, piece: str, head: str = "", tail: str = "") -> HostileText:
    head = "BFD Peers:\npeer 10.0.0.2 interface port1\n" + head
    return HostileText(f"BFD, {name}", "get_bfd_neighbor", piece, head, tail)


def _routing(name: str, piece: str, head: str = "") -> HostileText:
    block = "Routing entry for 192.0.2.0/24\nKnown,distance 1,metric 2,best\nLast update 1\n"
    return HostileText(f"routing, {name}", "get_routing_table_result", piece, block + head)


def _arp(name: str, piece: str, head: str = "") -> HostileText:
    return HostileText(f"ARP, {name}", "get_system_arp_result", piece, "Address\n" + head)


def _runner(name: str, piece: str, head: str = "") -> HostileText:
    return HostileText(f"runner, {name}", RUNNER, piece, head)


TEXTS = [
    # White space at the beginning and the end of lines and values
    _bfd("tabs between blanks", "       \t"),
    _bfd("blanks between tabs", "\t\t\t\t\t\t\t "),
    _bfd("blank, tab", " \t", tail="key: value"),
    _bfd("tabs between wide blanks", "\u3000\t"),
    _bfd("tabs between blanks, four bytes a character", " \t", head="\U0001f600\n"),
    _bfd("lines of blank and tab", " \t\n"),
    _bfd("tabs between letters", "a\t", tail=": value"),
    _bfd("tabs between letters, two bytes a character", "a\t", head="\u0101"),
    _bfd("wide blanks behind a value", "\u3000", head="key: value"),
    _bfd("wide blanks within a value", "\u3000", head="key: v", tail="v"),
    # The words that the parser looks for, cut short, overlapping and repeated
    _bfd("peer in one line", "peer "),
    _bfd("many headers", f"peer 10.0.0.3 interface port{'2' * 36}\n"),
    _bfd("pee in one line", "pee"),
    _bfd("pee in one line, two bytes a character", "pee", head="\u0101"),
    _bfd("objnam in one line", "objnam"),
    _bfd("pee in every line", "pee: pee\n"),
    _bfd("pee in every line, peer in the last", "pee: pee\n", tail="peer "),
    _bfd("colons in one line", ":"),
    _bfd("colons in every line", "::::::::\n"),
    _bfd("unfinished timers", "Local timers a: 1\nRemote timers b: 2\nLocal timers\n"),
    _bfd("timers cut short", "Local timers\nkey: 1\nkey: 2\n\n"),
    _bfd("packets overlapping in one value", "packetpackets", head="key: "),
    _bfd("packets overlapping in every value", "key: packetpackets\n"),
    _bfd("packet in one value", "packet", head="key: "),
    # Characters outside of ASCII
    _bfd("wide characters in a key", "\u03a3.", tail=": value"),
    _bfd("wide characters in every line", "\u03a3\u0130 key: \u20ac value\n"),
    _bfd("wide characters in a value", "\U0001f600 packetpackets", head="key: "),
    _bfd("surrogates in every line", "the key \ud800: the value \udfff packets\n"),
    _bfd("surrogates in a value", "\udfff packetpackets \ud800", head="key: "),
    # Tables
    HostileText("ARP, no header", "get_system_arp_result", " Addr\n", fails=True),
    _arp("blank lines", " \t\r\n"),
    _arp("wide blank lines", "\u3000\n"),
    _arp("one row of many columns", "a "),
    _arp("surrogates in every row", "10.0.0.2 \ud800 \U0001f600 port1 \udfff\n"),
    HostileText("routing, no header", "get_routing_table_result", " Rout\n", fails=True),
    _routing("carriage returns", "\r"),
    _routing("carriage returns between letters", "a\r", head="10.0.0.2,"),
    _routing("carriage returns, four bytes a character", "\r", head="\U0001f600,port1"),
    _routing("commas in one row", ",", head="10.0.0.2,port1"),
    _routing("wide characters in every row", "* 10.0.0.\U0001f600,\u3000via port\u20ac\n"),
    # The pager's prompt
    _runner("prompts", "--More--"),
    _runner("prompts cut short", "--More-"),
    _runner("prompts overlapping", "--More--More--"),
    _runner("dashes", "-"),
    _runner("prompts cut short, two bytes a character", "--More-", head="\u20ac"),
]
