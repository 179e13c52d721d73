"""`veldarin-simulator record`: record this machine's replies, or check a recording.

The recording itself is `veldarin_simulator.record`, which also runs on a device without the
simulator.
"""

from __future__ import annotations

import signal
import sys
from pathlib import Path

from veldarin_simulator import Scenario, ScenarioError, Simulator, record
from veldarin_simulator.cli import common

_DESCRIPTION = f"""\
{record.DESCRIPTION}
The device is this machine, with --scenario in front of it. To record an appliance,
copy the simulator's file record.py to it and run it there:
  {record.__file__}
"""
_EXIT_STATUS = """\
exit status: 0 recorded, or equal; 1 some calls failed or differ, or nothing was
written; 2 usage"""


def create_parser() -> common.Parser:
    """Return the parser of the tool's arguments."""
    parser = common.Parser("record", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    mode = parser.add_mutually_exclusive_group(required=True)
    mode.add_argument("--into", type=Path, metavar="FOLDER", help="the new scenario")
    mode.add_argument(
        "--check",
        type=Path,
        metavar="FOLDER",
        help="replay a recording instead, and compare the outcome of each recorded call",
    )
    record.add_options(parser)
    common.add_scenario(parser)
    return parser


def main(arguments: list[str]) -> int:
    """Run the tool and return its exit status."""
    parser = create_parser()
    options = parser.parse_args(arguments)
    record.check_options(options, parser)
    if options.check is not None:
        return _check(options.check)
    # A terminated recording removes its files, as an interrupted one does.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    with common.open_simulator(options.scenario) as simulator:
        try:
            return record.run(options, simulator.module, simulator.raise_errors, common.info)
        except record.RecordError as error:
            common.fail(str(error), common.EXIT_FAILURE)


def _check(folder: Path) -> int:
    try:
        with Simulator(Scenario.load(folder), live=False) as simulator:
            calls, different = 0, 0
            for call, equal in record.replay(simulator.module, folder):
                calls += 1
                if not equal:
                    different += 1
                    print(f"different: {call}")
    except ScenarioError as error:
        common.fail(str(error), common.EXIT_USAGE)
    except (KeyError, TypeError, ValueError) as error:
        common.fail(f"{folder / record.CALLS}: is not a list of calls: {error}", common.EXIT_USAGE)
    except OSError as error:
        reason = (error.strerror or str(error)).lower()
        common.fail(f"{folder / record.CALLS}: {reason}", common.EXIT_USAGE)
    print(f"{folder}: {calls} calls, {different} different")
    return common.EXIT_FAILURE if different else 0
