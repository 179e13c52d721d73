"""The application under test."""

from __future__ import annotations

import pytest
from gui import create_application
from webtest import TestApp


@pytest.fixture
def app() -> TestApp:
    """The management interface, without a server."""
    return TestApp(create_application())
