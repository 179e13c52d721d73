"""File systems in place of flash partitions."""

from __future__ import annotations

import json
import os
from pathlib import Path

import psutil
import pytest

from veldarin_simulator.providers import storage


def test_flash_list_has_each_file_system_once() -> None:
    entries = storage.flash_list()
    mounts = [line.split()[:2] for line in Path("/proc/mounts").read_text().splitlines()]
    if not any(device.startswith("/dev/") for device, _ in mounts):
        pytest.skip("no device is mounted here: a container, or below chroot")
    assert entries
    assert len({entry["device"] for entry in entries}) == len(entries)
    for entry in entries:
        assert [entry["device"], entry["mountpoint"]] in mounts
        status = os.statvfs(entry["mountpoint"])
        assert entry["size"] == status.f_blocks * status.f_frsize
        assert 0 <= entry["free"] <= entry["size"]
        assert entry["read_only"] == bool(status.f_flag & os.ST_RDONLY)


class Mount:
    def __init__(self, device: str, mountpoint: str, opts: str = "rw") -> None:
        self.device, self.mountpoint, self.opts = device, mountpoint, opts
        self.fstype = "ext4"


def test_unreadable_file_system_has_null_sizes(monkeypatch: pytest.MonkeyPatch) -> None:
    mounts = [Mount("/dev/lost", "/no/such/mount", "ro,noatime"), Mount("/dev/lost", "/again")]
    monkeypatch.setattr(psutil, "disk_partitions", lambda all: mounts)
    (entry,) = storage.flash_list()
    assert entry["mountpoint"] == "/no/such/mount"
    assert entry["read_only"] is True
    assert (entry["size"], entry["used"], entry["free"]) == (None, None, None)


def test_container_lists_its_root(monkeypatch: pytest.MonkeyPatch) -> None:
    mounts = [Mount("overlay", "/"), Mount("proc", "/proc")]
    monkeypatch.setattr(psutil, "disk_partitions", lambda all: mounts if all else [])
    (entry,) = storage.flash_list()
    assert entry["device"] == "overlay"
    assert entry["size"] > 0


def test_mount_point_that_is_not_utf8_is_replaced(monkeypatch: pytest.MonkeyPatch) -> None:
    mounts = [Mount("/dev/x", os.fsdecode(b"/m\xff"))]
    monkeypatch.setattr(psutil, "disk_partitions", lambda all: mounts)
    (entry,) = storage.flash_list()
    assert json.dumps(entry, ensure_ascii=False).encode()
    assert entry["mountpoint"] == "/m\N{REPLACEMENT CHARACTER}"
