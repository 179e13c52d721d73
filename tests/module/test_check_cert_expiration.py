"""The certificate check: the status of the service becomes a bool."""

from __future__ import annotations

from types import ModuleType

import pytest

from veldarin_simulator import Simulator


def test_only_status_zero_is_valid(simulator: Simulator, module: ModuleType) -> None:
    bits = [2**bit for bit in range(31)]
    for status in (0, *bits, *(-bit for bit in bits), 2**31 - 1, -(2**31)):
        simulator.set_reply("gui_chk_cert_expiration", status)
        assert module.check_cert_expiration(b"/some/file") is (status == 0)


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
