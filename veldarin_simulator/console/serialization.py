"""Encodes the outcome of a call as JSON: result, exception and native calls."""

from __future__ import annotations

import math
import traceback
from contextlib import suppress
from typing import Any

from veldarin_simulator import NativeCall
from veldarin_simulator.call_log import RELEASE

_CLI_RUNNER = "get_cli_cmd_output"
_ESCAPES = {0x0A: "\\n", 0x0D: "\\r", 0x09: "\\t", 0x5C: "\\\\"}


def encode_bytes(content: bytes) -> str:
    """Return UTF-8 as text and everything else as escapes; `arguments` decodes it."""
    return "".join(map(_escape, content.decode("utf-8", "surrogateescape")))


def _escape(character: str) -> str:
    code = ord(character)
    if code in _ESCAPES:
        return _ESCAPES[code]
    if 0xDC80 <= code <= 0xDCFF:  # surrogateescape: a byte that is not UTF-8
        return f"\\x{code - 0xDC00:02x}"
    if character.isprintable():
        return character
    return "".join(f"\\x{byte:02x}" for byte in character.encode())


def encode_result(value: Any) -> dict[str, Any]:
    """Return the value with the name of its type and its `repr`."""
    return {"type": type(value).__name__, "repr": repr(value), "value": to_json(value)}


def to_json(value: Any) -> Any:
    """Return a copy that JSON can hold: `repr` replaces what it has no form for."""
    if isinstance(value, bytes):
        return encode_bytes(value)
    if isinstance(value, dict):
        return {key if isinstance(key, str) else repr(key): to_json(v) for key, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [to_json(element) for element in value]
    if isinstance(value, float) and not math.isfinite(value):
        return repr(value)
    if value is None or isinstance(value, (str, int, float)):
        return value
    return repr(value)


def encode_exception(error: BaseException, caller: str) -> dict[str, Any]:
    """Return type, message and traceback, outermost entry first.

    Args:
        error: The exception.
        caller: The file that made the call; its traceback entries are left out.
    """
    entries = error.__traceback__
    while entries is not None and entries.tb_frame.f_code.co_filename == caller:
        entries = entries.tb_next
    kind = type(error)
    return {
        "type": kind.__name__,
        "module": kind.__module__,
        "message": str(error),
        "traceback": [
            {"function": entry.name, "file": entry.filename, "line": entry.lineno}
            for entry in traceback.extract_tb(entries)
        ],
        "text": "".join(traceback.format_exception(kind, error, entries, chain=False)),
    }


def encode_native_call(call: NativeCall) -> dict[str, Any]:
    """Return an entry of the call log.

    Its "kind" is "request", "command", "text", "plain" for a service without an argument, or
    "method" for a call through the method table of a JSONObject. Its "reply" is the name and text
    that keep the reply in a scenario.
    """
    entry: dict[str, Any] = {"service": call.service, "source": call.source, "kind": "plain"}
    name = call.service
    if call.request is not None:
        entry["kind"] = "method" if call.service == RELEASE else "request"
        entry["json"] = call.request
    elif call.text is not None:
        entry["kind"] = "command" if call.service == _CLI_RUNNER else "text"
        entry.update(bytes=encode_bytes(call.text), hex=call.text.hex(" "))
        name = call.text.decode("utf-8", "replace") if call.service == _CLI_RUNNER else name
    if call.reply is not None:
        with suppress(UnicodeDecodeError):
            entry["reply"] = {"name": name, "text": call.reply.decode()}
    return entry
