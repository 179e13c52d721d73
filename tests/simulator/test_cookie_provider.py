"""Cookie services, the state directory and the serial number."""

from __future__ import annotations

import string
import subprocess
import sys
import zlib
from pathlib import Path
from types import ModuleType

import pytest

from tests.support.netns import ROOT
from veldarin_simulator import Simulator, state_dir
from veldarin_simulator.providers import cookies, serial_number


@pytest.mark.requires("cryptography")
def test_wrapped_cookie_unwraps_through_the_module(
    simulator: Simulator, module: ModuleType
) -> None:
    cipher = cookies.ValueCipher()
    simulator.set_reply("cookieval_wrap", cipher.wrap)
    simulator.set_reply("cookieval_unwrap", cipher.unwrap)
    for plain in (b"", b"a", b"user=admin; level=7", bytes(range(1, 256)), b"x" * 100_000):
        wrapped = module.encrypt_cookie(plain)
        assert wrapped != plain
        assert set(wrapped) <= set((string.ascii_letters + string.digits + "-_").encode())
        assert len(wrapped) > len(plain)
        assert module.decrypt_cookie(wrapped) == plain


@pytest.mark.requires("cryptography")
def test_wrapping_twice_gives_different_texts() -> None:
    cipher = cookies.ValueCipher()
    assert len({cipher.wrap(b"value") for _ in range(100)}) == 100


@pytest.mark.parametrize("plain", [b"admin", b"admins", b"adminis"])  # spare bits: 0, 4, 2
@pytest.mark.requires("cryptography")
def test_damaged_cookie_unwraps_to_empty_text(
    simulator: Simulator, module: ModuleType, plain: bytes
) -> None:
    cipher = cookies.ValueCipher()
    simulator.set_reply("cookieval_unwrap", cipher.unwrap)
    wrapped = cipher.wrap(plain)
    damaged = [wrapped[:n] for n in range(len(wrapped))]
    damaged += [wrapped + more for more in (b"A", b"=", b"==", b"\n", b" ", b"AAAA", b"\xff")]
    damaged += [b" " + wrapped, wrapped[::-1], b"----", b"\xc3\xa9" * 20]
    alphabet = (string.ascii_uppercase + string.ascii_lowercase + string.digits + "-_").encode()
    for index, character in enumerate(wrapped):
        other = alphabet[(alphabet.index(character) + 1) % len(alphabet)]
        damaged.append(wrapped[:index] + bytes([other]) + wrapped[index + 1 :])
        damaged.append(wrapped[:index] + b"." + wrapped[index:])
    assert [module.decrypt_cookie(bad) for bad in damaged] == [b""] * len(damaged)
    assert module.decrypt_cookie(wrapped) == plain


@pytest.mark.requires("cryptography")
def test_cookie_unwraps_only_with_the_same_key(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    wrapped = cookies.ValueCipher().wrap(b"value")
    assert cookies.ValueCipher().unwrap(wrapped) == b"value"
    monkeypatch.setenv(state_dir.VARIABLE, str(tmp_path / "elsewhere"))
    assert cookies.ValueCipher().unwrap(wrapped) == b""


@pytest.mark.requires("cryptography")
def test_key_file_is_readable_by_its_owner_only(state_directory: Path) -> None:
    cookies.ValueCipher().wrap(b"")
    assert [path.name for path in state_directory.iterdir()] == ["cookie-key"]
    assert (state_directory / "cookie-key").stat().st_mode & 0o777 == 0o600
    assert state_directory.stat().st_mode & 0o777 == 0o700


def test_key_of_wrong_size_raises_with_its_path(state_directory: Path) -> None:
    state_directory.mkdir()
    (state_directory / "cookie-key").write_bytes(b"short")
    with pytest.raises(ValueError, match="cookie-key: expected 32 bytes, found 5; remove"):
        cookies.ValueCipher().wrap(b"value")


def test_racing_processes_read_the_same_secret(state_directory: Path) -> None:
    source = (
        "from veldarin_simulator import state_dir; "
        "print(state_dir.load_or_create_secret('race', 32).hex())"
    )
    command = [sys.executable, "-c", source]
    racers = [
        subprocess.Popen(command, cwd=ROOT, stdout=subprocess.PIPE, text=True) for _ in range(6)
    ]
    printed = {racer.communicate(timeout=60)[0] for racer in racers}
    assert printed == {(state_directory / "race").read_bytes().hex() + "\n"}
    assert [path.name for path in state_directory.iterdir()] == ["race"]


def test_state_directory_defaults_to_xdg_or_home(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.delenv(state_dir.VARIABLE)
    monkeypatch.setenv("HOME", str(tmp_path))
    monkeypatch.delenv("XDG_STATE_HOME", raising=False)
    assert state_dir.directory() == tmp_path / ".local" / "state" / "veldarin-simulator"
    monkeypatch.setenv("XDG_STATE_HOME", str(tmp_path / "xdg"))
    assert state_dir.directory() == tmp_path / "xdg" / "veldarin-simulator"


def test_hash_is_the_standard_crc_32() -> None:
    assert cookies.text_hash(b"123456789") == 0xCBF43926
    assert cookies.text_hash(b"") == 0


def test_identifiers_are_random_32_bit_numbers() -> None:
    identifiers = [cookies.new_identifier() for _ in range(1000)]
    assert all(0 <= identifier < 2**32 for identifier in identifiers)
    assert len(set(identifiers)) > 990
    assert max(identifiers) > 2**31


def test_cookie_name_hashes_the_serial_number() -> None:
    with Simulator(live=True) as simulator:
        serial = simulator.serial_number
        assert simulator.source("serial_number_ascii") == "live"
        name = simulator.module.get_cookie_name(True)
    assert serial == serial_number.read()
    assert name == f"APSCOOKIE_{zlib.crc32(serial)}"


def test_serial_number_hides_the_machine_identifier(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    first, second = tmp_path / "first", tmp_path / "second"
    first.write_text("0123456789abcdef0123456789abcdef\n")
    second.write_text("00000000000000000000000000000000\n")
    numbers = []
    for path in (first, second, first):
        monkeypatch.setattr(serial_number, "_MACHINE_IDS", (tmp_path / "missing", path))
        numbers.append(serial_number.read().decode())
    assert numbers[0] == numbers[2] != numbers[1]
    assert len(numbers[0]) == 16
    assert numbers[0].startswith("SIMUL-")
    assert numbers[0][6:].lower() not in first.read_text()


def test_machine_without_identifier_stores_one(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    path = tmp_path / "machine-id"
    path.write_text("uninitialized\n")
    monkeypatch.setattr(serial_number, "_MACHINE_IDS", (path,))
    first = serial_number.read()
    assert serial_number.read() == first
    monkeypatch.setenv(state_dir.VARIABLE, str(tmp_path / "another machine"))
    assert serial_number.read() != first
