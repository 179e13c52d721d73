"""The setup scripts under interrupts, in copied and moved checkouts, and with several at a time."""

from __future__ import annotations

import contextlib
import fcntl
import os
import pty
import shlex
import shutil
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from tests.support import isolated

TOOLS = isolated.ROOT / "tools"
LIMIT = 60.0


def script(path: Path, text: str) -> Path:
    """Write an executable shell script."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"#!/bin/bash\n{text}\n")
    path.chmod(0o755)
    return path


def commands_without_python(folder: Path) -> Path:
    """Return a folder with the system's commands, without an interpreter that Debian installed."""
    folder.mkdir()
    for command in Path("/usr/bin").iterdir():
        if "python" not in command.name:
            (folder / command.name).symlink_to(command)
    return folder


def wait_until(condition: Callable[[], object]) -> None:
    """Wait for a condition, and fail if it does not come true."""
    end = time.monotonic() + LIMIT
    while not condition():
        assert time.monotonic() < end, "timed out"
        time.sleep(0.02)


def is_running(pid: int) -> bool:
    """Whether the process exists and is not a zombie."""
    try:
        state = Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2][0]
    except FileNotFoundError:
        return False
    return state != "Z"


class Terminal:
    """A shell on a pseudo-terminal, in which a command runs as a person would start it."""

    def __init__(self, folder: Path, **environment: str) -> None:
        self._pid, self._fd = pty.fork()
        if self._pid == 0:  # pragma: no cover
            os.chdir(folder)
            os.environ.update(environment, PS1="$ ", TERM="dumb")
            os.execv("/bin/bash", ["bash", "--norc", "--noprofile", "-i"])
        os.set_blocking(self._fd, False)
        self.output = ""

    def send(self, text: str) -> None:
        """Type text; "\\x03" is Ctrl-C and "\\x1a" is Ctrl-Z."""
        os.write(self._fd, text.encode())

    def has_printed(self, text: str) -> bool:
        """Read what there is and look for text in all of the output."""
        with contextlib.suppress(BlockingIOError):
            self.output += os.read(self._fd, 65536).decode(errors="replace")
        return text in self.output

    def close(self) -> None:
        """Hang up and end the shell."""
        os.kill(self._pid, signal.SIGKILL)
        os.close(self._fd)
        os.waitpid(self._pid, 0)


@pytest.fixture
def checkout(tmp_path: Path) -> Path:
    """A folder with the setup scripts, without anything that they make."""
    folder = tmp_path / "checkout"
    shutil.copytree(TOOLS, folder / "tools", ignore=shutil.ignore_patterns("__pycache__"))
    return folder


@pytest.fixture
def terminal(checkout: Path, tmp_path: Path) -> Iterator[Terminal]:
    """A terminal in the checkout, with tmp_path/bin first on PATH."""
    opened = Terminal(checkout, PATH=f"{tmp_path / 'bin'}:{os.environ['PATH']}")
    yield opened
    opened.close()


def start_step(terminal: Terminal, tmp_path: Path, text: str, options: str = "") -> int:
    """Run tools/step with a script on the terminal; return the process ID that the script wrote."""
    command = script(tmp_path / "command", text)
    step = f"tools/step {options} name label {shlex.quote(str(command))}"
    terminal.send(f'{step}; echo "status=$?."\n')
    started = tmp_path / "started"
    wait_until(lambda: started.exists() and started.read_text().endswith("\n"))
    return int(started.read_text())


def test_step_ctrl_c_ends_command_with_130(terminal: Terminal, tmp_path: Path) -> None:
    pid = start_step(
        terminal, tmp_path, f'sh -c "echo \\$\\$ >{tmp_path}/started; exec sleep 600"; true'
    )
    wait_until(lambda: terminal.has_printed("label ..."))
    terminal.send("\x03")
    wait_until(lambda: terminal.has_printed("status=130."))
    wait_until(lambda: not is_running(pid))


def test_step_ctrl_c_in_first_second_ends_with_130(terminal: Terminal, tmp_path: Path) -> None:
    pid = start_step(terminal, tmp_path, f'echo $$ >"{tmp_path}/started"; exec sleep 600')
    terminal.send("\x03")
    wait_until(lambda: terminal.has_printed("status=130."))
    wait_until(lambda: not is_running(pid))


def test_step_ctrl_z_and_fg_stop_and_continue(terminal: Terminal, tmp_path: Path) -> None:
    pid = start_step(terminal, tmp_path, f'echo $$ >"{tmp_path}/started"; exec sleep 3')
    terminal.send("\x1a")
    wait_until(lambda: terminal.has_printed("Stopped"))
    assert Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2][0] == "T"
    terminal.send("fg\n")
    wait_until(lambda: terminal.has_printed("status=0.") or terminal.has_printed(" s\r\n"))
    wait_until(lambda: not is_running(pid))


