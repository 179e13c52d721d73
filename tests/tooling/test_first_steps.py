"""The first steps on a new machine: what is wrong with it is one line that says what to do."""

from __future__ import annotations

import os
import re
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from tests.support import isolated
from tests.tooling.test_setup_scripts import commands_without_python, script

pytestmark = pytest.mark.workstation_only("about the workstation's commands")
ROOT = isolated.ROOT
LIMIT = 60.0
# Root could write anywhere.
AS_USER = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"] if os.geteuid() == 0 else []


def run(*command: str | Path, folder: Path = ROOT, **environment: str) -> tuple[int, str, str]:
    """Run a command and return its status, its output and its error output."""
    inherited = {name: value for name, value in os.environ.items() if not name.startswith("MAKE")}
    done = subprocess.run(
        command,
        cwd=folder,
        env=inherited | environment,
        capture_output=True,
        text=True,
        timeout=LIMIT,
    )
    return done.returncode, done.stdout, done.stderr


@pytest.fixture
def checkout(tmp_path: Path) -> Path:
    """A folder with the setup scripts, without anything that they make."""
    folder = tmp_path / "checkout"
    shutil.copytree(ROOT / "tools", folder / "tools")
    shutil.copytree(ROOT / "requirements", folder / "requirements")
    return folder


@pytest.mark.parametrize(
    ("arguments", "advice"),
    [
        ("tests", "similar: make test;"),
        ("wheel", "similar: make wheels;"),
        ("nonsense", '"make nonsense"; make help lists all'),
        ("PRESET=fast run", "choose release, debug or asan"),
        ("PRESET=module run", "choose release, debug or asan"),
    ],
)
def test_make_wrong_command_says_what_to_do(arguments: str, advice: str) -> None:
    status, output, errors = run("make", *arguments.split())
    assert (status, output, errors.count("\n")) == (2, "", 1)
    assert advice in errors


@pytest.mark.parametrize("goal", ["help", "build/nothing/build.ninja", "lint-ruff"])
def test_make_right_command_is_accepted(goal: str) -> None:
    assert run("make", "-n", goal)[0] == 0


def test_simulator_without_its_packages_says_so() -> None:
    command = [sys.executable, "-S", "-m", "veldarin_simulator", "demo"]
    status, output, errors = run(*command)
    assert (status, output, errors.count("\n")) == (1, "", 1)
    assert "run `make build`" in errors


def test_bootstrap_in_read_only_checkout_says_so(checkout: Path) -> None:
    checkout.chmod(0o555)
    status, output, errors = run(*AS_USER, "tools/bootstrap", "run", folder=checkout)
    checkout.chmod(0o755)
    assert (status, output, errors.count("\n")) == (1, "", 1)
    assert f"make needs to write below {checkout}" in errors


def test_bootstrap_lists_packages_of_container_file() -> None:
    text = (ROOT / "Containerfile").read_text()
    groups = re.search(r"tools/bootstrap --packages (.*)", text)
    listed = re.search(r"install --yes --no-install-recommends([^&]*)", text)
    assert groups
    assert listed
    _, output, _ = run("tools/bootstrap", "--packages", *groups[1].split())
    assert listed[1].replace("\\", "").split() == output.split()
    # The groups are those of the two commands of the README.
    makefile = (ROOT / "Makefile").read_text()
    for goal in ("test: bootstrap-", "build: bootstrap-"):
        named = makefile.partition(f"\n{goal}")[2].split()[0].split("+")
        assert set(named) <= set(groups[1].split())


@pytest.mark.parametrize("is_new", [True, False], ids=["new", "installed"])
def test_uv_without_package_index_says_so(checkout: Path, tmp_path: Path, is_new: bool) -> None:
    """pip fails where uv is missing, and uv where it is installed."""
    uv = checkout / ".python/uv"
    script(uv / "bin/uv", "[ $1 = --version ]")
    python = script(tmp_path / "python3", "exit 1")
    if not is_new:
        shutil.copy(checkout / "requirements/uv.txt", uv / "requirements.txt")
        (uv / "index").touch()
    status, output, errors = run("tools/uv", "--check-index", folder=checkout, PYTHON=str(python))
    assert (status, output, errors.count("\n")) == (1, "", 1)
    assert "the Python package index cannot be used: check the network" in errors


