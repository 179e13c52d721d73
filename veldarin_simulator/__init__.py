"""The stand-in appliance: what a workstation has in place of the appliance's native services.

`Simulator` answers in the place of the native services, live by default. Run
`python -m veldarin_simulator --help` for the tools.
"""

from veldarin_simulator.call_log import GILProbes, LiveObjects, NativeCall
from veldarin_simulator.reply import RawJSON, Reply, Source
from veldarin_simulator.simulator import Simulator

__all__ = [
    "GILProbes",
    "LiveObjects",
    "NativeCall",
    "RawJSON",
    "Reply",
    "Simulator",
    "Source",
]
