"""The console as a server: waitress, whose own refusals are JSON here like all others."""

from __future__ import annotations

import logging
from typing import Any

from waitress.channel import HTTPChannel
from waitress.server import create_server
from waitress.task import ErrorTask

from veldarin_simulator.console.errors import Problem
from veldarin_simulator.console.security import MOST_BYTES

# Bodies of this size are still read, to be refused by the application with the connection whole.
_MOST_READ = 8 * MOST_BYTES
_MOST_HEADER = 64 * 1024
_THREADS = 4


class _JSONErrorTask(ErrorTask):  # type: ignore[misc]
    """What is answered to a request that the server itself refuses."""

    def execute(self) -> None:
        error = self.request.error
        body = Problem(error.code, str(error.body)).body()
        self.status = f"{error.code} {error.reason}"
        self.content_length = len(body)
        self.response_headers = [("Content-Type", "application/json"), ("Connection", "close")]
        self.close_on_finish = True
        self.write(body)


class _Channel(HTTPChannel):  # type: ignore[misc]
    error_task_class = _JSONErrorTask


def server(application: Any, host: str, port: int) -> Any:
    """A listening server; port 0 takes a free one. `run()` serves until it is interrupted,
    `effective_port` is where. Raises `OSError`."""
    # That a request waits for another is how the bench works, and no news.
    logging.getLogger("waitress.queue").setLevel(logging.ERROR)
    made = create_server(
        application,
        host=host,
        port=port,
        threads=_THREADS,
        ident="console",
        max_request_body_size=_MOST_READ,
        max_request_header_size=_MOST_HEADER,
        clear_untrusted_proxy_headers=True,
    )
    made.channel_class = _Channel
    return made
