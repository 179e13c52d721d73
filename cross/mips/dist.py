"""Packs what ships: the module built for MIPS, its type stub, checksums, a build record.

    .venv/bin/python cross/mips/dist.py      (`make dist`, which builds build/mips before)

Writes build/dist/modules_util-VERSION-mips-linux-gnu.tar.gz and prints its path, size and SHA-256.
The same revision gives the same bytes: every time in it is the commit's, owners are 0, names are
sorted, and no path of this machine is inside. The record names a revision, so there must be no
uncommitted change to what the file is made from.
"""

from __future__ import annotations

import gzip
import hashlib
import io
import os
import shlex
import subprocess
import sys
import tarfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = ROOT / "build" / "mips"
TRIPLET = "mips-linux-gnu"
MODULE = f"veldarin/modules/modules_util.cpython-39-{TRIPLET}.so"
TYPES = ("veldarin/modules/modules_util.pyi", "veldarin/modules/py.typed")
SOURCES = "veldarin util migbase cmake CMakeLists.txt CMakePresets.json requirements cross".split()


def output(*command: str | Path) -> str:
    """Returns a tool's output; exits if the tool fails, below its own message."""
    done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"dist: {Path(command[0]).name} failed, see above")
    return done.stdout.strip()


def options(command: str) -> str:
    """Returns a compiler command's options, without ROOT and those that name files."""
    files = ("-I", "-isystem", "-M", "-o", "-c")
    words = [word for word in shlex.split(command) if word.startswith("-")]
    kept = [word for word in words if not word.startswith(files)]
    return " ".join(word.replace(f"{ROOT}/", "./") for word in kept)


def python_version() -> str:
    """Returns the release of the interpreter whose headers were used, from its patchlevel.h."""
    config = shlex.quote(str(ROOT / "cross/mips/config.sh"))
    interpreter = output("bash", "-c", f'. {config} && echo "$interpreter"')
    header = Path(interpreter, "include/python3.9/patchlevel.h").read_text()
    return next(line.split('"')[1] for line in header.splitlines() if " PY_VERSION " in line)


def build_info(revision: str, date: str) -> str:
    """Returns the build record, one fact a line."""
    elf = output(ROOT / "cross/mips/verify-elf", BUILD / "stage" / MODULE).splitlines()[1:]
    ninja = ROOT / ".venv/bin/ninja"
    commands = output(ninja, "-C", BUILD, "-t", "commands", f"stage/{MODULE}").splitlines()
    rows = [
        ("revision", revision),
        ("date", date),
        ("compiler", output(f"{TRIPLET}-g++", "--version").splitlines()[0]),
        ("linker", output(f"{TRIPLET}-ld", "--version").splitlines()[0]),
        ("cmake", output(ROOT / ".venv/bin/cmake", "--version").splitlines()[0].split()[-1]),
        ("headers", f"CPython {python_version()}"),
        ("compiled", options(next(line for line in commands if " -c " in line))),
        ("linked", options(next(line for line in commands if " -shared " in line))),
        *((name, value) for name, _, value in (line.strip().partition(" ") for line in elf)),
    ]
    return "".join(f"{name:<10}{value.strip()}\n" for name, value in rows)


def module_version() -> str:
    """Returns the module's version, as the build was configured with it."""
    cache = (BUILD / "CMakeCache.txt").read_text().splitlines()
    return next(line for line in cache if line.startswith("CMAKE_PROJECT_VERSION:")).split("=")[1]


def archive(folder: str, contents: dict[str, bytes], epoch: int) -> bytes:
    """Returns a compressed archive of the contents by name, with every time the same."""
    result = io.BytesIO()
    with (
        gzip.GzipFile(fileobj=result, mode="wb", mtime=epoch, filename="") as zipped,
        tarfile.open(fileobj=zipped, mode="w", format=tarfile.USTAR_FORMAT) as tar,
    ):
        for name, content in sorted(contents.items()):
            entry = tarfile.TarInfo(f"{folder}/{name}")
            entry.size = len(content)
            entry.mtime = epoch
            entry.mode = 0o755 if name.endswith(".so") else 0o644
            tar.addfile(entry, io.BytesIO(content))
    return result.getvalue()


def main() -> None:
    """Writes the archive and prints what it is."""
    changed = output("git", "status", "--porcelain", "--", *SOURCES).splitlines()
    if changed:
        names = ", ".join(line.split(maxsplit=1)[1] for line in changed)
        sys.exit(f"dist: the archive names a revision; commit these first: {names}")
    revision = output("git", "rev-parse", "HEAD")
    epoch = int(os.environ.get("SOURCE_DATE_EPOCH") or output("git", "log", "-1", "--format=%ct"))
    date = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(epoch))

    module = (BUILD / "stage" / MODULE).read_bytes()
    if str(ROOT).encode() in module or str(Path.home()).encode() in module:
        sys.exit("dist: the module contains a path of this machine")
    if b".symtab" in module:
        sys.exit("dist: the module is not stripped")
    contents = {MODULE: module, **{name: (ROOT / name).read_bytes() for name in TYPES}}
    contents["BUILD"] = build_info(revision, date).encode()
    contents["SHA256SUMS"] = "".join(
        f"{hashlib.sha256(content).hexdigest()}  {name}\n"
        for name, content in sorted(contents.items())
    ).encode()

    folder = f"modules_util-{module_version()}-{TRIPLET}"
    path = ROOT / "build" / "dist" / f"{folder}.tar.gz"
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(archive(folder, contents, epoch))
    print(path)
    print(f"  size     {path.stat().st_size} bytes")
    print(f"  SHA-256  {hashlib.sha256(path.read_bytes()).hexdigest()}")


if __name__ == "__main__":
    main()
