"""The WSGI application: the routes, and the middleware around them."""

from __future__ import annotations

import json
from typing import Any, NamedTuple

from pyramid.config import Configurator
from pyramid.httpexceptions import HTTPMethodNotAllowed
from pyramid.renderers import JSON
from pyramid.response import Response
from pyramid.static import static_view
from pyramid.tweens import EXCVIEW

from veldarin_simulator.console import views
from veldarin_simulator.console.session import Session


class Route(NamedTuple):
    """A method of a resource. `request` and `response` name schemas of `openapi`."""

    path: str
    method: str
    view: Any
    response: str
    request: str | None = None


# The HTTP interface in the order of its documentation. "(?s:.+)" also matches slashes and line
# breaks.
ROUTES = (
    Route("/api/status", "GET", views.get_status, "Status"),
    Route("/api/openapi.json", "GET", views.get_openapi, "Object"),
    Route("/api/functions", "GET", views.list_functions, "Functions"),
    Route("/api/functions/{name}", "POST", views.call_function, "Call", "Arguments"),
    Route("/api/parse/{kind}", "POST", views.parse, "Parsed", "Text"),
    Route("/api/scenarios", "GET", views.list_scenarios, "Scenarios"),
    Route("/api/scenarios/current", "GET", views.get_current_scenario, "Current"),
    Route("/api/scenarios/current", "PUT", views.put_current_scenario, "Scenarios", "Load"),
    Route("/api/scenarios/{name}", "GET", views.get_scenario, "Scenario"),
    Route("/api/scenarios/{name}", "PUT", views.put_scenario, "Scenarios", "Save"),
    Route("/api/scenarios/{name}", "DELETE", views.delete_scenario, "Scenarios"),
    Route("/api/scenarios/{name}/rename", "POST", views.rename_scenario, "Scenarios", "To"),
    Route("/api/scenarios/{name}/duplicate", "POST", views.duplicate_scenario, "Scenarios", "To"),
    Route("/api/scenarios/{name}/archive", "GET", views.get_archive, "Archive"),
    Route("/api/scenarios/{name}/archive", "PUT", views.put_archive, "Scenarios", "Archive"),
    Route("/api/replies", "GET", views.list_replies, "Replies"),
    Route("/api/replies/{name:(?s:.+)}", "GET", views.get_reply, "Reply"),
    Route("/api/replies/{name:(?s:.+)}", "PUT", views.put_reply, "Reply", "NewReply"),
    Route("/api/replies/{name:(?s:.+)}", "DELETE", views.delete_reply, "Reply"),
)
_STATIC = static_view("veldarin_simulator.console:static", use_subpath=True, cache_max_age=0)
_PAGE = (
    Route("/", "GET", views.page, ""),
    Route("/problems/{name}", "GET", views.problem, ""),
    Route("/static/*subpath", "GET", _STATIC, ""),
)


def create_application(
    session: Session, *, allow_remote: bool = False, token: str | None = None
) -> Any:
    """Return the WSGI application.

    Args:
        session: The open session that the views work on.
        allow_remote: Whether requests may address the console by other than a loopback address.
        token: What every request must present, if not None.
    """
    settings = {"console.allow_remote": allow_remote, "console.token": token}
    config = Configurator(settings=settings)
    config.registry["session"], config.registry["routes"] = session, ROUTES
    config.add_tween("veldarin_simulator.console.security.middleware", under=EXCVIEW)
    config.add_renderer("json", JSON(serializer=_serialize))
    methods: dict[str, list[str]] = {}
    for path, method, view, *_ in (*ROUTES, *_PAGE):
        if path not in methods:
            config.add_route(path, path)
        methods.setdefault(path, []).extend(["GET", "HEAD"] if method == "GET" else [method])
        config.add_view(view, route_name=path, request_method=method, renderer="json")
    for path, allowed in methods.items():
        config.add_view(_other_method([*allowed, "OPTIONS"]), route_name=path)
    return config.make_wsgi_app()


def _serialize(value: Any, **_: Any) -> str:
    # ASCII: UTF-8 has no form for a lone surrogate in a result.
    return json.dumps(value, indent=2) + "\n"


def _other_method(allowed: list[str]) -> Any:
    headers = {"Allow": ", ".join(allowed)}

    def view(request: Any) -> Any:
        if request.method == "OPTIONS":
            return Response(status=204, headers=headers)
        detail = f"{request.path_info} does not support {request.method}, only {headers['Allow']}"
        raise HTTPMethodNotAllowed(detail, headers=headers)

    return view
