"""The stand-in appliance as a Python object: script a device, run the module on it, look at what
crossed the native boundary. For tests, tools and GUI authors."""

from __future__ import annotations

import ctypes
import difflib
import importlib
import json
import os
import shutil
import tempfile
from collections.abc import Callable
from pathlib import Path
from types import ModuleType, TracebackType
from typing import Any, Union

from veldarin_simulator import native_library
from veldarin_simulator.call_log import GILProbes, LiveObjects, NativeCall
from veldarin_simulator.reply import RawJSON, Reply, Source

PRODUCT = "veldarin.modules.modules_util"
# No native services, but a default answer may give them all the same: what the sibling modules are
# asked for, and the attribute here that says it.
_SIBLING_DATA = {
    "serial_number_ascii": "serial_number",
    "get_preference_cookie_secret_path": "secret_path",
}

# What a service hands back when nobody answers.
_UNANSWERED = {
    native_library.ReplyForm.JSON: None,
    native_library.ReplyForm.TEXT: None,
    native_library.ReplyForm.WRAPPED: b"",
    native_library.ReplyForm.IN_PLACE: b"",
    native_library.ReplyForm.COUNT: 0,
    native_library.ReplyForm.STATUS: 0,
}

# A reply made ahead, or what makes it per call.
_Maker = Union[native_library.EncodedReply, Callable[..., object]]

_open: Simulator | None = None


