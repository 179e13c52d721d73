"""The certificate check: the status of the service becomes a bool."""

from __future__ import annotations

from types import ModuleType

import pytest

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
