"""The OpenAPI description: valid, complete, and kept by every response."""

from __future__ import annotations

import json
import re
from contextlib import nullcontext, suppress
from typing import Any

import pytest
from hypothesis import HealthCheck, Phase, given, settings
from hypothesis import strategies as st
from hypothesis.errors import Unsatisfiable
from webtest import TestApp

from tests.support.console import ARP
from tests.support.function_table import FUNCTIONS
from veldarin_simulator.console import openapi
from veldarin_simulator.console.app import ROUTES
from veldarin_simulator.console.arguments import _DECODERS

# In one group of packages only.
openapi_spec_validator = pytest.importorskip("openapi_spec_validator")
schemathesis = pytest.importorskip("schemathesis")
validator = pytest.importorskip("openapi_schema_validator")


@schemathesis.serializer("application/zip")
def serialize_archive(_: Any, value: Any) -> bytes:
    """Make bytes of whatever was made up for an archive."""
    return value if isinstance(value, bytes) else str(value).encode("utf-8", "surrogatepass")


CHECKS = [
    "not_a_server_error",
    "status_code_conformance",
    "content_type_conformance",
    "response_headers_conformance",
    "response_schema_conformance",
]


@pytest.fixture
def description(api: Any) -> Any:
    """The description that the console serves."""
    return api("GET", "/api/openapi.json")


def test_description_is_valid(description: Any) -> None:
    assert description["openapi"].startswith("3.1.")
    openapi_spec_validator.validate(description)


def test_description_has_every_route_and_function(description: Any) -> None:
    described = {
        (method.upper(), path)
        for path, methods in description["paths"].items()
        for method in methods
    }
    calls = {("POST", f"/api/functions/{function.name}") for function in FUNCTIONS}
    routes = {(route.method, re.sub(r":.*\}", "}", route.path)) for route in ROUTES}
    assert described == (routes - {("POST", "/api/functions/{name}")}) | calls
    identifiers = [
        one["operationId"] for path in description["paths"].values() for one in path.values()
    ]
    assert len(identifiers) == len(set(identifiers))


def test_described_parameters_are_those_of_the_functions(description: Any) -> None:
    for function in FUNCTIONS:
        operation = description["paths"][f"/api/functions/{function.name}"]["post"]
        body = operation["requestBody"]["content"]["application/json"]["schema"]["properties"]
        assert len(body["arguments"]["prefixItems"]) == len(function.parameters)
        assert body["arguments"]["maxItems"] == len(function.parameters)
        names = [one.name for one in function.parameters] if function.kind == "keywords" else []
        assert list(body["keywords"]["properties"]) == names
        assert operation["description"]


def test_described_encodings_are_those_of_the_decoders() -> None:
    assert list(openapi._ENCODINGS) == list(_DECODERS)
    for name, schema in openapi._ENCODINGS.items():
        assert list(schema["properties"]) == [name]


CALL, PARSE = "/api/functions/{name}", "/api/parse/{kind}"
SCENARIO, REPLY = "/api/scenarios/{name}", "/api/replies/{name}"
MINE, LAG = "/api/scenarios/mine", "/api/replies/build_switch_lg_state"
# A request for each route, in an order in which all succeed: method, route, path, body.
REQUESTS: list[tuple[str, str, str, Any]] = [
    ("GET", "/api/status", "/api/status", None),
    ("GET", "/api/openapi.json", "/api/openapi.json", None),
    ("GET", "/api/functions", "/api/functions", None),
    ("POST", CALL, CALL, {}),
    ("POST", PARSE, "/api/parse/arp", {"text": ARP}),
    ("GET", "/api/scenarios", "/api/scenarios", None),
    ("PUT", SCENARIO, MINE, {}),
    ("GET", "/api/scenarios/current", "/api/scenarios/current", None),
    ("GET", SCENARIO, MINE, None),
    ("POST", f"{SCENARIO}/duplicate", f"{MINE}/duplicate", {"to": "copy"}),
    ("PUT", "/api/scenarios/current", "/api/scenarios/current", {"name": None}),
    ("DELETE", SCENARIO, MINE, None),
    ("POST", f"{SCENARIO}/rename", "/api/scenarios/copy/rename", {"to": "mine"}),
    ("GET", f"{SCENARIO}/archive", f"{MINE}/archive", None),
    ("PUT", f"{SCENARIO}/archive", "/api/scenarios/new/archive", None),
    ("GET", "/api/replies", "/api/replies", None),
    ("GET", REPLY, LAG, None),
    ("PUT", REPLY, LAG, {"text": "[]"}),
    ("DELETE", REPLY, LAG, None),
]


def schema_of(description: Any, name: str | None) -> Any:
    return {"$ref": f"#/components/schemas/{name}", "components": description["components"]}


def test_every_response_fits_the_description(client: TestApp, description: Any) -> None:
    expected = {(route.method, re.sub(r":.*\}", "}", route.path)): route for route in ROUTES}
    archive = b""
    for method, template, path, body in REQUESTS:
        route = expected.pop((method, template))
        kind = "application/zip" if route.request == "Archive" else "application/json"
        content = archive if route.request == "Archive" else json.dumps(body).encode()
        for name in [one.name for one in FUNCTIONS] if path == CALL else [""]:
            response = client.request(
                path.replace("{name}", name), method=method, body=content, content_type=kind
            )
            if route.response == "Archive":
                archive = response.body
            else:
                validator.validate(response.json, schema_of(description, route.response))
        if route.request not in (None, "Archive", "Arguments"):
            validator.validate(body, schema_of(description, route.request))
    assert expected == {}


@pytest.mark.parametrize("path", ["/api/nothing", "/api/scenarios/nowhere"])
def test_error_fits_the_description(client: TestApp, description: Any, path: str) -> None:
    error = client.get(path, status=404).json
    validator.validate(error, schema_of(description, "Problem"))
    with pytest.raises(Exception, match="is not one of"):
        validator.validate({**error, "type": "/problems/other"}, schema_of(description, "Problem"))


@pytest.mark.slow
@pytest.mark.workstation_only("thousands of requests take too long under emulation")
@pytest.mark.parametrize("mode", ["POSITIVE", "NEGATIVE"])
def test_made_up_requests_keep_the_description(client: TestApp, mode: str) -> None:
    """No response is a server error or differs from the description.

    The mode selects requests that fit the description, or that do not.
    """
    schemathesis.checks.load_all_checks()
    checks = schemathesis.checks.CHECKS.get_by_names(CHECKS)
    loaded = schemathesis.openapi.from_wsgi("/api/openapi.json", client.app)
    count = 0

    @settings(
        max_examples=10,
        deadline=None,
        database=None,
        derandomize=True,
        phases=[Phase.generate],
        suppress_health_check=list(HealthCheck),
    )
    @given(st.data())
    def send(operation: Any, data: st.DataObject) -> None:
        nonlocal count
        case = data.draw(operation.as_strategy(generation_mode=schemathesis.GenerationMode[mode]))
        response = case.call()
        case.validate_response(response, checks=checks)
        count += 1

    for found in loaded.get_all_operations():
        # No request differs from a description that allows everything; the search takes seconds.
        if mode == "NEGATIVE" and found.ok().path == REPLY:
            continue
        with suppress(Unsatisfiable) if mode == "NEGATIVE" else nullcontext():
            send(found.ok())
    assert count > 350
