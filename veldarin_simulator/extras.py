"""The optional packages of the simulator: which extra of the distribution installs each.

Without extras the distribution depends on what the module itself needs. Code that needs more
imports it where it runs, inside `explain_missing_package`.
"""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

DISTRIBUTION = "veldarin-simulator"

_EXTRAS = {
    # package: extra
    "cryptography": "live",
    "psutil": "live",
    "pyroute2": "live",
    "waitress": "console",
}


class MissingPackageError(ImportError, RuntimeError):
    """An optional package is not installed. The message says which extra installs it."""


@contextmanager
def explain_missing_package(user: str) -> Iterator[None]:
    """Translate a failing import of an optional package.

    Args:
        user: What needs the package, as the message names it.

    Raises:
        MissingPackageError: A package of an extra is not installed.
    """
    try:
        yield
    except ModuleNotFoundError as error:
        package = (error.name or "").partition(".")[0]
        if package not in _EXTRAS:
            raise
        install = f"pip install '{DISTRIBUTION}[{_EXTRAS[package]}]'"
        raise MissingPackageError(f"{user} needs {package}: {install}", name=package) from error
