"""The HTTP server: waitress, with its own errors as problem details too."""

from __future__ import annotations

import logging
import socket
from typing import Any

from veldarin_simulator.console.errors import CONTENT_TYPE, ApiError
from veldarin_simulator.console.security import MAX_BODY_BYTES
from veldarin_simulator.console.session import MAX_WAITING
from veldarin_simulator.extras import explain_missing_package

with explain_missing_package("the console"):
    from waitress.channel import HTTPChannel
    from waitress.server import create_server
    from waitress.task import ErrorTask, ThreadedTaskDispatcher

# The server reads larger bodies to their end, so that the application's 413 reaches the client.
_MAX_READ_BYTES = 2 * MAX_BODY_BYTES
_MAX_HEADER_BYTES = 64 * 1024
# More than can wait for a call: the others serve requests that need not wait.
_THREADS = MAX_WAITING + 4
# Requests that never end hold connections, not threads, and only so long.
_MAX_CONNECTIONS = 900  # the usual limit of descriptors is 1024
_MAX_IDLE_SECONDS = 20
_STOP_SECONDS = 0.2
_PROBLEMS = {413: "too-large"}


class _ProblemTask(ErrorTask):  # type: ignore[misc]
    """Respond to a request that the server itself rejects."""

    def execute(self) -> None:
        error = self.request.error
        kind = _PROBLEMS.get(error.code, "malformed-request")
        body = ApiError(kind, str(error.body), status=error.code).to_json()
        self.status = f"{error.code} {error.reason}"
        self.content_length = len(body)
        self.response_headers = [("Content-Type", CONTENT_TYPE), ("Connection", "close")]
        self.close_on_finish = True
        self.write(body)


class _Channel(HTTPChannel):  # type: ignore[misc]
    error_task_class = _ProblemTask


class _Dispatcher(ThreadedTaskDispatcher):  # type: ignore[misc]
    """Threads that an interrupted server does not wait for: a call may take any time."""

    def shutdown(self, cancel_pending: bool = True, timeout: float = _STOP_SECONDS) -> bool:
        return bool(super().shutdown(cancel_pending, timeout))


def create(application: Any, host: str, port: int) -> Any:
    """Return a listening server: `run()` serves until interrupted, on `effective_port`.

    Args:
        application: The WSGI application.
        host: The IP address to listen on, or "localhost".
        port: The port; 0 takes a free one.

    Raises:
        OSError: The server cannot listen there.
    """
    # Calls are serialized, so a queue is normal, and the end of the process cancels it.
    logging.getLogger("waitress").setLevel(logging.ERROR)
    dispatcher = _Dispatcher()
    dispatcher.set_thread_count(_THREADS)
    server = create_server(
        application,
        _dispatcher=dispatcher,
        # Of the addresses of "localhost" one is enough.
        host=socket.getaddrinfo(host, None, type=socket.SOCK_STREAM)[0][4][0],
        port=port,
        ident="console",
        max_request_body_size=_MAX_READ_BYTES,
        max_request_header_size=_MAX_HEADER_BYTES,
        connection_limit=_MAX_CONNECTIONS,
        channel_timeout=_MAX_IDLE_SECONDS,
        cleanup_interval=_MAX_IDLE_SECONDS // 4,
        asyncore_use_poll=True,
        clear_untrusted_proxy_headers=True,
    )
    server.channel_class = _Channel
    return server
