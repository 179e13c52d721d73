"""`python -m lab`, which is `make lab`: the checks, or with --stay a network to look around in."""

from __future__ import annotations

import sys
from contextlib import suppress

import pytest

from lab.network import ROOT, why_not
from lab.network_states import Lab

_STAY = "--stay"


def main(arguments: list[str]) -> int:
    """Runs pytest on the lab with the arguments, or stays; returns the exit status."""
    reason = why_not()
    if reason:
        print(f"skipped: {reason}")
        return 0
    if _STAY in arguments:
        return _stay()
    return int(pytest.main(["-q", str(ROOT / "lab"), *arguments]))


def _stay() -> int:
    with Lab() as lab:
        print(_invitation(lab), flush=True)
        with suppress(KeyboardInterrupt):
            sys.stdin.readline()
    return 0


def _invitation(lab: Lab) -> str:
    nodes = ", ".join(f"{name} {node.pid}" for name, node in lab.nodes.items())
    enter = " ".join(lab.nodes["hub"].enter)
    return (
        f"The network is up: {nodes}. For example in hub:\n"
        f"    {enter} {sys.executable} -m veldarin_simulator call list_bfd_neighbor\n"
        "Enter or Ctrl-C takes it down."
    )


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except KeyboardInterrupt:
        sys.exit(130)
