"""Captures what the module logs, for the console, the command line and the parsing of captures."""

from __future__ import annotations

import logging
from collections.abc import Iterator
from contextlib import contextmanager
from typing import NamedTuple

from veldarin_simulator.simulator import MODULE


class LogRecord(NamedTuple):
    """A record of the module's logger."""

    logger: str
    level: str
    message: str


@contextmanager
def capture(name: str = MODULE) -> Iterator[list[LogRecord]]:
    """Collect the records of a logger, of any level, while the block runs."""
    records: list[LogRecord] = []

    class Collector(logging.Handler):
        def emit(self, record: logging.LogRecord) -> None:
            records.append(LogRecord(record.name, record.levelname, record.getMessage()))

    logger, collector = logging.getLogger(name), Collector()
    level = logger.level
    logger.setLevel(logging.DEBUG)
    logger.addHandler(collector)
    try:
        yield records
    finally:
        logger.removeHandler(collector)
        logger.setLevel(level)
