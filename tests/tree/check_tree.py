#!/usr/bin/env python3
"""Holds what a device tree relies on and no compiler here would notice.

    check_tree.py --build DIR CHECK...     one line per finding; exit status 1 if there is any
"""

import argparse
import ast
import itertools
import os
import re
import subprocess
import sys
import xml.etree.ElementTree as xml
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
DEFAULT = TREE / "activity_recognition/1.1/default"
DEVICE = [DEFAULT, DEFAULT.parent / "vts/functional", TREE / "activity_recognition/native/simulator"]
PACKAGE = "vendor.zaltho.hardware.activity_recognition"
SERVICE = f"{PACKAGE}@1.1-service"
BINARY = f"/vendor/bin/hw/{SERVICE}"
IMPLEMENTATION = f"{PACKAGE}@1.1-impl"

# What the modules here take from the rest of an Android 9 tree.
PLATFORM_MODULES = {
    "android.hidl.base@1.0", "hidl_defaults", "libbase_headers", "libcutils", "libgmock",
    "libhardware", "libhardware_headers", "libhidlbase", "libhidltransport", "libhwbinder",
    "liblog", "libutils",
    # Header libraries that the integrator brings for activityctl.
    "libcli11_headers", "libfmt_headers", "libnlohmann_json_headers",
}

# Which library an include needs; the first match counts.
LIBRARIES = [
    (r"hidl/(HidlTransport\w+|LegacySupport|ServiceManagement)\.h", "libhidltransport"),
    (r"hidl/.*", "libhidlbase"),
    (r"hwbinder/.*", "libhwbinder"),
    (r"hardware/.*", "libhardware"),
    (r"android-base/.*", "libbase"),
    (r"utils/.*", "libutils"),
    (r"cutils/.*", "libcutils"),
    (r"log/.*|android/log\.h", "liblog"),
    (rf"{PACKAGE.replace('.', '/')}/([\d.]+)/.*", rf"{PACKAGE}@\1"),
]

# The platform's headers that sources for the device may include besides those of C, C++ and POSIX.
# By name: a header that only the host has must not pass because it sits in a folder of the platform.
PLATFORM_HEADERS = re.compile(
    r"android-base/unique_fd\.h|android/log\.h|log/log\.h|cutils/trace\.h|gtest/gtest\.h|"
    r"hardware/hardware\.h|"
    r"android/hidl/(base|manager)/1\.0/\w+\.h|zaltho/activity_recognition_native\.h|"
    r"hidl/(HidlSupport|HidlTransportSupport|LegacySupport|MQDescriptor|ServiceManagement|Status)\.h|"
    r"hwbinder/(IPCThreadState|ProcessState)\.h|"
    r"utils/(Errors|KeyedVector|Log|Mutex|RefBase|SortedVector|StrongPointer|Timers|Vector)\.h|"
    rf"{PACKAGE.replace('.', '/')}/1\.[01]/\w+\.h")
STANDARD_HEADERS = re.compile(r"[a-z_0-9]+(\.h)?|sys/\w+\.h|linux/\w+\.h")

findings = []


def finding(where, text):
    where = os.path.relpath(where, TREE) if isinstance(where, Path) else where
    findings.append(f"{where}: {text}")


