"""Builds mutants: compiles what a mutant changes and links it with the rest of a build."""

from __future__ import annotations

import hashlib
import json
import re
import shlex
import shutil
import subprocess
from pathlib import Path

from checks.mutation.mutants import Mutant
from tests.support.isolated import MODULE_PATH, ROOT

MODULE = ROOT / "veldarin" / "modules"
SYSTEM_HEADER = re.compile(r"^#include <([\w./]+)>", re.MULTILINE)
OBJECTS = "/modules_util_objects.dir/"  # other targets compile some sources, too
LINKED = ("modules_util", "modules_util_wrong_python_version")


class Builder:
    """Builds mutants with the commands of a build and stages them in a copy of it, `folder`."""

    def __init__(self, build: Path, folder: Path) -> None:
        self.build, self.folder = build, folder
        self._overlay, self._objects = folder / "overlay", folder / "objects"
        self._stubs = folder / "stubs"
        shutil.rmtree(folder, ignore_errors=True)
        for each in (self._overlay, self._objects, self._stubs):
            each.mkdir(parents=True)
        # The module and its variant are built here; everything else is the build's own.
        shutil.copytree(build / "stage", folder / "stage")
        shutil.copytree(build / "wrong_python_version", folder / "wrong_python_version")
        for library in build.glob("lib*.so"):
            (folder / library.name).symlink_to(library)
        for header in {
            name
            for file in ROOT.glob("veldarin/modules/**/*.*")
            if file.suffix in {".cpp", ".h"}
            for name in SYSTEM_HEADER.findall(file.read_text())
        }:
            (self._stubs / header).touch()
        commands = json.loads((build / "compile_commands.json").read_text())
        self._compile = {
            name: shlex.split(row["command"])
            for row in commands
            if (name := self._module_source(row["file"])) and OBJECTS in row["output"]
        }
        self._link = [self._link_command(target) for target in LINKED]
        self._digests = {name: self._digest(name) for name in self._compile}

    @staticmethod
    def _module_source(file: str) -> str | None:
        path = Path(file)
        return str(path.relative_to(MODULE)) if MODULE in path.parents else None

    def _link_command(self, target: str) -> list[str]:
        ninja = [str(ROOT / ".venv/bin/ninja"), "-C", str(self.build), "-t", "commands", target]
        listing = subprocess.run(ninja, check=True, capture_output=True, text=True).stdout
        words = shlex.split(listing.splitlines()[-1])
        command = words[words.index("&&") + 1 :]
        return command[: command.index("&&")]

    def _digest(self, name: str) -> str:
        """A digest of a source with all headers of the module, but not those of the system."""
        command = ["g++", "-E", "-P", "-nostdinc", "-nostdinc++", f"-I{self._overlay}", f"-I{ROOT}"]
        command += ["-isystem", str(self._stubs), str(self._path(name))]
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        return hashlib.sha256(done.stdout).hexdigest()

    def _path(self, name: str) -> Path:
        changed = self._overlay / "veldarin" / "modules" / name
        return changed if changed.exists() else MODULE / name

    def make(self, mutant: Mutant, source: str) -> str | None:
        """Build a mutant of the source with this text.

        Returns:
            A digest of what differs from the original, "" if nothing does, and `None` if the mutant
            cannot be built.
        """
        changed = self._overlay / "veldarin" / "modules" / mutant.file
        changed.parent.mkdir(parents=True, exist_ok=True)
        changed.write_text(mutant.apply(source))
        try:
            return self._make(mutant)
        finally:
            changed.unlink()

    def _make(self, mutant: Mutant) -> str | None:
        names = [mutant.file] if mutant.file in self._compile else list(self._compile)
        digest = hashlib.sha256()
        replaced: dict[str, str] = {}
        for name in names:
            if len(names) > 1 and self._digest(name) == self._digests[name]:
                continue
            *options, _output, original, _compile, _source = self._compile[name]
            new = self._objects / f"{name.replace('/', '_')}.o"
            command = [*options[:1], f"-I{self._overlay}", *options[1:], "-w"]
            command += [f"-ffile-prefix-map={self._overlay}/=", "-o", str(new), "-c"]
            if subprocess.run(
                [*command, str(self._path(name))], cwd=self.build, stderr=subprocess.DEVNULL
            ).returncode:
                return None
            content = new.read_bytes()
            if content != (self.build / original).read_bytes():
                replaced[original] = str(new)
                digest.update(content)
        return (
            digest.hexdigest() if replaced and self.link(replaced) else "" if not replaced else None
        )

    def link(self, replaced: dict[str, str]) -> bool:
        """Link the module with other objects in place of the build's."""
        for command in self._link:
            output = Path(command[command.index("-o") + 1])
            # A new file: an old process may still map the one before.
            new = self.folder / output.with_suffix(".new")
            words = [replaced.get(word, word) for word in command]
            words[words.index("-o") + 1] = str(new)
            if subprocess.run(words, cwd=self.build, stderr=subprocess.DEVNULL).returncode:
                return False
            new.rename(self.folder / output)
        return True


def staged_module(folder: Path) -> Path:
    """The path of the module in a builder's folder."""
    return folder / "stage" / MODULE_PATH.relative_to(MODULE_PATH.parents[2])