def test_step_sigterm_ends_descendants_with_143(checkout: Path, tmp_path: Path) -> None:
    started = tmp_path / "started"
    command = script(tmp_path / "command", f'(sleep 600 & echo $! >"{started}"; wait); true')
    step = subprocess.Popen([checkout / "tools/step", "name", "label", command])
    wait_until(lambda: started.exists() and started.read_text().endswith("\n"))
    step.terminate()
    assert step.wait(LIMIT) == 143
    wait_until(lambda: not is_running(int(started.read_text())))


def test_step_failing_command_returns_its_status(checkout: Path, tmp_path: Path) -> None:
    command = script(tmp_path / "command", "echo reason; exit 7")
    step = [str(checkout / "tools/step"), "name", "label", str(command)]
    done = subprocess.run(step, capture_output=True, text=True, timeout=LIMIT)
    assert done.returncode == 7
    assert "reason" in done.stderr


def test_find_python_ctrl_c_tries_no_other_way(
    terminal: Terminal, checkout: Path, tmp_path: Path
) -> None:
    """The script does not go on to building an interpreter."""
    started, built = tmp_path / "started", tmp_path / "built"
    script(checkout / "tools/uv", f'echo $$ >"{started}"; exec sleep 600')
    script(checkout / "tools/build-python", f'touch "{built}"')
    # Every interpreter is unfit, except that python3 has ensurepip.
    script(tmp_path / "bin/python3", '[ "$1" = -c ]')
    script(tmp_path / "bin/python3.9", "exit 1")
    script(tmp_path / "bin/grep", "exit 1")  # the release has no package of CPython 3.9
    commands = commands_without_python(tmp_path / "commands")
    path, home = shlex.quote(f"{tmp_path}/bin:{commands}"), shlex.quote(str(tmp_path))
    environment = f"PATH={path} HOME={home} PYENV_ROOT= PYTHON39="
    terminal.send(f'{environment} tools/find-python; echo "status=$?."\n')
    wait_until(lambda: started.exists() and started.read_text().endswith("\n"))
    terminal.send("\x03")
    wait_until(lambda: terminal.has_printed("status=130."))
    assert not built.exists()
    wait_until(lambda: not is_running(int(started.read_text())))


@pytest.fixture
def packages(tmp_path: Path) -> Path:
    """Fakes of Debian's tools in tmp_path/bin; nothing is installed, apt-get takes two seconds."""
    binaries = tmp_path / "bin"
    script(binaries / "dpkg-query", f'cat "{tmp_path}/states" 2>/dev/null')
    script(binaries / "sudo", '[ "$1" != -n ] || shift; exec "$@"')
    script(
        binaries / "apt-get",
        f"""[[ " $* " != *" --simulate "* ]] || exit 0
echo $$ >"{tmp_path}/started"
for step in 1 2 3 4; do sleep 0.5 || exit 9; done
touch "{tmp_path}/installed"
""",
    )
    (tmp_path / "dpkg-state/updates").mkdir(parents=True)
    return tmp_path


def apt_install(checkout: Path, packages: Path) -> subprocess.Popen[str]:
    """Start tools/apt-install with the fakes."""
    environment = os.environ | {
        "PATH": f"{packages}/bin:{os.environ['PATH']}",
        "DPKG_ADMINDIR": str(packages / "dpkg-state"),
    }
    command = [str(checkout / "tools/apt-install"), "libexample-dev"]
    pipe = subprocess.PIPE
    return subprocess.Popen(command, env=environment, stdout=pipe, stderr=pipe, text=True)


def test_apt_install_ctrl_c_waits_and_returns_130(terminal: Terminal, packages: Path) -> None:
    terminal.send(
        f'DPKG_ADMINDIR={packages}/dpkg-state tools/apt-install libexample-dev; echo "status=$?."\n'
    )
    wait_until((packages / "started").exists)
    time.sleep(0.2)
    terminal.send("\x03")
    wait_until(lambda: terminal.has_printed("status=130."))
    assert (packages / "installed").exists()


def test_apt_install_sigterm_waits_for_apt_get(checkout: Path, packages: Path) -> None:
    running = apt_install(checkout, packages)
    wait_until((packages / "started").exists)
    running.terminate()
    running.communicate(timeout=LIMIT)
    assert running.returncode == 143
    assert (packages / "installed").exists()


