"""Simulator of the appliance's native services, for running the module on a workstation.

`Simulator` replies in place of the native services, from this machine's state by default.
`python -m veldarin_simulator --help` lists the command-line tools.
"""

import importlib.util
import sys

if sys.argv[:1] == ["-m"] and not all(map(importlib.util.find_spec, ("pyramid", "ujson"))):
    # `python -m veldarin_simulator`: a person has started another interpreter.
    sys.exit(
        f"veldarin_simulator: {sys.executable} lacks the simulator's packages;"
        " run `make build`, then .venv/bin/python -m veldarin_simulator"
    )

from veldarin_simulator.call_log import Calls, GILProbes, LiveObjects, NativeCall
from veldarin_simulator.extras import MissingPackageError
from veldarin_simulator.reply import RawJSON, Reply, Source
from veldarin_simulator.scenario import Scenario, ScenarioError
from veldarin_simulator.simulator import Simulator

__all__ = [
    "Calls",
    "GILProbes",
    "LiveObjects",
    "MissingPackageError",
    "NativeCall",
    "RawJSON",
    "Reply",
    "Scenario",
    "ScenarioError",
    "Simulator",
    "Source",
]
