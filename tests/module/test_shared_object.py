"""The released shared object: libraries, exported and undefined symbols, size, and build."""

from __future__ import annotations

import fcntl
import os
import platform
import re
import struct
import subprocess
import sysconfig
from pathlib import Path

import pytest

from tests.support import isolated

pytestmark = pytest.mark.slow

BRIDGE = """
    build_switch_acl_ingress_stats build_switch_stp_state build_switch_lg_state
    build_switch_flapguard_status build_switch_port_statistics build_switch_lldp_state
    build_switch_trunk_state build_switch_igmp_snooping_group build_switch_modules_summary
    build_system_interface_physical build_system_flash_list build_system_link_monitor_status
    build_system_sniffer_profile_summary build_start_sniffer_profile_capture
    build_stop_sniffer_profile_capture build_pause_sniffer_profile_capture
    build_delete_sniffer_profile_capture
""".split()
COOKIES = [
    "aps_get_new_cookie_id",
    "__get_aps_hash",
    "cookieval_wrap",
    "cookieval_unwrap",
    "gui_chk_cert_expiration",
]
NATIVE_SERVICES = {*BRIDGE, *COOKIES, "get_cli_cmd_output"}
JSON_C = {"json_object_to_json_string"}

# Libraries that a C program needs for the C library and its threads, by the start of their names.
C_LIBRARY = re.compile(r"(libc|libpthread)\.so\.\d+")
# Optional symbols that the compiler's start files refer to.
START_FILES = {"__gmon_start__", "_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable"}


def said_by(*command: str) -> list[str]:
    """The lines that a tool prints."""
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    return done.stdout.splitlines()


def needed(file: Path) -> list[str]:
    """The libraries that the dynamic loader has to find for the file."""
    found = [
        re.search(r"\(NEEDED\).*\[(.*)\]", line) for line in said_by("readelf", "-d", str(file))
    ]
    return [match.group(1) for match in found if match]


def symbols(file: Path, which: str) -> set[str]:
    """Dynamic symbols of a file without their versions: "--defined-only" or "--undefined-only"."""
    rows = [line.split() for line in said_by("nm", "-D", which, str(file))]
    return {row[-1].partition("@")[0] for row in rows}


def loaded(name: str) -> Path:
    """A library's file, where this process has it; the name is a pattern."""
    for line in Path("/proc/self/maps").read_text().splitlines():
        path = Path(line.split(maxsplit=5)[-1])
        if re.match(name, path.name):
            return path
    raise AssertionError(f"{name} is not in this process")


def interpreter() -> Path:
    """The file with the interpreter's C interface."""
    # A build with the library may have an executable that does not need it, as Debian's.
    if "/libpython3.9" in Path("/proc/self/maps").read_text():
        return loaded("libpython3.9")
    return Path("/proc/self/exe").resolve()


@pytest.fixture(scope="module")
def alone() -> Path:
    """Build the module alone; return the last line of output."""
    kept = {
        name: value
        for name, value in os.environ.items()
        if name not in {"LD_PRELOAD", "PYTHONMALLOC", "MAKEFLAGS", "MAKELEVEL", "PRESET"}
    }
    with (isolated.BUILD / "module.lock").open("w") as lock:  # other test processes build it too
        fcntl.flock(lock, fcntl.LOCK_EX)
        done = subprocess.run(
            ["make", "module"],
            cwd=isolated.ROOT,
            env=kept,
            capture_output=True,
            text=True,
            check=False,
        )
    assert done.returncode == 0, done.stdout + done.stderr
    return Path(done.stdout.splitlines()[-1])


MODULE_ALONE = pytest.param(
    "alone", marks=pytest.mark.workstation_only("make module builds for the workstation")
)


@pytest.fixture(params=["staged", MODULE_ALONE])
def module_file(request: pytest.FixtureRequest) -> Path:
    """The module's file of both builds; a build with sanitizers needs additional libraries."""
    if request.param == "alone":
        path: Path = request.getfixturevalue("alone")
        return path
    if any(name.startswith("__asan") for name in symbols(isolated.MODULE_PATH, "--undefined-only")):
        pytest.skip("built with sanitizers: this file does not ship")
    return isolated.MODULE_PATH