def test_step_sigterm_leaves_nested_apt_get(checkout: Path, packages: Path) -> None:
    """A step that installs packages on the way, as the build of an interpreter does."""
    environment = os.environ | {
        "PATH": f"{packages}/bin:{os.environ['PATH']}",
        "DPKG_ADMINDIR": str(packages / "dpkg-state"),
    }
    command = ["tools/step", "outer", "outer", "tools/apt-install", "libexample-dev"]
    step = subprocess.Popen(command, cwd=checkout, env=environment)
    wait_until((packages / "started").exists)
    step.terminate()
    assert step.wait(LIMIT) == 143
    assert (packages / "installed").exists()


@pytest.mark.parametrize("trace", ["states", "dpkg-state/updates/0001"])
def test_apt_install_after_interrupted_dpkg_says_so(
    checkout: Path, packages: Path, trace: str
) -> None:
    (packages / trace).write_text("half-installed\n")
    running = apt_install(checkout, packages)
    _, errors = running.communicate(timeout=LIMIT)
    assert running.returncode == 1
    assert errors.count("\n") == 1
    assert "run: dpkg --configure -a" in errors
    assert not (packages / "started").exists()


@pytest.fixture
def bare_checkout(checkout: Path) -> Path:
    """A checkout in which tools/bootstrap has no Python packages to install.

    tools/uv makes environments as `uv venv` does, with a script that holds the environment's path,
    and writes a line to environments.log for each. Then it waits while there is a file named hold.
    """
    (checkout / "requirements").mkdir()
    (checkout / "requirements/run.txt").write_text("")
    script(
        checkout / "tools/uv",
        """[ "$1" = venv ] || exit 0
echo made >>environments.log
while [ -e hold ]; do sleep 0.1; done
rm -rf .venv && mkdir -p .venv/bin && ln -s "$4" .venv/bin/python
echo "#!$PWD/.venv/bin/python" >.venv/bin/tool && chmod +x .venv/bin/tool""",
    )
    return checkout


def start_bootstrap(checkout: Path, **environment: str) -> subprocess.Popen[str]:
    """Start tools/bootstrap for `make run`."""
    return subprocess.Popen(
        ["tools/bootstrap", "run"],
        cwd=checkout,
        env=os.environ | {"PYTHON39": os.path.realpath(sys.executable)} | environment,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )


def bootstrap(checkout: Path, **environment: str) -> int:
    """Run tools/bootstrap and return how many environments it has made in the checkout."""
    running = start_bootstrap(checkout, **environment)
    output, _ = running.communicate(timeout=LIMIT)
    assert running.returncode == 0, output
    return len((checkout / "environments.log").read_text().splitlines())


def test_bootstrap_two_in_a_checkout_make_one_venv(bare_checkout: Path) -> None:
    hold = bare_checkout / "hold"
    hold.touch()
    first = start_bootstrap(bare_checkout)
    wait_until((bare_checkout / "environments.log").exists)
    second = start_bootstrap(bare_checkout)
    assert second.stdout
    assert second.stdout.readline() == "waiting for another make in this checkout\n"
    hold.unlink()
    outputs = [running.communicate(timeout=LIMIT)[0] for running in (first, second)]
    assert [running.returncode for running in (first, second)] == [0, 0], outputs
    assert (bare_checkout / "environments.log").read_text() == "made\n"


def test_step_two_in_a_build_tree_run_in_turn(checkout: Path, tmp_path: Path) -> None:
    log = tmp_path / "log"
    command = script(tmp_path / "command", f'echo start >>"{log}"; sleep 1; echo end >>"{log}"')
    step = [str(checkout / "tools/step"), "--lock", "tree", "name", "label", str(command)]
    both = [subprocess.Popen(step, stdout=subprocess.PIPE, text=True) for _ in range(2)]
    outputs = [running.communicate(timeout=LIMIT)[0] for running in both]
    assert [running.returncode for running in both] == [0, 0]
    assert sum("waiting for another make in build/tree" in output for output in outputs) == 1
    assert log.read_text().split() == ["start", "end"] * 2


@pytest.mark.parametrize("kind", ["name", "shim", "link"])
def test_bootstrap_named_interpreter_makes_venv_once(
    bare_checkout: Path, tmp_path: Path, kind: str
) -> None:
    python = os.path.realpath(sys.executable)
    named = tmp_path / "bin/python3.9"
    if kind == "link":
        named.parent.mkdir()
        named.symlink_to(python)
    else:
        script(named, f'exec "{python}" "$@"')
    environment = {
        "PYTHON39": "python3.9" if kind == "name" else str(named),
        "PATH": f"{named.parent}:{os.environ['PATH']}",
    }
    assert [bootstrap(bare_checkout, **environment) for _ in range(2)] == [1, 1]
    assert bootstrap(bare_checkout) == 1
    assert bootstrap(bare_checkout, PYTHON39="") == 1


