"""The certificate check: the status of the service becomes a bool; a path is exactly bytes."""

from __future__ import annotations

from types import ModuleType

import pytest

from tests.support.assertions import entry, raises_exactly, wrong_type_message
from tests.support.doubles import BytesSubclass
from veldarin_simulator import Simulator


@pytest.mark.parametrize(
    "status, valid",
    [(0, True), (1, False), (-1, False), (256, False), (2**31 - 1, False), (-(2**31), False)],
)
def test_only_status_zero_is_valid(
    simulator: Simulator, module: ModuleType, status: int, valid: bool
) -> None:
    simulator.set_reply("gui_chk_cert_expiration", status)
    assert module.check_cert_expiration(b"/some/file") is valid


@pytest.mark.parametrize(
    "path, checked",
    [
        (b"/some/file", b"/some/file"),
        (b"", b""),
        (b"/some\0/file", b"/some"),
        (b"/\xff\xfe", b"/\xff\xfe"),
        (b"/" + b"x" * 5000, b"/" + b"x" * 5000),
    ],
)
def test_path_is_passed_up_to_first_nul(
    simulator: Simulator, module: ModuleType, path: bytes, checked: bytes
) -> None:
    simulator.set_reply("gui_chk_cert_expiration", lambda text: 0 if text == checked else 3)
    assert module.check_cert_expiration(path) is True
    assert [(call.service, call.text) for call in simulator.call_log] == [
        ("gui_chk_cert_expiration", checked)
    ]


def test_empty_path_is_passed_to_service(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("gui_chk_cert_expiration", 2)
    assert module.check_cert_expiration(b"") is False


def test_none_path_raises_type_error(simulator: Simulator, module: ModuleType) -> None:
    refused = raises_exactly(TypeError, module.check_cert_expiration, None)
    assert str(refused) == "expected bytes, NoneType found"
    assert entry(refused, "check_cert_expiration").line < 94
    assert simulator.call_log == []


@pytest.mark.parametrize(
    "path",
    [
        "/some/file",
        bytearray(b"/some/file"),
        BytesSubclass(b"/some/file"),
        memoryview(b"/"),
        5,
        [b"/"],
    ],
    ids=lambda path: type(path).__name__,
)
def test_non_bytes_path_raises_type_error(
    simulator: Simulator, module: ModuleType, path: object
) -> None:
    refused = raises_exactly(TypeError, module.check_cert_expiration, path)
    assert str(refused) == wrong_type_message("path", "bytes", path)
    found = entry(refused, "check_cert_expiration")
    assert found.line == found.first_line < 94
    assert simulator.call_log == []