def run(*command):
    result = subprocess.run([str(c) for c in command], cwd=TREE, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return result.returncode, result.stdout.strip()


def blueprints():
    return sorted([TREE / "Android.bp", *(TREE / "activity_recognition").rglob("*.bp")])


def modules_of(path):
    """The modules as (type, properties). Enough for what bpfmt has passed and has no variables."""
    text = re.sub(r"//.*", "", path.read_text())
    text = re.sub(r"^( +)(\w+): ", r'\1"\2": ', text, flags=re.M)
    text = re.sub(r"\b(true|false)\b", lambda word: word[0].capitalize(), text)
    text = re.sub(r"^(\w+) {", r'("\1", {', text, flags=re.M)
    return ast.literal_eval("[" + re.sub(r"^}", "}),", text, flags=re.M) + "]")


def includes(path):
    return re.findall(r'^\s*#\s*include\s*(["<])([^">]+)', path.read_text(), re.M)


def device_sources():
    return sorted(p for folder in DEVICE for p in folder.rglob("*") if p.suffix in (".cpp", ".h"))


def check_hashes(_):
    """The interfaces are those that current.txt freezes."""
    status, output = run("scripts/update-current", "--check")
    if status:
        finding("current.txt", f"is not what the .hal files give\n{output}")


def check_blueprints(_):
    """Android.bp files: well-formed, complete, and naming only what exists."""
    modules = []
    for path in blueprints():
        status, output = run("bpfmt", "-l", path)
        if status or output:
            return finding(path, f"bpfmt: {output if status else 'not formatted'}")
        modules += [(path, kind, properties) for kind, properties in modules_of(path)]

    known = PLATFORM_MODULES | {properties["name"] for _, _, properties in modules}
    listed = set()
    for path, kind, properties in modules:
        for key in ("srcs", "init_rc", "version_script", "export_include_dirs", "data"):
            value = properties.get(key, [])
            for name in [value] if isinstance(value, str) else value:
                listed.add(path.parent / name)
                if not (path.parent / name).exists():
                    finding(path, f"{properties['name']}: {key} names {name}, which does not exist")
        for key in ("defaults", "interfaces", "shared_libs", "static_libs", "header_libs"):
            for name in sorted(set(properties.get(key, [])) - known):
                finding(path, f"{properties['name']}: {key} names {name}, which nothing defines")
        if kind.startswith("cc_") and "srcs" in properties:
            check_libraries(path, properties)
        if kind == "hidl_interface":
            declared = re.findall(r"^(?:struct|union|enum) (\w+)",
                                  (path.parent / "types.hal").read_text(), re.M)
            if sorted(declared) != properties["types"]:
                finding(path, f"types are not {sorted(declared)}")

    folders = {path.parent for path, _, _ in modules} - {TREE}
    files = {file for folder in folders for kind in ("cpp", "hal", "rc")
             for file in folder.rglob(f"*.{kind}")}
    for file in sorted(files - listed):
        finding(file, "is in no Android.bp")


def check_libraries(path, properties):
    """A module links the libraries whose headers it includes, and no others."""
    seen, wanted = set(), set()
    waiting = [path.parent / name for name in properties["srcs"]]
    while waiting:
        source = waiting.pop()
        if source in seen or not source.exists():
            continue
        seen.add(source)
        for quote, name in includes(source):
            if quote == '"':
                waiting += [source.parent / name, path.parent / name]
            for pattern, library in LIBRARIES:
                match = re.fullmatch(pattern, name)
                if match:
                    wanted.add(match.expand(library))
                    break
    # A generated interface header brings these in by itself.
    implied = {"libhidlbase", "libhidltransport", "libutils", f"{PACKAGE}@1.0"}
    if any(name.startswith(PACKAGE) for name in wanted):
        wanted |= implied
    linked = set(properties.get("shared_libs", []))
    other = {name.replace("_headers", "") for name in properties.get("header_libs", [])}
    other |= set(properties.get("static_libs", []))
    if "activity_recognition_native" in other:
        other.add("libhardware")  # its header includes that of libhardware
    if f"{PACKAGE}@1.1" in other:
        other |= {"libcutils", "libhwbinder", "liblog"}  # linked statically, it needs these beside it
    for library in sorted(wanted - linked - other):
        finding(path, f"{properties['name']}: a source needs {library}, not in shared_libs")
    for library in sorted(linked - wanted - other):
        finding(path, f"{properties['name']}: no source needs {library} of shared_libs")


def check_includes(_):
    """Sources for the device include the platform's headers and their own, and ask no questions."""
    for source in device_sources():
        for quote, name in includes(source):
            own = (source.parent / name).resolve()
            if quote == '"' and not (own.parent == source.parent and own.exists()):
                finding(source, f'includes "{name}", which is not its own')
            if quote == "<" and not (PLATFORM_HEADERS.fullmatch(name)
                                     or STANDARD_HEADERS.fullmatch(name)):
                finding(source, f"includes <{name}>, which is no header of the platform")
        for line in re.findall(r"^\s*#\s*(?:if|elif|ifdef|ifndef(?! [A-Z]\w+_H$))\b.*", source.read_text(), re.M):
            finding(source, f"is compiled in more than one way: {line.strip()}")


def check_language(build):
    """Library and service are gnu++14 without exceptions and RTTI, for both compilers."""
    flags = ["-fsyntax-only", "-std=gnu++14", "-fno-exceptions", "-fno-rtti", "-Wall", "-Wextra",
             "-Werror", "-Wno-unknown-attributes", "-isystem", build / "gen",
             "-isystem", "/usr/include/android", "-isystem", TREE / "host/include",
             "-I", TREE / "activity_recognition/native/include"]

    def compile_source(job):
        source, compiler = job
        status, output = run(*compiler, *flags, source)
        if status:
            finding(source, f"{compiler[0]} as gnu++14:\n{output}")

    with ThreadPoolExecutor(os.cpu_count()) as pool:
        list(pool.map(compile_source, itertools.product(
            sorted(DEFAULT.glob("*.cpp")),
            (["g++"], ["clang++", "-Wthread-safety"]))))


def check_symbols(build):
    """The factory is all that the implementation library exports."""
    library = build / f"hw/{IMPLEMENTATION}.so"
    status, output = run(os.environ.get("NM", "nm"), "-D", "--defined-only", library)
    names = [line.split()[-1] for line in output.splitlines()]
    if status or names != ["HIDL_FETCH_IActivityRecognition"]:
        finding(library, f"exports {output if status else names}")


def check_manifests(_):
    """The manifest, the matrix and the .rc speak of the service that Android.bp installs."""
    def entry(name):
        root = xml.parse(DEFAULT / name).getroot()
        return root.tag, root.get("format"), *(
            [e.text for e in root.findall(path)]
            for path in ("name", "version", "interface/name", "interface/instance", "transport"))

    instance = ["IActivityRecognition"], ["default"]
    for name, expected in (
            ("manifest.xml", ("hal", "hidl", [PACKAGE], ["1.1"], *instance, ["hwbinder"])),
            ("compatibility_matrix.xml", ("hal", "hidl", [PACKAGE], ["1.0-1"], *instance, []))):
        try:
            if entry(name) != expected:
                finding(DEFAULT / name, f"holds {entry(name)}, not {expected}")
        except xml.ParseError as error:
            finding(DEFAULT / name, error)

    modules = {p["name"]: p for _, p in modules_of(DEFAULT / "Android.bp")}
    rc = DEFAULT / modules[SERVICE]["init_rc"][0]
    text = rc.read_text()
    if not re.search(rf"^service \S+ {re.escape(BINARY)}$", text, re.M):
        finding(rc, f"starts no {BINARY}")
    for option in ("class hal", "user", "group"):
        if not re.search(rf"^    {option}\b", text, re.M):
            finding(rc, f"has no '{option}'")


def check_policy(_):
    """The SELinux samples: statements that m4 and the compiler can read, names that agree."""
    policy = {p: re.sub(r"#.*", "", p.read_text()) for p in (DEFAULT / "sepolicy").iterdir()}
    rules = "\n".join(text for path, text in policy.items() if path.suffix == ".te")
    attribute = re.search(r"hal_attribute\((\w+)\)", policy[DEFAULT / "sepolicy/attributes"])[1]
    known = set(re.findall(r"^type (\w+)", rules, re.M))
    known |= {f"hal_{attribute}{suffix}" for suffix in ("", "_client", "_server")}
    statement = r"type \w+(, \w+)*;|allow \w+ \w+:\w+ (\w+|{[ \w]+});|\w+\(\w+(, \w+)*\)"
    for path, text in policy.items():
        form = statement if path.suffix == ".te" or path.name == "attributes" \
            else r"\S+ +u:object_r:\w+:s0"
        for line in filter(None, map(str.strip, text.splitlines())):
            if not re.fullmatch(form, line):
                finding(path, f"not understood: {line}")
        for name in sorted(set(re.findall(r"\bhal_zaltho\w+", text)) - known):
            finding(path, f"uses {name}, which no rule declares")
    contexts = policy[DEFAULT / "sepolicy/hwservice_contexts"].split()
    if contexts[0] != f"{PACKAGE}::IActivityRecognition":
        finding(DEFAULT / "sepolicy/hwservice_contexts", f"labels {contexts[0]}")
    labelled = policy[DEFAULT / "sepolicy/file_contexts"].split()[0]
    if not re.fullmatch(labelled, BINARY):
        finding(DEFAULT / "sepolicy/file_contexts", f"{labelled} does not match {BINARY}")


def main():
    checks = {name[6:]: function for name, function in globals().items()
              if name.startswith("check_") and name != "check_libraries"}
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("checks", nargs="+", choices=checks)
    arguments = parser.parse_args()
    for name in arguments.checks:
        checks[name](arguments.build.resolve())
    if findings:
        print("\n".join(findings))
    return 1 if findings else 0


sys.exit(main())
