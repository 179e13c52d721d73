"""`veldarin-simulator list`: list the module's functions."""

from __future__ import annotations

from veldarin_simulator.cli import common
from veldarin_simulator.similar import similar

_DESCRIPTION = """\
List the functions of veldarin.modules.modules_util, each with its summary. With a
text, list those whose names contain it or resemble it.
"""
_EXIT_STATUS = "exit status: 0 listed, 1 no function has such a name, 2 usage"


def create_parser() -> common.Parser:
    """Return the parser of the tool's arguments."""
    parser = common.Parser("list", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    parser.add_argument("text", metavar="TEXT", nargs="?", help="a name or a part of names")
    return parser


def main(arguments: list[str]) -> int:
    """Run the tool and return its exit status."""
    text = create_parser().parse_args(arguments).text
    functions = common.load_functions()
    names = [*functions] if text is None else similar(text, functions)
    if not names:
        common.fail(f"no function has a name like {text}", common.EXIT_FAILURE)
    width = max(map(len, names))
    for name in names:
        print(f"{name:<{width}}  {functions[name].summary}")
    return 0
