"""The simulator: set replies, run the module, inspect the native calls."""

from __future__ import annotations

import ctypes
import importlib
import json
import math
import os
import shutil
import tempfile
import threading
from collections.abc import Callable, Iterable
from dataclasses import replace
from pathlib import Path
from types import ModuleType, TracebackType
from typing import TYPE_CHECKING, Any, cast

from veldarin_simulator import native_library
from veldarin_simulator.call_log import Calls, GILProbes, LiveObjects, NativeCall
from veldarin_simulator.extras import MissingPackageError
from veldarin_simulator.native_library import EncodedReply, ReplyForm, encode_reply, scenario_text
from veldarin_simulator.reply import RawJSON, Reply, Source
from veldarin_simulator.scenario import Scenario
from veldarin_simulator.similar import did_you_mean

if TYPE_CHECKING:
    from veldarin_simulator.providers import Providers

MODULE = "veldarin.modules.modules_util"

# Data of the sibling modules that `set_reply` accepts too: the attribute that it sets.
_SERIAL_NUMBER = "serial_number_ascii"
_SIBLING_DATA = {
    _SERIAL_NUMBER: "serial_number",
    "get_preference_cookie_secret_path": "secret_path",
}

_SECRET = "preference_cookie_secret"

# The result of a service for which no reply is set.
_NO_REPLY = {
    ReplyForm.JSON: None,
    ReplyForm.TEXT: None,
    ReplyForm.WRAPPED: b"",
    ReplyForm.IN_PLACE: b"",
    ReplyForm.COUNT: 0,
    ReplyForm.STATUS: 0,
}

# The result of a service that fails. The others always succeed.
_FAILURE = {
    ReplyForm.JSON: None,
    ReplyForm.TEXT: None,
    ReplyForm.IN_PLACE: None,
    ReplyForm.STATUS: -1,
}
_MAX_DELAY = 86400.0  # seconds

_open: Simulator | None = None


