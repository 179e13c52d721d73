"""The HTTP server: waitress, with its own errors as problem details too."""

from __future__ import annotations

import logging
from typing import Any

from veldarin_simulator.console.errors import CONTENT_TYPE, ApiError
from veldarin_simulator.console.security import MAX_BODY_BYTES
from veldarin_simulator.extras import explain_missing_package

with explain_missing_package("the console"):
    from waitress.channel import HTTPChannel
    from waitress.server import create_server
    from waitress.task import ErrorTask

# The server reads larger bodies to their end, so that the application's 413 reaches the client.
_MAX_READ_BYTES = 8 * MAX_BODY_BYTES
_MAX_HEADER_BYTES = 64 * 1024
_THREADS = 4


class _ProblemTask(ErrorTask):  # type: ignore[misc]
    """Respond to a request that the server itself rejects."""

    def execute(self) -> None:
        error = self.request.error
        body = ApiError(error.code, str(error.body)).to_json()
        self.status = f"{error.code} {error.reason}"
        self.content_length = len(body)
        self.response_headers = [("Content-Type", CONTENT_TYPE), ("Connection", "close")]
        self.close_on_finish = True
        self.write(body)


class _Channel(HTTPChannel):  # type: ignore[misc]
    error_task_class = _ProblemTask


def create(application: Any, host: str, port: int) -> Any:
    """Return a listening server: `run()` serves until interrupted, on `effective_port`.

    Args:
        application: The WSGI application.
        host: The IP address to listen on.
        port: The port; 0 takes a free one.

    Raises:
        OSError: The server cannot listen there.
    """
    # Calls are serialized, so a queue is normal.
    logging.getLogger("waitress.queue").setLevel(logging.ERROR)
    server = create_server(
        application,
        host=host,
        port=port,
        threads=_THREADS,
        ident="console",
        max_request_body_size=_MAX_READ_BYTES,
        max_request_header_size=_MAX_HEADER_BYTES,
        clear_untrusted_proxy_headers=True,
    )
    server.channel_class = _Channel
    return server
