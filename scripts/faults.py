# SPDX-License-Identifier: Apache-2.0
"""Lists of single faults, and copies of the sources in which they are planted one at a time.

    [name] File.cpp
    - a piece of the file, which stands there once
    + what stands in its place

A piece may take several lines, each behind its sign. Between the name and the file may stand what
the fault is for.
"""
import concurrent.futures
import contextlib
import pathlib
import queue
import re
import shutil
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOES_NOT_BUILD = "DOES NOT BUILD"


class Fault:
    def __init__(self, at, name, target, path):
        self.at, self.name, self.target, self.path = at, name, target, path
        self.old, self.new = [], []

    def apply(self, text):
        old, new = "\n".join(self.old), "\n".join(self.new)
        if not old or text.count(old) != 1:
            raise ValueError(f"{self.at}: [{self.name}]: what it replaces stands "
                             f"{text.count(old)} times in {self.path}, not once")
        return text.replace(old, new)


def read(listed, folder="."):
    """The faults of a list whose files stand in the folder; each fits the sources."""
    faults = []
    for number, line in enumerate((ROOT / listed).read_text().splitlines(), 1):
        head = re.fullmatch(r"\[([a-z0-9.-]+)\] (?:(\S+) )?(\S+)", line)
        if head:
            name, target, file = head.groups()
            faults.append(Fault(f"{listed}:{number}", name, target, f"{folder}/{file}"))
        elif faults and (line[:2] in ("- ", "+ ") or line == "+"):
            (faults[-1].old if line[0] == "-" else faults[-1].new).append(line[2:])
        elif line.strip() and not line.startswith("#"):
            raise ValueError(f"{listed}:{number}: not a fault's line: {line}")
    names = [fault.name for fault in faults]
    for fault in faults:
        if names.count(fault.name) > 1:
            raise ValueError(f"{listed}: two faults are named [{fault.name}]")
        fault.apply((ROOT / fault.path).read_text())
    return faults


def install(log, packages):
    """Debian packages, by the names that scripts/lib.sh has for groups of them."""
    groups = " ".join(f'"${{{group}[@]}}"' for group in packages)
    subprocess.run(["bash", "-euo", "pipefail", "-c", f"source scripts/lib.sh; start_log {log}; "
                    f'step "Debian packages" install_packages {groups}'], cwd=ROOT, check=True)


class Tree:
    """A copy of the sources with a build folder of its own."""

    def __init__(self, work, number, configure):
        self.top = work / f"tree{number}"
        self.build = work / f"build{number}"
        self.log = work / f"log{number}.txt"
        # Copied where something differs, so that the build folder stays worth keeping.
        files = [file for entry in ROOT.iterdir() if entry.name not in ("build", ".git")
                 for file in [entry, *entry.rglob("*")] if file.is_file()]
        for file in files:
            copy = self.top / file.relative_to(ROOT)
            if not copy.exists() or copy.read_bytes() != file.read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(file, copy)
        self.run("cmake", "-S", self.top, "-B", self.build, "-G", "Ninja", *configure)

    def run(self, *command):
        with self.log.open("w") as log:
            subprocess.run(command, stdout=log, stderr=log, check=True)

    def make(self, target):
        self.run("cmake", "--build", self.build, "--target", target, "-j1")

    @contextlib.contextmanager
    def planted(self, fault):
        source = self.top / fault.path
        sound = source.read_text()
        source.write_text(fault.apply(sound))
        try:
            yield
        finally:
            source.write_text(sound)


def try_all(faults, attempt, work, jobs, configure):
    """Prints what attempt(tree, fault) says of each fault: how it was found, or nothing. Of None,
    the sources as they are, it must say nothing. Answers the exit status: 0 when all are found,
    1 when one survives, 2 when one doesn't compile."""
    print(f"building {jobs} times without a fault", flush=True)
    trees = queue.Queue()
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for tree in pool.map(lambda number: Tree(work, number, configure), range(jobs)):
            trees.put(tree)

        def attempt_one(fault):
            tree = trees.get()
            try:
                with tree.planted(fault) if fault else contextlib.nullcontext():
                    return attempt(tree, fault)
            except subprocess.CalledProcessError:
                shutil.copy(tree.log, f"{tree.log}.failed")
                return DOES_NOT_BUILD
            finally:
                trees.put(tree)

        failed = attempt_one(None)
        if failed:
            raise ValueError(f"without any fault: {failed}")
        survived = broken = 0
        for fault, found in zip(faults, pool.map(attempt_one, faults)):
            print(f"{fault.name:<48}{found or 'SURVIVED'}", flush=True)
            survived += not found
            broken += found == DOES_NOT_BUILD
    print(f"{len(faults)} faults, {len(faults) - survived - broken} found, {survived} survived, "
          f"{broken} did not build")
    return 2 if broken else 1 if survived else 0
