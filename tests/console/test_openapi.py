"""The OpenAPI description: valid, complete, and kept by every response."""

from __future__ import annotations

import json
import re
from pathlib import Path
from typing import Any

import pytest
from webtest import TestApp

from tests.support.function_table import FUNCTIONS
from veldarin_simulator.console import openapi
from veldarin_simulator.console.app import ROUTES
from veldarin_simulator.console.arguments import _DECODERS
from veldarin_simulator.console.session import Session

# In one group of packages only.
openapi_spec_validator = pytest.importorskip("openapi_spec_validator")
schemathesis = pytest.importorskip("schemathesis")


@pytest.fixture
def description(api: Any) -> Any:
    """The description that the console serves."""
    return api("GET", "/api/openapi.json")


def test_description_is_valid(description: Any) -> None:
    assert description["openapi"].startswith("3.1.")
    openapi_spec_validator.validate(description)


def test_description_has_every_route_and_function(description: Any) -> None:
    described = {
        (method.upper(), path) for path, methods in description["paths"].items() for method in methods
    }
    calls = {("POST", f"/api/functions/{function.name}") for function in FUNCTIONS}
    routes = {(route.method, re.sub(r":.*\}", "}", route.path)) for route in ROUTES}
    assert described == (routes - {("POST", "/api/functions/{name}")}) | calls
    identifiers = [one["operationId"] for path in description["paths"].values() for one in path.values()]
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


@pytest.mark.slow
@pytest.mark.workstation_only("thousands of requests take too long under emulation")
@pytest.mark.requires("cryptography", "netlink")
def test_made_up_requests_keep_the_description(client: TestApp, tmp_path: Path) -> None:
    """No response is a server error or differs from the description."""
    from hypothesis import HealthCheck, given, settings

    loaded = schemathesis.openapi.from_wsgi("/api/openapi.json", client.app)
