"""`python -m lab` (`make lab`) runs the comparisons, or with --stay an interactive network."""

from __future__ import annotations

import shlex
import sys
from contextlib import suppress

import pytest

from lab.network import skip_reason
from lab.network_states import Lab
from veldarin_simulator.native_library import ROOT


def main(arguments: list[str]) -> int:
    """Run pytest on the lab with the arguments, or stay; return the exit status."""
    reason = skip_reason()
    if reason:
        print(f"skipped: {reason}")
        return 0
    if "--stay" not in arguments:
        return int(pytest.main(["-q", str(ROOT / "lab"), *arguments]))
    with Lab() as lab:
        nodes = ", ".join(f"{name} {node.pid}" for name, node in lab.nodes.items())
        call = [sys.executable, *"-m veldarin_simulator call list_bfd_neighbor".split()]
        print(
            f"The network is up: {nodes}. To call the module in hub:\n"
            f"    {shlex.join([*lab.nodes['hub'].command_prefix, *call])}\n"
            "Press Enter or Ctrl-C to stop it.",
            flush=True,
        )
        with suppress(KeyboardInterrupt):
            sys.stdin.readline()
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except KeyboardInterrupt:
        sys.exit(130)