ISOLATED_NETWORK = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "-rn"]


@pytest.mark.parametrize("is_new", [True, False], ids=["no uv", "no packages"])
def test_bootstrap_without_network_is_one_line(checkout: Path, is_new: bool) -> None:
    if run(*ISOLATED_NETWORK, "true")[0] != 0:
        pytest.skip("network namespaces are not allowed here")
    if not is_new:
        uv = checkout / ".python/uv"
        script(
            uv / "bin/uv",
            """case $1 in
    --version) ;;
    venv) mkdir -p .venv/bin && ln -s "$4" .venv/bin/python ;;
    *) echo cause && echo reason && exit 2 ;;
esac""",
        )
        shutil.copy(checkout / "requirements/uv.txt", uv / "requirements.txt")
        (uv / "index").touch()
    interpreter = {"PYTHON39": os.path.realpath(sys.executable)}
    status, output, errors = run(
        *ISOLATED_NETWORK, "tools/bootstrap", "run", folder=checkout, **interpreter
    )
    assert status == 1
    assert "failed" not in output
    assert errors.count("\n") == 1, errors
    assert "the Python package index cannot be used: check the network" in errors


def test_uv_installation_leaves_no_temporary_file(checkout: Path, tmp_path: Path) -> None:
    """pip of CPython 3.9 leaves the certificates that it unpacks."""
    (tmp_path / "temporary").mkdir()
    python = script(
        tmp_path / "python3",
        """touch "$TMPDIR/certificates"
mkdir "${TMPDIR%/*}/bin" && cd "$_" && echo '#!/bin/sh' >uv && chmod +x uv""",
    )
    settings = {"PYTHON": str(python), "TMPDIR": str(tmp_path / "temporary")}
    assert run("tools/uv", "--version", folder=checkout, **settings) == (0, "", "")
    assert not [*(tmp_path / "temporary").iterdir()]
    assert not [*checkout.rglob("certificates")]


def test_bootstrap_tries_package_index_before_debian(checkout: Path, tmp_path: Path) -> None:
    script(checkout / "tools/uv", "echo the index cannot be used >&2; exit 1")
    script(checkout / "tools/find-python", "echo python3-venv; echo gcc")
    script(checkout / "tools/apt-install", f'touch "{tmp_path}/installed"')
    script(tmp_path / "bin/python3", "exit 0")
    path = f"{tmp_path}/bin:{os.environ['PATH']}"
    status, _, errors = run("tools/bootstrap", "run", folder=checkout, PATH=path)
    assert status == 1
    assert "the index cannot be used" in errors
    assert not (tmp_path / "installed").exists()


@pytest.fixture
def without_python(checkout: Path, tmp_path: Path) -> dict[str, str]:
    """Environment variables of a machine without CPython 3.9, which tools/unpack-python can get."""
    log = f'echo "$(basename "$0")" >>"{tmp_path}/log"'
    script(checkout / "tools/uv", "[[ $* != *python?install* ]]")
    script(checkout / "tools/apt-install", "true")
    python = shlex.quote(os.path.realpath(sys.executable))
    link = f'mkdir -p "$1/bin" && ln -s {python} "$1/bin/python3.9"'
    script(checkout / "tools/unpack-python", f"{log}; sleep 1; {link}")
    script(checkout / "tools/build-python", f"{log}; {link}")
    script(tmp_path / "bin/python3", "exit 0")
    script(tmp_path / "bin/python3.9", "exit 1")
    script(tmp_path / "bin/apt-get", "true")
    script(tmp_path / "bin/grep", "exit 1")  # the release has no package of CPython 3.9
    return {
        "PATH": f"{tmp_path}/bin:{commands_without_python(tmp_path / 'commands')}",
        "HOME": str(tmp_path),
        "XDG_CACHE_HOME": str(tmp_path / "cache"),
        "PYENV_ROOT": "",
        "PYTHON39": "",
    }