class Simulator:
    """A device that answers the native services; one at a time in a process.

    `scenario`: a folder of recorded answers that come before the default ones. `live=False` without
    a scenario: nothing answers but what is scripted. `counting=False`: text buffers are not
    followed, so that nothing stands between the interpreter and its allocator. Use it in a `with`
    block, or `close()` it. Opening it makes the staged modules importable.

    `RuntimeError`: nothing is built, or another appliance is open.
    """

    def __init__(
        self, scenario: Path | None = None, live: bool = True, *, track_buffers: bool = True
    ) -> None:
        global _open
        self._host = native_library.load()
        if _open is not None:
            raise RuntimeError("another appliance is open in this process: close it first")
        self._counting = track_buffers
        self._makers: dict[str, tuple[_Maker, Source]] = {}
        self._sources: dict[str, Source] = {}
        self._errors: list[BaseException] = []
        self._blank: RawJSON | None = None
        self._on_create: Callable[[tuple[Any, ...]], object] | None = None
        self._on_release: Callable[[str], object] | None = None
        self._folder = Path(tempfile.mkdtemp(prefix="appliance-"))
        self._host.open(self._asked, track_buffers)
        _open = self
        try:
            self._set_up(scenario, live)
        except BaseException:
            self.close()
            raise

    def _set_up(self, scenario: Path | None, live: bool) -> None:
        self._observe()
        self.secret_path = self._folder / "preference_cookie_secret"
        device_data = _device_data()
        device_data.serial_number = device_data.SERIAL_NUMBER
        if not live and scenario is None:
            return
        from veldarin_simulator.providers import default_answers

        for name, answer in default_answers(scenario, live).items():
            self.set_reply(name, answer)

    def __enter__(self) -> Simulator:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self.close()
        if error is None:
            self.raise_errors()
        elif self._errors and error.__context__ is None:
            # Most likely the cause; the traceback then shows both.
            error.__context__ = self._errors[0]

    def close(self) -> None:
        """Ends it: from here on services answer null, nought or empty text."""
        global _open
        if _open is not self:
            return
        _open = None
        self._host.close()
        self._on_create = self._on_release = None
        self._observe()
        shutil.rmtree(self._folder, ignore_errors=True)

    @property
    def module(self) -> ModuleType:
        """`veldarin.modules.modules_util`, imported on first use."""
        return importlib.import_module(PRODUCT)

    def set_reply(self, service: str, reply: object) -> None:
        """Scripts what a native service answers, from the next call on.

        `reply` is, for a `build_…` function, a JSON value, `RawJSON` or `None` (a null pointer);
        for the CLI runner text (`str` as UTF-8, or `bytes`) or `None`; for the cookie values text;
        for the others an `int`. Or a callable that gives one, called with what the service was
        given: the request as a Python value, the text as `bytes`, nothing for a cookie identifier.
        Or an `Answer`, which says its source. An unwrapped cookie value may not be longer than the
        wrapped one; `None` leaves it as it is.

        `TypeError`, `ValueError`: the service cannot answer that, or there is no such service. An
        error in a callable is kept for `check()`; the service then answers null, nought or empty
        text, and leaves a cookie value to be unwrapped as it is.

        The names "serial_number_ascii" and "get_preference_cookie_secret_path" set `serial_number`
        and `secret_path`.
        """
        answer = reply if isinstance(reply, Reply) else Reply(reply)
        value, source = answer.reply, answer.source
        if service in _SIBLING_DATA:
            setattr(self, _SIBLING_DATA[service], value)
            self._sources[service] = source
            return
        form = self._form(service)
        maker = value if callable(value) else native_library.encode_reply(form, value, source)
        self._host.clear_fixed_reply(service)
        self._makers[service] = maker, source
        self._sources.pop(service, None)

    def set_fixed_reply(self, service: str, reply: object) -> None:
        """Cans a reply (a value, no callable) natively: its calls do not enter Python.

        Canned calls are not journalled, and while any service is canned neither are the releases
        of JSONObjects. `answer` for the service ends it. A text canned for `cookieval_unwrap` that
        does not fit is an error for `check()`.
        """
        self._host.set_fixed_reply(service, native_library.encode_reply(self._form(service), reply))
        self._makers.pop(service, None)
        self._sources[service] = "scripted"

    def fixed_reply_calls(self, service: str) -> int:
        """How often the reply canned for the service was handed out."""
        self._form(service)
        return self._host.fixed_reply_calls(service)

    def source(self, service: str) -> Source:
        """Where the service's last reply came from; before the first, where the next will."""
        if service in self._sources:
            return self._sources[service]
        if service not in _SIBLING_DATA:
            self._form(service)
        return self._makers[service][1] if service in self._makers else "none"

    def raise_errors(self) -> None:
        """Raises what went wrong in callables since the last check, else does nothing."""
        errors, self._errors = self._errors, []
        misfits = self._host.oversized_replies()
        if not errors and misfits:
            raise ValueError(f"cookieval_unwrap: the canned text did not fit {misfits} buffers")
        if len(errors) > 1:
            listed = "; ".join(repr(error) for error in errors)
            raise RuntimeError(f"{len(errors)} answers failed: {listed}") from errors[0]
        if errors:
            raise errors[0]

    @property
    def call_log(self) -> list[NativeCall]:
        """The calls that crossed the native boundary, in order."""
        return self._host.call_log()

    def clear_calls(self) -> None:
        """Empties the journal."""
        self._host.clear_calls()

    def record_serializer(self, record: bool = True) -> None:
        """Adds the calls of `json_object_to_json_string` to the journal, or stops to do so.

        Each entry has the name of the function as its service, and as request the JSON text of the
        object. The release of a JSONObject renders its object too if there is an `on_release`.
        """
        self._host.record_serializer(record)

    def probe_gil(self, counter: ctypes.c_ulong | None, milliseconds: int = 20) -> None:
        """Makes the native services watch whether their caller holds the interpreter lock.

        Each service, and `json_object_to_json_string`, waits in C until the counter changes, for
        this time at most. Another Python thread has to increment the counter; `gil_probes` tells
        what the services saw. `None` ends it. `can` the replies: a reply from Python may itself let
        another thread run, though only after the wait.
        """
        self._host.probe_gil(counter, milliseconds)

    @property
    def gil_probes(self) -> GILProbes:
        """What the native services saw since `probe_gil` was called."""
        return self._host.gil_probes()

    @property
    def live_objects(self) -> LiveObjects:
        """What was made since the appliance was opened and lives still."""
        if not self._counting:
            raise RuntimeError("the appliance was opened with counting=False")
        return self._host.live_objects()

    @property
    def secret_path(self) -> Path:
        """The file of the preference cookie's secret; at first in a folder that `close` removes."""
        return self._secret_path

    @secret_path.setter
    def secret_path(self, path: Path) -> None:
        modules = importlib.import_module("veldarin.modules.modules")
        modules.set_preference_cookie_secret_path(os.fsencode(path))
        self._secret_path = Path(path)
        self._sources["get_preference_cookie_secret_path"] = "scripted"

    @property
    def serial_number(self) -> Any:
        """What `serial_number_ascii()` returns."""
        return _device_data().serial_number

    @serial_number.setter
    def serial_number(self, value: object) -> None:
        _device_data().serial_number = value
        self._sources["serial_number_ascii"] = "scripted"

    @property
    def default_response(self) -> RawJSON | None:
        """What a JSONObject made without argument holds; `None`: the null object."""
        return self._blank

    @default_response.setter
    def default_response(self, value: RawJSON | None) -> None:
        self._host.set_blank(native_library.encode_reply(native_library.ReplyForm.JSON, value))
        self._blank = value

    @property
    def on_create(self) -> Callable[[tuple[Any, ...]], object] | None:
        """Called first in `JSONObject(…)`, with the arguments; an exception goes to its caller."""
        return self._on_create

    @on_create.setter
    def on_create(self, called: Callable[[tuple[Any, ...]], object] | None) -> None:
        self._on_create = called
        self._observe()

    @property
    def on_release(self) -> Callable[[str], object] | None:
        """Called with the JSON text held, before a JSONObject's method-table release gives it up;
        an exception goes to the release's caller, and the object stays held."""
        return self._on_release

    @on_release.setter
    def on_release(self, called: Callable[[str], object] | None) -> None:
        self._on_release = called
        self._observe()

    def _observe(self) -> None:
        json_module = importlib.import_module("util.json")
        json_module.observe(created=self._on_create, released=self._on_release)

    def _form(self, service: str) -> native_library.ReplyForm:
        if service not in self._host.forms:
            near = difflib.get_close_matches(service, self._host.forms, n=1)
            hint = f": did you mean {near[0]}?" if near else ""
            raise ValueError(f"there is no native service {service}{hint}")
        return self._host.forms[service]

    def _asked(self, service: str, given: bytes | None) -> None:
        # The native caller cannot take an exception: whatever goes wrong is kept.
        try:
            reply, source = self._reply(service, given)
            self._host.set_reply(service, reply)
            self._sources[service] = source
        except BaseException as error:
            self._errors.append(error)

    def _reply(
        self, service: str, given: bytes | None
    ) -> tuple[native_library.EncodedReply, Source]:
        form = self._host.forms[service]
        if service not in self._makers:
            return native_library.encode_reply(form, _UNANSWERED[form], "none"), "none"
        maker, source = self._makers[service]
        if isinstance(maker, native_library.EncodedReply):
            return maker, source
        value = maker(*_arguments(form, given))
        if isinstance(value, Reply):
            return native_library.encode_reply(form, value.reply, value.source), value.source
        return native_library.encode_reply(form, value, source), source


def _arguments(form: native_library.ReplyForm, given: bytes | None) -> tuple[object, ...]:
    if given is None:
        return ()
    return (json.loads(given) if form is native_library.ReplyForm.JSON else given,)


def _device_data() -> Any:
    return importlib.import_module("migbase.cmdbapi.cmdbapi_util")