@pytest.mark.workstation_only("make module builds for the workstation")
def test_make_module_prints_path_last(alone: Path) -> None:
    assert alone.is_absolute()
    assert alone.is_file()
    assert alone.read_bytes()[:4] == b"\x7fELF"


def test_file_name_has_extension_suffix(module_file: Path) -> None:
    assert module_file.name == "modules_util" + sysconfig.get_config_var("EXT_SUFFIX")
    assert module_file.name.startswith("modules_util.cpython-39-")


# With any compiler the file fits into 64 KiB; with the compiler that it was measured with, into
# a share of the size of the Cython module with the same functions: processor and release of GCC to
# share and size of the Cython module.
SMALL = 64 * 1024
SHARES = {("x86_64", "12"): (0.25, 218_472), ("x86_64", "10"): (0.265, 222_600)}


@pytest.fixture
def share() -> tuple[float, int]:
    version = said_by("c++", "-dumpversion")[0].partition(".")[0]
    if (platform.machine(), version) not in SHARES:
        pytest.skip(f"not measured on {platform.machine()} with release {version} of the compiler")
    return SHARES[platform.machine(), version]


@pytest.mark.skipif(struct.calcsize("P") != 8, reason="the figures are a workstation's")
def test_release_file_is_small(alone: Path) -> None:
    assert alone.stat().st_size <= SMALL


@pytest.mark.workstation_only("make module builds for the workstation")
def test_release_file_is_fraction_of_cython_module(alone: Path, share: tuple[float, int]) -> None:
    peers = list(isolated.BUILD.glob("benchmarks/modules_cython.*.so"))
    cython_size = peers[0].stat().st_size if peers else share[1]
    assert alone.stat().st_size <= share[0] * cython_size


def test_only_c_library_is_needed(module_file: Path) -> None:
    libraries = needed(module_file)
    assert libraries
    assert [name for name in libraries if not C_LIBRARY.fullmatch(name)] == []


def test_entry_point_is_only_export(module_file: Path) -> None:
    assert symbols(module_file, "--defined-only") == {"PyInit_modules_util"}


def test_undefined_symbols_belong_to_known_libraries(module_file: Path) -> None:
    undefined = symbols(module_file, "--undefined-only")
    of_interpreter = {
        name for name in symbols(interpreter(), "--defined-only") if re.match("_?Py", name)
    }
    of_c_library = symbols(loaded(r"libc[.-]"), "--defined-only")
    assert of_interpreter > {"PyModuleDef_Init", "_Py_NoneStruct"}  # the lists are real lists
    assert of_c_library > {"memcpy", "strlen"}
    somebodys = of_interpreter | of_c_library | START_FILES | JSON_C | NATIVE_SERVICES
    assert undefined - somebodys == set()


def test_native_services_are_undefined_symbols(module_file: Path) -> None:
    undefined = symbols(module_file, "--undefined-only")
    assert NATIVE_SERVICES - undefined == set()
    assert JSON_C - undefined == set()


def test_no_cpp_runtime_symbol_is_referenced(module_file: Path) -> None:
    undefined = symbols(module_file, "--undefined-only")
    runtime = [
        name
        for name in undefined
        if re.match(r"_Z|__gxx|__cxa_|_Unwind|__dynamic_cast|__tls|__atomic", name)
        and name != "__cxa_finalize"  # the C library's own, called when a library is unloaded
    ]
    assert runtime == []


def test_file_has_no_build_machine_path(module_file: Path) -> None:
    tags = "\n".join(said_by("readelf", "-d", str(module_file)))
    assert "RPATH" not in tags
    assert "RUNPATH" not in tags
    assert str(isolated.ROOT).encode() not in module_file.read_bytes()


def test_simulator_exports_every_native_service() -> None:
    assert NATIVE_SERVICES - symbols(isolated.BUILD / "libsimulator.so", "--defined-only") == set()


def test_staging_directory_holds_one_module_file() -> None:
    assert [path.name for path in isolated.MODULE_PATH.parent.glob("modules_util*.so")] == [
        isolated.MODULE_PATH.name
    ]