@pytest.mark.parametrize(
    ("broken", "ways"),
    [("", "unpack-python"), ("unpack-python", "unpack-python build-python"), ("uv", "")],
    ids=["all", "no packages", "no index"],
)
def test_find_python_tries_cheap_ways_first(
    checkout: Path, tmp_path: Path, without_python: dict[str, str], broken: str, ways: str
) -> None:
    log = tmp_path / "log"
    log.touch()
    if broken == "uv":
        script(checkout / "tools/uv", "[ $1 = --version ]")
    elif broken:
        script(checkout / "tools" / broken, f'echo {broken} >>"{log}"; exit 1')
    status, output, _ = run("tools/find-python", folder=checkout, **without_python)
    assert log.read_text().split() == ways.split()
    assert (status, output.strip()) == ((0, os.path.realpath(sys.executable)) if ways else (1, ""))


def test_find_python_in_two_checkouts_unpacks_once(
    checkout: Path, tmp_path: Path, without_python: dict[str, str]
) -> None:
    other = tmp_path / "other"
    shutil.copytree(checkout, other)
    both = [
        subprocess.Popen(
            ["tools/find-python"],
            cwd=folder,
            env=os.environ | without_python,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        for folder in (checkout, other)
    ]
    results = [running.communicate(timeout=LIMIT) for running in both]
    assert [output.strip() for output, _ in results] == [os.path.realpath(sys.executable)] * 2
    assert sum("waiting for another make" in errors for _, errors in results) == 1
    assert (tmp_path / "log").read_text() == "unpack-python\n"


@pytest.mark.slow
def test_step_without_terminal_prints_every_ten_seconds(checkout: Path) -> None:
    _, output, _ = run("tools/step", "name", "label", "sleep", "11", folder=checkout)
    assert re.fullmatch(r"label \.\.\. 1\d s\nlabel \.\.\. [12]\d s\n", output)


def test_step_on_full_disk_says_so(tmp_path: Path) -> None:
    """In a mount namespace, on a file system of 256 KiB."""
    folder = tmp_path / "small"
    folder.mkdir()
    fill = "head -c 9M /dev/zero >filler"
    commands = f"""mount -t tmpfs -o size=256k none {shlex.quote(str(folder))} || exit 99
cp -r tools {shlex.quote(str(folder))} && cd {shlex.quote(str(folder))}
tools/step name label bash -c {shlex.quote(fill)}"""
    isolated_mounts = ["unshare", "--mount"] if os.geteuid() == 0 else ["unshare", "-rm"]
    status, _, errors = run(*isolated_mounts, "bash", "-c", commands)
    if status == 99 or "unshare" in errors:
        pytest.skip("mounts are not allowed here")
    assert status == 1
    assert f"no space is left on the file system of {folder}" in errors.splitlines()[-1]


def test_fresh_machine_without_root_is_not_tested(tmp_path: Path) -> None:
    script(tmp_path / "id", "echo 1000")
    path = f"{tmp_path}:{os.environ['PATH']}"
    status, output, _ = run(".ci/fresh-machine", PATH=path)
    assert status == 0
    assert re.fullmatch(r"fresh machine: NOT TESTED, only root .*\n", output)


def test_import_with_siblings_elsewhere_fails_as_documented(tmp_path: Path) -> None:
    """docs/embedding.md explains the message."""
    stage = isolated.BUILD / "stage"
    module = next((stage / "veldarin/modules").glob("modules_util.*.so"))
    siblings, alone = tmp_path / "siblings", tmp_path / "alone/veldarin/modules"
    shutil.copytree(stage, siblings, ignore=shutil.ignore_patterns("modules_util.*"))
    alone.mkdir(parents=True)
    shutil.copy(module, alone)
    program = "from veldarin.modules import modules_util"
    path = f"{alone.parents[1]}:{siblings}"
    _, _, errors = run(sys.executable, "-c", program, folder=tmp_path, PYTHONPATH=path)
    documented = (ROOT / "docs/embedding.md").read_text().replace("\n", " ")
    assert "ImportError: cannot import name 'modules_util' from 'veldarin.modules'" in errors
    assert "`ImportError: cannot import name 'modules_util' from 'veldarin.modules'`" in documented
