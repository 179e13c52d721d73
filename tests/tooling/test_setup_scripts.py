"""The setup scripts under interrupts, in copied and moved checkouts, and with several at a time."""

from __future__ import annotations

import os
import pty
import shlex
import shutil
import signal
import subprocess
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from tests.support import isolated

TOOLS = isolated.ROOT / "tools"
LIMIT = 20.0


def script(path: Path, text: str) -> Path:
    """Write an executable shell script."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"#!/bin/bash\n{text}\n")
    path.chmod(0o755)
    return path


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
        try:
            self.output += os.read(self._fd, 65536).decode(errors="replace")
        except BlockingIOError:
            pass
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
        terminal, tmp_path, f'sh -c "echo \\$\\$ >{tmp_path}/started; exec sleep 60"; true'
    )
    wait_until(lambda: terminal.has_printed("label ..."))
    terminal.send("\x03")
    wait_until(lambda: terminal.has_printed("status=130."))
    assert not is_running(pid)


def test_step_ctrl_c_in_first_second_ends_with_130(terminal: Terminal, tmp_path: Path) -> None:
    pid = start_step(terminal, tmp_path, f'echo $$ >"{tmp_path}/started"; exec sleep 60')
    terminal.send("\x03")
    wait_until(lambda: terminal.has_printed("status=130."))
    assert not is_running(pid)


def test_step_ctrl_z_and_fg_stop_and_continue(terminal: Terminal, tmp_path: Path) -> None:
    pid = start_step(terminal, tmp_path, f'echo $$ >"{tmp_path}/started"; exec sleep 3')
    terminal.send("\x1a")
    wait_until(lambda: terminal.has_printed("Stopped"))
    assert Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2][0] == "T"
    terminal.send("fg\n")
    wait_until(lambda: terminal.has_printed("status=0.") or terminal.has_printed(" s\r\n"))
    assert not is_running(pid)


def test_step_sigterm_ends_descendants_with_143(checkout: Path, tmp_path: Path) -> None:
    started = tmp_path / "started"
    command = script(tmp_path / "command", f'(sleep 60 & echo $! >"{started}"; wait); true')
    step = subprocess.Popen([checkout / "tools/step", "name", "label", command])
    wait_until(lambda: started.exists() and started.read_text().endswith("\n"))
    step.terminate()
    assert step.wait(LIMIT) == 143
    assert not is_running(int(started.read_text()))


def test_step_failing_command_returns_its_status(checkout: Path, tmp_path: Path) -> None:
    command = script(tmp_path / "command", "echo reason; exit 7")
    step = [checkout / "tools/step", "name", "label", command]
    done = subprocess.run(step, capture_output=True, text=True, timeout=LIMIT)
    assert done.returncode == 7
    assert "reason" in done.stderr


def test_find_python_ctrl_c_tries_no_other_way(
    terminal: Terminal, checkout: Path, tmp_path: Path
) -> None:
    """The script does not go on to building an interpreter."""
    started, built = tmp_path / "started", tmp_path / "built"
    script(checkout / "tools/uv", f'echo $$ >"{started}"; exec sleep 60')
    script(checkout / "tools/build-python", f'touch "{built}"')
    # Every interpreter is unfit, except that python3 has ensurepip.
    script(tmp_path / "bin/python3", '[ "$1" = -c ]')
    script(tmp_path / "bin/python3.9", "exit 1")
    terminal.send(
        "PATH=%s:/usr/bin:/bin HOME=%s PYENV_ROOT= PYTHON39= tools/find-python;"
        ' echo "status=$?."\n' % (shlex.quote(str(tmp_path / "bin")), shlex.quote(str(tmp_path)))
    )
    wait_until(lambda: started.exists() and started.read_text().endswith("\n"))
    terminal.send("\x03")
    wait_until(lambda: terminal.has_printed("status=130."))
    assert not built.exists()
    assert not is_running(int(started.read_text()))


@pytest.fixture
def packages(tmp_path: Path) -> Path:
    """Fakes of Debian's tools in tmp_path/bin: nothing is installed, and apt-get takes two seconds."""
    binaries = tmp_path / "bin"
    script(binaries / "dpkg-query", "exit 1")
    script(binaries / "dpkg", f'cat "{tmp_path}/audit" 2>/dev/null')
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
    command = [checkout / "tools/apt-install", "libexample-dev"]
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


@pytest.mark.parametrize("trace", ["audit", "dpkg-state/updates/0001"])
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
