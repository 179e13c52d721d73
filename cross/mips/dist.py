"""Packs what ships: the module built for the target, its Python face, checksums, a build record.

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

ROOT = Path(__file__).resolve().parent.parent.parent
BUILD = ROOT / "build" / "mips"
TRIPLET = "mips-linux-gnu"
MODULE = f"veldarin/modules/modules_util.cpython-39-{TRIPLET}.so"
STUB = "veldarin/modules/modules_util.pyi"
MADE_FROM = (
    "veldarin util migbase cmake CMakeLists.txt CMakePresets.json requirements.txt tools/target"
).split()


def said(*command: str | Path) -> str:
    """What a tool prints; a tool that fails ends the program with its own words."""
    done = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"dist: {Path(command[0]).name} failed, see above")
    return done.stdout.strip()


def flags() -> tuple[str, str]:
    """How the module's sources are compiled and how it is linked, without this machine's paths."""
    ninja = ROOT / ".venv/bin/ninja"
    commands = said(ninja, "-C", BUILD, "-t", "commands", f"stage/{MODULE}").splitlines()
    compiled = next(line for line in commands if " -c " in line)
    return _options(compiled), _options(next(line for line in commands if " -shared " in line))


def _options(command: str) -> str:
    words = [word for word in shlex.split(command) if word.startswith("-")]
    unsaid = ("-I", "-isystem", "-M", "-o", "-c")  # where files are; the record says what was done
    kept = [word for word in words if not word.startswith(unsaid)]
    return " ".join(word.replace(f"{ROOT}/", "./") for word in kept)


def record(revision: str, date: str) -> str:
    """The build record: a line a fact."""
    facts = said(ROOT / "cross/mips/verify-elf", BUILD / "stage" / MODULE).splitlines()
    compiled, linked = flags()
    rows = [
        ("revision", revision),
        ("date", date),
        ("compiler", said(f"{TRIPLET}-g++", "--version").splitlines()[0]),
        ("linker", said(f"{TRIPLET}-ld", "--version").splitlines()[0]),
        ("cmake", said(ROOT / ".venv/bin/cmake", "--version").splitlines()[0].split()[-1]),
        ("headers", f"CPython {interpreter_version()}"),
        ("compiled", compiled),
        ("linked", linked),
        *((name, value) for name, _, value in (line.strip().partition(" ") for line in facts[1:])),
    ]
    return "".join(f"{name:<10}{value.strip()}\n" for name, value in rows)


def interpreter_version() -> str:
    """The release of the interpreter whose headers were used, from its patchlevel.h."""
    recipe = shlex.quote(str(ROOT / "cross/mips/config.sh"))
    interpreter = said("bash", "-c", f'. {recipe} && echo "$interpreter"')
    header = Path(interpreter, "include/python3.9/patchlevel.h").read_text()
    return next(line.split('"')[1] for line in header.splitlines() if " PY_VERSION " in line)


def version() -> str:
    """The product's version, as the build was configured with it."""
    cache = (BUILD / "CMakeCache.txt").read_text().splitlines()
    return next(line for line in cache if line.startswith("CMAKE_PROJECT_VERSION:")).split("=")[1]


def packed(folder: str, contents: dict[str, bytes], epoch: int) -> bytes:
    """A compressed archive of the contents by name, with every time the same."""
    result = io.BytesIO()
    with (
        gzip.GzipFile(fileobj=result, mode="wb", mtime=epoch, filename="") as zipped,
        tarfile.open(fileobj=zipped, mode="w", format=tarfile.USTAR_FORMAT) as archive,
    ):
        for name, content in sorted(contents.items()):
            entry = tarfile.TarInfo(f"{folder}/{name}")
            entry.size = len(content)
            entry.mtime = epoch
            entry.mode = 0o755 if name.endswith(".so") else 0o644
            archive.addfile(entry, io.BytesIO(content))
    return result.getvalue()


def main() -> None:
    """Packs, writes, prints."""
    changed = said("git", "status", "--porcelain", "--", *MADE_FROM).splitlines()
    if changed:
        names = ", ".join(line.split(maxsplit=1)[1] for line in changed)
        sys.exit(f"dist: the archive names a revision; commit these first: {names}")
    revision = said("git", "rev-parse", "HEAD")
    epoch = int(os.environ.get("SOURCE_DATE_EPOCH") or said("git", "log", "-1", "--format=%ct"))
    date = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(epoch))

    module = (BUILD / "stage" / MODULE).read_bytes()
    if str(ROOT).encode() in module or str(Path.home()).encode() in module:
        sys.exit("dist: the module carries a path of this machine")
    if b".symtab" in module:
        sys.exit("dist: the module is not stripped")
    contents = {MODULE: module, STUB: (ROOT / STUB).read_bytes()}
    contents["BUILD"] = record(revision, date).encode()
    contents["SHA256SUMS"] = "".join(
        f"{hashlib.sha256(content).hexdigest()}  {name}\n"
        for name, content in sorted(contents.items())
    ).encode()

    folder = f"modules_util-{version()}-{TRIPLET}"
    path = ROOT / "build" / "dist" / f"{folder}.tar.gz"
    path.parent.mkdir(parents=True, exist_ok=True)
    archive = packed(folder, contents, epoch)
    path.write_bytes(archive)
    print(path)
    print(f"  size     {len(archive)} bytes")
    print(f"  SHA-256  {hashlib.sha256(archive).hexdigest()}")


if __name__ == "__main__":
    main()
