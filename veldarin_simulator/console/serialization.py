"""What a call left behind, as JSON: its result, its exception, the native calls it made.

Bytes are written as text with escapes, the form that a call takes them in again.
"""

from __future__ import annotations

import math
import traceback
from typing import Any

from veldarin_simulator import NativeCall

_RELEASE = "JSONObject.release"
_COMMAND_LINE = "get_cli_cmd_output"
_VERBATIM = {0x0A: "\\n", 0x0D: "\\r", 0x09: "\\t", 0x5C: "\\\\"}


def escaped(content: bytes) -> str:
    """The bytes as `calling` takes them: characters where they are UTF-8, else escapes."""
    text = content.decode("utf-8", "surrogateescape")
    return "".join(map(_escaped, text))


def _escaped(character: str) -> str:
    code = ord(character)
    if code in _VERBATIM:
        return _VERBATIM[code]
    if 0xDC80 <= code <= 0xDCFF:  # a byte that is no UTF-8
        return f"\\x{code - 0xDC00:02x}"
    if character.isprintable():
        return character
    return "".join(f"\\x{byte:02x}" for byte in character.encode())


def result(value: Any) -> dict[str, Any]:
    """The name of its type, what Python writes for it, and itself."""
    return {"type": type(value).__name__, "repr": repr(value), "value": plain(value)}


def plain(value: Any) -> Any:
    """A copy that JSON can hold: bytes as escaped text, what JSON has no form for as Python writes
    it."""
    if isinstance(value, bytes):
        return escaped(value)
    if isinstance(value, dict):
        return {key if isinstance(key, str) else repr(key): plain(v) for key, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain(element) for element in value]
    if isinstance(value, float) and not math.isfinite(value):
        return repr(value)
    if value is None or isinstance(value, (str, int, float)):
        return value
    return repr(value)


def raised(error: BaseException, passed: str | None = None) -> dict[str, Any]:
    """An exception: its type, message, traceback entries from the outermost on. Entries of the file
    `passed`, which called, are left out."""
    entries = error.__traceback__
    while entries is not None and entries.tb_frame.f_code.co_filename == passed:
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


def source(journal: list[NativeCall]) -> str:
    """Where the answers of a call came from."""
    asked = [call for call in journal if call.service != _RELEASE]
    sources = sorted({call.source for call in asked} - {"none"})
    return "+".join(sources) or ("no answer" if asked else "no call")


def native_call(call: NativeCall) -> dict[str, Any]:
    """A call of the journal. "kind" is "request", "command", "text", "plain" for a service that
    is given nothing, or "method" for a call through the method table of a JSONObject."""
    shown: dict[str, Any] = {"service": call.service, "source": call.source}
    if call.service == _RELEASE:
        return {**shown, "kind": "method", "json": call.request}
    if call.request is not None:
        return {**shown, "kind": "request", "json": call.request}
    if call.text is not None:
        kind = "command" if call.service == _COMMAND_LINE else "text"
        return {**shown, "kind": kind, "bytes": escaped(call.text), "hex": call.text.hex(" ")}
    return {**shown, "kind": "plain"}
