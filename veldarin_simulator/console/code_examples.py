"""A call as text that can be copied: Python, a test, a command line."""

from __future__ import annotations

import json
import keyword
import shlex
from typing import Any

from veldarin_simulator import NativeCall, strict_json
from veldarin_simulator.scenario import CLI_SERVICE

_TOKEN = "$CONSOLE_TOKEN"  # the shell inserts it: a copied command does not reveal the token


def python(name: str, positional: list[Any], keywords: dict[str, Any]) -> str:
    """Return the expression that makes the call."""
    if all(map(_is_name, keywords)):
        named = [f"{key}={value!r}" for key, value in keywords.items()]
    else:
        named = [f"**{keywords!r}"]
    return f"{name}({', '.join([*map(repr, positional), *named])})"


def pytest(expression: str, name: str, calls: list[NativeCall], result: Any, exception: Any) -> str:
    """Return a test that makes the call with the same replies and expects the same outcome.

    Args:
        expression: The call, from `python`.
        name: The function.
        calls: The native calls with their replies.
        result: The encoded result, or None.
        exception: The encoded exception, or None.
    """
    imports, lines = [], []
    replies = {call.service: call.reply for call in calls if call.reply is not None}
    commands = {call.text: call.reply for call in calls if call.service == CLI_SERVICE}
    for service, reply in replies.items():
        if service == CLI_SERVICE:
            lines.append(f"simulator.set_reply({service!r}, {commands!r}.get)")
        else:
            lines.append(f"simulator.set_reply({service!r}, {_literal(reply)})")
    call = f"simulator.module.{expression}"
    if exception is None:
        lines.append(f"assert {call} == {result['repr']}")
    else:
        imports = ["import re", "", "import pytest", "", ""]
        if exception["module"] != "builtins":
            lines.append(f"from {exception['module']} import {exception['type']}")
        message = f"re.escape({exception['message']!r})"
        lines.append(f"with pytest.raises({exception['type']}, match={message}):")
        lines.append(f"    {call}")
    if any("RawJSON(" in line for line in lines):
        imports = [*imports[:-2], "from veldarin_simulator import RawJSON", "", ""]
    body = "".join(f"    {line}\n" for line in lines)
    head = "".join(f"{line}\n" for line in imports)
    return f"{head}def test_{name}(simulator):\n{body}"


def _literal(reply: bytes) -> str:
    try:
        return repr(strict_json.loads(reply.decode()))
    except ValueError:  # a script may set any text
        return f"RawJSON({reply!r})"


def curl(url: str, body: dict[str, Any], token: bool) -> str:
    """Return the command that sends the call to the console."""
    authorization = f'-H "Authorization: Bearer {_TOKEN}" ' if token else ""
    content = shlex.quote(json.dumps(body))
    return (
        f"curl {authorization}-H 'Content-Type: application/json' -d {content} {shlex.quote(url)}"
    )


def _is_name(key: str) -> bool:
    return key.isascii() and key.isidentifier() and not keyword.iskeyword(key)
