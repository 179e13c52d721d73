"""A small management interface: the errors of the switch ports, and the ARP table."""

from __future__ import annotations

from typing import Any

from pyramid.config import Configurator


def create_application() -> Any:
    """Return the WSGI application."""
    config = Configurator()
    config.add_route("ports", "/ports")
    config.add_route("neighbors", "/neighbors")
    config.scan("gui.views")
    return config.make_wsgi_app()
