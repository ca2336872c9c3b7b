#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds what a device tree relies on and no compiler here would notice.

    check_tree.py BUILD CHECK...     one line per finding; exit status 1 if there is any
"""

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
DEVICE = [DEFAULT, DEFAULT.parent / "benchmark", DEFAULT.parent / "vts/functional",
          TREE / "activity_recognition/native/simulator"]
PACKAGE = "vendor.zaltho.hardware.activity_recognition"
SERVICE = f"{PACKAGE}@1.1-service"
NATIVE_HEADER = "zaltho/activity_recognition_native.h"

# What the modules here take from the rest of an Android 9 tree.
PLATFORM_MODULES = {
    "android.hidl.base@1.0", "hidl_defaults", "libbase_headers", "libcutils", "libgmock",
    "libhardware", "libhardware_headers", "libhidlbase", "libhidltransport", "libhwbinder",
    "liblog", "libutils",
    # Header libraries that the integrator brings for activityctl.
    "libcli11_headers", "libfmt_headers", "libnlohmann_json_headers",
}

# The platform's headers that sources for the device may include besides those of C, C++ and POSIX,
# and the library that each needs. By name: a header that only the host has must not pass because it
# sits in a folder of the platform.
PLATFORM_HEADERS = {
    r"hidl/(HidlTransportSupport|ServiceManagement)\.h": "libhidltransport",
    r"hidl/(HidlSupport|MQDescriptor|Status)\.h": "libhidlbase",
    r"hwbinder/(IPCThreadState|ProcessState)\.h": "libhwbinder",
    r"hardware/hardware\.h": "libhardware",
    r"utils/(Errors|KeyedVector|Log|Mutex|RefBase|SortedVector|StrongPointer|Timers|Vector)\.h":
        "libutils",
    r"cutils/(native_handle|trace)\.h": "libcutils",
    r"android-base/unique_fd\.h": "libbase",
    r"log/log\.h|android/log\.h": "liblog",
    rf"{PACKAGE.replace('.', '/')}/(1\.[01])/\w+\.h": rf"{PACKAGE}@\1",
    r"android/hidl/(base|manager)/1\.0/\w+\.h|(benchmark/benchmark|gtest/gtest)\.h|"
    r"zaltho/activity_recognition_native\.h":
        None,
}
STANDARD_HEADERS = r"[a-z_0-9]+(\.h)?|sys/\w+\.h|linux/\w+\.h"

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
            for pattern, library in PLATFORM_HEADERS.items():
                match = library and re.fullmatch(pattern, name)
                if match:
                    wanted.add(match.expand(library))
    # The native ABI is that of 64 bits, and the service loads what includes it. A tree with a second
    # architecture builds libraries, tests and benchmarks for both unless they say which.
    native = any(name == NATIVE_HEADER for source in seen for _, name in includes(source))
    if (native or properties["name"] == SERVICE) and properties.get("compile_multilib") != "64":
        finding(path, f'{properties["name"]}: has no compile_multilib: "64"')
    if native and "activity_recognition_native_headers" not in properties.get("header_libs", []):
        finding(path, f"{properties['name']}: a source needs activity_recognition_native_headers")
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
            if quote == "<" and not re.fullmatch("|".join([STANDARD_HEADERS, *PLATFORM_HEADERS]), name):
                finding(source, f"includes <{name}>, which is no header of the platform")
        for line in re.findall(r"^\s*#\s*(?:if|elif|ifdef|ifndef(?! [A-Z]\w+_H$))\b.*", source.read_text(), re.M):
            finding(source, f"is compiled in more than one way: {line.strip()}")


def check_language(build):
    """Library and service are gnu++14 without exceptions and RTTI, for both compilers."""
    flags = ["-fsyntax-only", "-std=gnu++14", "-fno-exceptions", "-fno-rtti", "-Wall", "-Wextra",
             "-Werror", "-Wno-unknown-attributes", "-DAR_VERSION=\"\"", "-isystem", build / "gen",
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
    library = build / f"hw/{PACKAGE}@1.1-impl.so"
    status, output = run(os.environ.get("NM", "nm"), "-D", "--defined-only", library)
    names = [line.split()[-1] for line in output.splitlines()]
    if status or names != ["HIDL_FETCH_IActivityRecognition"]:
        finding(library, f"exports {output if status else names}")


def check_samples(_):
    """Manifest, .rc and policy, which no tool here reads, name what is built here."""
    for name, version in (("manifest.xml", "1.1"), ("compatibility_matrix.xml", "1.0-1")):
        hal = xml.parse(DEFAULT / name).find("hal")
        named = [hal.findtext(path)
                 for path in ("name", "version", "interface/name", "interface/instance")]
        if named != [PACKAGE, version, "IActivityRecognition", "default"]:
            finding(DEFAULT / name, f"speaks of {named}")
    for name, text in ((f"{SERVICE}.rc", f" /vendor/bin/hw/{SERVICE}\n"),
                       ("sepolicy/file_contexts", f"/bin/hw/{SERVICE} ".replace(".", r"\.")),
                       ("sepolicy/hwservice_contexts", f"{PACKAGE}::IActivityRecognition ")):
        if text not in (DEFAULT / name).read_text():
            finding(DEFAULT / name, f"does not name {text.strip()}")

    product = DEFAULT.parents[1] / "activity_recognition.mk"
    text = product.read_text()
    packages = set(re.findall(r"\b(\S+@\S+) ?\\?$", text, re.M))
    if packages != {SERVICE, f"{PACKAGE}@1.1-impl"}:
        finding(product, f"installs {sorted(packages)}")
    folder = re.search(r"_dir := hardware/zaltho/interfaces/(\S+)", text)[1]
    for name in re.findall(r"_dir\)/(\S+)", text):
        if not (TREE / folder / name).exists():
            finding(product, f"names {folder}/{name}, which does not exist")

    policy = "\n".join(re.sub(r"#.*", "", p.read_text()) for p in (DEFAULT / "sepolicy").iterdir())
    known = set(re.findall(r"^type (\w+)", policy, re.M))
    for attribute in re.findall(r"hal_attribute\((\w+)\)", policy):
        known |= {f"hal_{attribute}{suffix}" for suffix in ("", "_client", "_server")}
    for name in sorted(set(re.findall(r"\bhal_zaltho\w+", policy)) - known):
        finding(DEFAULT / "sepolicy", f"uses {name}, which no rule declares")
    for line in re.findall(r"^(?:type|allow)\b.*[^;\n]$", policy, re.M):
        finding(DEFAULT / "sepolicy", f"has no semicolon: {line}")


def check_version(build):
    """One version: that of CMakeLists.txt in each tool and each Android.bp."""
    version = re.search(r"project\(.* VERSION ([0-9.]+) ", (TREE / "CMakeLists.txt").read_text())[1]
    for path in blueprints():
        for told in re.findall(r'-DAR_VERSION=\\"(.*?)\\"', path.read_text()):
            if told != version:
                finding(path, f"says {told}, CMakeLists.txt {version}")
    for tool in ("activityctl", "modulecheck", "lshal", "activity_recognition_demo", SERVICE,
                 "VtsHalActivityRecognitionV1_1TargetTest"):
        status, output = run(build / "bin" / tool, "--version")
        if status or output != f"{tool} {version}":
            finding(tool, f"--version says {output}, exit status {status}")
    if not re.search(rf"^## {re.escape(version)}$", (TREE / "CHANGELOG.md").read_text(), re.M):
        finding("CHANGELOG.md", f"does not tell of {version}")


def log_texts():
    """What the library and the service write, as (tag, text): each with the letters of its levels, where
    it says them on the spot."""
    literal = r'"((?:[^"\\]|\\.)*)"'
    both = ("AR_impl", "AR_impl_Env")  # what headers write, with the tag of whoever includes them
    texts = {}
    for path in sorted(p for p in DEFAULT.iterdir() if p.suffix in (".cpp", ".h")):
        source = re.sub(r'^#include.*|//.*|static_assert\([^"]*("[^"]*"[^")]*)+', "", path.read_text(),
                        flags=re.M)
        tags = re.findall(f"#define LOG_TAG {literal}", source) or both
        if tags is both and path.suffix == ".cpp":
            continue  # it logs nothing
        for match in re.finditer(r"(?:(?:ALOG|ANDROID_LOG_)([VDIWE])(?:\(|\w+, [\w.]+,)|FATAL_IF\((?=(\w+)))?"
                                 rf"\s*(?:{literal}(?:\s*{literal})*)?", source):
            level, condition = match[1], match[2]
            text = "".join(re.findall(literal, match[0]))
            if condition:
                text, level = f"Assertion failed: {condition}", "F"
            elif path.name == "service.cpp" and not level or text == "%s":
                continue  # the command line's
            # Single words are names that texts are given, unless they are printed as they are.
            if text and (level or re.search(r"\s|%", text)):
                for tag in tags:
                    texts.setdefault((tag, text), set()).update(level or "")
    return texts


def check_log(_):
    """docs/log.md has each text that a device prints, under its tag and with its level, and no other."""
    page = TREE / "docs/log.md"
    documented = {}
    for section in re.split(r"^## ", page.read_text(), flags=re.M)[1:]:
        for text, levels in re.findall(r"^\| `(.+?)` \| ([A-Z, ]+) \|", section, re.M):
            documented[section.split("\n")[0], text] = set(levels.split(", "))
    written = log_texts()
    for key in sorted(written.keys() | documented.keys()):
        if key not in documented or key not in written:
            finding(page, f"{': '.join(key)}: is {'missing' if key in written else 'nowhere written'}")
        elif not written[key] <= documented[key]:
            finding(page, f"{': '.join(key)}: is written at level {sorted(written[key])}")


def check_licence(_):
    """Every source says under which licence it stands."""
    # What the guides have people make here is theirs.
    made = {line.strip("/") for line in (TREE / ".gitignore").read_text().split()}
    for path in sorted(p for p in TREE.rglob("*") if p.is_file()):
        top = path.relative_to(TREE).parts[0]
        if top in made or top[0] == ".":
            continue
        head = path.read_text(errors="replace").split("\n", 3)[:3]
        if (path.suffix in (".cpp", ".h", ".hal", ".py", ".sh", ".cmake", ".bp")
                or path.name == "CMakeLists.txt" or head[0].startswith("#!")) \
                and not any("SPDX-License-Identifier: Apache-2.0" in line for line in head):
            finding(path, "has no SPDX-License-Identifier in its first three lines")


def check_lifecycle(_):
    """Every row of the contract names tests that exist."""
    page = TREE / "docs/lifecycle.md"
    built = "".join(list_.read_text() for list_ in [*(TREE / "tests").rglob("CMakeLists.txt"), TREE / "fuzz/CMakeLists.txt"])
    known = set(re.findall(r"add_test\(NAME (?:process\.)?([\w.]+)", built))
    known |= {f"fuzz.{target}" for target in re.findall(r"^fuzz_target\((\w+)", built, re.M)}
    for source in [*(TREE / "tests").rglob("*Test.cpp"), *DEFAULT.parent.rglob("*Test.cpp")]:
        known |= {".".join(name) for name in
                  re.findall(r"^(?:TYPED_)?TEST(?:_[FP])?\((\w+),\s*(\w+)\)", source.read_text(), re.M)}
    rows = re.findall(r"^\| (\d+) \|.*\| ([^|]*) \|$", page.read_text(), re.M)
    if [int(number) for number, _ in rows] != list(range(1, len(rows) + 1)) or len(rows) < 10:
        finding(page, "its rows are not numbered from 1")
    for number, shown in rows:
        names = [re.sub(r"/\d+", "", name) for name in re.findall(r"`([^`]*)`", shown)]
        for name in [name for name in names if name not in known] or ([] if names else ["nothing"]):
            finding(page, f"row {number} names {name}, which is no test")


for check in sys.argv[2:]:
    globals()[f"check_{check}"](Path(sys.argv[1]).resolve())
sys.exit("\n".join(findings) or 0)