@pytest.mark.parametrize("lost", ["interpreter", "requirements", "bin"])
def test_bootstrap_damaged_venv_is_made_again(bare_checkout: Path, lost: str) -> None:
    assert bootstrap(bare_checkout) == 1
    subprocess.run(["rm", "-r", bare_checkout / ".venv" / lost], check=True)
    assert [bootstrap(bare_checkout) for _ in range(2)] == [2, 2]


@pytest.mark.parametrize("is_moved", [False, True], ids=["copied", "moved"])
def test_bootstrap_in_another_place_makes_trees_again(
    bare_checkout: Path, tmp_path: Path, is_moved: bool
) -> None:
    assert bootstrap(bare_checkout) == 1
    tree = bare_checkout / "build/release"
    tree.mkdir()
    (tree / "CMakeCache.txt").write_text(f"CMAKE_HOME_DIRECTORY:INTERNAL={bare_checkout}\n")
    assert bootstrap(bare_checkout) == 1
    assert tree.exists()

    place = tmp_path / "another place"
    if is_moved:
        bare_checkout.rename(place)
    else:
        shutil.copytree(bare_checkout, place, symlinks=True)
    assert bootstrap(place) == 2
    assert not (place / "build/release").exists()
    assert f"#!{place}/" in (place / ".venv/bin/tool").read_text()
    assert is_moved or tree.exists()
    assert bootstrap(place) == 2


def test_bootstrap_without_root_names_all_in_one_line(bare_checkout: Path, packages: Path) -> None:
    """PATH has only a few commands: no compiler, no interpreter, nothing that tests use."""
    binaries = packages / "bin"
    (binaries / "sudo").write_text("#!/bin/sh\nexit 1\n")
    script(binaries / "id", "echo 1000")
    for name in ("bash", "cat", "dirname", "env", "flock", "grep", "mkdir", "realpath", "rm"):
        found = shutil.which(name)
        assert found
        (binaries / name).symlink_to(found)
    environment = {"PATH": str(binaries), "PYTHON39": "", "PYENV_ROOT": "", "HOME": str(packages)}
    done = subprocess.run(
        ["tools/bootstrap", "browser", "lint", "callgrind"],
        cwd=bare_checkout,
        env=environment,
        capture_output=True,
        text=True,
        timeout=LIMIT,
    )
    assert done.returncode == 1
    assert done.stderr.count("\n") == 1, done.stderr
    named = set(done.stderr.partition("apt-get install ")[2].split())
    assert {"g++", "pkg-config", "libjson-c-dev", "chromium"} <= named
    # With what building an interpreter takes, if the release has none.
    assert {"python3-venv", "gcc", "libssl-dev"} <= named or "python3.9-venv" in named
    assert not (packages / "started").exists()


# What apt-get can do: find the package in its lists, fetch the lists, install.
@pytest.mark.parametrize(
    ("works", "problem"),
    [
        ("", "package lists cannot be fetched: check the network"),
        ("simulate", "packages libexample-dev cannot be fetched: check the network"),
        ("simulate install", ""),
        ("update", "E: no package"),
    ],
    ids=["nothing", "lists here", "another list missing", "no such package"],
)
def test_apt_install_without_network_is_one_line(
    checkout: Path, packages: Path, works: str, problem: str
) -> None:
    script(
        packages / "bin/apt-get",
        f"""for step in simulate update install; do
    [[ " $* " = *"$step"* ]] || continue
    [[ " {works} " != *" $step "* ]] || exit 0
    echo E: no package
    exit 100
done""",
    )
    running = apt_install(checkout, packages)
    _, errors = running.communicate(timeout=LIMIT)
    assert (running.returncode == 0) == (problem == "")
    assert problem in errors
    if "network" in problem or not problem:
        assert errors.count("\n") == (problem != "")


def test_apt_install_during_another_waits_for_it(checkout: Path, packages: Path) -> None:
    """A state that looks interrupted is left to apt-get while dpkg's lock is held."""
    (packages / "states").write_text("half-installed\n")
    with (packages / "dpkg-state/lock").open("w") as lock:
        fcntl.lockf(lock, fcntl.LOCK_EX)
        running = apt_install(checkout, packages)
        _, errors = running.communicate(timeout=LIMIT)
    assert running.returncode == 0, errors
    assert (packages / "installed").exists()
