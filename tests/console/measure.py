"""Measures the console as a process: time to start, time of a call, memory after many calls.

python -m tests.console.measure [CALLS]      10,000 calls unless given
"""

from __future__ import annotations

import json
import os
import subprocess
import sys
import time
from http.client import HTTPConnection
from pathlib import Path
from tempfile import TemporaryDirectory
from urllib.parse import urlsplit

import psutil

ROOT = Path(__file__).resolve().parents[2]
# A recorded reply, a command of this machine, and no native service.
FUNCTIONS = ("list_switch_module_summary", "get_system_arp_result", "switch_mclag_icl")


def main(count: int) -> None:
    """Print the figures."""
    with TemporaryDirectory() as state:
        started = time.perf_counter()
        process = subprocess.Popen(
            [sys.executable, "-m", "veldarin_simulator", "console", "--port", "0"],
            cwd=ROOT,
            env={**os.environ, "VELDARIN_SIMULATOR_STATE": state},
            stdout=subprocess.PIPE,
            text=True,
        )
        try:
            assert process.stdout is not None
            address = urlsplit(process.stdout.readline().split()[1])
            print(f"start: {time.perf_counter() - started:.2f} s")
            connection = HTTPConnection(address.hostname or "", address.port)
            memory = psutil.Process(process.pid)
            for total in (count // 10, count):
                call(connection, total // 10)  # reach a steady state
                before, started = memory.memory_info().rss, time.perf_counter()
                call(connection, total)
                seconds = time.perf_counter() - started
                after = memory.memory_info().rss
                print(
                    f"{total} calls: {seconds:.1f} s, {seconds / total * 1e3:.2f} ms each; "
                    f"memory {before / 2**20:.1f} MiB before, {after / 2**20:.1f} MiB after"
                )
        finally:
            process.terminate()
            process.wait()


def call(connection: HTTPConnection, count: int) -> None:
    """Make calls, one after the other."""
    for number in range(count):
        path = f"/api/functions/{FUNCTIONS[number % len(FUNCTIONS)]}"
        connection.request("POST", path, "{}", {"Content-Type": "application/json"})
        response = json.loads(connection.getresponse().read())
        assert "result" in response, response


if __name__ == "__main__":
    main(int(sys.argv[1]) if sys.argv[1:] else 10_000)
