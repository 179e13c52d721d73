"""The wheels in fresh environments: what they hold, need, and refuse."""

from __future__ import annotations

import re
import shutil
import subprocess
import sys
import zipfile
from email.parser import Parser
from pathlib import Path

import pytest

from tests.support.environment import BASE, Environment, create
from tests.support.isolated import ROOT
from veldarin_simulator import native_library

pytestmark = [
    pytest.mark.workstation_only("the wheels are built for the workstation"),
    pytest.mark.skipif(
        native_library.build_directory().name != "release", reason="the wheels are release builds"
    ),
    pytest.mark.xdist_group("wheels"),
]

SIMULATOR, MODULE = "veldarin_simulator", "veldarin_modules_util"
IMPORT = "from veldarin.modules import modules_util"


def files(wheel: Path) -> set[str]:
    with zipfile.ZipFile(wheel) as archive:
        return {name for name in archive.namelist() if not name.endswith("/")}


def read(wheel: Path, suffix: str) -> str:
    """The text of the one file whose name ends like this."""
    (name,) = [name for name in files(wheel) if name.endswith(suffix)]
    with zipfile.ZipFile(wheel) as archive:
        return archive.read(name).decode()


def test_wheels_have_no_file_in_common(wheels: dict[str, Path]) -> None:
    assert not files(wheels[SIMULATOR]) & files(wheels[MODULE])
    tops = {name.partition("/")[0].partition("-1.")[0] for name in files(wheels[SIMULATOR])}
    assert tops == {SIMULATOR, f"{SIMULATOR}.libs", "veldarin-stubs"}


def test_module_wheel_has_module_stub_and_marker(wheels: dict[str, Path]) -> None:
    names = {name.rpartition("/")[2] for name in files(wheels[MODULE]) if name[:9] == "veldarin/"}
    assert names == {
        "modules_util.cpython-39-x86_64-linux-gnu.so",
        "modules_util.pyi",
        "py.typed",
    }


def test_simulator_wheel_has_no_sources_of_native_parts(wheels: dict[str, Path]) -> None:
    suffixes = {Path(name).suffix for name in files(wheels[SIMULATOR])}
    assert not suffixes & {".cpp", ".pyx", ".pxd", ".pyc", ".c"}
    assert {"veldarin_simulator/py.typed", "veldarin_simulator/native/services.h"} <= files(
        wheels[SIMULATOR]
    )


@pytest.mark.parametrize("name", [SIMULATOR, MODULE])
def test_wheel_depends_on_what_the_module_imports(wheels: dict[str, Path], name: str) -> None:
    metadata = Parser().parsestr(read(wheels[name], ".dist-info/METADATA"))
    required = metadata.get_all("Requires-Dist", [])
    without_extras = {re.split(r"\W", text)[0] for text in required if "extra ==" not in text}
    assert without_extras == {"pyramid", "setuptools", "ujson"}
    assert metadata["Requires-Python"] == "==3.9.*"