class Simulator:
    """Replies in place of the native services; at most one is open in a process.

    Use it in a `with` block, or call `close()`. It makes the staged modules importable.

    Args:
        scenario: Recorded replies that override this machine's.
        live: Whether replies that the scenario lacks come from this machine's state, or else from
            the default scenario. If false, they come from `set_reply` alone.
        track_buffers: Whether to count text buffers, which needs a wrapper around the interpreter's
            allocator.

    Raises:
        RuntimeError: Nothing is built, or another simulator is open.
    """

    def __init__(
        self, scenario: Scenario | None = None, live: bool = True, *, track_buffers: bool = True
    ) -> None:
        global _open
        self._library = native_library.load()
        if _open is not None:
            raise RuntimeError(
                "another simulator is open in this process: use it, or close it first"
            )
        self._track_buffers = track_buffers
        self._scenario, self._live = scenario, live
        # Made when the module needs it: a process that is killed leaves its temporary files.
        self._folder: Path | None = None
        self._folder_lock = threading.Lock()
        _open = self
        try:
            self._start()
        except BaseException:
            self.close()
            raise

    def _start(self) -> None:
        self._providers: Providers | None = None
        # An encoded reply, or a callable that returns the reply of each call.
        self._replies: dict[str, tuple[EncodedReply | Callable[..., object], Source]] = {}
        self._sources: dict[str, Source] = {}
        self._errors: list[BaseException] = []
        self._recorded: list[bytes | None] | None = None
        self._default_response: RawJSON | None = None
        self._on_create: Callable[[tuple[Any, ...]], object] | None = None
        self._on_release: Callable[[str], object] | None = None
        self._library.open(self._reply_to_call, self._track_buffers)
        self._set_hooks()
        self._secret_path: Path | None = None
        _modules().set_preference_cookie_secret_path(b"", self._find_secret_path)
        self._sources["get_preference_cookie_secret_path"] = "scripted"
        self._reset_serial_number()
        if self._live or self._scenario is not None:
            providers = self._load_providers(self._scenario, self._live)
            for service, reply in providers.replies().items():
                self.set_reply(service, reply)

    def _load_providers(self, scenario: Scenario | None, live: bool) -> Providers:
        from veldarin_simulator.providers import Providers  # slow to import

        self._providers = Providers(scenario or Scenario(), live)
        return self._providers

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
            error.__context__ = self._errors[0]  # the probable cause: the traceback shows both

    def close(self) -> None:
        """Close the simulator; services then return null, 0 or ""."""
        global _open
        if _open is not self:
            return
        _open = None
        self._library.close()
        self._on_create = self._on_release = None
        self._set_hooks()
        _modules().set_preference_cookie_secret_path(b"")
        self.remove_files()

    def remove_files(self) -> None:
        """Delete the temporary directory, which is all that a process leaves if it cannot close."""
        if self._folder is not None and self._process == os.getpid():  # a fork shares the folder
            shutil.rmtree(self._folder, ignore_errors=True)

    def reset(self) -> None:
        """Undo everything since the simulator was opened, and clear the module's shared sessions.

        Replies, hooks, the call log, packet captures and the preference secret become those of a
        new simulator.
        """
        self._library.close()
        if self._folder is not None:
            (self._folder / _SECRET).unlink(missing_ok=True)
        self._start()
        self.shared_sessions.clear()

    @property
    def module(self) -> ModuleType:
        """`veldarin.modules.modules_util`, imported on first use."""
        return importlib.import_module(MODULE)

    @property
    def shared_sessions(self) -> dict[str, Any]:
        """The dictionary that calls of `get_bfd_neighbor` without `list_bfd` share.

        The module keeps it from one simulator to the next. Reading it calls no native service.
        """
        module = vars(self.module)
        run_command = module["get_cli_command_output"]
        module["get_cli_command_output"] = lambda command: ""
        try:
            # An output without a session leaves the dictionary as it is.
            return cast("dict[str, Any]", module["get_bfd_neighbor"](""))
        finally:
            module["get_cli_command_output"] = run_command

    # Replies

    def set_reply(self, service: str, reply: object) -> None:
        """Set the reply of a native service, from the next call on.

        Args:
            service: The name of a service; or "serial_number_ascii" or
                "get_preference_cookie_secret_path", which set `serial_number` or `secret_path`.
            reply: A value for the service, a `Reply` (a value with its source), or a callable that
                returns either. The value depends on the service:

                - `build_...`: a JSON value, `RawJSON`, or None for a null pointer.
                - `get_cli_cmd_output`: text (`str`, encoded as UTF-8, or `bytes`), or None for a
                  null pointer.
                - `cookieval_wrap`: text.
                - `cookieval_unwrap`: text that is not longer than the wrapped text, or None to
                  leave the cookie value unchanged.
                - Any other: an `int`.

                The argument of a callable is the request as a Python value or the text as `bytes`;
                `aps_get_new_cookie_id` passes none. If the callable raises, the service returns
                null, 0 or "" and leaves a cookie value unchanged; `raise_errors` then raises the
                exception.

        Raises:
            TypeError, ValueError: The service is unknown or cannot return the value.
        """
        reply = reply if isinstance(reply, Reply) else Reply(reply)
        value, source = reply.reply, reply.source
        if service in _SIBLING_DATA:
            setattr(self, _SIBLING_DATA[service], value)
            self._sources[service] = source
            return
        form = self._form(service)
        encoded = value if callable(value) else encode_reply(form, value, source)
        self._clear_reply(service)
        self._replies[service] = encoded, source

    def set_replies(self, service: str, replies: Iterable[object]) -> None:
        """Set the replies to the next calls of a native service; the last one stays.

        Args:
            service: The name of a service, as in `set_reply`, without the two of sibling data.
            replies: What `set_reply` accepts, at least one.

        Raises:
            TypeError, ValueError: As in `set_reply`, or the sequence is empty. The reply of the
                service then stays as it is.
        """
        form = self._form(service)
        steps = [reply if isinstance(reply, Reply) else Reply(reply) for reply in replies]
        if not steps:
            raise ValueError(f"{service}: expected at least one reply")
        for step in steps:
            if not callable(step.reply):
                encode_reply(form, step.reply)
        upcoming = iter(steps[:-1])

        def reply(*arguments: object) -> Reply:
            step = next(upcoming, steps[-1])
            value = step.reply(*arguments) if callable(step.reply) else step.reply
            return value if isinstance(value, Reply) else Reply(value, step.source)

        self.set_reply(service, reply)

    def fail(self, service: str) -> None:
        """Make a native service fail, from the next call on.

        It returns a null pointer; `cookieval_unwrap` leaves the cookie value unchanged, and
        `gui_chk_cert_expiration` returns -1.

        Raises:
            ValueError: The service is unknown, or always succeeds.
        """
        form = self._form(service)
        if form not in _FAILURE:
            raise ValueError(f"{service} cannot fail: the module does not expect that")
        self.set_reply(service, _FAILURE[form])

    def delay(self, service: str, seconds: float) -> None:
        """Delay each call of a native service, until `reset_reply`; 0 ends the delay.

        The call sleeps in C and holds the interpreter lock, as a slow service of the appliance
        does: no other Python thread runs meanwhile, and Ctrl-C takes effect after the call.

        Args:
            service: The name of a service.
            seconds: A number from 0 to 86400.

        Raises:
            TypeError, ValueError: The service is unknown, or `seconds` is not such a number.
        """
        self._form(service)
        if not 0 <= seconds <= _MAX_DELAY:  # also false for NaN
            raise ValueError(f"expected a delay of 0 to {_MAX_DELAY:.0f} seconds, not {seconds}")
        self._library.set_delay(service, math.ceil(seconds * 1e6))

    def set_fixed_reply(self, service: str, reply: object) -> None:
        """Register a reply in the native library, so that calls do not enter Python.

        The call log omits calls that return a fixed reply and, while any service has one, all
        releases of JSONObjects. `set_reply` removes the service's fixed reply. `raise_errors`
        raises an error if the reply did not fit into the buffer of `cookieval_unwrap`.

        Args:
            service: The name of a service.
            reply: A value as in `set_reply`, not a callable.

        Raises:
            TypeError, ValueError: As in `set_reply`.
        """
        self._library.set_fixed_reply(service, encode_reply(self._form(service), reply))
        self._replies.pop(service, None)
        self._sources[service] = "scripted"

    def reset_reply(self, service: str) -> None:
        """Undo what was set for a service: the provided reply applies again, without a delay.

        A sequence of the scenario starts at its beginning.

        Raises:
            ValueError: The service is unknown.
        """
        if service not in _SIBLING_DATA:
            self.delay(service, 0)
        reply = self.provided_reply(service)
        if reply is not None:
            self.set_reply(service, reply)
        elif service == _SERIAL_NUMBER:
            self._reset_serial_number()
        else:
            self._form(service)
            self._clear_reply(service)

    def provided_reply(self, service: str) -> Reply | None:
        """Return the reply of the scenario, this machine or the default scenario, or None.

        It does not depend on `set_reply` and `set_fixed_reply`.
        """
        return self._providers.reply(service) if self._providers else None

    @property
    def scenario(self) -> Scenario:
        """The scenario in use."""
        return self._providers.scenario if self._providers else Scenario()

    def use_scenario(self, scenario: Scenario) -> None:
        """Replace the scenario and reset the replies that differ from the current scenario's.

        Packet captures keep their state, unless the list of sniffer profiles changes.
        """
        providers = self._providers or self._load_providers(None, live=False)
        for service in sorted(providers.use_scenario(scenario)):
            self.reset_reply(service)

    def fixed_reply_calls(self, service: str) -> int:
        """Return the number of calls that returned the service's fixed reply."""
        self._form(service)
        return self._library.fixed_reply_calls(service)

    def source(self, service: str) -> Source:
        """Return the source of the service's last reply or, before its first call, of its next."""
        if service not in _SIBLING_DATA:
            self._form(service)
        # Another thread may change the dictionaries meanwhile.
        reply = self._replies.get(service)
        return self._sources.get(service, "none" if reply is None else reply[1])

    def raise_errors(self) -> None:
        """Raise the errors that replies caused since the last call of this method, if any."""
        errors, self._errors = self._errors, []
        oversized = self._library.oversized_replies()
        if not errors and oversized:
            raise ValueError(f"cookieval_unwrap: the fixed reply did not fit {oversized} buffers")
        if all(isinstance(error, MissingPackageError) for error in errors):
            errors = errors[:1]  # one extra has all packages that replies need
        if len(errors) > 1:
            listed = "; ".join(repr(error) for error in errors)
            raise RuntimeError(f"{len(errors)} replies failed: {listed}") from errors[0]
        if errors:
            raise errors[0]

    # Observations

    @property
    def call_log(self) -> list[NativeCall]:
        """The native calls, in order."""
        calls = self._library.call_log()
        if self._recorded is None:
            return calls
        services, recorded = self._library.forms, iter(self._recorded)
        return [
            replace(call, reply=next(recorded, None)) if call.service in services else call
            for call in calls
        ]

    def calls(self, service: str) -> Calls:
        """Return the calls of one native service, in order.

        Raises:
            ValueError: The service is unknown.
        """
        self._form(service)
        return Calls(service, self.call_log)

    def clear_calls(self) -> None:
        """Clear the call log."""
        self._library.clear_calls()
        if self._recorded is not None:
            self._recorded = []

    def record_replies(self, record: bool = True) -> None:
        """Clear the call log, and keep the replies in it from now on, or stop keeping them."""
        self._recorded = [] if record else None
        self.clear_calls()

    def record_serializer(self, record: bool = True) -> None:
        """Log the calls of `json_object_to_json_string` too, or stop logging them.

        An entry has the name of the function as its service and the object's JSON text as its
        request. If there is an `on_release`, releasing a JSONObject calls the function too.
        """
        self._library.record_serializer(record)

    def probe_gil(self, counter: ctypes.c_ulong | None, milliseconds: int = 20) -> None:
        """Make the native services check whether their caller holds the interpreter lock.

        Each service, and `json_object_to_json_string`, waits in C until the counter changes, for at
        most `milliseconds`; `gil_probes` counts the changes. Use fixed replies: a reply from Python
        may itself let another thread run, though only after the wait.

        Args:
            counter: A number that another Python thread increments; None ends the check.
            milliseconds: The longest time to wait.
        """
        self._library.probe_gil(counter, milliseconds)

    @property
    def gil_probes(self) -> GILProbes:
        """The observations of the native services since the call of `probe_gil`."""
        return self._library.gil_probes()

    @property
    def live_objects(self) -> LiveObjects:
        """The numbers of objects that were created since the simulator was opened and still live.

        Raises:
            RuntimeError: The simulator was opened with track_buffers=False.
        """
        if not self._track_buffers:
            raise RuntimeError("the simulator was opened with track_buffers=False")
        return self._library.live_objects()

    # Siblings

    @property
    def secret_path(self) -> Path:
        """The file of the preference cookie's secret; by default in a temporary directory."""
        with self._folder_lock:
            if self._secret_path is None:
                if self._folder is None:
                    self._folder = Path(tempfile.mkdtemp(prefix="simulator-"))
                    self._process = os.getpid()
                self._secret_path = self._folder / _SECRET
            return self._secret_path

    @secret_path.setter
    def secret_path(self, path: Path) -> None:
        _modules().set_preference_cookie_secret_path(os.fsencode(path))
        self._secret_path = Path(path)
        self._sources["get_preference_cookie_secret_path"] = "scripted"

    @property
    def serial_number(self) -> Any:
        """The result of `serial_number_ascii()`."""
        return _device_data().serial_number

    @serial_number.setter
    def serial_number(self, value: object) -> None:
        _device_data().serial_number = value
        self._sources[_SERIAL_NUMBER] = "scripted"

    @property
    def default_response(self) -> RawJSON | None:
        """The value of a JSONObject created without arguments; None is the null object."""
        return self._default_response

    @default_response.setter
    def default_response(self, value: RawJSON | None) -> None:
        self._library.set_default_response(encode_reply(ReplyForm.JSON, value))
        self._default_response = value

    @property
    def on_create(self) -> Callable[[tuple[Any, ...]], object] | None:
        """The function that `JSONObject(...)` calls first, with its arguments; it may raise."""
        return self._on_create

    @on_create.setter
    def on_create(self, hook: Callable[[tuple[Any, ...]], object] | None) -> None:
        self._on_create = hook
        self._set_hooks()

    @property
    def on_release(self) -> Callable[[str], object] | None:
        """The function that the method-table release of a JSONObject calls with its JSON text.

        If it raises, the release fails and the object keeps its value.
        """
        return self._on_release

    @on_release.setter
    def on_release(self, hook: Callable[[str], object] | None) -> None:
        self._on_release = hook
        self._set_hooks()

    def _find_secret_path(self) -> bytes:
        # The native caller cannot handle an exception; opening an empty path fails.
        try:
            return os.fsencode(self.secret_path)
        except Exception as error:
            self._errors.append(error)
            return b""

    def _set_hooks(self) -> None:
        json_module = importlib.import_module("util.json")
        json_module.set_hooks(created=self._on_create, released=self._on_release)

    def _reset_serial_number(self) -> None:
        _device_data().serial_number = _device_data().SERIAL_NUMBER
        self._sources.pop(_SERIAL_NUMBER, None)

    def _clear_reply(self, service: str) -> None:
        self._library.clear_fixed_reply(service)
        self._replies.pop(service, None)
        self._sources.pop(service, None)

    def _form(self, service: str) -> ReplyForm:
        if service not in self._library.forms:
            hint = did_you_mean(service, self._library.forms)
            raise ValueError(f"unknown native service {service}{hint and f': {hint}'}")
        return self._library.forms[service]

    def _reply_to_call(self, service: str, argument: bytes | None) -> None:
        recorded = self._recorded
        if recorded is not None:
            recorded.append(None)
            place = len(recorded) - 1  # a reply may cause native calls itself
        # The native caller cannot handle an exception.
        try:
            reply, source = self._encoded_reply(service, argument)
            self._library.set_reply(service, reply)
            self._sources[service] = source
            if recorded is not None and source != "none":
                recorded[place] = scenario_text(self._library.forms[service], reply)
        except BaseException as error:
            self._errors.append(error)

    def _encoded_reply(self, service: str, argument: bytes | None) -> tuple[EncodedReply, Source]:
        form = self._library.forms[service]
        if service not in self._replies:
            return encode_reply(form, _NO_REPLY[form], "none"), "none"
        encoded, source = self._replies[service]
        if isinstance(encoded, EncodedReply):
            return encoded, source
        arguments: list[object] = [] if argument is None else [argument]
        if argument is not None and form is ReplyForm.JSON:
            arguments = [json.loads(argument)]
        result = encoded(*arguments)
        reply = result if isinstance(result, Reply) else Reply(result, source)
        value = _NO_REPLY[form] if reply.source == "none" else reply.reply
        return encode_reply(form, value, reply.source), reply.source


def _modules() -> Any:
    return importlib.import_module("veldarin.modules.modules")


def _device_data() -> Any:
    return importlib.import_module("migbase.cmdbapi.cmdbapi_util")
