"""The WSGI application: the routes, and the middleware around them."""

from __future__ import annotations

import json
from typing import Any

from pyramid.config import Configurator
from pyramid.httpexceptions import HTTPMethodNotAllowed
from pyramid.renderers import JSON
from pyramid.static import static_view
from pyramid.tweens import EXCVIEW

from veldarin_simulator.console import views
from veldarin_simulator.console.session import Session

# Path, method, view: the HTTP interface in the order of its documentation.
# "(?s:.+)" also matches slashes and line breaks.
ROUTES: tuple[tuple[str, str, Any], ...] = (
    ("/api/functions", "GET", views.list_functions),
    ("/api/functions/{name}", "POST", views.call_function),
    ("/api/parse/{kind}", "POST", views.parse),
    ("/api/scenarios", "GET", views.list_scenarios),
    ("/api/scenarios/current", "PUT", views.put_current_scenario),
    ("/api/scenarios/{name:(?s:.+)}", "PUT", views.put_scenario),
    ("/api/replies", "GET", views.list_replies),
    ("/api/replies/{name:(?s:.+)}", "GET", views.get_reply),
    ("/api/replies/{name:(?s:.+)}", "PUT", views.put_reply),
    ("/api/replies/{name:(?s:.+)}", "DELETE", views.delete_reply),
)
_PAGE: tuple[tuple[str, str, Any], ...] = (
    ("/", "GET", views.page),
    (
        "/static/*subpath",
        "GET",
        static_view("veldarin_simulator.console:static", use_subpath=True, cache_max_age=0),
    ),
)


def create_application(session: Session, *, allow_remote: bool = False) -> Any:
    """Return the WSGI application.

    Args:
        session: The open session that the views work on.
        allow_remote: Whether requests may address the console by other than a loopback address.
    """
    config = Configurator(settings={"console.allow_remote": allow_remote})
    config.registry["session"] = session
    config.add_tween("veldarin_simulator.console.security.middleware", under=EXCVIEW)
    config.add_renderer("json", JSON(serializer=_serialize))
    methods: dict[str, list[str]] = {}
    for path, method, view in (*ROUTES, *_PAGE):
        if path not in methods:
            config.add_route(path, path)
        methods.setdefault(path, []).append(method)
        config.add_view(view, route_name=path, request_method=method, renderer="json")
    for path, allowed in methods.items():
        config.add_view(_method_not_allowed(allowed), route_name=path)
    return config.make_wsgi_app()


def _serialize(value: Any, **_: Any) -> str:
    # ASCII: UTF-8 has no form for a lone surrogate in a result.
    return json.dumps(value, indent=2) + "\n"


def _method_not_allowed(allowed: list[str]) -> Any:
    listed = ", ".join(["GET", "HEAD", *allowed[1:]] if allowed[0] == "GET" else allowed)

    def view(request: Any) -> Any:
        detail = f"{request.path_info} does not support {request.method}, only {listed}"
        raise HTTPMethodNotAllowed(detail, headers={"Allow": listed})

    return view