def test_simulator_wheel_runs_on_other_distributions(wheels: dict[str, Path]) -> None:
    shown = subprocess.run(
        [Path(sys.executable).with_name("auditwheel"), "show", wheels[SIMULATOR]],
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert shown.returncode == 0, shown.stderr
    found = re.search(r'platform\s+tag:\s+"(manylinux_2_\d+_x86_64)"', shown.stdout)
    assert found, shown.stdout
    assert found[1] in wheels[SIMULATOR].name
    assert "libjson-c.so" not in shown.stdout  # the simulator's wheel has its own


def test_base_installation_has_no_other_package(base: Environment) -> None:
    assert base.packages() == {*BASE, "veldarin-simulator"}


def test_base_installation_calls_the_module(base: Environment) -> None:
    printed = base.python(f"""
import sys
from veldarin_simulator import Simulator
with Simulator(live=False) as simulator:
    {IMPORT}
    simulator.set_reply("build_switch_lg_state", [{{"group": "lg1"}}])
    print(modules_util.list_switch_lg_state())
    print(simulator.calls("build_switch_lg_state").arguments)
    print(modules_util.__file__)
    print(*[path for path in sys.path])
    print({{line.split()[-1] for line in open("/proc/self/maps") if "json-c" in line}})
""")
    result, arguments, file, path, libraries = printed.splitlines()
    assert (result, arguments) == ("[{'group': 'lg1'}]", "[{}]")
    assert file.startswith(str(base.path))
    assert str(ROOT) not in path
    assert re.fullmatch(r"\{'\S+/veldarin_simulator\.libs/libjson-c-\S+'\}", libraries)


def test_base_installation_has_default_scenario(base: Environment) -> None:
    printed = base.python("""
from veldarin_simulator import Scenario, Simulator
from veldarin_simulator.scenario import DEFAULT_SCENARIO
with Simulator(Scenario.load(DEFAULT_SCENARIO), live=False) as simulator:
    print(simulator.module.list_switch_lg_state()[0]["group"])
    print(len(simulator.module.list_bfd_neighbor()))
""")
    assert printed == "lg1\n2\n"


@pytest.mark.parametrize(
    ("call", "package"),
    [
        ("list_switch_port_statistics(None)", "psutil"),
        ("get_system_arp_result()", "pyroute2"),
        ("encrypt_cookie(b'x')", "cryptography"),
        ("check_cert_expiration(b'/etc/passwd')", "cryptography"),
    ],
)
def test_live_provider_without_package_names_the_extra(
    base: Environment, call: str, package: str
) -> None:
    status, output = base.run(
        "python",
        "-W",
        "ignore",
        "-c",
        f"from veldarin_simulator import Simulator\nwith Simulator() as s: s.module.{call}",
    )
    assert status == 1
    assert re.search(rf" needs {package}: pip install 'veldarin-simulator\[live\]'$", output, re.M)


def test_console_without_package_is_one_line(base: Environment) -> None:
    assert base.run("python", "-W", "ignore", "-m", "veldarin_simulator", "console") == (
        1,
        "veldarin_simulator: the console needs waitress: "
        "pip install 'veldarin-simulator[console]'\n",
    )


def test_several_replies_without_package_are_one_error(base: Environment) -> None:
    status, output = base.run(
        "python",
        "-W",
        "ignore",
        "-c",
        "from veldarin_simulator import Simulator\n"
        "with Simulator() as s:\n"
        "    s.module.list_switch_port_statistics(None)\n"
        "    s.module.list_system_link_monitor_status()\n",
    )
    assert status == 1
    assert output.splitlines()[-1].endswith("pip install 'veldarin-simulator[live]'")
    assert "RuntimeError" not in output


def test_import_without_simulator_fails(base: Environment, module_alone: Environment) -> None:
    """The message of the module alone is the dynamic linker's, which the module cannot change."""
    status, output = base.run("python", "-c", IMPORT)
    assert (status, output.splitlines()[-1]) == (
        1,
        "ModuleNotFoundError: No module named 'veldarin'",
    )
    status, output = module_alone.run("python", "-W", "ignore", "-c", IMPORT)
    assert status == 1
    assert re.search(r"^ImportError: .* undefined symbol: \w+$", output, re.MULTILINE)


def test_both_wheels_work_side_by_side(wheels: dict[str, Path], tmp_path: Path) -> None:
    """Each can be removed without damage to the other."""
    both = create(tmp_path, wheels[SIMULATOR], wheels[MODULE], names=BASE)
    program = f"""
from veldarin_simulator import Simulator
with Simulator(live=False) as simulator:
    {IMPORT}
    print(modules_util.new_cookie_id(), modules_util.__file__)
"""
    cookie, file = both.python(program).split()
    assert cookie == "0"
    assert file.endswith(
        "site-packages/veldarin/modules/modules_util.cpython-39-x86_64-linux-gnu.so"
    )
    both.uninstall("veldarin-modules-util")
    assert "/veldarin_simulator/_native/stage/" in both.python(program)
    both.install(wheels[MODULE])
    both.uninstall("veldarin-simulator")
    _, output = both.run("python", "-W", "ignore", "-c", IMPORT)
    assert "undefined symbol" in output


def test_project_packages_of_the_same_names_come_first(base: Environment, tmp_path: Path) -> None:
    """A project may itself be the package `veldarin`, and have a package `util`."""
    for package in ("veldarin", "veldarin/gui", "util"):
        (tmp_path / package).mkdir()
        (tmp_path / package / "__init__.py").touch()
    (tmp_path / "util" / "errors.py").write_text("class CFunctionError(Exception): own = True\n")
    printed = base.python(
        f"""
import sys
sys.path.insert(0, sys.argv[1])
import veldarin.gui
from veldarin_simulator import Simulator
with Simulator(live=False) as simulator:
    {IMPORT}
    print(veldarin.gui.__file__, modules_util.CFunctionError.own, modules_util.new_cookie_id())
""",
        str(tmp_path),
    )
    assert printed == f"{tmp_path}/veldarin/gui/__init__.py True 0\n"


TYPED = """
from veldarin.modules import modules_util

reveal_type(modules_util.list_bfd_neighbor())
modules_util.list_switch_port_statistics(1)
"""
CHECKERS = {
    "mypy": (
        ["mypy", "--strict", "--cache-dir=/dev/null", "--python-executable"],
        'Revealed type is "builtins.list[builtins.dict[builtins.str,',
        '"int"; expected "Optional[str]"  [arg-type]\nFound 1 error ',
    ),
    "pyright": (
        ["basedpyright", "--pythonpath"],
        'is "list[dict[str, str | dict[str, str]]]"',
        '"str | None" in function "list_switch_port_statistics"',
    ),
}


@pytest.mark.parametrize("checker", CHECKERS)
@pytest.mark.parametrize("distribution", ["base", "module_alone"])
def test_type_checker_finds_types_of_the_wheel(
    request: pytest.FixtureRequest,
    project: Environment,
    tmp_path: Path,
    checker: str,
    distribution: str,
) -> None:
    target: Environment = request.getfixturevalue(distribution)
    command, revealed, error = CHECKERS[checker]
    (tmp_path / "typed.py").write_text(TYPED)
    python = target.path / "bin" / "python"
    status, output = project.run(*command, python, "typed.py", folder=tmp_path)
    assert status == 1
    assert revealed in output
    assert error in output


def other_python() -> str | None:
    for name in ("python3.11", "python3.12", "python3.13", "python3.10"):
        path = shutil.which(name)
        command = [path or name, "-m", "pip", "--version"]
        if path and subprocess.run(command, capture_output=True).returncode == 0:
            return path
    return None


@pytest.mark.skipif(other_python() is None, reason="no other Python with pip is installed")
def test_pip_of_another_python_refuses_the_wheel(wheels: dict[str, Path], tmp_path: Path) -> None:
    options = ["--no-index", "--no-deps", "--disable-pip-version-check", "--target", str(tmp_path)]
    done = subprocess.run(
        [str(other_python()), "-m", "pip", "install", *options, wheels[SIMULATOR]],
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert done.returncode == 1
    assert (
        done.stderr
        == f"ERROR: {wheels[SIMULATOR].name} is not a supported wheel on this platform.\n"
    )
    assert "-cp39-cp39-manylinux" in done.stderr
    assert not [*tmp_path.iterdir()]
