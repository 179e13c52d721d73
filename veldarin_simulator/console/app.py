"""The application: which handler answers which request, and what stands around all of them."""

from __future__ import annotations

import json
from typing import Any

from pyramid.config import Configurator
from pyramid.renderers import JSON
from pyramid.tweens import EXCVIEW

from veldarin_simulator.console import views
from veldarin_simulator.console.session import Bench

# Method, path, handler: the interface, as the documentation lists it.
ROUTES: tuple[tuple[str, str, Any], ...] = (
    ("GET", "/api/functions", views.functions),
    ("POST", "/api/functions/{name}", views.call),
    ("POST", "/api/captures/{kind}", views.parse),
    ("GET", "/api/scenarios", views.scenarios),
    ("POST", "/api/scenarios/load", views.load),
    ("POST", "/api/scenarios/save", views.save),
    ("GET", "/api/answers", views.answers),
    ("GET", "/api/answers/{name:.+}", views.answer),
    ("POST", "/api/answers/{name:.+}", views.take),
)


def application(bench: Bench, *, beyond_loopback: bool = False) -> Any:
    """The WSGI application on an open bench. `beyond_loopback`: it is reached by addresses other
    than loopback, on purpose."""
    config = Configurator(settings={"console.beyond_loopback": beyond_loopback})
    config.registry["bench"] = bench
    config.add_tween("veldarin_simulator.console.security.tween", under=EXCVIEW)
    config.add_renderer("json", JSON(serializer=_rendered))
    for method, path, handler in ROUTES:
        name = f"{method} {path}"
        config.add_route(name, path, request_method=method)
        config.add_view(handler, route_name=name, renderer="json")
    config.add_static_view("static", "veldarin_simulator.console:static", cache_max_age=0)
    config.add_route("page", "/", request_method="GET")
    config.add_view(views.page, route_name="page")
    return config.make_wsgi_app()


def _rendered(value: Any, **_: Any) -> str:
    # ASCII: half a surrogate pair in a result has no other form.
    return json.dumps(value, indent=2) + "\n"
